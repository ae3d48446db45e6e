// The frame a host sends: 0x02, length (payload + 1, whatever the code's width), the code in
// one byte below 256 or two bytes high first, the payload, 0x0D 0x0A.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "wire/commands.hpp"

namespace torvik::wire {

inline std::vector<std::uint8_t> buildFrame(std::uint16_t cmd, std::span<const std::uint8_t> payload) {
    const auto length = static_cast<std::uint16_t>(payload.size() + 1);
    std::vector<std::uint8_t> out;
    out.reserve(payload.size() + 7);
    out.push_back(CMD_STX);
    out.push_back(static_cast<std::uint8_t>(length >> 8));
    out.push_back(static_cast<std::uint8_t>(length));
    if (cmd > 0xFF) out.push_back(static_cast<std::uint8_t>(cmd >> 8));
    out.push_back(static_cast<std::uint8_t>(cmd));
    out.insert(out.end(), payload.begin(), payload.end());
    out.push_back(CMD_CR);
    out.push_back(CMD_LF);
    return out;
}

}  // namespace torvik::wire
