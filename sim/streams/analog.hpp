// Sends a unit's analog input stream: takes frames from the acquisition of its firmware
// (AnalogInput) and hands them to the link the stream goes on, the way replies go out, so that
// it works on any transport. Event driven: in real time a timer ticks every few milliseconds
// while an acquisition runs; as fast as possible, a link that takes no more is waited for (its
// drain), never polled. Nothing runs while no stream is due.
//
// Pace:
//   realtime (default)  frames enter the buffer at the configured rate; each tick sends what is
//                       due, in payloads of up to `frames` frames
//   fast                the rate is ignored: payloads of `frames` frames (default 600, 9600 bytes
//                       for 8 channels) go out as long as the link takes them
// Faults:
//   burst N      N extra frames as fast as the link takes them, whatever the pace, the mode or
//                the state (frame numbers continue those of the acquisition)
//   torn K       one payload of one frame and K bytes more, no whole number of frames
//   stall        nothing more leaves while the acquisition runs on into the buffer (which
//                overflows, as a unit's whose sender hangs); off: the buffer goes out, then the rest
// Guard (on by default): a payload that would make the host see a false frame (link/frame_guard.hpp)
// has a sample nudged by one count, and the nudge is counted.
#pragma once

#include <cstdint>
#include <string>

#include "link/event_loop.hpp"
#include "link/link.hpp"

namespace sim {

class Unit;
class AnalogInput;

class StreamSender {
public:
    enum class Pace { Realtime, Fast };
    struct Stats {
        std::uint64_t frames = 0;    // sample frames sent (bursts and torn payloads included)
        std::uint64_t payloads = 0;  // stream frames sent
        std::uint64_t nudges = 0;    // samples nudged by the guard
        std::uint64_t unclean = 0;   // payloads sent with a false frame the guard could not remove
    };

    static constexpr Clock::duration kTick = std::chrono::milliseconds(5);
    static constexpr std::size_t kDefaultFrames = 600;

    StreamSender(EventLoop& loop, Unit& unit);
    StreamSender(const StreamSender&) = delete;
    StreamSender& operator=(const StreamSender&) = delete;

    // The acquisition may have changed (a request or a control line): look again soon.
    void poke();
    // The link took all it was given: a stream in real time goes on at its tick, as over a link
    // that never backs up, so its payloads carry a tick's frames rather than one frame each.
    void linkDrained();
    // A link closed: with no host left on the command or the stream channel, the acquisition ends.
    void linkClosed();

    // `frames` per payload: 0 keeps the current count; at most what the length field can carry.
    void setPace(Pace pace, std::size_t frames);
    Pace pace() const { return pace_; }
    std::size_t framesPerPayload() const { return frames_; }
    // The most frames one payload can carry for `channels` channels.
    static std::size_t maxFrames(int channels);

    void burst(std::uint64_t frames);
    void torn(std::size_t extra);
    void setStall(bool on);
    void setGuard(bool on) { guard_ = on; }
    bool stalled() const { return stalled_; }
    bool guarded() const { return guard_; }
    std::uint64_t burstLeft() const { return burst_left_; }
    // Faults off: no stall, no burst or torn payload pending. Pace and guard stay.
    void clearFaults();

    const Stats& stats() const { return stats_; }

private:
    AnalogInput* input() const;
    Link* link(const AnalogInput& ai) const;
    void round();
    void schedule(Clock::time_point when) { timer_.schedule(when); }

    Unit& unit_;
    Pace pace_ = Pace::Realtime;
    std::size_t frames_ = kDefaultFrames;
    bool guard_ = true, stalled_ = false;
    std::uint64_t burst_left_ = 0;
    std::size_t torn_extra_ = 0;  // 0: none pending
    Clock::time_point last_sent_{};  // the last round that sent a payload
    Stats stats_;
    RoundTimer timer_;  // last: it goes first, before what its round reads
};

}  // namespace sim
