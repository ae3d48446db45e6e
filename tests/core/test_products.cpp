#include <gtest/gtest.h>

#include <stdexcept>

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
