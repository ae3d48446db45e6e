#include "firmware/pins.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <string>

namespace sim {

namespace {
constexpr std::string_view kModeNames[] = {"Disabled", "Idle", "DI", "DO", "UART", "I2C", "SPI", "CAN", "PWM", "ADC"};
}

std::string_view pinModeName(PinMode mode) { return kModeNames[static_cast<std::size_t>(mode)]; }

std::optional<PinMode> pinModeFromText(std::string_view text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '9') return static_cast<PinMode>(text[0] - '0');
    for (std::size_t i = 0; i < std::size(kModeNames); ++i) {
        const auto name = kModeNames[i];
        if (name.size() == text.size() &&
            std::equal(name.begin(), name.end(), text.begin(), [](char a, char b) {
                return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
            }))
            return static_cast<PinMode>(i);
    }
    return std::nullopt;
}

PinBoard::PinBoard(const torvik::products::Product& product) {
    namespace products = torvik::products;
    // What names each pin: digital tables make it free, an analog input table makes it ADC, any
    // other table leaves it free as well, since the buses and the analog output take their pins
    // only when they are opened (and their opens insist on Idle, DI or DO). Unnamed pins below
    // the highest named one are not brought out: Disabled.
    enum class Use { None, Free, Adc };
    std::map<PinRef, Use> uses;
    auto mark = [&](PinRef p, Use use) {
        Use& u = uses[p];
        if (u == Use::None || use == Use::Free) u = use;
    };
    auto digital = [&](std::string_view text) {
        for (const auto& [port, cells] : products::parsePortTable(text))
            for (const auto& c : cells) mark({port, c.pin}, Use::Free);
    };
    auto cells = [&](std::string_view text, Use use) {
        for (const auto& [port, list] : products::parsePortTable(text))
            for (const auto& c : list) mark({c.hw_port, c.pin}, use);
    };
    digital(product.di);
    digital(product.do_);
    for (auto text : {product.uart, product.i2c, product.spi, product.can, product.tc, product.rd, product.ao})
        cells(text, Use::Free);
    cells(product.ai, Use::Adc);

    for (const auto& [p, use] : uses) {
        if (p.port >= static_cast<int>(start_.size())) start_.resize(static_cast<std::size_t>(p.port) + 1);
        auto& pins = start_[static_cast<std::size_t>(p.port)];
        if (p.pin >= static_cast<int>(pins.size())) pins.resize(static_cast<std::size_t>(p.pin) + 1, PinMode::Disabled);
        pins[static_cast<std::size_t>(p.pin)] = use == Use::Adc ? std::optional(PinMode::ADC) : std::nullopt;
    }
    holders_ = start_;
}

int PinBoard::pinCount(int port) const {
    if (port < 0 || port >= portCount()) return 0;
    return static_cast<int>(holders_[static_cast<std::size_t>(port)].size());
}

std::optional<PinMode> PinBoard::holder(PinRef p) const {
    if (!exists(p)) return PinMode::Disabled;
    return holders_[static_cast<std::size_t>(p.port)][static_cast<std::size_t>(p.pin)];
}

void PinBoard::setHolder(PinRef p, std::optional<PinMode> holder) {
    if (exists(p)) holders_[static_cast<std::size_t>(p.port)][static_cast<std::size_t>(p.pin)] = holder;
}

std::uint16_t PinBoard::heldMask(int port) const {
    std::uint16_t mask = 0;
    for (int pin = 0; pin < std::min(pinCount(port), 16); ++pin)
        if (holder({port, pin})) mask |= static_cast<std::uint16_t>(1u << pin);
    return mask;
}

}  // namespace sim
