#include "streams/analog.hpp"

#include <algorithm>

#include "firmware/product.hpp"
#include "unit.hpp"

namespace sim {

namespace {
// Payloads one round may send before the loop serves others (about 150 KB at 600 frames).
constexpr int kPayloadsPerRound = 16;
}  // namespace

StreamSender::StreamSender(EventLoop& loop, Unit& unit) : unit_(unit), timer_(loop, [this] { round(); }) {}

std::size_t StreamSender::maxFrames(int channels) {
    // A length field above 32767 reads negative on the host: 1 code byte, port and status.
    return (32767 - 3) / (2 * static_cast<std::size_t>(std::max(channels, 1)));
}

AnalogInput* StreamSender::input() const {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit_.firmware());
    if (!fw || !fw->ai().present()) return nullptr;
    return &fw->ai();
}

Link* StreamSender::link(const AnalogInput& ai) const {
    Transport* t = unit_.transport(ai.streamChannel());
    return t ? t->newest() : nullptr;
}

void StreamSender::setPace(Pace pace, std::size_t frames) {
    if (pace_ == Pace::Fast && pace == Pace::Realtime)
        if (AnalogInput* ai = input()) ai->rebase(Clock::now());  // no catching up on the time it ran fast
    pace_ = pace;
    if (frames) frames_ = frames;
    poke();
}

void StreamSender::burst(std::uint64_t frames) {
    burst_left_ += frames;
    poke();
}

void StreamSender::torn(std::size_t extra) {
    torn_extra_ = extra;
    poke();
}

void StreamSender::setStall(bool on) {
    stalled_ = on;
    poke();
}

void StreamSender::clearFaults() {
    setStall(false);
    burst_left_ = 0;
    torn_extra_ = 0;
}

void StreamSender::linkClosed() {
    AnalogInput* ai = input();
    if (!ai) return;
    const Transport* cmd = unit_.transport(Channel::Cmd);
    const Transport* strm = unit_.transport(ai->streamChannel());
    if ((cmd && cmd->open() == 0) || (strm && strm->open() == 0)) {
        ai->abort();
        burst_left_ = 0;
        torn_extra_ = 0;
    }
}

void StreamSender::poke() { schedule(Clock::now()); }

void StreamSender::linkDrained() {
    const bool fault_pending = burst_left_ > 0 || torn_extra_ > 0;
    schedule(pace_ == Pace::Fast || fault_pending ? Clock::now() : std::max(Clock::now(), last_sent_ + kTick));
}

void StreamSender::round() {
    AnalogInput* ai = input();
    if (!ai) return;
    const bool fast = pace_ == Pace::Fast;
    const auto now = Clock::now();
    if (ai->running() && !fast) ai->acquireUntil(now);

    // A stalled stream or a silent unit sends nothing, while the acquisition goes on.
    Link* l = stalled_ || unit_.faults().silent() ? nullptr : link(*ai);
    const std::size_t per_payload = std::min(frames_, maxFrames(ai->channels()));
    auto send = [&](AnalogInput::Emitted e) {
        l->send(e.bytes);
        last_sent_ = now;
        stats_.frames += e.frames;
        ++stats_.payloads;
        stats_.nudges += e.nudges;
        if (!e.clean) ++stats_.unclean;
    };
    for (int budget = kPayloadsPerRound; l && l->backlog() == 0 && budget > 0; --budget) {
        if (ai->buffered() == 0) {
            if (torn_extra_) {
                send(ai->emitTorn(torn_extra_, guard_));
                torn_extra_ = 0;
                continue;
            }
            if (burst_left_ > 0) {
                const auto k = static_cast<std::size_t>(std::min<std::uint64_t>(burst_left_, per_payload));
                ai->overdrive(k);
                burst_left_ -= k;
            } else if (!(fast && ai->acquire(per_payload) > 0)) {
                break;
            }
        }
        send(ai->emit(per_payload, guard_));
    }

    const bool more = torn_extra_ || burst_left_ > 0 || ai->buffered() > 0 || (fast && ai->running());
    if (l && l->backlog() > 0) {
        // The drain wakes us; in real time the schedule goes on (and the buffer may overflow).
        if (ai->running() && !fast) schedule(now + kTick);
        return;
    }
    if (l && more) {
        schedule(now);
        return;
    }
    if (ai->running() && !fast) schedule(std::max(now + kTick, ai->nextFrameDue()));
    // Otherwise nothing is due: a request, a control line or a new link pokes us.
}

}  // namespace sim
