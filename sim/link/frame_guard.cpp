#include "link/frame_guard.hpp"

namespace sim {

std::optional<FalseFrame> findFalseFrame(std::span<const std::uint8_t> frame) {
    if (frame.size() < 5) return std::nullopt;
    const std::size_t own_end = frame.size() - 2;
    // Every start byte fits at most one terminator, the one its length points at; so a pairing
    // other than (0, own_end) exists exactly when the host would find a false frame first.
    for (std::size_t q = 0; q < own_end; ++q) {
        if (frame[q] != 0x02) continue;
        const auto length = static_cast<std::int16_t>(frame[q + 1] << 8 | frame[q + 2]);
        if (length < 0) continue;
        const std::size_t p = q + 3 + static_cast<std::size_t>(length);
        if (p > own_end || frame[p] != 0x0D || frame[p + 1] != 0x0A) continue;
        if (q == 0 && p == own_end) continue;
        return FalseFrame{q, p};
    }
    return std::nullopt;
}

}  // namespace sim
