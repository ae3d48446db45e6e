// Sends what a unit's serial ports received (Uart, firmware/uart.hpp) to the host, on the
// command link, as START_UART_READING frames [port, 0x80, bytes...]. Event driven, as StreamSender:
// while paced bytes are on their way a timer wakes it when the next are due (at most every
// kTick); fast sources go out as long as the link takes them, and a link that takes no more is
// waited for (its drain). Nothing runs while no port has anything coming.
//
// A payload that the host would read as a false frame (link/frame_guard.hpp) is sent shorter, up to
// the false start byte, so that the host counts every byte; the data is never changed.
#pragma once

#include <cstdint>

#include "link/event_loop.hpp"
#include "link/link.hpp"

namespace sim {

class Unit;
class Uart;

class UartSender {
public:
    static constexpr Clock::duration kTick = std::chrono::milliseconds(5);
    // Bytes a payload carries at most; the length field would allow nearly twice as many.
    static constexpr std::size_t kPayloadBytes = 16384;

    UartSender(EventLoop& loop, Unit& unit);
    UartSender(const UartSender&) = delete;
    UartSender& operator=(const UartSender&) = delete;

    // Something may have changed (a request, a control line, a new link): look again soon.
    void poke();
    // The link took all it was given: a port with a packet's worth ready (a fast source) goes on
    // at once, paced bytes at the tick, so that their payloads do not shrink to one drain's bytes.
    void linkDrained();
    // With no host left on the command channel, reception ends.
    void linkClosed();

    std::uint64_t shortened() const { return shortened_; }

private:
    Uart* uart() const;
    void round();
    void schedule(Clock::time_point when) { timer_.schedule(when); }

    Unit& unit_;
    std::uint64_t shortened_ = 0;  // payloads cut short against a false frame
    Clock::time_point last_sent_{};  // the last round that sent a payload
    RoundTimer timer_;  // last: it goes first, before what its round reads
};

}  // namespace sim
