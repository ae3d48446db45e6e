#include "firmware/can.hpp"

#include <algorithm>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

namespace {
// Identifier bits and the extended flag: what filters compare, the remote flag aside.
constexpr std::uint32_t kMatchBits = 0xFFE00000u | CanFrame::kExtended | 0x3FFFFu;

std::uint8_t saturatingAdd(std::uint8_t v, int by) { return static_cast<std::uint8_t>(std::min(255, v + by)); }
}  // namespace

CanController::CanController(const products::Product& product) : product_(product), bus_(CanBus::unnamed()) {
    if (!product.can.empty())
        for (const auto& [port, cells] : products::parsePortTable(product.can)) ports_.push_back(port);
    reset();
    bus_->attach(this);
}

CanController::~CanController() { bus_->detach(this); }

bool CanController::isCanCode(std::uint16_t code) { return code >= wire::OPEN_CAN && code <= wire::GET_CAN_COUNTERS; }

bool CanController::isPort(int port) const { return std::find(ports_.begin(), ports_.end(), port) != ports_.end(); }

std::vector<PinRef> CanController::pins(int port) const {
    std::vector<PinRef> out;
    for (const auto& [p, cells] : products::parsePortTable(product_.can))
        if (p == port)
            for (const auto& c : cells) out.push_back(PinRef{c.hw_port, c.pin});
    return out;
}

void CanController::join(std::shared_ptr<CanBus> bus) {
    bus_->detach(this);
    bus_ = std::move(bus);
    bus_->attach(this);
}

void CanController::reset() {
    open_ = started_ = false;
    port_ = ports_.empty() ? 0 : static_cast<std::uint8_t>(ports_.front());
    speed_ = 2;
    itr_ = true;
    rollover_ = filtering_ = tx_done_ = false;
    tx_buffer_ = tx_priority_ = 0;
    filters_ = {};
    masks_ = {kMatchBits, kMatchBits};
    tec_ = rec_ = 0;
    counters_ = {};
    hold_.clear();
    rx_.clear();
    head_ = 0;
}

void CanController::hostGone() {
    started_ = false;
    rx_.clear();
    head_ = 0;
}

bool CanController::accepts(const CanFrame& frame) const {
    if (!filtering_) return true;
    const std::uint32_t word = frame.word();
    for (int f = 0; f < kFilters; ++f) {
        const std::uint32_t mask = masks_[f < 2 ? 0 : 1] & kMatchBits;
        if (((word ^ filters_[static_cast<std::size_t>(f)]) & mask) == 0) return true;
    }
    return false;
}

void CanController::receive(const CanFrame& frame, int kbits) {
    if (!open_) return;  // in configuration mode the controller takes no part in the bus
    if (kbits != 0 && kbits != this->kbits()) {
        // The frame's bits make no sense at this speed: an error frame, no reception.
        ++counters_.bus_errors;
        rec_ = saturatingAdd(rec_, 1);
        return;
    }
    if (rec_ > 0) --rec_;
    if (!accepts(frame)) return;
    if (itr_) ++counters_.rx_itr;
    if (!started_) {
        if (hold_.size() < (rollover_ ? 2u : 1u))
            hold_.push_back(frame);
        else
            ++counters_.overflow;
        return;
    }
    ++counters_.spi;
    buffer(frame);
    if (on_frames) on_frames();
}

void CanController::buffer(const CanFrame& frame) {
    if (buffered() >= kBufferFrames) {
        ++counters_.overflow;
        return;
    }
    rx_.insert(rx_.end(), frame.wire.begin(), frame.wire.end());
}

void CanController::drop(std::size_t frames) {
    head_ += std::min(frames, buffered()) * 12;
    // Compact once the sent part outweighs what waits, so the buffer stays within bounds.
    if (head_ >= rx_.size()) {
        rx_.clear();
        head_ = 0;
    } else if (head_ > rx_.size() / 2) {
        rx_.erase(rx_.begin(), rx_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
}

std::uint8_t CanController::state() const {
    std::uint8_t s = 0;
    if (buffered() > 0 || !hold_.empty()) s |= 0x01;
    if (tx_done_) s |= 0x04;
    if (tec_ > 0 || rec_ > 0) s |= 0x20;
    return s;
}

std::optional<Bytes> CanController::handle(std::uint16_t code, const Bytes& in) {
    ++counters_.spi;
    const std::uint8_t port = portOf(in);
    if (code == wire::START_CAN) {
        // Sent without awaiting a reply: a refusal has nobody to go to.
        if (in.size() == 1 && isPort(port) && open_) {
            started_ = true;
            port_ = port;
            for (const CanFrame& f : hold_) buffer(f);
            hold_.clear();
            if (buffered() > 0 && on_frames) on_frames();
        }
        return std::nullopt;
    }
    std::size_t length = 1;
    switch (code) {
    case wire::WRITE_CAN:
    case wire::SET_CAN_RX_FILTER_OR_MASK: length = 14; break;
    case wire::SET_CAN_SPEED:
    case wire::SET_CAN_ENABLED_ITR:
    case wire::SET_CAN_RX_ROLLOVER:
    case wire::SET_CAN_RX_FILTERING_ON: length = 2; break;
    case wire::SET_CAN_TX_PRIORITY: length = 3; break;
    default: break;
    }
    if (in.size() != length) return portStatus(port, kCommandsError);
    if (!isPort(port)) return portStatus(port, kCanError);
    const Bytes ok = portStatus(port, kOk), refused = portStatus(port, kCanError);
    auto flag = [&](bool& field) {
        if (in[1] > 1) return refused;
        field = in[1] == 1;
        return ok;
    };

    switch (code) {
    case wire::OPEN_CAN:
        open_ = true;
        port_ = port;
        return ok;
    case wire::CLOSE_CAN:
        open_ = started_ = false;
        hold_.clear();
        return ok;
    case wire::STOP_CAN: started_ = false; return ok;
    case wire::WRITE_CAN: {
        if (!open_ || in[1] > 2) return refused;
        CanFrame frame = CanFrame::fromWire(std::span(in).subspan(2));
        if (frame.remote()) std::fill(frame.wire.begin() + 4, frame.wire.end(), std::uint8_t{0});
        ++counters_.sent;
        if (itr_) ++counters_.tx_itr;
        if (tec_ > 0) --tec_;
        tx_done_ = true;
        bus_->transmit(frame, this);
        return ok;
    }
    case wire::SET_CAN_SPEED:
        if (in[1] > 3) return refused;
        speed_ = in[1];
        return ok;
    case wire::SET_CAN_ENABLED_ITR: return flag(itr_);
    case wire::SET_CAN_RX_ROLLOVER: return flag(rollover_);
    case wire::SET_CAN_RX_FILTERING_ON: return flag(filtering_);
    case wire::SET_CAN_TX_PRIORITY:
        if (in[1] > 2 || in[2] > 3) return refused;
        tx_buffer_ = in[1];
        tx_priority_ = in[2];
        return ok;
    case wire::SET_CAN_RX_FILTER_OR_MASK: {
        const std::uint8_t index = in[1];
        if (index >= kFilters + 2) return refused;
        const std::uint32_t word = CanFrame::fromWire(std::span(in).subspan(2)).word();
        if (index < kFilters)
            filters_[index] = word;
        else
            masks_[static_cast<std::size_t>(index - kFilters)] = word;
        return ok;
    }
    case wire::GET_CAN_INTERRUPTS: {
        const std::uint8_t errors = std::max(tec_, rec_);
        const std::uint8_t error_state = errors >= 128 ? 2 : errors >= 96 ? 1 : 0;
        Bytes out{port, static_cast<std::uint8_t>(itr_), state(), error_state};
        tx_done_ = false;
        return out;
    }
    case wire::GET_CAN_ERRORS: return Bytes{port, tec_, rec_};
    case wire::GET_CAN_COUNTERS: {
        Bytes out{port};
        const Counters& c = counters_;
        for (std::uint32_t v : {c.tx_itr, c.rx_itr, c.spi, c.sent, c.bus_errors, c.overflow}) putU32(out, v);
        return out;
    }
    default: return portStatus(port, kCommandsError);
    }
}

}  // namespace sim
