#include "streams/can.hpp"

#include <algorithm>

#include "firmware/can_bus.hpp"
#include "firmware/product.hpp"
#include "link/frame.hpp"
#include "link/frame_guard.hpp"
#include "unit.hpp"
#include "wire/commands.hpp"

namespace sim {

namespace {
// Payloads one round may send before the loop serves others.
constexpr int kPayloadsPerRound = 16;
// 0x02, two length bytes, the one-byte code, port and status: where the frames start.
constexpr std::size_t kFramesFrom = 6;
}  // namespace

CanSender::CanSender(EventLoop& loop, Unit& unit) : unit_(unit), timer_(loop, [this] { round(); }) {}

CanSender::~CanSender() {
    if (CanController* can = controller()) can->on_frames = nullptr;
}

CanController* CanSender::controller() const {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit_.firmware());
    if (!fw || !fw->can().present()) return nullptr;
    return &fw->can();
}

void CanSender::attach() {
    CanController* can = controller();
    if (!can) return;
    can->on_frames = [this] { poke(); };
    if (!bus_name_.empty() && can->bus().name() != bus_name_) can->join(CanBus::named(bus_name_));
}

void CanSender::setBus(const std::string& name) {
    bus_name_ = name;
    if (CanController* can = controller()) can->join(name.empty() ? CanBus::unnamed() : CanBus::named(name));
    poke();
}

void CanSender::setFrames(std::size_t frames) {
    frames_ = std::clamp<std::size_t>(frames, 1, kMaxFrames);
    poke();
}

void CanSender::burst(std::uint64_t frames) {
    burst_left_ += frames;
    poke();
}

void CanSender::torn(std::size_t extra) {
    torn_extra_ = extra;
    torn_pending_ = true;
    poke();
}

void CanSender::clearFaults() {
    burst_left_ = 0;
    burst_.clear();
    torn_pending_ = false;
}

void CanSender::linkClosed() {
    CanController* can = controller();
    const Transport* cmd = unit_.transport(Channel::Cmd);
    if (!can || !cmd || cmd->open() > 0) return;
    can->hostGone();
    clearFaults();
}

void CanSender::poke() { schedule(Clock::now()); }

std::size_t CanSender::sendPayload(Link& link, std::uint8_t port, std::span<const std::uint8_t> records, std::size_t max,
                                   std::size_t extra) {
    std::size_t n = std::min(max, records.size() / 12);
    for (;;) {
        Bytes payload;
        payload.reserve(2 + n * 12 + extra);
        payload.push_back(port);
        payload.push_back(kOk);
        payload.insert(payload.end(), records.begin(), records.begin() + static_cast<std::ptrdiff_t>(n * 12));
        payload.insert(payload.end(), extra, std::uint8_t{0x55});
        Bytes frame = encodeUnitFrame(torvik::wire::START_CAN, payload);
        const auto hit = findFalseFrame(frame);
        if (hit && n > 1) {
            // End the payload before the false terminator, or at least a frame earlier.
            const std::size_t before = hit->terminator > kFramesFrom ? (hit->terminator - kFramesFrom) / 12 : 0;
            n = std::clamp<std::size_t>(before, 1, n - 1);
            ++stats_.shortened;
            continue;
        }
        if (hit) ++stats_.unclean;
        link.send(frame);
        stats_.frames += n;
        ++stats_.payloads;
        return n;
    }
}

void CanSender::round() {
    CanController* can = controller();
    if (!can) return;
    ScriptNode& tester = can->bus().tester();
    const auto now = Clock::now();
    if (tester.streaming() && !tester.fast()) tester.generateUntil(now);

    Transport* t = unit_.transport(Channel::Cmd);
    Link* l = unit_.faults().silent() || !t ? nullptr : t->newest();
    if (l && !l->writable()) l = nullptr;
    bool starved = false;  // a fast stream this unit's filters let nothing through of
    for (int budget = kPayloadsPerRound; l && l->backlog() == 0 && budget > 0; --budget) {
        if (torn_pending_) {
            const CanFrame f = tester.nextFrame();
            sendPayload(*l, can->streamPort(), f.wire, 1, torn_extra_);
            torn_pending_ = false;
            continue;
        }
        if (burst_.empty() && burst_left_ > 0) {
            const auto k = static_cast<std::size_t>(std::min<std::uint64_t>(burst_left_, frames_));
            for (std::size_t i = 0; i < k; ++i) {
                const CanFrame f = tester.nextFrame();
                burst_.insert(burst_.end(), f.wire.begin(), f.wire.end());
            }
            burst_left_ -= k;
        }
        if (!burst_.empty()) {
            const std::size_t sent = sendPayload(*l, can->streamPort(), burst_, frames_);
            burst_.erase(burst_.begin(), burst_.begin() + static_cast<std::ptrdiff_t>(sent * 12));
            continue;
        }
        if (can->buffered() == 0) {
            if (!(tester.fast() && can->started())) break;
            tester.generate(frames_);
            if (can->buffered() == 0) {
                starved = true;
                break;
            }
        }
        can->drop(sendPayload(*l, can->streamPort(), can->waiting(), frames_));
    }

    const bool fast = tester.fast() && can->started() && !starved;
    const bool more = torn_pending_ || burst_left_ > 0 || !burst_.empty() || can->buffered() > 0 || fast;
    const bool paced = tester.streaming() && !tester.fast();
    if (l && l->backlog() > 0) {
        // The drain wakes us; a paced stream goes on meanwhile.
        if (paced) schedule(std::max(now + kTick, tester.nextDue()));
        return;
    }
    if (l && more) {
        schedule(now);
        return;
    }
    if (paced) {
        schedule(std::max(now + kTick, tester.nextDue()));
    } else if (starved && tester.fast()) {
        schedule(now + kTick);  // the bus is busy, though none of it is for this unit
    }
    // Otherwise nothing is due: a frame, a request, a control line or a new link pokes us.
}

}  // namespace sim
