#include "firmware_product.hpp"

#include "wire/commands.hpp"

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
      ai_(product_, std::move(now), &ao_),
      can_(product_) {}

std::size_t ProductFirmware::statusIndex(std::uint16_t code) const {
    if (code == wire::GET_PIN_MODE_OF_SLOT) return 1;
    if (SystemServices::isSystemCode(code) || NetworkSettings::isNetworkCode(code) || code == wire::REBOOT ||
        code == wire::REBOOT_ON_BOOTLOADER || code == wire::RESET_FACTORY)
        return 0;
    if (code == wire::SET_AO_FORM || code == wire::SET_AO_FORM_PARAM) return 3;
    return 1;
}

std::vector<Frame> ProductFirmware::handle(const Request& request) {
    if (wire::isStreamingCommand(request.code)) {
        // Not answered; the analog ones start what they start.
        if (AnalogInput::isAiCode(request.code) && ai_.present()) ai_.handle(request.code, request.payload);
        if (AnalogOutput::isAoCode(request.code) && ao_.present()) ao_.handle(request.code, request.payload);
        if (CanController::isCanCode(request.code) && can_.present()) can_.handle(request.code, request.payload);
        return {};
    }
    if (wire::isBroadcastCommand(request.code)) return {};
    return {Frame{request.code, answer(request.code, request.payload)}};
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
}

void ProductFirmware::factoryReset() {
    system_.factoryReset();
    network_.factoryReset();
    wifi_.factoryReset();
    dio_.factoryReset();
    reboot();
}

}  // namespace sim
