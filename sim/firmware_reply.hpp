// Small pieces every firmware module builds its replies from.
#pragma once

#include <cstdint>

#include "bytes.hpp"

namespace sim {

// Firmware statuses, as the host's error table numbers them.
enum Status : std::uint8_t {
    kOk = 0,
    kNotEnabled = 1,
    kEepromError = 9,
    kSysError = 11,
    kDioError = 13,
    kCommandsError = 23,
};

inline void putU16(Bytes& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v >> 8));
    out.push_back(static_cast<std::uint8_t>(v & 0xFF));
}

inline std::uint16_t u16At(const Bytes& in, std::size_t at) {
    return static_cast<std::uint16_t>(in[at] << 8 | in[at + 1]);
}

// The first payload byte, which names the port, or 0 for an empty request.
inline std::uint8_t portOf(const Bytes& payload) { return payload.empty() ? 0 : payload[0]; }

// [port, status]: the reply of a request that addresses a port, and the refusal of any request.
inline Bytes portStatus(std::uint8_t port, std::uint8_t status) { return Bytes{port, status}; }

}  // namespace sim
