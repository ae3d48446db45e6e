// The CAN controller of a unit (products with a can table), a node on an emulated CAN bus
// (firmware/can_bus.hpp). Every request starts with the port and every reply with it; the status stands at
// index 1, 18 when the controller refuses, 23 for a request of the wrong length.
//
//   OPEN_CAN                    takes the port's pins (firmware/product.cpp); the controller joins
//                               the bus: frames are acknowledged and, once started, received
//   START_CAN                   no reply: received frames go to the host (an open port only)
//   STOP_CAN                    they no longer do; CLOSE_CAN stops and leaves the bus too
//   WRITE_CAN                   [port, buffer 0..2, 12-byte frame]: sent on the bus (an open
//                               port only); a remote frame goes without its data bytes
//   SET_CAN_SPEED               mode 0..3: 125, 250, 500, 1000 kbit/s. A node at another speed
//                               than the sender's does not get its frames and counts a bus error
//   SET_CAN_ENABLED_ITR         0/1: interrupts on (the start value); the interrupt counters
//                               count only while they are
//   SET_CAN_TX_PRIORITY         buffer 0..2, priority 0..3, stored
//   SET_CAN_RX_ROLLOVER         0/1: while reception is stopped the controller holds one received
//                               frame, or two with rollover; more are overflows
//   SET_CAN_RX_FILTERING_ON     0/1: acceptance filters on (off at start: every frame passes)
//   SET_CAN_RX_FILTER_OR_MASK   [port, index, 12-byte frame]: index 0..5 filters, 6 the mask of
//                               filters 0 and 1, 7 the mask of filters 2 to 5. A frame passes
//                               if for some filter its identifier word and the filter's agree on
//                               every bit the filter's mask sets among the identifier bits and the
//                               extended flag (the remote flag is never compared). Filters start
//                               0 and masks with every bit set: filtering on alone passes only
//                               standard frames of identifier 0
//   GET_CAN_INTERRUPTS          [port, enabled, state, error state]: state bit 0 frames waiting,
//                               bit 2 a frame sent since the last read (which clears it), bit 5
//                               an error count above 0; error state 0 active, 1 warning (96 and
//                               up), 2 passive (128 and up)
//   GET_CAN_ERRORS              [port, transmit error count, receive error count]
//   GET_CAN_COUNTERS            [port] + six u32: transmit interrupts, receive interrupts, SPI
//                               transactions, frames sent, bus errors, overflows
//
// Received frames wait in a buffer of kBufferFrames for the stream (streams/can.hpp); a frame
// that finds it full is lost and counted as an overflow.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "firmware/can_bus.hpp"
#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

class CanController : public CanNode {
public:
    static constexpr std::size_t kBufferFrames = 8192;
    static constexpr std::uint8_t kCanError = 18;
    static constexpr int kFilters = 6;
    struct Counters {
        std::uint32_t tx_itr = 0, rx_itr = 0, spi = 0, sent = 0, bus_errors = 0, overflow = 0;
    };

    explicit CanController(const torvik::products::Product& product);
    ~CanController() override;
    CanController(const CanController&) = delete;
    CanController& operator=(const CanController&) = delete;

    bool present() const { return !ports_.empty(); }
    static bool isCanCode(std::uint16_t code);
    bool isPort(int port) const;
    std::vector<PinRef> pins(int port) const;

    // The reply to a CAN command; nothing for START_CAN.
    std::optional<Bytes> handle(std::uint16_t code, const Bytes& payload);

    // ---- the bus -------------------------------------------------------------------------
    // Leaves the current bus for this one (frames waiting stay).
    void join(std::shared_ptr<CanBus> bus);
    CanBus& bus() { return *bus_; }
    void receive(const CanFrame& frame, int kbits) override;
    int kbits() const override { return kCanKbits[speed_]; }
    bool accepts(const CanFrame& frame) const;

    // ---- the stream, as the sender drives it ---------------------------------------------
    bool started() const { return started_; }
    std::uint8_t streamPort() const { return port_; }
    std::size_t buffered() const { return (rx_.size() - head_) / 12; }
    // The buffered frames' bytes, oldest first; drop() takes them out once sent.
    std::span<const std::uint8_t> waiting() const { return std::span(rx_).subspan(head_); }
    void drop(std::size_t frames);
    // Called when frames enter the buffer.
    std::function<void()> on_frames;

    // ---- for the control channel ---------------------------------------------------------
    bool isOpen() const { return open_; }
    int speed() const { return speed_; }
    bool filtering() const { return filtering_; }
    bool rollover() const { return rollover_; }
    bool interrupts() const { return itr_; }
    std::size_t held() const { return hold_.size(); }
    const Counters& counters() const { return counters_; }
    std::uint8_t txErrors() const { return tec_; }
    std::uint8_t rxErrors() const { return rec_; }
    std::uint32_t filter(int i) const { return filters_[static_cast<std::size_t>(i)]; }
    std::uint32_t mask(int i) const { return masks_[static_cast<std::size_t>(i)]; }

    // Nobody reads any more: reception stops and the buffer is emptied.
    void hostGone();
    // The unit restarts: everything back to the start values, off the bus's traffic.
    void reset();

private:
    void buffer(const CanFrame& frame);
    std::uint8_t state() const;

    const torvik::products::Product& product_;
    std::vector<int> ports_;
    std::shared_ptr<CanBus> bus_;

    bool open_ = false, started_ = false;
    std::uint8_t port_ = 0;
    int speed_ = 2;
    bool itr_ = true, rollover_ = false, filtering_ = false, tx_done_ = false;
    std::uint8_t tx_buffer_ = 0, tx_priority_ = 0;
    std::array<std::uint32_t, kFilters> filters_{};
    std::array<std::uint32_t, 2> masks_{};
    std::uint8_t tec_ = 0, rec_ = 0;
    Counters counters_;
    std::vector<CanFrame> hold_;  // while reception is stopped
    Bytes rx_;                    // 12 bytes a frame, from head_ on
    std::size_t head_ = 0;
};

}  // namespace sim
