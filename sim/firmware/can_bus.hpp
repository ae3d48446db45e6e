// An emulated CAN bus: the nodes on it (the CAN controllers of units, and one scriptable node),
// and what goes over it. A frame one node transmits reaches every other node, in the order sent.
// Buses have names; units that name the same bus share it, so that what one unit's host writes
// another unit's host reads. A bus lives as long as a node or a name holder keeps it.
//
// The scriptable node (ScriptNode) is the bus's tester: it acknowledges every frame, keeps what
// it heard for tests to read back, and sends frames: one at a time, or a stream, at a rate or as
// fast as the receiving units' links take them. A stream frame carries its sequence number, from
// 0, as eight bytes high first (a data frame), so that a reader can tell loss from order.
//
// Everything runs on the emulator's one thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "link/bytes.hpp"

namespace sim {

// A frame as it travels between host and unit: the identifier word (high byte first) and eight
// data bytes. Bits of the word: 31..21 the standard identifier, or bits 28..18 of an extended
// one; 20 remote; 19 extended; 17..0 the low bits of an extended identifier.
struct CanFrame {
    static constexpr std::uint32_t kRemote = 0x100000, kExtended = 0x80000;
    std::array<std::uint8_t, 12> wire{};

    static CanFrame make(std::uint32_t id, bool extended, bool remote, std::span<const std::uint8_t> data);
    static CanFrame fromWire(std::span<const std::uint8_t> bytes);  // the first 12 bytes
    std::uint32_t word() const;
    std::uint32_t id() const;
    bool extended() const { return word() & kExtended; }
    bool remote() const { return word() & kRemote; }
    // "ID:std|ext:data|remote:HEX", the control channel's form.
    std::string text() const;
    bool operator==(const CanFrame&) const = default;
};

// The bus speeds a controller can be set to (mode 0..3).
inline constexpr std::array<int, 4> kCanKbits = {125, 250, 500, 1000};

class CanNode {
public:
    virtual ~CanNode() = default;
    // A frame another node sent; `kbits` is its sender's speed (0: the tester, which fits any).
    virtual void receive(const CanFrame& frame, int kbits) = 0;
    // The node's speed; 0 if it takes any.
    virtual int kbits() const = 0;
};

class CanBus;

class ScriptNode : public CanNode {
public:
    enum class Pace { Off, Rate, Fast };
    struct Stream {
        Pace pace = Pace::Off;
        double rate = 0;               // frames a second (Rate)
        std::uint64_t left = 0;        // frames still to send; 0: no end
        std::uint32_t id = 0x100;
        bool extended = false, remote = false;
    };
    static constexpr std::size_t kHeardMax = 100000;

    explicit ScriptNode(CanBus& bus) : bus_(bus) {}
    void receive(const CanFrame& frame, int) override;
    int kbits() const override { return 0; }

    void send(const CanFrame& frame);
    void setStream(const Stream& stream, std::chrono::steady_clock::time_point now);
    const Stream& stream() const { return stream_; }
    bool streaming() const { return stream_.pace != Pace::Off; }
    bool fast() const { return stream_.pace == Pace::Fast; }
    // The next stream frame (the sequence number goes on) without sending it: for bursts that
    // reach one host whatever the bus does.
    CanFrame nextFrame();
    // Sends up to `max` stream frames now (Fast), or those due by `now` (Rate); returns how many.
    std::size_t generate(std::size_t max);
    std::size_t generateUntil(std::chrono::steady_clock::time_point now);
    std::chrono::steady_clock::time_point nextDue() const;
    std::uint64_t sequence() const { return seq_; }
    std::uint64_t sent() const { return sent_; }

    const std::vector<CanFrame>& heard() const { return heard_; }
    std::uint64_t heardTotal() const { return heard_total_; }
    void clearHeard() { heard_.clear(); }

private:
    void take(std::uint64_t frames);

    CanBus& bus_;
    Stream stream_;
    std::uint64_t seq_ = 0, sent_ = 0, paced_ = 0, heard_total_ = 0;
    std::chrono::steady_clock::time_point anchor_{};
    std::vector<CanFrame> heard_;
};

class CanBus {
public:
    // The bus of that name, made if nobody holds it.
    static std::shared_ptr<CanBus> named(const std::string& name);
    // A bus of its own, on no name.
    static std::shared_ptr<CanBus> unnamed();

    explicit CanBus(std::string name);
    CanBus(const CanBus&) = delete;
    CanBus& operator=(const CanBus&) = delete;

    const std::string& name() const { return name_; }
    void attach(CanNode* node);
    void detach(CanNode* node);
    // Nodes other than the tester.
    std::size_t controllers() const { return nodes_.size() - 1; }
    // Every node but `from` hears the frame.
    void transmit(const CanFrame& frame, const CanNode* from);
    ScriptNode& tester() { return tester_; }

private:
    std::string name_;
    ScriptNode tester_;
    std::vector<CanNode*> nodes_;
};

}  // namespace sim
