// Byte strings and their hex text, as the control channel and the traffic log spell them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// Lower-case hex, two digits a byte, no separators; empty input gives "".
std::string toHex(std::span<const std::uint8_t> bytes);

// Reads hex digits of either case; "-" stands for no bytes (a control line has no empty words).
// An odd count or a non-hex character gives nothing.
std::optional<Bytes> fromHex(std::string_view text);

}  // namespace sim
