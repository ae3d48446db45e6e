// The control channel: a Unix stream socket on which tests steer the emulator, one request line,
// one response line ("ok ..." or "err <reason>"). Any number of clients; each client's lines are
// answered in order, and a "wait" holds back that client's later lines until it is answered.
//
// SEL picks a unit: its serial number or its address (if no other unit shares it), ADDR:CMDPORT, or
// usb:N for a USB unit.
// CODE is a command name (GET_DRIVER_INFO), a decimal number, or 0x-hex. HEX is hex digits, "-" for
// none. CHAN is cmd or data (default cmd). SECONDS may have a fraction.
//
//   ping                               ok
//   units                              ok <unit>;<unit>...   each as in the ready lines, no "unit "
//   reply SEL CODE HEX                 answer CODE with this payload instead of the firmware's
//   reply SEL CODE none                do not answer CODE
//   reply SEL CODE default             the firmware answers CODE again
//   status SEL BYTE next=N             the next N replies carry BYTE as firmware status, where the
//                                         firmware puts it (index 0 in system and network
//                                         replies, else index 1)
//   status SEL BYTE code=CODE          every reply to CODE carries BYTE so
//   status SEL clear                   both of the above off
//   delay SEL SECONDS next=N           hold each of the next N replies back so long
//   delay SEL SECONDS                  hold every reply back so long (0: off)
//   drop SEL N                         drop the next N replies
//   dup SEL N                          send each of the next N replies twice
//   send SEL CHAN HEX                  write raw bytes now on the newest link of CHAN
//   frame SEL CHAN CODE HEX            write one well-formed unit frame now
//   shutdown SEL [CHAN|both]           FIN on every link of CHAN; they stay open for reading
//   reset SEL [CHAN|both]              RST on every link of CHAN
//   silent SEL                         hear requests (they are logged) but do not act or answer
//   resume SEL                         act and answer again
//   clear SEL                          every fault and scripted reply off, stream faults included
//                                         (the log stays)
//   discovery SEL [copies=N]           ok copies=N heard=N   a network unit answers each discovery
//                                         broadcast N times (default 1; 0: not at all); heard:
//                                         broadcasts received. Broadcasts are logged with conn
//                                         "udp", link 0; "reply" scripts their answers too (the
//                                         whole payload, the leading 1 included)
//   log SEL                            ok [{"t":S,"conn":"cmd","link":N,"code":N,"data":"HEX"},...]
//   clearlog SEL                       empty the traffic log
//   stats SEL                          ok cmd.accepted=N cmd.open=N data.accepted=N data.open=N
//                                         frames=N replies=N dropped=N lost=N junk=N
//                                      USB units add usb.plugged=0|1, and while plugged usb.bus=N
//                                         usb.address=N usb.driver=0|1 (a kernel driver bound)
//
// USB units (a link is one open of the device by the host; a unit sends whole 64-byte packets,
// zero-padded):
//   add usb CLASS:SERIAL[,product=TEXT][,transfer=bulk|interrupt]
//                                      ok <unit>   plugs a new unit in (as --usb does)
//   remove SEL                         the unit is unplugged and forgotten
//   unplug SEL                         off the bus: the host's pending and later I/O fails
//   replug SEL                         back on the bus, at a new address, with the same faults
//   transfers SEL                      ok HEX HEX ...   the host's OUT transfers as they arrived
//                                         stream.frames=N stream.payloads=N stream.nudges=N
//                                         stream.unclean=N  (analog input frames and payloads
//                                         sent, samples nudged against false frames, payloads
//                                         sent with one all the same)
//   wait SEL open [CHAN] [timeout=S]           a link of CHAN is open (connected or half-closed)
//   wait SEL closed [CHAN] [timeout=S]         no link of CHAN is open
//   wait SEL accepted N [CHAN] [timeout=S]     N links of CHAN have been accepted in all
//   wait SEL frames N [code=CODE] [timeout=S]  the log holds N frames (of CODE)
//                                     waits answer "ok" at once if true, else when it comes true,
//                                     or "err timeout" (default timeout 5 s)
//
// The unit's firmware model (firmware/product.hpp); P.N is pin N of hardware port P:
//   firmware SEL echo|model            answer every code with [port, 0] (tests of framing and
//                                         faults), or with the product's model, started afresh
//   firmware SEL model CLASS           the model of another product, on this unit's links (a USB
//                                         product's firmware on a network unit, for benchmarks
//                                         of the host without the emulated USB link)
//   pinmode SEL PORT                   ok MODE... of each pin of the port, as the unit reports them
//   pinmode SEL P.N MODE               give the pin a mode (name or 0..9): DI/DO open it for
//                                         digital I/O, Idle frees it, any other mode lets that
//                                         function hold it
//   wiring SEL                         ok P.N-P.N...  the loopback wires
//   wiring SEL add P.N-P.N...          join pins (a pin has one wire: its old one goes)
//   wiring SEL clear|default           no wires, or the product's default wiring
//   levels SEL PORT VALUE [mask=M]     levels on the input pins of the port where no wire drives them
//   dio SEL PORT                       ok enabled=0xHHHH direction= state= driven= levels=
//                                         start.enabled= start.direction= start.state=
//   clock SEL                          ok YYYY-MM-DDTHH:MM:SS run|hold
//   clock SEL YYYY-MM-DDTHH:MM:SS [run|hold]   set the clock; hold stops it there
//   sensors SEL [rssi=DBM] [battery=N] [thermo=N] [accel=X,Y,Z]
//                                      set on-board sensor readings (Wi-Fi units; thermo in
//                                         1/128 degrees C); ok rssi=.. battery=.. thermo=.. accel=..
//
// Analog input and output (firmware/ai.hpp, firmware/ao.hpp, streams/analog.hpp). CH is a channel
// of the input, from 0. The stream goes on the data connection of a Wi-Fi unit, else on the
// command connection:
//   wave SEL                           ok 0:KIND ARGS;1:KIND ARGS;...  each channel's waveform
//   wave SEL default                   every channel back to its default: channel 0 a counter from
//                                         0, channel k a sine of half full scale and a period of
//                                         20 x 2^k samples; on a unit with analog outputs
//                                         (TorvikUsbMixed) channel k reads output channel k
//   wave SEL CH counter [from=N]       counts N + frame index (mod 65536, read as signed)
//   wave SEL CH sine A O P             volts O + A sin(2 pi x / P)
//   wave SEL CH ramp LOW HIGH P        sawtooth from LOW to HIGH over P
//   wave SEL CH const V                volts V
//   wave SEL CH raw N                  counts N exactly (-32768..32767)
//   wave SEL CH ao K                   what output channel K of this unit puts out now (the wire
//                                         from an output to an input)
//                                      P: samples ("40", x is the frame index) or seconds ("0.5s",
//                                         x is the sample's time); volts become counts at the
//                                         product's volts per count, rounded, held to 16 bits
//   pace SEL realtime|fast [frames=N]  at the configured rate (default), or as fast as the link
//                                         takes it, N frames a payload (default 600)
//   burst SEL N                        N more frames as fast as the link takes them, whatever
//                                         the rate, mode or state (overdrives the host)
//   badlength SEL [K]                  one payload of one frame and K more bytes (default 1)
//   stall SEL on|off                   the stream stops leaving while the acquisition runs on (its
//                                         buffer fills and overflows); off: it leaves again
//   guard SEL on|off                   nudge samples that would make a false frame (default on)
//   ai SEL                             ok open= mode= rate= samples= running= port= code= conn=
//                                         index= buffered= lost= empty= full= max= pace= frames=
//                                         stall= guard= burst=   (index: frames taken so far)
//   ao SEL                             ok open= running= mode= rate= samples= enabled=0xHH
//                                         values=V,...  forms=F,... amplitudes=A,... offsets=O,...
//                                         periods=P,...   (values: what the outputs put out now)
//
// CAN (firmware/can.hpp, firmware/can_bus.hpp, streams/can.hpp). ID is decimal or 0x-hex; a frame is
// written ID:std|ext:data|remote:HEX (eight data bytes). Every bus has a tester node that
// acknowledges frames, keeps those it hears (the first 100000) and sends what it is told:
//   can SEL                            ok bus=NAME nodes=N open= started= port= speed=KBITS
//                                         filtering= rollover= interrupts= buffered= held=
//                                         counters=TXI,RXI,SPI,SENT,BUSERR,OVERFLOW tec= rec=
//                                         filters=HEX,... masks=HEX,HEX  (identifier words)
//                                         sent=N payloads=N shortened=N unclean=N frames=N burst=N
//                                         stream=off|rate:R|fast seq=N heard=N  (frames the
//                                         tester heard in all)
//   can SEL bus NAME|own               put the unit's controller on the bus NAME, shared with every
//                                         unit that names it, or on a bus of its own
//   can SEL send ID HEX|- [ext] [remote]
//                                      the tester sends one frame (standard data by default)
//   can SEL stream rate=R|fast [id=ID] [ext] [remote] [count=N]
//                                      the tester streams frames, R a second or as fast as the
//                                         receiving units' links take them (count: then it
//                                         stops); each data frame carries its sequence number
//   can SEL stream off                 no more
//   can SEL heard [clear]              ok FRAME FRAME ...  what the tester heard, oldest first
//   can SEL frames N                   frames a stream payload carries at most (default 600)
//   can SEL burst N                    N more stream frames to this unit's host as fast as the
//                                         link takes them, whatever the controller's state
//   can SEL badlength [K]              one stream payload of one frame and K more bytes
//                                         (default 1)
// Temperature channels and relay counters (firmware/thermal.hpp, firmware/relay.hpp):
//   thermal SEL PORT CH [temp=C] [drift=C] [junction=C] [open=0|1] [faults=N]
//                                      set what channel CH of thermal port PORT senses: the
//                                         temperature (drift: amplitude of its slow swing, 0 holds
//                                         it), the cold junction's temperature, an open circuit,
//                                         further fault register bits; answers
//                                         ok temp= drift= now= junction= junction_on=
//                                         written_junction= offset= saved_offset= filter=
//                                         oversampling= type= open= faults=0xHH port_open=
//   relays SEL [N...]                  ok N...  each relay's switching count; given one count a
//                                         relay, sets them first
//
// Serial buses (firmware/uart.hpp, firmware/i2c.hpp, firmware/spi.hpp, streams/uart.hpp); PORT is
// the bus's port number as the host names it:
//   uart SEL PORT                      ok open= reading= baud= data= parity= stop=
//                                         loopback=off|paced|fast silent= stream=off|RATE|max
//                                         line= buffered= burst= written= received= sent=
//                                         payloads= lost= ignored= shortened=   (line: bytes on
//                                         the wire; lost: arrived to a full buffer; ignored:
//                                         arrived while not reading; shortened: payloads cut
//                                         short against a false frame, all ports)
//   uart SEL PORT loopback off|paced|fast   what the port writes comes back, at the baud rate
//                                         or at once
//   uart SEL PORT send HEX             the far end sends these bytes, at the baud rate
//   uart SEL PORT stream RATE|max [bytes=N]  the far end sends the count 0, 1, .. 255, 0, .. at
//                                         RATE bytes a second, or as fast as the link takes it;
//                                         N bytes (default: no end), while the port reads
//   uart SEL PORT stream off
//   uart SEL PORT burst N              N bytes of the count at once, as fast as the link takes
//                                         them, whatever the baud rate (overruns the host)
//   uart SEL PORT silent on|off        the far end stops sending, loopback included
//   i2c SEL PORT                       ok open= frequency= addrsize= eeprom=0xAA size= page=
//                                         pointer= silent= nacks=
//   i2c SEL PORT eeprom ADDR [size=N] [page=N]   a fresh EEPROM (erased, 0xFF) at 7-bit ADDR;
//                                         default 0x50, 256 bytes, pages of 16
//   i2c SEL PORT silent on|off         the EEPROM stops acknowledging: NACK (status 5)
//   i2c SEL PORT memory FROM N         ok HEX   N bytes of the EEPROM from FROM
//   spi SEL PORT                       ok open= device=loopback|pattern:HEX silent= transfers=
//                                         mosi=HEX (the last transfer) datasize= firstbit=
//                                         prescaler= cpol= cpha=
//   spi SEL PORT loopback              MISO echoes MOSI (the default)
//   spi SEL PORT pattern HEX           MISO answers HEX, repeated, from its start each transfer
//   spi SEL PORT silent on|off         nothing answers: MISO reads 0xFF
// "clear" also makes silent far ends speak again and drops pending bursts.
//
// Counters in "next=N", drop and dup count replies on their way out; a dropped reply is not counted
// by the others. Setting one again replaces its count.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "link/event_loop.hpp"
#include "unit.hpp"

namespace sim {

class ControlServer {
public:
    // `bus` may be null (no USB units then); new units' logs count from `epoch`.
    ControlServer(EventLoop& loop, std::vector<std::unique_ptr<Unit>>& units, DeviceBus* bus = nullptr,
                  Clock::time_point epoch = Clock::now());
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Binds and listens at `path`, which must not exist yet; removed again at destruction.
    void listen(const std::string& path);

private:
    struct Client {
        int fd = -1;
        std::string in, out;
        bool waiting = false;
    };
    struct Waiter {
        Client* client;
        Unit* unit;
        std::function<bool()> done;
        EventLoop::TimerId timer;
    };

    void onAccept();
    void onClient(Client* client, std::uint32_t events);
    void process(Client* client);
    void respond(Client* client, const std::string& line);
    void flush(Client* client);
    void drop(Client* client);
    void recheck();
    void finishWait(std::list<Waiter>::iterator it, const std::string& line);

    // The response line, or nothing if a wait now stands for it.
    std::optional<std::string> execute(Client* client, const std::string& line);
    std::string addUnit(const std::vector<std::string>& words);
    void removeUnit(Unit* unit);

    EventLoop& loop_;
    std::vector<std::unique_ptr<Unit>>& units_;
    DeviceBus* bus_;
    Clock::time_point epoch_;
    unsigned usb_units_ = 0;  // USB units made so far, for their usb:N names
    std::string path_;
    int fd_ = -1;
    std::list<std::unique_ptr<Client>> clients_;
    std::list<Waiter> waiters_;
};

}  // namespace sim
