// A unit's firmware as the emulator's tests drive it: directly, under a clock the test moves by hand.
#pragma once

#include <gtest/gtest.h>

#include "firmware/product.hpp"
#include "wire/commands.hpp"

namespace simtest {

using sim::Bytes;
namespace wire = torvik::wire;

struct Unit {
    explicit Unit(std::string_view cls, std::uint32_t ipv4 = 0)
        : fw(sim::UnitIdentity{torvik::products::findProduct(cls), "SERIAL01", ipv4}, [this] { return now; }) {}

    // The payload of the one reply, under the request's code (empty when none came).
    Bytes ask(std::uint16_t code, Bytes payload = {}) {
        auto frames = fw.handle(sim::Request{code, std::move(payload), sim::Channel::Cmd});
        EXPECT_EQ(frames.size(), 1u) << code;
        if (frames.empty()) return {};
        EXPECT_EQ(frames[0].code, code);
        return frames[0].payload;
    }
    // A request the unit does not answer.
    void tell(std::uint16_t code, Bytes payload) {
        EXPECT_TRUE(fw.handle(sim::Request{code, std::move(payload), sim::Channel::Cmd}).empty()) << code;
    }

    std::chrono::steady_clock::time_point now{};
    sim::ProductFirmware fw;
};

// Payloads: a port byte and 16-bit words; a head and then floats, or a 32-bit count (high byte first).
inline Bytes words(std::uint8_t port, std::initializer_list<std::uint16_t> ws) {
    Bytes out{port};
    for (auto v : ws) sim::putU16(out, v);
    return out;
}

inline Bytes withF32(Bytes head, std::initializer_list<float> values) {
    for (float v : values) sim::putF32(head, v);
    return head;
}

inline Bytes withU32(Bytes head, std::uint32_t v) {
    sim::putU32(head, v);
    return head;
}

}  // namespace simtest
