#include "firmware/ai.hpp"

#include <algorithm>
#include <cmath>

#include "link/frame.hpp"
#include "link/frame_guard.hpp"
#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

namespace {
// 0x02, two length bytes, the one-byte code, port and status: where the samples start.
constexpr std::size_t kSamplesFrom = 6;
// Enough tries for any real data; a payload still unclean after them is sent and counted.
constexpr int kMaxNudges = 64;
}  // namespace

AnalogInput::AnalogInput(const products::Product& product, UnitClock::Now now, const AnalogOutput* output)
    : product_(product),
      now_(std::move(now)),
      output_(output && output->present() ? output : nullptr),
      born_(now_()),
      channels_(product.ai_num_channels),
      ratio_(product.ai_ratio),
      needs_open_(product.link == products::Link::Usb) {
    if (!product.ai.empty())
        for (const auto& [port, cells] : products::parsePortTable(product.ai)) ports_.push_back(port);
    reset();
}

void AnalogInput::reset() {
    open_ = false;
    mode_ = 0;
    rate_ = 1000;
    samples_ = 1000;
    reads_ = 0;
    running_ = false;
    port_ = ports_.empty() ? 0 : static_cast<std::uint8_t>(ports_.front());
    paced_ = acquired_ = emitted_ = lost_ = 0;
    counters_ = {};
    defaultWaveforms();
}

void AnalogInput::defaultWaveforms() {
    waves_.assign(static_cast<std::size_t>(channels_), Waveform{});
    const double half_scale = 32767 * ratio_ / 2;
    for (int ch = 0; ch < channels_; ++ch) {
        Waveform& w = waves_[static_cast<std::size_t>(ch)];
        if (output_)
            w = Waveform::output(ch);
        else if (ch == 0)
            w = Waveform::counter(0);
        else
            w = Waveform::sine(half_scale, 0, 20.0 * (1 << ch));
    }
}

bool AnalogInput::setWaveform(int channel, const Waveform& wave) {
    if (channel < 0 || channel >= channels_) return false;
    if (wave.kind == Waveform::Kind::Output && (!output_ || wave.value >= AnalogOutput::kChannels)) return false;
    waves_[static_cast<std::size_t>(channel)] = wave;
    return true;
}

bool AnalogInput::isAiCode(std::uint16_t code) {
    switch (code) {
    case wire::OPEN_AI: case wire::SET_AI_SAMPLING_RATE: case wire::SET_AI_MODE: case wire::SET_AI_NUM_SAMPLES:
    case wire::READ_AI_ON_DEMAND: case wire::OPEN_AI_STREAMING: case wire::START_AI_STREAMING:
    case wire::CLOSE_AI_STREAMING: case wire::CHECK_CALCULATUON: case wire::CLEAR_DATA:
    case wire::CHECK_BUFFER_STATUS: case wire::READ_AI_ON_DEMAND_VARIABLE: case wire::START_AI_STREAMING_VARIABLE:
    case wire::CLOSE_AI: return true;
    default: return false;
    }
}

bool AnalogInput::isPort(int port) const { return std::find(ports_.begin(), ports_.end(), port) != ports_.end(); }

std::vector<PinRef> AnalogInput::pins(int port) const {
    std::vector<PinRef> out;
    for (const auto& [p, cells] : products::parsePortTable(product_.ai))
        if (p == port)
            for (const auto& c : cells) out.push_back(PinRef{c.hw_port, c.pin});
    return out;
}

std::uint16_t AnalogInput::streamCode() const {
    return product_.ai_variable ? wire::START_AI_STREAMING_VARIABLE : wire::START_AI_STREAMING;
}

Channel AnalogInput::streamChannel() const {
    return product_.link == products::Link::Wifi ? Channel::Data : Channel::Cmd;
}

AnalogInput::BufferCounters AnalogInput::counters() const {
    BufferCounters c = counters_;
    c.remaining = static_cast<std::uint32_t>(buffered());
    return c;
}

std::int16_t AnalogInput::sample(int channel, std::uint64_t n, double t) const {
    const Waveform& w = waves_[static_cast<std::size_t>(channel)];
    const double out = w.kind == Waveform::Kind::Output ? output_->value(w.value) : 0;
    return w.counts(n, t, ratio_, out);
}

std::vector<std::int16_t> AnalogInput::readNow() {
    const double t = std::chrono::duration<double>(now_() - born_).count();
    std::vector<std::int16_t> out;
    for (int ch = 0; ch < channels_; ++ch) out.push_back(sample(ch, reads_, t));
    ++reads_;
    return out;
}

std::optional<Bytes> AnalogInput::handle(std::uint16_t code, const Bytes& in) {
    const bool variable = product_.ai_variable;
    if (code == wire::START_AI_STREAMING || code == wire::START_AI_STREAMING_VARIABLE) {
        // Sent without awaiting a reply: a refusal has nobody to go to.
        if (code == streamCode() && in.size() == 1 && isPort(in[0]) && usable() && mode_ != 0) {
            running_ = true;
            port_ = in[0];
            anchor_ = now_();
            paced_ = acquired_ = emitted_ = 0;
        }
        return std::nullopt;
    }
    // READ_AI_ON_DEMAND carries a 0 in front of the port.
    const bool on_demand = code == wire::READ_AI_ON_DEMAND || code == wire::READ_AI_ON_DEMAND_VARIABLE;
    const std::size_t at = code == wire::READ_AI_ON_DEMAND ? 1 : 0;
    const std::uint8_t port = in.size() > at ? in[at] : portOf(in);
    std::size_t length = 1;
    if (code == wire::SET_AI_SAMPLING_RATE || code == wire::SET_AI_NUM_SAMPLES) length = 5;
    if (code == wire::SET_AI_MODE || code == wire::READ_AI_ON_DEMAND) length = 2;
    const bool foreign = (code == wire::READ_AI_ON_DEMAND && variable) || (code == wire::READ_AI_ON_DEMAND_VARIABLE && !variable);
    if (in.size() != length || foreign) return portStatus(port, kCommandsError);
    if (!isPort(port)) return portStatus(port, kAiError);

    switch (code) {
    case wire::OPEN_AI: open_ = true; return portStatus(port, kOk);
    case wire::CLOSE_AI:
        if (needs_open_) abort();
        open_ = false;
        return portStatus(port, kOk);
    case wire::OPEN_AI_STREAMING:
    case wire::CHECK_CALCULATUON: return portStatus(port, kOk);
    case wire::CLOSE_AI_STREAMING: abort(); return portStatus(port, kOk);
    case wire::CHECK_BUFFER_STATUS: {
        const BufferCounters c = counters();
        Bytes out{port};
        for (std::uint32_t v : {c.empty, c.full, c.remaining, c.max}) putU32(out, v);
        return out;
    }
    case wire::CLEAR_DATA:
        emitted_ = acquired_;
        counters_ = {};
        return portStatus(port, kOk);
    default: break;
    }

    if (!usable()) return portStatus(port, kAiError);
    if (on_demand) {
        Bytes out{port, kOk};
        for (std::int16_t v : readNow()) putU16(out, static_cast<std::uint16_t>(v));
        return out;
    }
    switch (code) {
    case wire::SET_AI_SAMPLING_RATE: {
        const float r = f32At(in, 1);
        if (!(r > 0 && r <= static_cast<float>(product_.ai_max_rate))) return portStatus(port, kAiError);
        rate_ = r;
        return portStatus(port, kOk);
    }
    case wire::SET_AI_MODE:
        if (in[1] > 2) return portStatus(port, kAiError);
        mode_ = in[1];
        return portStatus(port, kOk);
    case wire::SET_AI_NUM_SAMPLES: {
        const std::uint32_t n = u32At(in, 1);
        if (n == 0) return portStatus(port, kAiError);
        samples_ = n;
        return portStatus(port, kOk);
    }
    default: return portStatus(port, kCommandsError);
    }
}

void AnalogInput::abort() {
    running_ = false;
    emitted_ = acquired_;
}

void AnalogInput::take(std::uint64_t frames) {
    paced_ += frames;
    acquired_ += frames;
    if (buffered() > kBufferFrames) {
        const std::uint64_t lost = buffered() - kBufferFrames;
        emitted_ += lost;
        lost_ += lost;
        ++counters_.full;
    }
    counters_.max = std::max(counters_.max, static_cast<std::uint32_t>(buffered()));
    if (mode_ == 1 && paced_ >= samples_) running_ = false;
}

std::size_t AnalogInput::acquireUntil(TimePoint now) {
    if (!running_) return 0;
    const double elapsed = std::chrono::duration<double>(now - anchor_).count();
    // The tiny allowance keeps a frame due exactly now from being missed by rounding.
    auto due = static_cast<std::uint64_t>(std::max(0.0, std::floor(elapsed * rate_ + 1e-6)));
    if (mode_ == 1) due = std::min<std::uint64_t>(due, samples_);
    if (due <= paced_) {
        if (buffered() == 0) ++counters_.empty;
        return 0;
    }
    const std::uint64_t k = due - paced_;
    take(k);
    return static_cast<std::size_t>(k);
}

std::size_t AnalogInput::acquire(std::size_t frames) {
    if (!running_) return 0;
    std::uint64_t k = frames;
    if (mode_ == 1) k = std::min<std::uint64_t>(k, samples_ - paced_);
    take(k);
    return static_cast<std::size_t>(k);
}

void AnalogInput::overdrive(std::size_t frames) { acquired_ += frames; }

void AnalogInput::rebase(TimePoint now) {
    anchor_ = now - std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>(paced_ / double(rate_)));
}

AnalogInput::TimePoint AnalogInput::nextFrameDue() const {
    return anchor_ + std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>((paced_ + 1) / double(rate_)));
}

AnalogInput::Emitted AnalogInput::emit(std::size_t max, bool guard) {
    // A shorter payload moves the terminator that a false frame ending there needs, and no
    // sample changes: better than a counter that no longer counts.
    for (std::size_t n = std::min(max, buffered());; --n) {
        bool shorter = false;
        Emitted e = build(n, 0, guard, n > 1 ? &shorter : nullptr);
        if (!shorter) {
            emitted_ += n;
            return e;
        }
    }
}

AnalogInput::Emitted AnalogInput::emitTorn(std::size_t extra, bool guard) {
    overdrive(1);
    Emitted e = build(1, extra, guard, nullptr);
    emitted_ += 1;
    return e;
}

AnalogInput::Emitted AnalogInput::build(std::size_t frames, std::size_t extra, bool guard, bool* shorter) {
    Emitted e;
    e.frames = frames;
    const std::size_t sample_bytes = frames * static_cast<std::size_t>(channels_) * 2 + extra;
    Bytes payload;
    payload.reserve(2 + sample_bytes);
    payload.push_back(port_);
    payload.push_back(kOk);
    for (std::size_t f = 0; f < frames; ++f) {
        const std::uint64_t n = emitted_ + f;
        const double t = rate_ > 0 ? static_cast<double>(n) / rate_ : 0;
        for (int ch = 0; ch < channels_; ++ch) putU16(payload, static_cast<std::uint16_t>(sample(ch, n, t)));
    }
    payload.insert(payload.end(), extra, std::uint8_t{0x55});
    e.bytes = encodeUnitFrame(streamCode(), payload);
    if (guard) e.nudges = nudgeAway(e.bytes, kSamplesFrom, sample_bytes, shorter, &e.clean);
    return e;
}

unsigned AnalogInput::nudgeAway(Bytes& frame, std::size_t from, std::size_t sample_bytes, bool* shorter,
                                bool* clean) const {
    unsigned nudges = 0;
    const std::size_t whole = sample_bytes / 2;  // samples; a torn tail byte is never nudged
    for (int tries = 0; tries < kMaxNudges; ++tries) {
        const auto hit = findFalseFrame(frame);
        if (!hit) return nudges;
        // The bytes that make the false frame: its start, its terminator, its length. A nudge by
        // one count changes a sample's low byte (its high byte only on a carry), so only a sample
        // whose low byte is one of them can break the match.
        const std::size_t at[] = {hit->start, hit->terminator, hit->terminator + 1, hit->start + 1, hit->start + 2};
        auto matters = [&](std::size_t pos) { return std::find(std::begin(at), std::end(at), pos) != std::end(at); };
        std::optional<std::size_t> pick;
        bool counter = false;
        for (bool counters_too : {false, true}) {
            for (std::size_t pos : at) {
                if (pos < from || (pos - from) / 2 >= whole) continue;
                const std::size_t s = (pos - from) / 2;
                if (!matters(from + 2 * s + 1)) continue;
                counter = waves_[s % static_cast<std::size_t>(channels_)].kind == Waveform::Kind::Counter;
                if (counter && !counters_too) continue;
                pick = s;
                break;
            }
            if (pick) break;
        }
        if (!pick) break;
        if (counter && shorter && hit->terminator + 2 == frame.size()) {
            *shorter = true;
            return nudges;
        }
        const std::size_t off = from + 2 * *pick;
        auto v = static_cast<std::int16_t>(frame[off] << 8 | frame[off + 1]);
        v = v == 32767 ? std::int16_t{32766} : static_cast<std::int16_t>(v + 1);
        frame[off] = static_cast<std::uint8_t>(static_cast<std::uint16_t>(v) >> 8);
        frame[off + 1] = static_cast<std::uint8_t>(v & 0xFF);
        ++nudges;
    }
    *clean = !findFalseFrame(frame);
    return nudges;
}

}  // namespace sim
