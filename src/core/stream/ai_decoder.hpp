// Analog input frames: channel values as signed 16-bit counts, high byte first, turned into
// volts as count * ratio rounded to 4 decimal places, exactly as a correctly rounding decimal
// round(value, 4) gives them (same doubles, bit for bit).
#pragma once

#include <array>
#include <cstdint>
#include <memory>

namespace torvik::stream {

// The volts of every possible count for one ratio, computed once.
class VoltTable {
public:
    explicit VoltTable(double ratio);
    double operator[](std::int16_t count) const { return volts_[static_cast<std::uint16_t>(count)]; }
    double ratio() const { return ratio_; }
    // The count of the two bytes at p.
    static std::int16_t countAt(const std::uint8_t* p) {
        return static_cast<std::int16_t>(static_cast<std::uint16_t>((p[0] << 8) | p[1]));
    }

private:
    double ratio_;
    std::array<double, 65536> volts_;
};

// round(value, 4) with ties to even on the value's exact binary expansion.
double round4(double value);

// A shared table per distinct ratio.
std::shared_ptr<const VoltTable> voltTable(double ratio);

}  // namespace torvik::stream
