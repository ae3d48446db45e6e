#include "firmware/product.hpp"

#include "wire/commands.hpp"
#include "wire/labels.hpp"

namespace sim {

namespace wire = torvik::wire;

namespace {

bool isAssigned(std::uint16_t code) {
    for (const auto& row : wire::kCommandTable)
        if (row.value == code) return true;
    return false;
}

}  // namespace

ProductFirmware::ProductFirmware(const UnitIdentity& identity, UnitClock::Now now)
    : product_(*identity.product),
      system_(product_, identity.serial, now),
      network_(identity.ipv4, identity.serial),
      pins_(product_),
      dio_(product_, pins_),
      ao_(product_, now),
      ai_(product_, now, &ao_),
      thermal_(product_, now),
      relays_(product_, dio_),
      now_(std::move(now)),
      uart_(product_),
      i2c_(product_),
      spi_(product_),
      can_(product_) {}

std::size_t ProductFirmware::statusIndex(std::uint16_t code) const {
    if (code == wire::GET_PIN_MODE_OF_SLOT) return 1;
    if (SystemServices::isSystemCode(code) || NetworkSettings::isNetworkCode(code) || code == wire::REBOOT ||
        code == wire::REBOOT_ON_BOOTLOADER || code == wire::RESET_FACTORY)
        return 0;
    if (Thermal::isThermalCode(code)) return Thermal::statusIndex(code);
    if (code == wire::SET_AO_FORM || code == wire::SET_AO_FORM_PARAM || code == wire::WRITE_I2C) return 3;
    if (code == wire::WRITE_UART || code == wire::WRITE_SPI) return 2;
    return 1;
}

std::vector<Frame> ProductFirmware::handle(const Request& request) {
    if (wire::isStreamingCommand(request.code)) {
        // Not answered; the analog ones start what they start.
        if (AnalogInput::isAiCode(request.code) && ai_.present()) ai_.handle(request.code, request.payload);
        if (AnalogOutput::isAoCode(request.code) && ao_.present()) ao_.handle(request.code, request.payload);
        if (CanController::isCanCode(request.code) && can_.present()) can_.handle(request.code, request.payload);
        if (request.code == wire::START_UART_READING) uart_.handle(request.code, request.payload, now_());
        return {};
    }
    if (wire::isBroadcastCommand(request.code)) return {};
    std::vector<Frame> out{Frame{request.code, answer(request.code, request.payload)}};
    if (relays_.present()) relays_.observe();
    return out;
}

std::optional<Bytes> ProductFirmware::broadcast(std::uint16_t code, const Bytes& in, const Mover& move) {
    // Answers of other units carry 1 in front; only requests are for us.
    if (!hasNetwork() || in.empty() || in[0] != 0) return std::nullopt;
    const Bytes done{1, 1, kOk};
    switch (code) {
    case wire::GET_DEVICE_INFO: {
        Bytes out{1};
        const Bytes id = network_.identity();
        out.insert(out.end(), id.begin(), id.end());
        std::string_view label = product_.class_name;
        for (const auto& [key, text] : wire::kLabels)
            if (key == product_.class_name) label = text;
        out.insert(out.end(), label.begin(), label.end());
        return out;
    }
    case wire::CHECK_MAC_AND_SET_IP: {
        if (in.size() != 15 || !network_.hasMac(&in[9])) return std::nullopt;
        return Bytes{1, 1, network_.takeAddress(u32At(in, 1), u32At(in, 5), move)};
    }
    case wire::CHECK_MAC_AND_REBOOT:
        if (in.size() != 7 || !network_.hasMac(&in[1])) return std::nullopt;
        reboot();
        return done;
    default: return std::nullopt;
    }
}

Bytes ProductFirmware::answer(std::uint16_t code, const Bytes& in) {
    const Bytes unknown = portStatus(portOf(in), kCommandsError);
    if (SystemServices::isSystemCode(code)) return system_.handle(code, in);
    switch (code) {
    case wire::GET_PIN_MODE_OF_SLOT: return in.size() == 1 ? pinModes(in[0]) : unknown;
    case wire::REBOOT:
    case wire::REBOOT_ON_BOOTLOADER: reboot(); return Bytes{kOk};
    case wire::RESET_FACTORY: factoryReset(); return Bytes{kOk};
    default: break;
    }
    if (NetworkSettings::isNetworkCode(code)) return hasNetwork() ? network_.handle(code, in) : unknown;
    if (WifiRadio::isWifiCode(code)) return hasWifi() ? wifi_.handle(code, in) : unknown;
    if (DigitalIo::isDioCode(code)) return dio_.present() ? dio_.handle(code, in) : unknown;
    if (AnalogInput::isAiCode(code)) return ai_.present() ? analogInput(code, in) : unknown;
    if (AnalogOutput::isAoCode(code)) return ao_.present() ? analogOutput(code, in) : unknown;
    if (CanController::isCanCode(code) && can_.present()) return canBus(code, in);
    if (Thermal::isThermalCode(code)) return thermal_.present() ? thermalCommand(code, in) : unknown;
    if (RelayCounters::isRelayCode(code)) return relays_.present() ? relays_.handle(code, in) : unknown;
    if (isAssigned(code) && Uart::isUartCode(code))
        return uart_.present() ? bus(uart_, PinMode::UART, wire::OPEN_UART, wire::CLOSE_UART, Uart::kUartError, code, in) : unknown;
    if (isAssigned(code) && I2c::isI2cCode(code))
        return i2c_.present() ? bus(i2c_, PinMode::I2C, wire::OPEN_I2C, wire::CLOSE_I2C, I2c::kI2cError, code, in) : unknown;
    if (isAssigned(code) && Spi::isSpiCode(code))
        return spi_.present() ? bus(spi_, PinMode::SPI, wire::OPEN_SPI, wire::CLOSE_SPI, Spi::kSpiError, code, in) : unknown;
    // Modules still to be modelled acknowledge as the echo firmware does.
    if (isAssigned(code)) return portStatus(portOf(in), kOk);
    return unknown;
}

bool ProductFirmware::takeAnalogPins(const std::vector<PinRef>& pins) {
    for (PinRef p : pins) {
        const PinMode m = modeOf(p);
        if (m != PinMode::Idle && m != PinMode::ADC) return false;
    }
    for (PinRef p : pins) setPinMode(p, PinMode::ADC);
    return true;
}

Bytes ProductFirmware::analogInput(std::uint16_t code, const Bytes& in) {
    if (code == wire::OPEN_AI && in.size() == 1 && ai_.isPort(in[0]) && !takeAnalogPins(ai_.pins(in[0])))
        return portStatus(in[0], kAiError);
    // The input's pins are analog pins from the start: closing leaves them so.
    return *ai_.handle(code, in);
}

Bytes ProductFirmware::analogOutput(std::uint16_t code, const Bytes& in) {
    if (code == wire::OPEN_AO && in.size() == 1 && ao_.isPort(in[0]) && !takeAnalogPins(ao_.pins(in[0])))
        return portStatus(in[0], kAoError);
    Bytes out = *ao_.handle(code, in);
    if (code == wire::CLOSE_AO && out.size() == 2 && out[1] == kOk)
        for (PinRef p : ao_.pins(in[0])) setPinMode(p, PinMode::Idle);
    return out;
}

Bytes ProductFirmware::canBus(std::uint16_t code, const Bytes& in) {
    const bool port_ok = in.size() == 1 && can_.isPort(in[0]);
    if (code == wire::OPEN_CAN && port_ok) {
        // Free pins and digital ones go to the controller; a pin another function holds refuses.
        const auto pins = can_.pins(in[0]);
        for (PinRef p : pins)
            if (auto held = pins_.holder(p); held && *held != PinMode::CAN) return portStatus(in[0], CanController::kCanError);
        for (PinRef p : pins) setPinMode(p, PinMode::CAN);
    }
    Bytes out = *can_.handle(code, in);
    if (code == wire::CLOSE_CAN && port_ok && out.size() == 2 && out[1] == kOk)
        for (PinRef p : can_.pins(in[0])) setPinMode(p, PinMode::Idle);
    return out;
}

Bytes ProductFirmware::thermalCommand(std::uint16_t code, const Bytes& in) {
    if ((code == wire::OPEN_THERMAL || code == wire::CLOSE_THERMAL) && in.size() == 1 && thermal_.isPort(in[0])) {
        const std::vector<PinRef> pins = thermal_.pins(in[0]);
        if (code == wire::CLOSE_THERMAL) {
            if (thermal_.isOpen(in[0]))
                for (PinRef p : pins) setPinMode(p, PinMode::Idle);
        } else if (!thermal_.isOpen(in[0])) {
            // The converters hang on SPI lines; digital I/O may give its pins up, other functions not.
            for (PinRef p : pins) {
                const PinMode m = modeOf(p);
                if (m != PinMode::Idle && m != PinMode::DI && m != PinMode::DO) return portStatus(in[0], Thermal::kThermalError);
            }
            for (PinRef p : pins) setPinMode(p, PinMode::SPI);
        }
    }
    return thermal_.handle(code, in);
}

namespace {
// The models answer alike but for the UART's, which needs the time.
Bytes handleBus(Uart& m, std::uint16_t code, const Bytes& in, UnitClock::Now& now) { return *m.handle(code, in, now()); }
template <class Bus>
Bytes handleBus(Bus& m, std::uint16_t code, const Bytes& in, UnitClock::Now&) { return m.handle(code, in); }
}  // namespace

template <class Bus>
Bytes ProductFirmware::bus(Bus& model, PinMode mode, std::uint16_t open, std::uint16_t close, std::uint8_t refusal,
                           std::uint16_t code, const Bytes& in) {
    auto* port = in.empty() ? nullptr : model.port(in[0]);
    const bool was_open = port && port->open;
    if (code == open && port && !was_open) {
        for (PinRef p : port->pins) {
            const PinMode m = modeOf(p);
            if (m != PinMode::Idle && m != PinMode::DI && m != PinMode::DO) return portStatus(in[0], refusal);
        }
    }
    Bytes out = handleBus(model, code, in, now_);
    if (port && out.size() == 2 && out[1] == kOk) {
        if (code == open)
            for (PinRef p : port->pins) setPinMode(p, mode);
        if (code == close && was_open)
            for (PinRef p : port->pins) setPinMode(p, PinMode::Idle);
    }
    return out;
}

PinMode ProductFirmware::modeOf(PinRef p) const {
    if (auto held = pins_.holder(p)) return *held;
    return dio_.freeMode(p);
}

Bytes ProductFirmware::pinModes(std::uint8_t port) const {
    const int n = pins_.pinCount(port);
    Bytes out{port, static_cast<std::uint8_t>(n)};
    for (int pin = 0; pin < n; pin += 2) {
        const auto low = static_cast<std::uint8_t>(modeOf({port, pin}));
        const auto high = pin + 1 < n ? static_cast<std::uint8_t>(modeOf({port, pin + 1})) : std::uint8_t{0};
        out.push_back(static_cast<std::uint8_t>(high << 4 | low));
    }
    return out;
}

bool ProductFirmware::setPinMode(PinRef p, PinMode mode) {
    if (!pins_.exists(p)) return false;
    switch (mode) {
    case PinMode::DI:
    case PinMode::DO: {
        const bool out = mode == PinMode::DO;
        if (!(out ? dio_.canOutput(p) : dio_.canInput(p))) return false;
        pins_.setHolder(p, std::nullopt);
        dio_.open(p, out);
        return true;
    }
    case PinMode::Idle:
        pins_.setHolder(p, std::nullopt);
        dio_.release(p);
        return true;
    default:
        pins_.setHolder(p, mode);
        dio_.release(p);
        return true;
    }
}

void ProductFirmware::reboot() {
    pins_.restart();
    dio_.reboot();
    ao_.reset();
    ai_.reset();
    can_.reset();
    thermal_.reset();
    uart_.reset();
    i2c_.reset();
    spi_.reset();
}

void ProductFirmware::factoryReset() {
    system_.factoryReset();
    network_.factoryReset();
    wifi_.factoryReset();
    dio_.factoryReset();
    thermal_.factoryReset();
    reboot();
}

}  // namespace sim
