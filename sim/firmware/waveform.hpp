// What an analog input channel measures: a known signal, so that tests can check every value.
//
//   counter [from=N]   counts (N + frame index) mod 65536, read as signed: loss and order show
//   sine A O P         volts O + A sin(2 pi x / P)
//   ramp LOW HIGH P    volts from LOW rising to HIGH over P, then back to LOW (a sawtooth)
//   const V            volts V
//   raw N              counts N, exactly as sent (-32768..32767)
//   ao K               the volts analog output channel K of the same unit puts out now
//
// x is the frame index when the period P is a number of samples ("40"), the time of the sample
// when it is given in seconds ("0.5s"). Volts become counts at the input's volts per count,
// rounded to the nearest count and held to the 16-bit range.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

struct Waveform {
    enum class Kind { Counter, Sine, Ramp, Constant, Raw, Output };
    Kind kind = Kind::Raw;
    double a = 0, b = 0;    // sine: amplitude, offset; ramp: low, high; const: volts
    double period = 1;      // sine, ramp
    bool seconds = false;   // period in seconds, else in samples
    std::int32_t value = 0; // counter: start; raw: counts; ao: the output channel

    static Waveform counter(std::int32_t from = 0) { return {Kind::Counter, 0, 0, 1, false, from}; }
    static Waveform sine(double amplitude, double offset, double period, bool seconds = false) {
        return {Kind::Sine, amplitude, offset, period, seconds, 0};
    }
    static Waveform constant(double volts) { return {Kind::Constant, volts, 0, 1, false, 0}; }
    static Waveform raw(std::int16_t counts) { return {Kind::Raw, 0, 0, 1, false, counts}; }
    static Waveform output(int channel) { return {Kind::Output, 0, 0, 1, false, channel}; }

    // Counts at frame index `n`, sample time `t` (seconds); `output_volts` is what the analog
    // output channel puts out (used by Kind::Output only).
    std::int16_t counts(std::uint64_t n, double t, double volts_per_count, double output_volts = 0) const;

    // The text form above, e.g. "sine 5 0 40" or "ramp -1 1 0.5s".
    std::string text() const;
};

// Reads the words of the text form; on failure, `error` says why.
std::optional<Waveform> parseWaveform(const std::vector<std::string>& words, std::string* error);

// Volts to counts: rounded to the nearest, held to -32768..32767.
std::int16_t toCounts(double volts, double volts_per_count);

}  // namespace sim
