// The IPv4 text parser against the forms inet_aton reads, and on systems that have inet_aton,
// against it on random texts.
#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>

#include "wire/ipv4.hpp"

#if !defined(_WIN32)
#include <arpa/inet.h>
#endif

using torvik::wire::parseIPv4;

namespace {

struct Form {
    const char* text;
    std::optional<std::uint32_t> ip;
};

class IPv4Forms : public ::testing::TestWithParam<Form> {};

}  // namespace

TEST_P(IPv4Forms, ParseAsInetAtonDoes) {
    EXPECT_EQ(parseIPv4(GetParam().text), GetParam().ip) << '"' << GetParam().text << '"';
}

INSTANTIATE_TEST_SUITE_P(
    Wire, IPv4Forms,
    ::testing::Values(
        // four parts, and fewer with the last filling the rest
        Form{"127.0.0.1", 0x7F000001}, Form{"127.1", 0x7F000001}, Form{"1.2.3", 0x01020003},
        Form{"1.2.65535", 0x0102FFFF}, Form{"1.16777215", 0x01FFFFFF}, Form{"2130706433", 0x7F000001},
        Form{"4294967295", 0xFFFFFFFF}, Form{"0", 0},
        // hex and octal parts
        Form{"0x7f.1", 0x7F000001}, Form{"0X7F.0x0.0.0X1", 0x7F000001}, Form{"0177.0.0.01", 0x7F000001},
        Form{"017700000001", 0x7F000001}, Form{"0x7f000001", 0x7F000001}, Form{"1.2.3.0xff", 0x010203FF},
        // what follows a blank is ignored
        Form{"1.2.3.4 and more", 0x01020304}, Form{"1.2.3.4\n", 0x01020304},
        // parts out of range
        Form{"256.1.1.1", std::nullopt}, Form{"1.2.3.256", std::nullopt}, Form{"1.2.65536", std::nullopt},
        Form{"1.16777216", std::nullopt}, Form{"4294967296", std::nullopt}, Form{"0x100.1", std::nullopt},
        Form{"99999999999999999999999", std::nullopt}, Form{"1.2.3.4.5", std::nullopt},
        // malformed
        Form{"", std::nullopt}, Form{" 1.2.3.4", std::nullopt}, Form{"+1.2.3.4", std::nullopt}, Form{"-1", std::nullopt},
        Form{"1.2.3.4.", std::nullopt}, Form{".1.2.3", std::nullopt}, Form{"1..2", std::nullopt},
        Form{"1.2.3.4x", std::nullopt}, Form{"08", std::nullopt}, Form{"09.1", std::nullopt}, Form{"0x", std::nullopt},
        Form{"0xg", std::nullopt}, Form{"localhost", std::nullopt}, Form{"1.2.3.a", std::nullopt}));

TEST(IPv4, ANulEndsTheText) {
    EXPECT_EQ(parseIPv4(std::string_view("10.0.0.1\0junk", 13)), 0x0A000001u);
    EXPECT_EQ(parseIPv4(std::string_view("\0" "1.2.3.4", 8)), std::nullopt);
}

#if !defined(_WIN32)
TEST(IPv4, AgreesWithTheSystemsInetAton) {
    std::mt19937 rng(20);
    const std::string alphabet = "0123456789.......xXafAF \t-g";
    for (int round = 0; round < 50000; ++round) {
        std::string text;
        const int len = static_cast<int>(rng() % 14);
        for (int i = 0; i < len; ++i) text += alphabet[rng() % alphabet.size()];
        in_addr a{};
        const std::optional<std::uint32_t> want =
            inet_aton(text.c_str(), &a) ? std::optional<std::uint32_t>(ntohl(a.s_addr)) : std::nullopt;
        ASSERT_EQ(parseIPv4(text), want) << '"' << text << '"';
    }
}
#endif
