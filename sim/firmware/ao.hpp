// Analog output of a unit (products with an ao table): eight channels of volts, written directly
// or made by the waveform generator, and read back as they are now. Every request starts with
// the port and every reply with the port; the status stands at index 1, except in the replies of
// SET_AO_FORM and SET_AO_FORM_PARAM, [port, 0, channel, status].
//
// Direct output: OPEN_AO, CLOSE_AO, WRITE_AO_BY_CHANNEL, WRITE_AO_SYNCHRONIZED (all channels at
// once: nothing changes unless every value is in range), GET_AO_VALUES ([port, 0] + 8 singles),
// SET_AO_SPAN ([port]: the request names no span, so the range stays the product's).
// Waveform generation: OPEN_AO_STREAMING ([port, mode] + the rate as a single), SET_AO_MODE
// (0 on demand, 1 N samples, 2 continuous), SET_AO_SAMPLING_RATE (above 0, at most 1 MHz),
// SET_AO_NUM_SAMPLES (at least 1), SET_AO_ENABLED_CHANNELS ([port, 0, mask]), SET_AO_FORM
// (1 rectangle, 2 triangle, 3 sine), SET_AO_FORM_PARAM (amplitude, offset in volts, period in
// samples; the wave must stay within the range), START_AO_STREAMING (no reply; runs the
// generator unless the mode is on demand), STOP_AO_STREAMING (the outputs keep their last values),
// CLOSE_AO_STREAMING. While the generator runs, each enabled channel follows its form from the
// start: sample k = time since start x rate, value = offset + amplitude x shape(k / period). In
// N-samples mode it stops after the last sample and holds it.
// Buffer and counters: INIT_AO_BUFFER ([port] + samples as u32 + enabled mask; it stops the
// generator, and the counters start again from 0), GET_AO_COUNTERS ([port] + samples generated + DAC writes, each u32).
//
// Defaults: outputs 0 V (or the range's low end if 0 V lies outside), mode on demand, 1000 Hz,
// 1000 samples, no channel enabled, every channel a sine of amplitude 1 V around the middle of
// the range with a period of 100 samples.
// Volts out of range, a channel above 7, a form or mode not listed, a closed port: status 16.
#pragma once

#include <array>
#include <optional>
#include <vector>

#include "firmware/clock.hpp"
#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

class AnalogOutput {
public:
    static constexpr int kChannels = 8;
    static constexpr double kMaxRate = 1e6;

    enum class Form : std::uint8_t { Rectangle = 1, Triangle = 2, Sine = 3 };
    struct Shape {
        Form form = Form::Sine;
        float amplitude = 1, offset = 0, period = 100;
    };

    AnalogOutput(const torvik::products::Product& product, UnitClock::Now now);

    bool present() const { return !ports_.empty(); }
    static bool isAoCode(std::uint16_t code);
    bool isPort(int port) const;
    // The pins the port occupies (cells of the ao table).
    std::vector<PinRef> pins(int port) const;

    // The reply to an AO command (START_AO_STREAMING has none: nothing).
    std::optional<Bytes> handle(std::uint16_t code, const Bytes& payload);

    // Volts channel `channel` puts out now; 0 for a channel the unit does not have.
    double value(int channel) const;
    bool isOpen() const { return open_; }
    bool generating() const;
    std::uint8_t mode() const { return mode_; }
    float rate() const { return rate_; }
    std::uint32_t samples() const { return samples_; }
    std::uint8_t enabled() const { return enabled_; }
    const Shape& shape(int channel) const { return shapes_[static_cast<std::size_t>(channel)]; }

    // The unit restarts: everything back to the defaults.
    void reset();

private:
    Bytes status(std::uint8_t port, std::uint8_t s) const { return portStatus(port, s); }
    // Samples the running generator has made by now (it stops at the count in N-samples mode).
    std::uint64_t generated() const;
    double shapeValue(int channel, std::uint64_t k) const;
    bool inRange(double volts) const { return volts >= volt_min_ && volts <= volt_max_; }
    // Ends a run: the outputs keep the values of its last sample.
    void halt();

    const torvik::products::Product& product_;
    UnitClock::Now now_;
    std::vector<int> ports_;
    double volt_min_, volt_max_;
    bool open_ = false, streaming_open_ = false, running_ = false;
    std::array<double, kChannels> values_{};
    std::array<Shape, kChannels> shapes_{};
    std::uint8_t mode_ = 0, enabled_ = 0;
    float rate_ = 1000;
    std::uint32_t samples_ = 1000;
    std::chrono::steady_clock::time_point started_{};
    std::uint64_t ticks_ = 0, dac_writes_ = 0;  // of runs that ended, and of direct writes
};

}  // namespace sim
