// The serial ports of a unit (products with a uart table) and what stands at their far ends.
// Every request starts with the port; replies are [port, status], WRITE_UART's [port, count,
// status]; status 7 when the unit refuses (no such port, port closed, bad setting).
//
//   OPEN_UART           [port] or [port, baud u32, data size, parity, stop bits]: the port opens,
//                       with whatever settings the payload gives (the others stay); its pins go
//                       into UART mode (ProductFirmware sees to the pins)
//   START_UART_READING  no reply: from now on received bytes go to the host under this code, as
//                       [port, 0x80, bytes...]
//   STOP_UART_READING   they no longer do; bytes arriving meanwhile are lost, as on a port whose
//                       receiver is off, and so are those received but not sent yet
//   CLOSE_UART          stops reading and closes the port; what was on its way is lost
//   WRITE_UART          [port, n, n bytes]: out on the line (and back, with the loopback on)
//   RESET_UART          the line and the receive buffer are emptied
//   SET_UART_BAUD_RATE  u32, 1..400000; SET_UART_DATA_SIZE 0..1; SET_UART_PARITY 0..3;
//   SET_UART_NUM_STOP_BITS 0..3 (1, 0.5, 2, 1.5 bits)
//
// The far end of a port: a loopback (what the port writes comes back, at the baud rate or at
// once) and a talker that the control channel scripts: given bytes at the baud rate, a steady
// count 0, 1, ... 255, 0, ... at a given byte rate or as fast as the link takes it, or a burst
// of the count at once whatever the baud rate. A silent far end sends nothing.
//
// Bytes that arrived wait in the receive buffer (kBufferBytes) until the link takes them; paced
// bytes that find it full are lost and counted. The fast sources make only what the link takes.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <vector>

#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

class Uart {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    static constexpr std::size_t kBufferBytes = 65536;
    static constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::uint8_t kUartError = 7;

    enum class Loopback { Off, Paced, Fast };
    struct Counters {
        std::uint64_t written = 0;   // bytes the host wrote
        std::uint64_t received = 0;  // bytes that arrived while reading
        std::uint64_t sent = 0;      // bytes sent to the host
        std::uint64_t payloads = 0;  // stream frames sent
        std::uint64_t lost = 0;      // arrived to a full buffer
        std::uint64_t ignored = 0;   // arrived while not reading, or not sent when reading stopped
    };
    struct Port {
        int number = 0;
        std::vector<PinRef> pins;
        bool open = false, reading = false;
        std::uint32_t baud = 115200;
        std::uint8_t data_size = 0, parity = 0, stop = 0;
        Loopback loopback = Loopback::Off;
        bool silent = false;
        std::deque<std::uint8_t> line;  // on its way at the baud rate
        TimePoint line_next{};          // when line.front() arrives
        std::deque<std::uint8_t> buffer;
        double stream_rate = 0;         // bytes per second; 0: as fast as the link takes
        std::uint64_t stream_left = 0;  // bytes of the steady count still to come
        TimePoint stream_anchor{};
        std::uint64_t stream_paced = 0;  // bytes the rate schedule has made since the anchor
        std::uint64_t burst_left = 0;
        std::uint8_t count = 0;  // next byte of the count
        Counters counters;
    };

    explicit Uart(const torvik::products::Product& product);

    bool present() const { return !ports_.empty(); }
    static bool isUartCode(std::uint16_t code);
    Port* port(int number);
    std::vector<Port>& ports() { return ports_; }

    // The reply to a request; nothing for START_UART_READING.
    std::optional<Bytes> handle(std::uint16_t code, const Bytes& payload, TimePoint now);

    // ---- the far end, for the control channel -------------------------------------------------
    void talk(Port& p, const Bytes& bytes, TimePoint now);
    // `rate` 0: as fast as the link takes; `bytes` kEndless for no end; 0 stops the stream.
    void stream(Port& p, double rate, std::uint64_t bytes, TimePoint now);
    void burst(Port& p, std::uint64_t bytes) { p.burst_left += bytes; }
    // A silent far end sends nothing; speaking again, a paced stream goes on from `now` at its
    // rate, without making up for the silence.
    void setSilent(Port& p, bool on, TimePoint now);
    // Faults off: silent far ends speak again, bursts pending are dropped.
    void clearFaults(TimePoint now);

    // ---- the receive path, as the sender drives it --------------------------------------------
    // Bytes due by `now` at their pace arrive.
    void advance(TimePoint now);
    // Up to `max` bytes ready for the host at `p` (the fast sources fill up to that); the bytes
    // stay until consume().
    const std::deque<std::uint8_t>& ready(Port& p, std::size_t max);
    void consume(Port& p, std::size_t n);
    // Whether a fast source or the buffer has bytes for the host now.
    bool hasReady() const;
    // When the next paced byte arrives, if any will.
    std::optional<TimePoint> nextDue() const;
    // The host is gone: reading ends everywhere and buffers are emptied.
    void abort();
    // The unit restarts.
    void reset();

    static double bytesPerSecond(const Port& p);

private:
    void arrive(Port& p, std::uint8_t byte);
    bool fastSource(const Port& p) const;

    std::vector<Port> ports_;
};

}  // namespace sim
