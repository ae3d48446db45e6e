// One emulated unit: its listening ports or its USB device, the links of its host, the request parser of each link,
// its firmware model, the faults a test set on it, its traffic log, and the queue of replies on
// their way out (replies leave in the order they were made; a delayed reply holds back the ones
// behind it, as a firmware that answers one request after another would).
#pragma once

#include <netinet/in.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "link/event_loop.hpp"
#include "control/faults.hpp"
#include "firmware/firmware.hpp"
#include "link/frame.hpp"
#include "link/link.hpp"
#include "streams/can.hpp"
#include "streams/analog.hpp"
#include "link/tcp.hpp"
#include "link/transport.hpp"
#include "streams/uart.hpp"
#include "control/traffic_log.hpp"

namespace sim {

struct UnitConfig {
    const torvik::products::Product* product = nullptr;
    in_addr addr{};
    std::string addr_text;
    std::uint16_t cmd_port = 7;
    std::uint16_t data_port = 1336;  // Wi-Fi units only
    std::string serial;
    // The CAN bus of a unit with a CAN port; "" is a bus of its own.
    std::string can_bus;
    // USB units: on the emulated bus instead of at an address; addr_text is "usb:N".
    bool usb = false;
    UsbDeviceConfig usb_device;
};

class Unit : public LinkEvents {
public:
    struct Counters {
        std::uint64_t frames = 0;   // requests received
        std::uint64_t replies = 0;  // frames sent as replies (a duplicate counts twice)
        std::uint64_t dropped = 0;  // replies dropped on purpose
        std::uint64_t lost = 0;     // replies whose link closed or went silent before they were due
        std::uint64_t padded = 0;   // zero bytes added to replies the host would have cut short
    };

    // A USB unit plugs into `bus` at once (throws std::runtime_error without one).
    Unit(EventLoop& loop, UnitConfig config, Clock::time_point epoch, DeviceBus* bus = nullptr);
    ~Unit() override;

    // Binds the ports of a network unit; throws std::system_error.
    void listen();

    std::string_view className() const { return config_.product->class_name; }
    bool hasData() const { return data_ != nullptr; }
    const UnitConfig& config() const { return config_; }
    std::uint16_t cmdPort() const { return tcp_ ? tcp_->port() : 0; }
    std::uint16_t dataPort() const { return data_ ? data_->port() : 0; }
    // "<class> <addr> cmd=<port> data=<port or -> serial=<serial>", and for USB units
    // "<class> usb:<n> cmd=- data=- serial=<serial> product=<product string>"
    std::string describe() const;

    Faults& faults() { return faults_; }
    Firmware& firmware() { return *firmware_; }
    // Who the unit is to its firmware; a fresh model firmware starts from this.
    UnitIdentity identity() const;
    void setFirmware(std::unique_ptr<Firmware> firmware) {
        firmware_ = std::move(firmware);
        can_sender_->attach();
    }
    TrafficLog& log() { return log_; }
    // What sends the analog input stream of the firmware.
    StreamSender& sender() { return *sender_; }
    // What sends the frames its CAN controller receives.
    CanSender& canSender() { return *can_sender_; }
    // What sends the bytes its serial ports receive.
    UartSender& uartSender() { return *uart_sender_; }
    const Counters& counters() const { return counters_; }
    std::size_t junk() const;

    // Null if the unit has no such channel.
    Transport* transport(Channel channel);

    // Sends bytes now on the newest writable link of the channel; false if there is none.
    bool writeNow(Channel channel, std::span<const std::uint8_t> bytes);
    // FIN / RST on every link of the channel; returns how many links there were.
    std::size_t finish(Channel channel);
    std::size_t abort(Channel channel);

    // A discovery request heard over UDP: the frames the unit answers with (each as many times as
    // set), none from a USB unit. Logged on the udp channel; scripted replies, silence and the
    // firmware's answer apply as on the command link.
    std::vector<Bytes> answerBroadcast(const Frame& request);
    void setBroadcastCopies(unsigned copies) { broadcast_copies_ = copies; }
    unsigned broadcastCopies() const { return broadcast_copies_; }
    // Listens at another address from now on (host byte order); false if it cannot, and nothing
    // changes. Connections made to the old address are reset.
    bool moveTo(std::uint32_t ipv4);

    // Called whenever links or the log changed, for whoever waits on them.
    std::function<void()> on_change;

private:
    void linkOpened(Link& link) override;
    void linkReceived(Link& link, std::span<const std::uint8_t> bytes) override;
    void linkClosed(Link& link) override;
    void linkDrained(Link& link) override;

    // `padded`: guard a firmware reply against being cut short by the host (not scripted ones,
    // which tests write byte for byte, nor stream data, whose producer guards it itself).
    void queueReply(Link& link, Frame reply, bool padded);
    void pump();
    void changed() {
        if (on_change) on_change();
    }

    struct Pending {
        Clock::time_point due;
        Channel channel;
        std::uint64_t link;
        Bytes bytes;
    };

    EventLoop& loop_;
    UnitConfig config_;
    std::unique_ptr<Firmware> firmware_;
    Faults faults_;
    TrafficLog log_;
    Counters counters_;
    std::unique_ptr<TcpPort> tcp_;   // network units
    std::unique_ptr<Transport> usb_; // USB units
    Transport* cmd_;                 // one of the two
    std::unique_ptr<TcpPort> data_;  // Wi-Fi units only
    std::map<Link*, RequestParser> parsers_;
    std::size_t junk_of_closed_ = 0;
    std::deque<Pending> outbox_;  // due times never decrease along the queue
    unsigned broadcast_copies_ = 1;
    EventLoop::TimerId outbox_timer_ = 0;
    std::unique_ptr<StreamSender> sender_;  // last: it goes first, with its timer
    std::unique_ptr<UartSender> uart_sender_;
    std::unique_ptr<CanSender> can_sender_;
};

}  // namespace sim
