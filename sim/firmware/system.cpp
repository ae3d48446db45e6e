#include "firmware/system.hpp"

#include "wire/commands.hpp"
#include "wire/labels.hpp"

namespace sim {

namespace wire = torvik::wire;

SystemServices::SystemServices(const torvik::products::Product& product, std::string serial, UnitClock::Now now)
    : product_(product), serial_(std::move(serial)), clock_(std::move(now)), eeprom_(kPages * kPageSize, 0xFF) {}

bool SystemServices::isSystemCode(std::uint16_t code) {
    switch (code) {
    case wire::GET_DRIVER_INFO:
    case wire::GET_DATE_TIME:
    case wire::SET_DATE_TIME:
    case wire::GET_SERIAL_NUMBER:
    case wire::SET_SERIAL_NUMBER:
    case wire::GET_EEPROM_PAGE:
    case wire::SET_EEPROM_PAGE:
    case wire::GET_EEPROM_DEVICE:
    case wire::SET_EEPROM_BYTE:
    case wire::GET_THREADS: return true;
    default: return false;
    }
}

std::string SystemServices::driverInfo(std::uint8_t mode) const {
    std::string label(product_.class_name);
    for (const auto& [key, text] : wire::kLabels)
        if (key == product_.class_name) label = text;
    if (mode == 1) return label + "_rev-C_" + serial_;
    if (mode == 2) return std::string("bootloader_1.1.0_2023-11-02");
    return label + "_" + std::string(kFirmwareVersion) + "_" + std::string(kBuildDate);
}

std::string SystemServices::threads() const {
    namespace products = torvik::products;
    std::string out = "main R 1 212\ncmd B 3 480\n";
    switch (product_.link) {
    case products::Link::Usb: out += "usb B 4 356\n"; break;
    case products::Link::Ethernet: out += "eth B 4 690\n"; break;
    case products::Link::Wifi: out += "wifi B 4 812\ndata B 4 604\n"; break;
    }
    if (!product_.di.empty() || !product_.do_.empty()) out += "dio B 2 300\n";
    if (!product_.ai.empty()) out += "ai B 5 1024\n";
    if (!product_.ao.empty()) out += "ao B 5 512\n";
    if (!product_.uart.empty()) out += "uart B 3 400\n";
    if (!product_.can.empty()) out += "can B 3 400\n";
    out += "idle R 0 96\n";
    return out;
}

void SystemServices::factoryReset() { std::fill(eeprom_.begin(), eeprom_.end(), 0xFF); }

Bytes SystemServices::handle(std::uint16_t code, const Bytes& in) {
    auto text = [](const std::string& s) { return Bytes(s.begin(), s.end()); };
    auto status = [](std::uint8_t s) { return Bytes{s}; };
    switch (code) {
    case wire::GET_DRIVER_INFO: return text(driverInfo(portOf(in)));
    case wire::GET_DATE_TIME: {
        const DateTime t = clock_.read();
        return Bytes{static_cast<std::uint8_t>(t.year - 1900), static_cast<std::uint8_t>(t.month),
                     static_cast<std::uint8_t>(t.day),          static_cast<std::uint8_t>(t.hour),
                     static_cast<std::uint8_t>(t.minute),       static_cast<std::uint8_t>(t.second)};
    }
    case wire::SET_DATE_TIME: {
        if (in.size() != 6) return status(kCommandsError);
        // The Wi-Fi family counts months from zero when the clock is set.
        const int month = in[1] + (product_.link == torvik::products::Link::Wifi ? 1 : 0);
        return status(clock_.set(DateTime{1900 + in[0], month, in[2], in[3], in[4], in[5]}) ? kOk : kSysError);
    }
    case wire::GET_SERIAL_NUMBER: return text(serial_);
    case wire::SET_SERIAL_NUMBER:
        if (in.empty() || in.size() > 16) return status(kSysError);
        serial_.assign(in.begin(), in.end());
        return status(kOk);
    case wire::GET_EEPROM_PAGE: {
        if (in.size() != 1) return status(kCommandsError);
        if (in[0] >= kPages) return status(kEepromError);
        const auto at = eeprom_.begin() + static_cast<std::ptrdiff_t>(in[0] * kPageSize);
        return Bytes(at, at + kPageSize);
    }
    case wire::SET_EEPROM_PAGE: {
        if (in.empty()) return status(kCommandsError);
        if (in[0] >= kPages || in.size() - 1 > kPageSize) return status(kEepromError);
        std::copy(in.begin() + 1, in.end(), eeprom_.begin() + static_cast<std::ptrdiff_t>(in[0] * kPageSize));
        return status(kOk);
    }
    case wire::SET_EEPROM_BYTE:
        if (in.size() != 3) return status(kCommandsError);
        if (in[0] >= kPages || in[1] >= kPageSize) return status(kEepromError);
        eeprom_[in[0] * kPageSize + in[1]] = in[2];
        return status(kOk);
    case wire::GET_EEPROM_DEVICE: {
        // Device 0, the only one: page size and page count.
        if (in.size() != 1) return status(kCommandsError);
        if (in[0] != 0) return status(kEepromError);
        Bytes out{0, static_cast<std::uint8_t>(kPageSize)};
        putU16(out, static_cast<std::uint16_t>(kPages));
        return out;
    }
    case wire::GET_THREADS: return text(threads());
    default: return status(kCommandsError);
    }
}

}  // namespace sim
