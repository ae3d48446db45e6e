// Big-endian packing of fixed-width numbers, the only byte order on the wire.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace torvik::wire {

// Unsigned carrier of the same width, for bit-exact packing of signed and floating types.
template <typename T>
using Bits = std::conditional_t<sizeof(T) == 1, std::uint8_t,
             std::conditional_t<sizeof(T) == 2, std::uint16_t,
             std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;

template <typename T>
constexpr std::array<std::uint8_t, sizeof(T)> packBE(T value) {
    auto bits = std::bit_cast<Bits<T>>(value);
    std::array<std::uint8_t, sizeof(T)> out{};
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out[sizeof(T) - 1 - i] = static_cast<std::uint8_t>(bits >> (8 * i));
    return out;
}

// Reads sizeof(T) bytes at p; the caller guarantees they exist.
template <typename T>
constexpr T unpackBE(const std::uint8_t* p) {
    Bits<T> bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) bits = static_cast<Bits<T>>((bits << 8) | p[i]);
    return std::bit_cast<T>(bits);
}

}  // namespace torvik::wire
