// The emulator's serial bus models driven directly, under a hand-moved clock: UART pacing and the
// receive buffer's bound, the EEPROM's addressing, the SPI settings' checks.
#include <gtest/gtest.h>

#include "sim_unit.hpp"

namespace {

using namespace simtest;
using namespace std::chrono_literals;

struct Unit : simtest::Unit {
    Unit() : simtest::Unit("TorvikUsbLogic") {}

    // What reached the host's side of port `port` so far, taken out.
    std::size_t take(int port) {
        auto& u = fw.uart();
        u.advance(now);
        const std::size_t n = u.ready(*u.port(port), 1 << 20).size();
        u.consume(*u.port(port), n);
        return n;
    }
};

TEST(SimUart, PacedBytesArriveAtTheBaudRateOfTheirFraming) {
    Unit u;
    ASSERT_EQ(u.ask(wire::OPEN_UART, {1, 0, 0, 0x25, 0x80, 0, 2, 2}), (Bytes{1, 0}));  // 9600 baud, even parity, 2 stop bits
    u.tell(wire::START_UART_READING, {1});
    sim::Uart& uart = u.fw.uart();
    EXPECT_DOUBLE_EQ(sim::Uart::bytesPerSecond(*uart.port(1)), 800.0);  // 12 bits a character
    uart.talk(*uart.port(1), Bytes(100, 0x55), u.now);
    u.now += 50ms;
    EXPECT_EQ(u.take(1), 40u);
    u.now += 1s;
    EXPECT_EQ(u.take(1), 60u);
    EXPECT_FALSE(uart.nextDue());  // the wire is quiet: nothing more is due
}

TEST(SimUart, AStreamThatNobodyTakesOverflowsTheBufferAndCountsTheLoss) {
    Unit u;
    u.ask(wire::OPEN_UART, {2});
    u.tell(wire::START_UART_READING, {2});
    sim::Uart& uart = u.fw.uart();
    uart.stream(*uart.port(2), 1e6, 300000, u.now);
    u.now += 10s;
    uart.advance(u.now);
    const auto& c = uart.port(2)->counters;
    EXPECT_EQ(uart.port(2)->buffer.size(), sim::Uart::kBufferBytes);
    EXPECT_EQ(c.received + c.lost, 300000u);
    EXPECT_EQ(c.received, sim::Uart::kBufferBytes);
    EXPECT_EQ(uart.port(2)->buffer.back(), 0xFF);  // the newest are lost, as in a receiver's overrun
    uart.consume(*uart.port(2), 1000);
    uart.stream(*uart.port(2), 1e6, 1, u.now);
    u.now += 1s;
    uart.advance(u.now);
    EXPECT_EQ(uart.port(2)->buffer.back(), static_cast<std::uint8_t>(300000));  // the count went on
}

TEST(SimUart, ASilentFarEndDoesNotMakeUpForItsSilenceAndStopDropsWhatWaits) {
    Unit u;
    u.ask(wire::OPEN_UART, {1});
    u.tell(wire::START_UART_READING, {1});
    sim::Uart& uart = u.fw.uart();
    sim::Uart::Port& p = *uart.port(1);
    uart.stream(p, 1000, sim::Uart::kEndless, u.now);
    u.now += 100ms;
    EXPECT_EQ(u.take(1), 100u);
    uart.setSilent(p, true, u.now);
    u.now += 1s;
    EXPECT_EQ(u.take(1), 0u);
    uart.setSilent(p, false, u.now);
    u.now += 50ms;
    EXPECT_EQ(u.take(1), 50u);
    u.now += 10ms;
    uart.advance(u.now);
    EXPECT_EQ(u.ask(wire::STOP_UART_READING, {1}), (Bytes{1, 0}));
    EXPECT_TRUE(p.buffer.empty());
    EXPECT_EQ(p.counters.ignored, 10u);
}

TEST(SimUart, NothingArrivesWhileNotReading) {
    Unit u;
    u.ask(wire::OPEN_UART, {1});  // open, but reception not started
    sim::Uart& uart = u.fw.uart();
    uart.talk(*uart.port(1), Bytes(10, 1), u.now);
    uart.burst(*uart.port(1), 10);
    u.now += 1s;
    EXPECT_EQ(u.take(1), 0u);
    EXPECT_EQ(uart.port(1)->counters.ignored, 10u);
    EXPECT_EQ(u.ask(wire::WRITE_UART, {1, 2, 7}), (Bytes{1, 2, sim::Uart::kUartError}));  // length says 2, one came
}

TEST(SimEeprom, WritesWrapInsideTheirPage) {
    struct Case {
        std::size_t size, page;
        Bytes write;     // after port, address and count
        std::size_t at;  // where to look
        Bytes expect;
    };
    for (const Case& c : {Case{256, 16, {0x0E, 1, 2, 3}, 0x00, {3, 0xFF}},  // wraps to the page's start
                          Case{256, 16, {0x0E, 1, 2, 3}, 0x0E, {1, 2}},      // after filling its end
                          Case{512, 32, {0x01, 0x10, 9, 8}, 0x110, {9, 8, 0xFF}}}) {  // two address bytes above 256
        Unit u;
        auto& e = u.fw.i2c().port(1)->eeprom;
        e.memory.assign(c.size, 0xFF);
        e.page = c.page;
        u.ask(wire::OPEN_I2C, {1});
        Bytes req{1, 0x50, static_cast<std::uint8_t>(c.write.size())};
        for (std::uint8_t b : c.write) req.push_back(b);  // (an insert here trips GCC 12's bounds warning)
        ASSERT_EQ(u.ask(wire::WRITE_I2C, req).at(3), 0);
        const auto from = e.memory.begin() + static_cast<std::ptrdiff_t>(c.at);
        EXPECT_EQ(Bytes(from, from + static_cast<std::ptrdiff_t>(c.expect.size())), c.expect) << c.at;
    }
}

TEST(SimSpi, SettingsAreCheckedAndWantAnOpenPort) {
    Unit u;
    EXPECT_EQ(u.ask(wire::SET_SPI_CPOL, {1, 1}), (Bytes{1, sim::Spi::kSpiError}));  // closed
    u.ask(wire::OPEN_SPI, {1});
    for (std::uint16_t prescaler : {1, 3, 512, 0x8000})
        EXPECT_EQ(u.ask(wire::SET_SPI_PRESCALER, {1, static_cast<std::uint8_t>(prescaler >> 8), static_cast<std::uint8_t>(prescaler)}),
                  (Bytes{1, sim::Spi::kSpiError}))
            << prescaler;
    EXPECT_EQ(u.ask(wire::SET_SPI_PRESCALER, {1, 1, 0}), (Bytes{1, 0}));
    EXPECT_EQ(u.ask(wire::SET_SPI_CPHA, {1, 2}), (Bytes{1, sim::Spi::kSpiError}));
    EXPECT_EQ(u.ask(wire::READ_AND_WRITE_SPI, {1, 3, 1, 2}), (Bytes{1, sim::Spi::kSpiError}));  // length says 3
}

}  // namespace
