#include "firmware/waveform.hpp"

#include <cmath>
#include <cstdlib>
#include <numbers>
#include <sstream>

namespace sim {

std::int16_t toCounts(double volts, double volts_per_count) {
    if (!std::isfinite(volts) || volts_per_count <= 0) return 0;
    const double c = std::round(volts / volts_per_count);
    if (c >= 32767) return 32767;
    if (c <= -32768) return -32768;
    return static_cast<std::int16_t>(c);
}

std::int16_t Waveform::counts(std::uint64_t n, double t, double volts_per_count, double output_volts) const {
    const double x = seconds ? t : static_cast<double>(n);
    switch (kind) {
    case Kind::Counter: return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::uint64_t>(value) + n));
    case Kind::Sine: return toCounts(b + a * std::sin(2 * std::numbers::pi * x / period), volts_per_count);
    case Kind::Ramp: {
        const double turns = x / period;
        return toCounts(a + (b - a) * (turns - std::floor(turns)), volts_per_count);
    }
    case Kind::Constant: return toCounts(a, volts_per_count);
    case Kind::Raw: return static_cast<std::int16_t>(value);
    case Kind::Output: return toCounts(output_volts, volts_per_count);
    }
    return 0;
}

namespace {

std::string number(double v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

std::string periodText(double period, bool seconds) { return number(period) + (seconds ? "s" : ""); }

bool real(const std::string& text, double* v) {
    char* end = nullptr;
    *v = std::strtod(text.c_str(), &end);
    return end != text.c_str() && *end == '\0' && std::isfinite(*v);
}

bool integer(const std::string& text, long min, long max, long* v) {
    char* end = nullptr;
    *v = std::strtol(text.c_str(), &end, 0);
    return !text.empty() && end != text.c_str() && *end == '\0' && *v >= min && *v <= max;
}

}  // namespace

std::string Waveform::text() const {
    switch (kind) {
    case Kind::Counter: return "counter from=" + std::to_string(value);
    case Kind::Sine: return "sine " + number(a) + " " + number(b) + " " + periodText(period, seconds);
    case Kind::Ramp: return "ramp " + number(a) + " " + number(b) + " " + periodText(period, seconds);
    case Kind::Constant: return "const " + number(a);
    case Kind::Raw: return "raw " + std::to_string(value);
    case Kind::Output: return "ao " + std::to_string(value);
    }
    return {};
}

std::optional<Waveform> parseWaveform(const std::vector<std::string>& w, std::string* error) {
    auto fail = [&](const std::string& why) -> std::optional<Waveform> {
        *error = why;
        return std::nullopt;
    };
    if (w.empty()) return fail("no waveform");
    const std::string& kind = w[0];
    auto count = [&](std::size_t n, const char* usage) { return w.size() == n + 1 ? true : (fail(usage), false); };
    auto period = [&](const std::string& text, Waveform& out) {
        std::string digits = text;
        out.seconds = !digits.empty() && digits.back() == 's';
        if (out.seconds) digits.pop_back();
        return real(digits, &out.period) && out.period > 0;
    };
    Waveform out;
    if (kind == "counter") {
        long from = 0;
        if (w.size() > 2) return fail("usage: counter [from=N]");
        if (w.size() == 2 && (w[1].rfind("from=", 0) != 0 || !integer(w[1].substr(5), -65535, 65535, &from)))
            return fail("bad counter start '" + w[1] + "'");
        return Waveform::counter(static_cast<std::int32_t>(from));
    }
    if (kind == "sine" || kind == "ramp") {
        if (!count(3, kind == "sine" ? "usage: sine AMPLITUDE OFFSET PERIOD[s]" : "usage: ramp LOW HIGH PERIOD[s]"))
            return std::nullopt;
        out.kind = kind == "sine" ? Waveform::Kind::Sine : Waveform::Kind::Ramp;
        if (!real(w[1], &out.a) || !real(w[2], &out.b)) return fail("bad volts in '" + w[1] + " " + w[2] + "'");
        if (!period(w[3], out)) return fail("bad period '" + w[3] + "'");
        return out;
    }
    if (kind == "const") {
        if (!count(1, "usage: const VOLTS")) return std::nullopt;
        double v = 0;
        if (!real(w[1], &v)) return fail("bad volts '" + w[1] + "'");
        return Waveform::constant(v);
    }
    if (kind == "raw") {
        long v = 0;
        if (!count(1, "usage: raw COUNTS")) return std::nullopt;
        if (!integer(w[1], -32768, 32767, &v)) return fail("bad counts '" + w[1] + "'");
        return Waveform::raw(static_cast<std::int16_t>(v));
    }
    if (kind == "ao") {
        long v = 0;
        if (!count(1, "usage: ao CHANNEL")) return std::nullopt;
        if (!integer(w[1], 0, 255, &v)) return fail("bad channel '" + w[1] + "'");
        return Waveform::output(static_cast<int>(v));
    }
    return fail("unknown waveform '" + kind + "'");
}

}  // namespace sim
