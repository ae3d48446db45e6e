#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "reference_splitter.hpp"
#include "wire/splitter.hpp"

using torvik::wire::FrameSplitter;
using torvik::wire::Packet;
using torvik::testing::ReferenceSplitter;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes frame(std::uint32_t cmd, const Bytes& payload, int length_adjust = 0) {
    const bool two = cmd > 0xFF;
    const int length = static_cast<int>(payload.size()) + (two ? 2 : 1) + length_adjust;
    Bytes f{0x02, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    if (two) f.push_back(static_cast<std::uint8_t>(cmd >> 8));
    f.push_back(static_cast<std::uint8_t>(cmd));
    f.insert(f.end(), payload.begin(), payload.end());
    f.push_back(0x0D);
    f.push_back(0x0A);
    return f;
}

std::vector<Packet> splitAll(FrameSplitter& s, const Bytes& bytes) {
    s.append(bytes);
    return s.split();
}

Bytes streamOf(const FrameSplitter& s) { return Bytes(s.stream().begin(), s.stream().end()); }

}  // namespace

TEST(Splitter, TornAtEveryByteIsRecognisedExactlyOnce) {
    Bytes f = frame(0xB5, {0x0D, 0x0A, 0x02, 7});
    for (std::size_t cut = 0; cut <= f.size(); ++cut) {
        FrameSplitter s;
        auto first = splitAll(s, Bytes(f.begin(), f.begin() + cut));
        auto second = splitAll(s, Bytes(f.begin() + cut, f.end()));
        EXPECT_EQ(first.size() + second.size(), 1u) << "cut " << cut;
        EXPECT_TRUE(s.stream().empty());
    }
}

TEST(Splitter, NegativeLengthNeverMatchesAndLongestFrameDoes) {
    FrameSplitter s;
    Bytes neg{0x02, 0x80, 0x00, 0xF0, 0x0D, 0x0A};
    EXPECT_TRUE(splitAll(s, neg).empty());
    Bytes big(32766, 0xFF);  // start bytes all through the payload, each tried first and refused
    for (std::size_t i = 0; i < big.size(); i += 2) big[i] = 0x02;
    auto packets = splitAll(s, frame(0xF0, big));
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].data.size(), 32766u);
    EXPECT_TRUE(s.stream().empty());
}

TEST(Splitter, StateWrittenFromOutsideBehavesLikeAPlainRescan) {
    FrameSplitter s;
    ReferenceSplitter r;
    Bytes f = frame(0xF5, {1, 2, 3});
    s.setStream(f);
    r.stream.assign(f.begin(), f.end());
    for (long long li : {100LL, static_cast<long long>(f.size()), -2LL, -100LL, 4LL}) {
        s.setLastIndex(li);
        r.last_index = li;
        EXPECT_EQ(s.split(), r.split()) << li;
        EXPECT_EQ(s.lastIndex(), r.last_index);
    }
}

// Random streams of frames, near-frames and noise, cut at random points and fed read by read to
// both splitters: every read must give the same packets and leave the same state.
TEST(Splitter, AgreesWithTheReferenceOnRandomStreams) {
    std::mt19937_64 rng(20261123);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
    const std::uint8_t interesting[] = {0x02, 0x0D, 0x0A, 0x00, 0x30, 0x31, 0x80, 0xFF};
    auto randomByte = [&]() -> std::uint8_t { return pick(3) == 0 ? interesting[pick(8)] : static_cast<std::uint8_t>(rng()); };
    const int streams = 300000;
    long long packets_seen = 0;
    for (int t = 0; t < streams; ++t) {
        Bytes stream;
        const int pieces = 1 + pick(5);
        for (int p = 0; p < pieces; ++p) {
            Bytes payload(pick(12));
            for (auto& b : payload) b = randomByte();
            switch (pick(4)) {
                case 0: {  // noise
                    for (int i = 0, n = pick(8); i < n; ++i) stream.push_back(randomByte());
                    break;
                }
                case 1: {  // frame with a length that may be off by one either way
                    Bytes f = frame(pick(2) ? 0x31 + pick(0xCF) : 0x1B00 + pick(0x600), payload, pick(3) - 1);
                    stream.insert(stream.end(), f.begin(), f.end());
                    break;
                }
                default: {  // good frame, possibly torn by dropping a byte
                    Bytes f = frame(pick(4) ? 0x40 + pick(0xC0) : 0x2048 + pick(16), payload);
                    if (pick(6) == 0) f.erase(f.begin() + pick(static_cast<int>(f.size())));
                    stream.insert(stream.end(), f.begin(), f.end());
                }
            }
        }
        FrameSplitter s;
        ReferenceSplitter r;
        std::size_t pos = 0;
        while (pos < stream.size()) {
            std::size_t n = std::min(stream.size() - pos, static_cast<std::size_t>(1 + pick(pick(2) ? 4 : 40)));
            s.append({stream.data() + pos, n});
            r.stream.append(reinterpret_cast<const char*>(stream.data() + pos), n);
            pos += n;
            if (pick(50) == 0) {  // a script moving the search start
                long long li = pick(static_cast<int>(r.stream.size()) + 3) - 1;
                s.setLastIndex(li);
                r.last_index = li;
            }
            auto got = s.split();
            auto want = r.split();
            packets_seen += static_cast<long long>(want.size());
            ASSERT_EQ(got, want) << "stream " << t;
            ASSERT_EQ(streamOf(s), Bytes(r.stream.begin(), r.stream.end())) << "stream " << t;
            ASSERT_EQ(s.lastIndex(), r.last_index) << "stream " << t;
        }
    }
    EXPECT_GT(packets_seen, streams / 2);
}

// Long runs of noise: the bounded backward reach and the buffer compaction must not change
// outcomes.
TEST(Splitter, AgreesWithTheReferenceOnLongNoisyStreams) {
    std::mt19937_64 rng(7);
    for (int t = 0; t < 6; ++t) {
        Bytes stream;
        while (stream.size() < 150000) {
            if (rng() % 3 == 0) {
                Bytes payload(rng() % 40000);
                for (auto& b : payload) b = static_cast<std::uint8_t>(rng() % 7 == 0 ? 0x02 : rng());
                Bytes f = frame(0xB7, payload);
                stream.insert(stream.end(), f.begin(), f.end());
            } else {
                for (int i = 0, n = static_cast<int>(rng() % 5000); i < n; ++i)
                    stream.push_back(rng() % 50 == 0 ? 0x0D : rng() % 50 == 0 ? 0x0A : static_cast<std::uint8_t>(rng()));
            }
        }
        FrameSplitter s;
        ReferenceSplitter r;
        for (std::size_t pos = 0; pos < stream.size();) {
            std::size_t n = std::min<std::size_t>(stream.size() - pos, 1 + rng() % 9606);
            s.append({stream.data() + pos, n});
            r.stream.append(reinterpret_cast<const char*>(stream.data() + pos), n);
            pos += n;
            ASSERT_EQ(s.split(), r.split());
            ASSERT_EQ(s.lastIndex(), r.last_index);
        }
        ASSERT_EQ(streamOf(s), Bytes(r.stream.begin(), r.stream.end()));
    }
}
