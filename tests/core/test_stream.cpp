#include <gtest/gtest.h>

#include <cmath>
#include <atomic>

#include "stream/ai_decoder.hpp"
#include "stream/record_queue.hpp"
#include "stream/worker.hpp"

using namespace torvik;
using namespace std::chrono_literals;

TEST(RecordQueue, KeepsOrderAcrossBlocksAndOtherItems) {
    stream::RecordQueue q(2, 0);
    std::vector<std::uint8_t> bytes;
    for (int i = 0; i < 70000; ++i) {  // more than one block of records
        bytes.push_back(static_cast<std::uint8_t>(i >> 8));
        bytes.push_back(static_cast<std::uint8_t>(i));
    }
    EXPECT_EQ(q.putRecords(bytes), 0u);
    EXPECT_TRUE(q.putOther(device::StreamItem{device::StreamItem::Kind::Token, {}, nullptr}, 0ns));
    EXPECT_EQ(q.putRecords(std::vector<std::uint8_t>{9, 9}), 0u);
    EXPECT_EQ(q.size(), 70002u);
    std::vector<int> seen;
    int others = 0;
    auto take = [&](std::size_t n) {
        q.take(
            n, [&](const std::uint8_t* p, std::size_t count) {
                for (std::size_t i = 0; i < count; ++i) seen.push_back((p[2 * i] << 8) | p[2 * i + 1]);
            },
            [&](device::StreamItem&&) { ++others; });
    };
    take(3);
    take(69999);
    take(100);
    ASSERT_EQ(seen.size(), 70001u);
    for (int i = 0; i < 70000; ++i) ASSERT_EQ(seen[i], i & 0xFFFF);
    EXPECT_EQ(seen.back(), 0x0909);
    EXPECT_EQ(others, 1);
    EXPECT_EQ(q.size(), 0u);
}

TEST(RecordQueue, BoundDropsTheNewestRecords) {
    stream::RecordQueue q(1, 3);
    EXPECT_EQ(q.putRecords(std::vector<std::uint8_t>{1, 2}), 0u);
    EXPECT_EQ(q.putRecords(std::vector<std::uint8_t>{3, 4, 5}), 2u);
    EXPECT_TRUE(q.full());
    EXPECT_FALSE(q.putOther(device::StreamItem{}, 1ms));
    EXPECT_EQ(q.get(0ns)->record, (std::vector<std::uint8_t>{1}));
    EXPECT_EQ(q.get(0ns)->record, (std::vector<std::uint8_t>{2}));
    EXPECT_EQ(q.get(0ns)->record, (std::vector<std::uint8_t>{3}));
    EXPECT_FALSE(q.get(1ms).has_value());
}

// The ends of the range and the big-endian counts are test_analog.py's decoded reads.
TEST(VoltTable, RoundsAsADecimalRoundToFourPlaces) {
    stream::VoltTable t(0.00030517578125);
    EXPECT_EQ(t[512], 0.1562);  // 0.15625: an exact tie goes to even
    EXPECT_EQ(t[1536], 0.4688);  // 0.46875
    EXPECT_TRUE(std::signbit(stream::round4(-0.00001)));  // a negative value rounds to -0.0
}

TEST(StreamWorker, CutsPayloadsIntoRecordsAndEndsOnAWrongLength) {
    std::atomic<bool> killed{false};
    device::Gate gate(false);
    device::StreamQueue data;
    stream::RecordQueue signal(4, 3);
    std::size_t dropped = 0;
    stream::WorkerHooks hooks;
    hooks.dropped = [&](std::size_t n) { dropped += n; };
    data.put(device::StreamItem{device::StreamItem::Kind::Bytes, std::vector<std::uint8_t>(8, 1), nullptr});
    data.put(device::StreamItem{device::StreamItem::Kind::Token, {}, nullptr});
    data.put(device::StreamItem{device::StreamItem::Kind::Bytes, std::vector<std::uint8_t>(8, 2), nullptr});
    data.put(device::StreamItem{device::StreamItem::Kind::Bytes, std::vector<std::uint8_t>(5, 3), nullptr});
    auto r = stream::runStreamWorker(killed, gate, data, signal, 1s, hooks);
    EXPECT_EQ(r.end, stream::WorkerEnd::BadLength);
    EXPECT_EQ(r.bad_length, 5u);
    EXPECT_EQ(signal.size(), 3u);
    EXPECT_EQ(dropped, 1u);
    EXPECT_EQ(stream::runStreamWorker(killed, gate, data, signal, 1ms, hooks).end, stream::WorkerEnd::TimedOut);
}
