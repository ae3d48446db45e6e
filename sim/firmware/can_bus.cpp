#include "firmware/can_bus.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

namespace sim {

CanFrame CanFrame::make(std::uint32_t id, bool extended, bool remote, std::span<const std::uint8_t> data) {
    std::uint32_t word = extended ? ((id & 0x1FFC0000u) << 3) | (id & 0x3FFFFu) | kExtended : (id & 0x7FFu) << 21;
    if (remote) word |= kRemote;
    CanFrame f;
    for (int i = 0; i < 4; ++i) f.wire[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(word >> (24 - 8 * i));
    std::copy_n(data.begin(), std::min<std::size_t>(data.size(), 8), f.wire.begin() + 4);
    return f;
}

CanFrame CanFrame::fromWire(std::span<const std::uint8_t> bytes) {
    CanFrame f;
    std::copy_n(bytes.begin(), std::min<std::size_t>(bytes.size(), 12), f.wire.begin());
    return f;
}

std::uint32_t CanFrame::word() const {
    return std::uint32_t{wire[0]} << 24 | std::uint32_t{wire[1]} << 16 | std::uint32_t{wire[2]} << 8 | wire[3];
}

std::uint32_t CanFrame::id() const {
    const std::uint32_t w = word();
    return extended() ? ((w & 0xFFE00000u) >> 3) | (w & 0x3FFFFu) : w >> 21;
}

std::string CanFrame::text() const {
    char head[32];
    std::snprintf(head, sizeof head, "0x%X:%s:%s:", id(), extended() ? "ext" : "std", remote() ? "remote" : "data");
    return head + toHex(std::span(wire).subspan(4));
}

// ---- the tester ----

void ScriptNode::receive(const CanFrame& frame, int) {
    ++heard_total_;
    if (heard_.size() < kHeardMax) heard_.push_back(frame);
}

void ScriptNode::send(const CanFrame& frame) { bus_.transmit(frame, this); }

void ScriptNode::setStream(const Stream& stream, std::chrono::steady_clock::time_point now) {
    stream_ = stream;
    anchor_ = now;
    paced_ = 0;
}

CanFrame ScriptNode::nextFrame() {
    std::array<std::uint8_t, 8> data{};
    if (!stream_.remote)
        for (int i = 0; i < 8; ++i) data[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(seq_ >> (56 - 8 * i));
    ++seq_;
    return CanFrame::make(stream_.id, stream_.extended, stream_.remote, data);
}

void ScriptNode::take(std::uint64_t frames) {
    for (std::uint64_t i = 0; i < frames; ++i) {
        send(nextFrame());
        ++sent_;
    }
    paced_ += frames;
    if (stream_.left) {
        stream_.left -= frames;
        if (stream_.left == 0) stream_.pace = Pace::Off;
    }
}

std::size_t ScriptNode::generate(std::size_t max) {
    if (stream_.pace != Pace::Fast) return 0;
    std::uint64_t k = max;
    if (stream_.left) k = std::min(k, stream_.left);
    take(k);
    return static_cast<std::size_t>(k);
}

std::size_t ScriptNode::generateUntil(std::chrono::steady_clock::time_point now) {
    if (stream_.pace != Pace::Rate) return 0;
    const double elapsed = std::chrono::duration<double>(now - anchor_).count();
    // The tiny allowance keeps a frame due exactly now from being missed by rounding.
    auto due = static_cast<std::uint64_t>(std::max(0.0, std::floor(elapsed * stream_.rate + 1e-6)));
    if (due <= paced_) return 0;
    std::uint64_t k = due - paced_;
    if (stream_.left) k = std::min(k, stream_.left);
    take(k);
    return static_cast<std::size_t>(k);
}

std::chrono::steady_clock::time_point ScriptNode::nextDue() const {
    using D = std::chrono::steady_clock::duration;
    return anchor_ + std::chrono::duration_cast<D>(std::chrono::duration<double>((paced_ + 1) / stream_.rate));
}

// ---- the bus ----

namespace {
std::map<std::string, std::weak_ptr<CanBus>>& registry() {
    static std::map<std::string, std::weak_ptr<CanBus>> buses;
    return buses;
}
}  // namespace

std::shared_ptr<CanBus> CanBus::named(const std::string& name) {
    auto& slot = registry()[name];
    if (auto bus = slot.lock()) return bus;
    auto bus = std::make_shared<CanBus>(name);
    slot = bus;
    return bus;
}

std::shared_ptr<CanBus> CanBus::unnamed() { return std::make_shared<CanBus>(""); }

CanBus::CanBus(std::string name) : name_(std::move(name)), tester_(*this) { nodes_.push_back(&tester_); }

void CanBus::attach(CanNode* node) {
    if (std::find(nodes_.begin(), nodes_.end(), node) == nodes_.end()) nodes_.push_back(node);
}

void CanBus::detach(CanNode* node) { std::erase(nodes_, node); }

void CanBus::transmit(const CanFrame& frame, const CanNode* from) {
    const int kbits = from ? from->kbits() : 0;
    // Hearing a frame only buffers it: no node joins or leaves the bus during this walk.
    for (CanNode* n : nodes_)
        if (n != from) n->receive(frame, kbits);
}

}  // namespace sim
