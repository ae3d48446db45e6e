#include "firmware/ao.hpp"

#include <bit>
#include <cmath>
#include <numbers>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

AnalogOutput::AnalogOutput(const products::Product& product, UnitClock::Now now)
    : product_(product), now_(std::move(now)), volt_min_(product.ao_volt_min), volt_max_(product.ao_volt_max) {
    if (!product.ao.empty())
        for (const auto& [port, cells] : products::parsePortTable(product.ao)) ports_.push_back(port);
    reset();
}

void AnalogOutput::reset() {
    open_ = streaming_open_ = running_ = false;
    // 0 V where the range has it, else the nearest end.
    values_.fill(std::min(std::max(0.0, volt_min_), volt_max_));
    shapes_.fill(Shape{Form::Sine, 1, static_cast<float>((volt_min_ + volt_max_) / 2), 100});
    mode_ = 0;
    enabled_ = 0;
    rate_ = 1000;
    samples_ = 1000;
    ticks_ = dac_writes_ = 0;
}

bool AnalogOutput::isAoCode(std::uint16_t code) {
    switch (code) {
    case wire::OPEN_AO: case wire::CLOSE_AO: case wire::WRITE_AO_BY_CHANNEL: case wire::WRITE_AO_SYNCHRONIZED:
    case wire::GET_AO_VALUES: case wire::SET_AO_SPAN: case wire::INIT_AO_BUFFER: case wire::PUSH_TO_AO_BUFFER:
    case wire::GET_AO_COUNTERS: case wire::OPEN_AO_STREAMING: case wire::START_AO_STREAMING:
    case wire::STOP_AO_STREAMING: case wire::CLOSE_AO_STREAMING: case wire::SET_AO_MODE:
    case wire::SET_AO_SAMPLING_RATE: case wire::SET_AO_NUM_SAMPLES: case wire::SET_AO_ENABLED_CHANNELS:
    case wire::SET_AO_FORM: case wire::SET_AO_FORM_PARAM: return true;
    default: return false;
    }
}

bool AnalogOutput::isPort(int port) const {
    for (int p : ports_)
        if (p == port) return true;
    return false;
}

std::vector<PinRef> AnalogOutput::pins(int port) const {
    std::vector<PinRef> out;
    for (const auto& [p, cells] : products::parsePortTable(product_.ao))
        if (p == port)
            for (const auto& c : cells) out.push_back(PinRef{c.hw_port, c.pin});
    return out;
}

std::uint64_t AnalogOutput::generated() const {
    if (!running_) return 0;
    const double elapsed = std::chrono::duration<double>(now_() - started_).count();
    // The first sample goes out at the start; the allowance keeps one due exactly now from
    // being missed by rounding.
    auto k = static_cast<std::uint64_t>(std::max(0.0, std::floor(elapsed * rate_ + 1e-6))) + 1;
    if (mode_ == 1 && k > samples_) k = samples_;
    return k;
}

bool AnalogOutput::generating() const { return running_ && (mode_ != 1 || generated() < samples_); }

double AnalogOutput::shapeValue(int channel, std::uint64_t k) const {
    const Shape& s = shapes_[static_cast<std::size_t>(channel)];
    const double turns = static_cast<double>(k) / s.period;
    const double frac = turns - std::floor(turns);
    double unit = 0;
    switch (s.form) {
    case Form::Rectangle: unit = frac < 0.5 ? 1 : -1; break;
    case Form::Triangle: unit = 1 - 4 * std::abs(frac - 0.5); break;
    case Form::Sine: unit = std::sin(2 * std::numbers::pi * frac); break;
    }
    return s.offset + s.amplitude * unit;
}

double AnalogOutput::value(int channel) const {
    if (channel < 0 || channel >= kChannels) return 0;
    if (running_ && (enabled_ >> channel & 1)) return shapeValue(channel, generated() - 1);
    return values_[static_cast<std::size_t>(channel)];
}

void AnalogOutput::halt() {
    if (!running_) return;
    const std::uint64_t k = generated();
    for (int ch = 0; ch < kChannels; ++ch)
        if (enabled_ >> ch & 1) values_[static_cast<std::size_t>(ch)] = shapeValue(ch, k - 1);
    ticks_ += k;
    dac_writes_ += k * static_cast<std::uint64_t>(std::popcount(enabled_));
    running_ = false;
}

std::optional<Bytes> AnalogOutput::handle(std::uint16_t code, const Bytes& in) {
    const std::uint8_t port = portOf(in);
    // Length of each request, the port included.
    std::size_t length = 1;
    switch (code) {
    case wire::WRITE_AO_BY_CHANNEL: length = 6; break;
    case wire::WRITE_AO_SYNCHRONIZED: length = 1 + 4 * kChannels; break;
    case wire::SET_AO_MODE: length = 2; break;
    case wire::SET_AO_SAMPLING_RATE:
    case wire::SET_AO_NUM_SAMPLES: length = 5; break;
    case wire::SET_AO_ENABLED_CHANNELS: length = 3; break;
    case wire::SET_AO_FORM: length = 4; break;
    case wire::SET_AO_FORM_PARAM: length = 3 + 3 * 4; break;
    case wire::PUSH_TO_AO_BUFFER: length = in.size(); break;  // no host sends it; any length is taken
    default: break;
    }
    const bool channel_reply = code == wire::SET_AO_FORM || code == wire::SET_AO_FORM_PARAM;
    auto reply = [&](std::uint8_t s) -> Bytes {
        if (channel_reply) return Bytes{port, 0, in.size() > 2 ? in[2] : std::uint8_t{0}, s};
        return status(port, s);
    };
    if (code == wire::START_AO_STREAMING) {
        // Sent without awaiting a reply: a refusal has nobody to go to.
        if (in.size() == 1 && isPort(port) && open_ && mode_ != 0) {
            halt();
            running_ = true;
            started_ = now_();
        }
        return std::nullopt;
    }
    if (in.size() != length || in.empty()) return reply(kCommandsError);
    if (!isPort(port)) return reply(kAoError);

    switch (code) {
    case wire::OPEN_AO: open_ = true; return status(port, kOk);
    case wire::CLOSE_AO:
        halt();
        open_ = streaming_open_ = false;
        return status(port, kOk);
    case wire::GET_AO_VALUES: {
        Bytes out{port, kOk};
        for (int ch = 0; ch < kChannels; ++ch) putF32(out, static_cast<float>(value(ch)));
        return out;
    }
    case wire::SET_AO_SPAN: return status(port, kOk);
    case wire::INIT_AO_BUFFER: {
        halt();
        ticks_ = dac_writes_ = 0;
        Bytes out{port};
        putU32(out, samples_);
        out.push_back(enabled_);
        return out;
    }
    case wire::PUSH_TO_AO_BUFFER: return status(port, kOk);
    case wire::GET_AO_COUNTERS: {
        const std::uint64_t k = generated();
        Bytes out{port};
        putU32(out, static_cast<std::uint32_t>(ticks_ + k));
        putU32(out, static_cast<std::uint32_t>(dac_writes_ + k * static_cast<std::uint64_t>(std::popcount(enabled_))));
        return out;
    }
    case wire::OPEN_AO_STREAMING: {
        streaming_open_ = true;
        Bytes out{port, mode_};
        putF32(out, rate_);
        return out;
    }
    case wire::STOP_AO_STREAMING: halt(); return status(port, kOk);
    case wire::CLOSE_AO_STREAMING:
        halt();
        streaming_open_ = false;
        return status(port, kOk);
    default: break;
    }

    // The rest writes outputs or the generator's settings: only on an open port.
    if (!open_) return reply(kAoError);
    switch (code) {
    case wire::WRITE_AO_BY_CHANNEL: {
        const std::uint8_t ch = in[1];
        const double v = f32At(in, 2);
        if (ch >= kChannels || !inRange(v)) return status(port, kAoError);
        values_[ch] = v;
        ++dac_writes_;
        return status(port, kOk);
    }
    case wire::WRITE_AO_SYNCHRONIZED: {
        std::array<double, kChannels> next{};
        for (int ch = 0; ch < kChannels; ++ch) {
            next[static_cast<std::size_t>(ch)] = f32At(in, 1 + 4 * static_cast<std::size_t>(ch));
            if (!inRange(next[static_cast<std::size_t>(ch)])) return status(port, kAoError);
        }
        values_ = next;
        dac_writes_ += kChannels;
        return status(port, kOk);
    }
    case wire::SET_AO_MODE:
        if (in[1] > 2) return status(port, kAoError);
        mode_ = in[1];
        return status(port, kOk);
    case wire::SET_AO_SAMPLING_RATE: {
        const float r = f32At(in, 1);
        if (!(r > 0 && r <= kMaxRate)) return status(port, kAoError);
        rate_ = r;
        return status(port, kOk);
    }
    case wire::SET_AO_NUM_SAMPLES: {
        const std::uint32_t n = u32At(in, 1);
        if (n == 0) return status(port, kAoError);
        samples_ = n;
        return status(port, kOk);
    }
    case wire::SET_AO_ENABLED_CHANNELS: enabled_ = in[2]; return status(port, kOk);
    case wire::SET_AO_FORM: {
        const std::uint8_t ch = in[2], form = in[3];
        if (ch >= kChannels || form < 1 || form > 3) return reply(kAoError);
        shapes_[ch].form = static_cast<Form>(form);
        return reply(kOk);
    }
    case wire::SET_AO_FORM_PARAM: {
        const std::uint8_t ch = in[2];
        const float amplitude = f32At(in, 3), offset = f32At(in, 7), period = f32At(in, 11);
        const bool fits = amplitude >= 0 && std::isfinite(amplitude) && period > 0 && std::isfinite(period) &&
                          inRange(offset - amplitude) && inRange(offset + amplitude);
        if (ch >= kChannels || !fits) return reply(kAoError);
        shapes_[ch].amplitude = amplitude;
        shapes_[ch].offset = offset;
        shapes_[ch].period = period;
        return reply(kOk);
    }
    default: return status(port, kCommandsError);
    }
}

}  // namespace sim
