// The emulator's firmware models driven directly: the pin tables of every kind of product, the USB
// products (which the emulator cannot serve over the network) and the clock under a hand-moved
// time source.
#include <gtest/gtest.h>

#include "sim_unit.hpp"

namespace {

using namespace simtest;

TEST(Firmware, PinModesFollowEveryTableOfTheProduct) {
    struct Case {
        const char* cls;
        std::uint8_t port;
        Bytes reply;
    };
    for (const Case& c : {Case{"TorvikUsbSink", 3, {3, 4, 0x11, 0x11}}, Case{"TorvikUsbSink", 4, {4, 0}},
                          // CAN cells (1,4) (1,5) idle until the bus opens
                          Case{"TorvikUsbCan", 1, {1, 6, 0x11, 0x11, 0x11}},
                          // (1,4) analog output idles, (1,5) analog input
                          Case{"TorvikUsbMixed", 1, {1, 6, 0x11, 0x11, 0x91}},
                          // pins 4 and 5 are named by no table
                          Case{"TorvikUsbLogic", 2, {2, 8, 0x11, 0x11, 0x00, 0x11}},
                          Case{"TorvikUsbThermo", 2, {2, 8, 0x11, 0x11, 0x00, 0x11}},
                          Case{"TorvikUsbAnalog", 2, {2, 8, 0x00, 0x00, 0x00, 0x11}},
                          Case{"TorvikLanLogic", 1, {1, 8, 0x11, 0x11, 0x11, 0x11}},
                          Case{"TorvikLanRelay", 1, {1, 6, 0x11, 0x11, 0x11}},
                          // pins 0-4 not brought out, 5 analog input
                          Case{"TorvikLanAnalog", 1, {1, 6, 0, 0, 0x90}}, Case{"TorvikAirAnalog", 1, {1, 6, 0, 0, 0x90}},
                          // the output pin idles until opened
                          Case{"TorvikLanOutput", 3, {3, 12, 0, 0, 0, 0, 0, 0x10}}})
        EXPECT_EQ(Unit(c.cls).ask(wire::GET_PIN_MODE_OF_SLOT, {c.port}), c.reply) << c.cls << " port " << int(c.port);
}

TEST(UsbFirmware, KnowsNoNetworkNorRadio) {
    Unit u("TorvikUsbSink");
    EXPECT_EQ(u.ask(wire::GET_IP), (Bytes{0, 23}));
    EXPECT_EQ(u.ask(wire::GET_RSSI, {1}), (Bytes{1, 23}));
    EXPECT_EQ(u.ask(wire::GET_SERIAL_NUMBER), (Bytes{'S', 'E', 'R', 'I', 'A', 'L', '0', '1'}));
    EXPECT_EQ(u.fw.statusIndex(wire::SET_DATE_TIME), 0u);
}

TEST(UsbFirmware, SinkLoopsItsOutputPortsToItsInputPorts) {
    Unit u("TorvikUsbSink");
    ASSERT_EQ(u.fw.dio().wiring().size(), 12u);
    for (std::uint8_t port : {2, 3}) ASSERT_EQ(u.ask(wire::SET_SLOT_DO, {port, 0}), (Bytes{port, 0}));
    for (std::uint8_t port : {0, 1}) ASSERT_EQ(u.ask(wire::SET_SLOT_DI, {port, 0}), (Bytes{port, 0}));
    EXPECT_EQ(u.ask(wire::SET_AND_WRITE_DO, words(2, {0xFFFF, 0xA5})), words(2, {0xA5}));
    EXPECT_EQ(u.ask(wire::SET_AND_WRITE_DO, words(3, {0xFFFF, 0xFF})), words(3, {0x0F}));  // 4 pins
    EXPECT_EQ(u.ask(wire::READ_AND_GET_DI, words(0, {0xFFFF})), words(0, {0xA5}));
    EXPECT_EQ(u.ask(wire::READ_AND_GET_DI, words(1, {0xFFFF})), words(1, {0x0F}));  // 1.4, 1.5 unwired
    // Inputs and outputs stay on their own ports.
    EXPECT_EQ(u.ask(wire::SET_SLOT_DO, {0, 0}), (Bytes{0, 13}));
    EXPECT_EQ(u.ask(wire::SET_DIO_CURRENT, words(2, {1, 1, 0, 0})), (Bytes{2, 13}));
}

TEST(UsbFirmware, PinsThatGoEitherWayLoopInBothDirections) {
    Unit u("TorvikUsbLogic");
    auto open = [&](std::uint8_t port, bool out) {
        return u.ask(wire::SET_DIO_CURRENT, words(port, {0xFFFF, 0xFFFF, out ? std::uint16_t{0xFFFF} : std::uint16_t{0}, 0}));
    };
    ASSERT_EQ(open(0, true), (Bytes{0, 0}));
    ASSERT_EQ(open(1, false), (Bytes{1, 0}));
    u.ask(wire::SET_AND_WRITE_DO, words(0, {0xFFFF, 0b101101}));
    EXPECT_EQ(u.ask(wire::READ_AND_GET_DI, words(1, {0xFFFF})), words(1, {0b101101}));
    // Turn both ports round: port 1 now drives port 0.
    ASSERT_EQ(u.ask(wire::TOGGLE_DIO_DIR, words(0, {0xFF, 0})), (Bytes{0, 0}));
    ASSERT_EQ(u.ask(wire::TOGGLE_DIO_DIR, words(1, {0x3F, 0b010010})), (Bytes{1, 0}));
    EXPECT_EQ(u.ask(wire::READ_AND_GET_DI, words(0, {0xFF})), words(0, {0b010010}));
    EXPECT_EQ(u.fw.modeOf({0, 0}), sim::PinMode::DI);
    EXPECT_EQ(u.fw.modeOf({1, 0}), sim::PinMode::DO);
    // Ports 2 and 3 share pins 0-3 only.
    const auto wires = u.fw.dio().wiring();
    EXPECT_EQ(std::count_if(wires.begin(), wires.end(), [](auto& w) { return w.first.port == 2; }), 4);
}

TEST(UsbFirmware, AFunctionHoldingAPinBlocksDigitalUse) {
    Unit u("TorvikUsbCan");
    ASSERT_TRUE(u.fw.setPinMode({1, 4}, sim::PinMode::CAN));
    EXPECT_FALSE(u.fw.setPinMode({1, 6}, sim::PinMode::CAN));        // no such pin
    EXPECT_FALSE(u.fw.setPinMode({1, 4}, sim::PinMode::DI));         // not a digital pin
    ASSERT_TRUE(u.fw.setPinMode({1, 2}, sim::PinMode::UART));
    EXPECT_EQ(u.ask(wire::SET_DIO_CURRENT, words(1, {0b100, 0xFFFF, 0, 0})), (Bytes{1, 13}));
    EXPECT_EQ(u.ask(wire::GET_PIN_MODE_OF_SLOT, {1}), (Bytes{1, 6, 0x11, 0x14, 0x17}));
    ASSERT_TRUE(u.fw.setPinMode({1, 2}, sim::PinMode::DO));
    EXPECT_EQ(u.ask(wire::GET_DIO_CURRENT, words(1, {0xFFFF, 0x0101, 0x0101, 0x0101})), words(1, {4, 4, 0}));
}

TEST(FirmwareClock, RunsHoldsAndCountsCalendarDays) {
    Unit u("TorvikLanLogic");
    auto read = [&] { return u.ask(wire::GET_DATE_TIME, Bytes(6)); };
    EXPECT_EQ(read(), (Bytes{124, 1, 1, 0, 0, 0}));
    u.now += std::chrono::milliseconds(61'500);
    EXPECT_EQ(read(), (Bytes{124, 1, 1, 0, 1, 1}));
    ASSERT_EQ(u.ask(wire::SET_DATE_TIME, {123, 12, 31, 23, 59, 58}), Bytes{0});
    u.now += std::chrono::seconds(3);
    EXPECT_EQ(read(), (Bytes{124, 1, 1, 0, 0, 1}));
    ASSERT_EQ(u.ask(wire::SET_DATE_TIME, {124, 2, 28, 23, 59, 59}), Bytes{0});
    u.now += std::chrono::seconds(1);
    EXPECT_EQ(read(), (Bytes{124, 2, 29, 0, 0, 0}));  // a leap year
    EXPECT_EQ(u.ask(wire::SET_DATE_TIME, {123, 2, 29, 0, 0, 0}), Bytes{11});
    ASSERT_TRUE(u.fw.system().clock().set({2023, 7, 4, 9, 5, 0}, false));
    u.now += std::chrono::hours(5);
    EXPECT_EQ(read(), (Bytes{123, 7, 4, 9, 5, 0}));
}

TEST(FirmwareClock, WifiUnitsSetMonthsFromZero) {
    Unit u("TorvikAirAnalog", 0x7F000102);
    EXPECT_EQ(u.ask(wire::SET_DATE_TIME, {123, 0, 31, 0, 0, 0}), Bytes{0});
    EXPECT_EQ(u.ask(wire::GET_DATE_TIME, Bytes(6)), (Bytes{123, 1, 31, 0, 0, 0}));
    EXPECT_EQ(u.ask(wire::SET_DATE_TIME, {123, 12, 1, 0, 0, 0}), Bytes{11});
    EXPECT_EQ(u.ask(wire::GET_IP), (Bytes{127, 0, 1, 2, 255, 255, 255, 0}));
}

}  // namespace
