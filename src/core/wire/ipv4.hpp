// Dotted IPv4 text as the classic inet_aton reads it, written out so that every system accepts the
// same forms: one to four parts, each decimal, octal (leading 0) or hex (0x); the last part fills
// the bytes that remain ("127.1" is 127.0.0.1, "0x7f.1" too, "2130706433" as well). Text after a
// whitespace character is ignored, as there.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace torvik::wire {

// The address in host byte order, or nothing when the text is not such an address. A NUL ends
// the text, as it would a C string.
std::optional<std::uint32_t> parseIPv4(std::string_view text);

}  // namespace torvik::wire
