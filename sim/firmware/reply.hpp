// Small pieces every firmware module builds its replies from.
#pragma once

#include <bit>
#include <cstdint>

#include "link/bytes.hpp"

namespace sim {

// Firmware statuses, as the host's error table numbers them.
enum Status : std::uint8_t {
    kOk = 0,
    kNotEnabled = 1,
    kEepromError = 9,
    kSysError = 11,
    kDioError = 13,
    kAiError = 15,
    kAoError = 16,
    kCommandsError = 23,
};

inline void putU16(Bytes& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v >> 8));
    out.push_back(static_cast<std::uint8_t>(v & 0xFF));
}

inline std::uint16_t u16At(const Bytes& in, std::size_t at) {
    return static_cast<std::uint16_t>(in[at] << 8 | in[at + 1]);
}

inline void putU32(Bytes& out, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

inline std::uint32_t u32At(const Bytes& in, std::size_t at) {
    return std::uint32_t{in[at]} << 24 | std::uint32_t{in[at + 1]} << 16 | std::uint32_t{in[at + 2]} << 8 | in[at + 3];
}

// IEEE 754 singles, high byte first, as the host's conversions write them.
inline void putF32(Bytes& out, float v) { putU32(out, std::bit_cast<std::uint32_t>(v)); }
inline float f32At(const Bytes& in, std::size_t at) { return std::bit_cast<float>(u32At(in, at)); }

// The first payload byte, which names the port, or 0 for an empty request.
inline std::uint8_t portOf(const Bytes& payload) { return payload.empty() ? 0 : payload[0]; }

// [port, status]: the reply of a request that addresses a port, and the refusal of any request.
inline Bytes portStatus(std::uint8_t port, std::uint8_t status) { return Bytes{port, status}; }

}  // namespace sim
