#include "wire/ipv4.hpp"

namespace torvik::wire {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

std::optional<std::uint32_t> parseIPv4(std::string_view text) {
    if (const auto nul = text.find('\0'); nul != std::string_view::npos) text = text.substr(0, nul);
    std::size_t i = 0;
    auto at = [&](std::size_t k) { return k < text.size() ? text[k] : '\0'; };
    std::uint32_t leading[3] = {};
    int parts = 0;  // parts before the last
    std::uint64_t value = 0;
    for (;;) {
        if (!isDigit(at(i))) return std::nullopt;
        // The part's base as C writes numbers; "0x" without a hex digit is the number 0 followed
        // by an 'x', which then fails as a stray character.
        unsigned base = 10;
        if (at(i) == '0') {
            base = 8;
            if ((at(i + 1) == 'x' || at(i + 1) == 'X') && hexValue(at(i + 2)) >= 0) {
                base = 16;
                i += 2;
            }
        }
        value = 0;
        bool overflow = false;
        for (;; ++i) {
            const int d = hexValue(at(i));
            if (d < 0 || static_cast<unsigned>(d) >= base) break;
            value = value * base + static_cast<unsigned>(d);
            if (value > 0xFFFFFFFFu) {  // keep reading the part's digits, at a bounded value
                overflow = true;
                value = 0x100000000ull;
            }
        }
        if (overflow) return std::nullopt;
        if (at(i) != '.') break;
        if (parts == 3 || value > 0xFF) return std::nullopt;
        leading[parts++] = static_cast<std::uint32_t>(value);
        ++i;
    }
    if (i < text.size() && !isSpace(text[i])) return std::nullopt;
    // The last part fills the bytes the others left: 32, 24, 16 or 8 bits.
    static constexpr std::uint64_t kLastMax[4] = {0xFFFFFFFFu, 0xFFFFFFu, 0xFFFFu, 0xFFu};
    if (value > kLastMax[parts]) return std::nullopt;
    std::uint32_t addr = static_cast<std::uint32_t>(value);
    for (int k = 0; k < parts; ++k) addr |= leading[k] << (24 - 8 * k);
    return addr;
}

}  // namespace torvik::wire
