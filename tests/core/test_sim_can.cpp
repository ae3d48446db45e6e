// The emulator's CAN controller and bus driven directly: frame words worked out by hand, what the
// controller refuses, and frames between two units on one bus.
#include <gtest/gtest.h>

#include "firmware/can_bus.hpp"
#include "sim_unit.hpp"

namespace {

using namespace simtest;
using sim::CanFrame;

struct CanUnit : Unit {
    CanUnit() : Unit("TorvikUsbCan") {}
};

Bytes withFrame(Bytes head, const CanFrame& f) {
    head.insert(head.end(), f.wire.begin(), f.wire.end());
    return head;
}

struct WordCase {
    std::uint32_t id;
    bool ext, remote;
    std::uint32_t word;
};

TEST(SimCanFrame, IdentifierWordsWorkedOutByHand) {
    for (const WordCase& c : {WordCase{0x123, false, false, 0x24600000}, WordCase{0x7FF, false, true, 0xFFF00000},
                              WordCase{0, false, true, 0x00100000}, WordCase{0x1FFFFFFF, true, false, 0xFFEBFFFF},
                              WordCase{0x40000, true, true, 0x00380000}, WordCase{1, true, false, 0x00080001}}) {
        const CanFrame f = CanFrame::make(c.id, c.ext, c.remote, Bytes{1, 2});
        EXPECT_EQ(f.word(), c.word) << std::hex << c.id;
        EXPECT_EQ(f.id(), c.id);
        EXPECT_EQ(f.extended(), c.ext);
        EXPECT_EQ(f.remote(), c.remote);
        EXPECT_EQ(f.wire[4], 1);
        EXPECT_EQ(f.wire[11], 0);
    }
}

TEST(SimCanController, RefusesWhatItCannotDo) {
    CanUnit u;
    const CanFrame f = CanFrame::make(5, false, false, {});
    struct Case {
        std::uint16_t code;
        Bytes payload;
        Bytes reply;
    };
    for (const Case& c : {Case{wire::WRITE_CAN, withFrame({1, 0}, f), {1, 18}},  // not open
                          Case{wire::OPEN_CAN, {2}, {2, 18}}, Case{wire::OPEN_CAN, {1, 0}, {1, 23}},
                          Case{wire::OPEN_CAN, {1}, {1, 0}}, Case{wire::WRITE_CAN, withFrame({1, 3}, f), {1, 18}},
                          Case{wire::SET_CAN_SPEED, {1, 4}, {1, 18}}, Case{wire::SET_CAN_RX_ROLLOVER, {1, 2}, {1, 18}},
                          Case{wire::SET_CAN_RX_FILTER_OR_MASK, withFrame({1, 8}, f), {1, 18}},
                          Case{wire::SET_CAN_TX_PRIORITY, {1, 2, 4}, {1, 18}}, Case{wire::GET_CAN_ERRORS, {1}, {1, 0, 0}},
                          Case{wire::WRITE_CAN, withFrame({1, 2}, f), {1, 0}}})
        EXPECT_EQ(u.ask(c.code, c.payload), c.reply) << c.code;
}

TEST(SimCanBus, OneUnitsWriteIsTheOthersFrameWhenStarted) {
    CanUnit a, b;
    for (CanUnit* u : {&a, &b}) {
        u->fw.can().join(sim::CanBus::named("core-test-bus"));
        ASSERT_EQ(u->ask(wire::OPEN_CAN, {1}), (Bytes{1, 0}));
    }
    const CanFrame f = CanFrame::make(0x1ABCDEF, true, false, Bytes{9, 8, 7});
    ASSERT_EQ(a.ask(wire::WRITE_CAN, withFrame({1, 0}, f)), (Bytes{1, 0}));
    EXPECT_EQ(b.fw.can().held(), 1u);  // not started: the controller holds it
    b.tell(wire::START_CAN, {1});
    ASSERT_EQ(b.fw.can().buffered(), 1u);
    EXPECT_TRUE(std::equal(f.wire.begin(), f.wire.end(), b.fw.can().waiting().begin()));
    EXPECT_EQ(a.fw.can().bus().tester().heard(), std::vector<CanFrame>{f});
    const Bytes counters = b.ask(wire::GET_CAN_COUNTERS, {1});
    ASSERT_EQ(counters.size(), 25u);
    EXPECT_EQ(sim::u32At(counters, 1 + 4), 1u);  // one receive interrupt
    EXPECT_EQ(a.ask(wire::GET_CAN_INTERRUPTS, {1}), (Bytes{1, 1, 0x04, 0}));  // a frame sent
}

}  // namespace
