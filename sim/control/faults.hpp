// Faults a test injects into a unit's replies, and replies it scripts in place of the firmware's.
// Counters ("the next N replies") count replies on their way out, in the order the firmware made
// them; a reply that is dropped is not seen by the later stages.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "link/event_loop.hpp"
#include "link/frame.hpp"

namespace sim {

// What becomes of one reply.
struct Shaping {
    bool drop = false;
    int copies = 1;
    Clock::duration delay{};
};

class Faults {
public:
    // Scripted replies by code: a payload, or no reply at all (nullopt).
    void setReply(std::uint16_t code, std::optional<Bytes> payload) { scripted_[code] = std::move(payload); }
    void clearReply(std::uint16_t code) { scripted_.erase(code); }
    // Null when the firmware answers this code itself.
    const std::optional<Bytes>* scripted(std::uint16_t code) const;

    // Firmware status, at the index where the firmware puts it in the reply: for the next `count`
    // replies, or for every reply to a code.
    void statusNext(std::uint8_t status, unsigned count) { status_next_ = {status, count}; }
    void statusFor(std::uint16_t code, std::uint8_t status) { status_by_code_[code] = status; }
    void clearStatus();

    void delayNext(Clock::duration delay, unsigned count) { delay_next_ = {delay, count}; }
    void delayAll(Clock::duration delay) { delay_all_ = delay; }
    void dropNext(unsigned count) { drop_next_ = count; }
    void duplicateNext(unsigned count) { dup_next_ = count; }

    void setSilent(bool silent) { silent_ = silent; }
    bool silent() const { return silent_; }

    void clear() { *this = Faults{}; }

    // Takes one reply on its way out; may set its status byte, at `status_index`.
    Shaping shape(Frame& reply, std::size_t status_index = 1);

private:
    std::map<std::uint16_t, std::optional<Bytes>> scripted_;
    std::pair<std::uint8_t, unsigned> status_next_{0, 0};
    std::map<std::uint16_t, std::uint8_t> status_by_code_;
    std::pair<Clock::duration, unsigned> delay_next_{Clock::duration{}, 0};
    Clock::duration delay_all_{};
    unsigned drop_next_ = 0;
    unsigned dup_next_ = 0;
    bool silent_ = false;
};

}  // namespace sim
