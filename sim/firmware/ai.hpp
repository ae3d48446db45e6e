// Analog input of a unit (products with an ai table): configuration, on-demand reads, and the
// acquisition that feeds the stream. Every request starts with the port (READ_AI_ON_DEMAND with
// a 0 in front of it) and every reply with the port; the status stands at index 1, 15 when the
// unit refuses.
//
//   OPEN_AI, CLOSE_AI             USB units: the port must be open for anything but the buffer
//                                 commands; the LAN and Wi-Fi units answer them and stay usable
//   SET_AI_SAMPLING_RATE          IEEE single; refused (15) above the product's rate or <= 0
//   SET_AI_MODE                   0 on demand, 1 N samples, 2 continuous
//   SET_AI_NUM_SAMPLES            u32, at least 1
//   READ_AI_ON_DEMAND(_VARIABLE)  [port, 0] + one frame: each channel's value now, i16 counts;
//                                 the product's own form only (the other: 23)
//   OPEN_AI_STREAMING             [port, 0]
//   START_AI_STREAMING(_VARIABLE) the product's own code, no reply: a fresh acquisition starts,
//                                 unless the mode is on demand; frames are numbered from 0
//   CLOSE_AI_STREAMING            stops it; what it had not sent yet is thrown away
//   CHECK_BUFFER_STATUS           [port] + four u32: times the sender found the buffer empty,
//                                 times it overflowed, frames in it now, the most it held
//   CLEAR_DATA                    empties the buffer and zeroes those counters
//
// The acquisition buffer holds kBufferFrames frames: the ADC fills it at the rate (or as fast as
// the sender asks, see StreamSender), the sender empties it onto the link. Frames that find it
// full are lost, oldest first, and counted. An N-samples acquisition ends after N frames.
//
// Waveforms (firmware/waveform.hpp), by default: channel 0 a counter from 0, channel k a sine of half
// full scale with a period of 20 x 2^k samples; on a unit that also has analog outputs, channel
// k reads analog output channel k instead.
#pragma once

#include <vector>

#include "firmware/ao.hpp"
#include "firmware/clock.hpp"
#include "firmware/pins.hpp"
#include "firmware/reply.hpp"
#include "link/link.hpp"
#include "firmware/waveform.hpp"

namespace sim {

class AnalogInput {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    static constexpr std::size_t kBufferFrames = 8192;

    struct BufferCounters {
        std::uint32_t empty = 0, full = 0, remaining = 0, max = 0;
    };
    // One stream frame ready to go: the whole frame as sent, how many sample frames it carries,
    // how many samples were nudged, and false if a false frame could not be nudged away.
    struct Emitted {
        Bytes bytes;
        std::size_t frames = 0;
        unsigned nudges = 0;
        bool clean = true;
    };

    // `output` is the same unit's analog output, if it has one (the "ao" waveform reads it).
    AnalogInput(const torvik::products::Product& product, UnitClock::Now now, const AnalogOutput* output);

    bool present() const { return !ports_.empty(); }
    static bool isAiCode(std::uint16_t code);
    bool isPort(int port) const;
    std::vector<PinRef> pins(int port) const;
    // Whether the port takes configuration and reads now.
    bool usable() const { return open_ || !needs_open_; }

    // The reply to an AI command; nothing for the start commands.
    std::optional<Bytes> handle(std::uint16_t code, const Bytes& payload);

    int channels() const { return channels_; }
    double voltsPerCount() const { return ratio_; }
    std::uint16_t streamCode() const;
    // Where stream frames go: the data connection of a Wi-Fi unit, else the command link.
    Channel streamChannel() const;

    // ---- the acquisition, as the sender drives it ------------------------------------------
    bool running() const { return running_; }
    // Frames due by `now` at the rate enter the buffer; returns how many.
    std::size_t acquireUntil(TimePoint now);
    // Up to `frames` frames enter the buffer at once (the as-fast-as-possible pace).
    std::size_t acquire(std::size_t frames);
    // `frames` frames enter the buffer whatever the rate, the mode or the state (a fault).
    void overdrive(std::size_t frames);
    // The rate schedule continues from `now` without catching up on what it missed.
    void rebase(TimePoint now);
    TimePoint nextFrameDue() const;
    std::size_t buffered() const { return static_cast<std::size_t>(acquired_ - emitted_); }
    // Up to `max` buffered frames as one stream frame; with `guard`, samples that would make
    // the host see a false frame are nudged by one count, channels that are no counter first;
    // where only a counter could be nudged, the payload ends a frame earlier if that helps.
    Emitted emit(std::size_t max, bool guard);
    // One frame followed by `extra` bytes that make no frame: a payload of the wrong length.
    Emitted emitTorn(std::size_t extra, bool guard);
    // The host is gone: the acquisition ends and the buffer is emptied.
    void abort();

    // ---- for the control channel -----------------------------------------------------------
    bool isOpen() const { return open_; }
    std::uint8_t mode() const { return mode_; }
    float rate() const { return rate_; }
    std::uint32_t samples() const { return samples_; }
    std::uint8_t streamPort() const { return port_; }
    std::uint64_t index() const { return acquired_; }
    std::uint64_t lost() const { return lost_; }
    BufferCounters counters() const;
    const Waveform& waveform(int channel) const { return waves_[static_cast<std::size_t>(channel)]; }
    // False if the channel does not exist, or the waveform reads an output the unit lacks.
    bool setWaveform(int channel, const Waveform& wave);
    void defaultWaveforms();
    // The value of every channel now, as an on-demand read gives it (it counts as a read).
    std::vector<std::int16_t> readNow();

    // The unit restarts: everything back to the defaults.
    void reset();

private:
    void take(std::uint64_t frames);
    // The next `frames` buffered frames (and `extra` bytes) as a stream frame; the buffer is left
    // as it is. With `shorter` given, a false frame that only a counter could break and that ends
    // at the frame's own terminator sets it instead of nudging the counter.
    Emitted build(std::size_t frames, std::size_t extra, bool guard, bool* shorter);
    unsigned nudgeAway(Bytes& frame, std::size_t samples_from, std::size_t sample_bytes, bool* shorter,
                       bool* clean) const;
    std::int16_t sample(int channel, std::uint64_t n, double t) const;

    const torvik::products::Product& product_;
    UnitClock::Now now_;
    const AnalogOutput* output_;
    TimePoint born_;
    std::vector<int> ports_;
    int channels_;
    double ratio_;
    bool needs_open_;
    std::vector<Waveform> waves_;

    bool open_ = false;
    std::uint8_t mode_ = 0;
    float rate_ = 1000;
    std::uint32_t samples_ = 1000;
    std::uint64_t reads_ = 0;  // on-demand reads so far: their frame index

    bool running_ = false;
    std::uint8_t port_ = 0;
    TimePoint anchor_{};         // when frame 0 of the rate schedule was due
    std::uint64_t paced_ = 0;    // frames the schedule (or the fast pace) has taken
    std::uint64_t acquired_ = 0; // index of the next frame to enter the buffer
    std::uint64_t emitted_ = 0;  // index of the next frame to leave it
    BufferCounters counters_;
    std::uint64_t lost_ = 0;
};

}  // namespace sim
