#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "wire/bytes.hpp"
#include "wire/commands.hpp"
#include "wire/error_codes.hpp"

using namespace torvik::wire;

TEST(Bytes, BigEndianRoundTripsAtTheEdgesOfEachType) {
    EXPECT_EQ(packBE<std::uint16_t>(513), (std::array<std::uint8_t, 2>{2, 1}));
    EXPECT_EQ(packBE<std::int16_t>(-1), (std::array<std::uint8_t, 2>{255, 255}));
    EXPECT_EQ(packBE<std::int32_t>(std::numeric_limits<std::int32_t>::min()), (std::array<std::uint8_t, 4>{0x80, 0, 0, 0}));
    EXPECT_EQ(packBE<float>(1.0f), (std::array<std::uint8_t, 4>{0x3F, 0x80, 0, 0}));
    const std::uint8_t i64[] = {0x80, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(unpackBE<std::int64_t>(i64), std::numeric_limits<std::int64_t>::min() + 1);
    const std::uint8_t nan[] = {0x7F, 0xF8, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(std::isnan(unpackBE<double>(nan)));
    auto u64 = packBE<std::uint64_t>(0x0102030405060708ull);
    EXPECT_EQ(unpackBE<std::uint64_t>(u64.data()), 0x0102030405060708ull);
}

TEST(Vocabulary, ClassificationAndFirmwareStatusLookups) {
    EXPECT_TRUE(isStreamingCommand(START_MOTION_MONITORING));
    EXPECT_TRUE(isStreamingCommand(START_AO_STREAMING));
    EXPECT_FALSE(isStreamingCommand(OPEN_CAN));
    EXPECT_TRUE(isBroadcastCommand(CHECK_MAC_AND_REBOOT));
    EXPECT_FALSE(isBroadcastCommand(GET_DEVICE_INFO + 256));
    EXPECT_EQ(firmwareErrorClass(0), nullptr);
    EXPECT_EQ(firmwareErrorClass(24), nullptr);
    EXPECT_EQ(firmwareErrorClass(-1), nullptr);
    for (int s = 1; s <= 23; ++s) {
        const ErrorClass* c = firmwareErrorClass(s);
        ASSERT_NE(c, nullptr) << s;
        EXPECT_EQ(c->code, -7000 - s);
    }
    EXPECT_EQ(std::size(kErrorClasses), 68u);
}

#include "products/products.hpp"

TEST(Products, EveryTableOfEveryProductReads) {
    using namespace torvik::products;
    for (const auto& p : kProducts)
        for (auto text : {p.di, p.do_, p.uart, p.i2c, p.spi, p.can, p.tc, p.rd, p.ai, p.ao}) EXPECT_NO_THROW(parsePortTable(text)) << p.class_name;
    auto sink = parsePortTable(findProduct("TorvikUsbSink")->do_);
    ASSERT_EQ(sink.size(), 2u);
    EXPECT_EQ(sink[1].first, 3);
    EXPECT_EQ(sink[1].second.back(), (Cell{-1, 3}));
    auto can = parsePortTable(findProduct("TorvikUsbCan")->can);
    EXPECT_EQ(can[0].second[2], (Cell{2, 0}));
    EXPECT_THROW(parsePortTable("1: (2,"), std::invalid_argument);
}
