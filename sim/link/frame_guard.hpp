// The host recognises a frame by a 0x02 whose signed 16-bit length field points exactly at a
// 0x0D 0x0A, trying the start bytes in front of each terminator nearest first, terminators in
// stream order. Sample data can hold such a pattern: a 0x02 whose length points at a 0x0D 0x0A
// further on, the frame's own terminator included. The host then takes the tail for a frame of
// its own and drops everything in front of it. A real unit can do that; the emulator must not,
// so that tests can count every frame. This is the unit's own reading of that rule.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace sim {

// A start byte and the terminator its length field points at, both as offsets in the frame.
struct FalseFrame {
    std::size_t start;
    std::size_t terminator;
    bool operator==(const FalseFrame&) const = default;
};

// The first false frame inside `frame` (one whole frame as the unit sends it: its start byte at
// offset 0, its terminator at the end), or nothing when the host can only read it as one frame.
// Terminators beyond the frame's own do not matter: the host cuts the stream there first.
std::optional<FalseFrame> findFalseFrame(std::span<const std::uint8_t> frame);

}  // namespace sim
