// Sends what a unit's CAN controller received to its host, as START_CAN stream frames on the
// command link: [port, 0] and then 12 bytes a frame. Event driven like the analog stream
// (streams/analog.hpp): frames entering the controller's buffer wake it; a link that takes no more
// is waited for (its drain), never polled. It also drives the bus tester's stream for its bus: a
// stream at a rate ticks while it runs; a fast stream makes as many frames as this unit's link
// takes while the unit receives.
//
// Faults:
//   burst N      N more stream frames straight to this host as fast as the link takes them,
//                whatever the controller's state or buffer (to overdrive the host's queue)
//   badlength K  one payload of one frame and K bytes more, no whole number of frames
// Guard: a payload that would make the host see a false frame (link/frame_guard.hpp) ends a frame
// earlier; a single frame that cannot be sent clean goes as it is, and is counted.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "link/bytes.hpp"
#include "link/event_loop.hpp"
#include "link/link.hpp"

namespace sim {

class Unit;
class CanBus;
class CanController;

class CanSender {
public:
    struct Stats {
        std::uint64_t frames = 0;    // CAN frames sent to the host (bursts included)
        std::uint64_t payloads = 0;  // stream frames sent
        std::uint64_t shortened = 0; // payloads ended early by the guard
        std::uint64_t unclean = 0;   // payloads sent with a false frame all the same
    };
    static constexpr Clock::duration kTick = std::chrono::milliseconds(5);
    static constexpr std::size_t kDefaultFrames = 600;
    // A length field above 32767 reads negative on the host: code, port and status besides.
    static constexpr std::size_t kMaxFrames = (32767 - 3) / 12;

    CanSender(EventLoop& loop, Unit& unit);
    ~CanSender();
    CanSender(const CanSender&) = delete;
    CanSender& operator=(const CanSender&) = delete;

    // The firmware may be new: hooks its controller up and puts it on this unit's bus.
    void attach();
    void poke();
    void linkDrained() { poke(); }
    // A link closed: with no host left, reception stops and what waited for it is thrown away.
    void linkClosed();

    // The bus this unit's controller is on; "" is a bus of its own.
    void setBus(const std::string& name);
    const std::string& busName() const { return bus_name_; }

    void setFrames(std::size_t frames);
    std::size_t framesPerPayload() const { return frames_; }
    void burst(std::uint64_t frames);
    void torn(std::size_t extra);
    std::uint64_t burstLeft() const { return burst_left_; }
    void clearFaults();
    const Stats& stats() const { return stats_; }

private:
    CanController* controller() const;
    void round();
    void schedule(Clock::time_point when) { timer_.schedule(when); }
    // Sends up to `max` of the records (12 bytes each) as one stream frame; returns how many went.
    std::size_t sendPayload(Link& link, std::uint8_t port, std::span<const std::uint8_t> records, std::size_t max,
                            std::size_t extra = 0);

    Unit& unit_;
    std::string bus_name_;
    std::size_t frames_ = kDefaultFrames;
    std::uint64_t burst_left_ = 0;
    Bytes burst_;  // burst frames made and not sent yet
    std::size_t torn_extra_ = 0;
    bool torn_pending_ = false;
    Stats stats_;
    RoundTimer timer_;  // last: it goes first, before what its round reads
};

}  // namespace sim
