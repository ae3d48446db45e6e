// The pins of a unit: its hardware ports, how many pins each has, and which function holds a pin.
// A pin that no function holds is free: digital I/O may take it, and it reports Idle, DI or DO
// from the digital registers. The layout comes from the product's tables: a hardware port has as
// many pins as the highest pin any table names on it, plus one.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "products/products.hpp"

namespace sim {

// Mode numbers as GET_PIN_MODE_OF_SLOT reports them, one nibble a pin.
enum class PinMode : std::uint8_t { Disabled = 0, Idle, DI, DO, UART, I2C, SPI, CAN, PWM, ADC };

std::string_view pinModeName(PinMode mode);
// Accepts a name ("UART", any case) or a number 0..9.
std::optional<PinMode> pinModeFromText(std::string_view text);

struct PinRef {
    int port = 0;
    int pin = 0;
    auto operator<=>(const PinRef&) const = default;
};

class PinBoard {
public:
    explicit PinBoard(const torvik::products::Product& product);

    int portCount() const { return static_cast<int>(holders_.size()); }
    // 0 for a port the unit does not have.
    int pinCount(int port) const;
    bool exists(PinRef p) const { return p.pin >= 0 && p.pin < pinCount(p.port); }

    // The function holding a pin, or nothing if the pin is free.
    std::optional<PinMode> holder(PinRef p) const;
    void setHolder(PinRef p, std::optional<PinMode> holder);
    // Bits of the pins of `port` that a function holds (pins 0..15).
    std::uint16_t heldMask(int port) const;

    // Back to the holders the unit starts with.
    void restart() { holders_ = start_; }

private:
    std::vector<std::vector<std::optional<PinMode>>> start_, holders_;
};

}  // namespace sim
