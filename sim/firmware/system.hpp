// The system services every unit has: identity (driver information, serial number, thread list),
// clock and EEPROM. Their status replies carry the status at index 0. Reboot, factory reset and
// the pin modes involve the whole unit and are answered by ProductFirmware.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "firmware/clock.hpp"
#include "firmware/reply.hpp"
#include "products/products.hpp"

namespace sim {

class SystemServices {
public:
    static constexpr std::size_t kPageSize = 32;
    static constexpr std::size_t kPages = 128;  // a 4 KiB EEPROM
    static constexpr std::string_view kFirmwareVersion = "2.4.1";
    static constexpr std::string_view kBuildDate = "2024-05-17";

    SystemServices(const torvik::products::Product& product, std::string serial, UnitClock::Now now);

    static bool isSystemCode(std::uint16_t code);
    Bytes handle(std::uint16_t code, const Bytes& payload);

    // The information text of GET_DRIVER_INFO: mode 1 tells the hardware, mode 2 the boot loader,
    // any other mode the firmware.
    std::string driverInfo(std::uint8_t mode) const;
    std::string threads() const;
    const std::string& serial() const { return serial_; }
    UnitClock& clock() { return clock_; }

    // Back to the factory: the EEPROM is erased; serial number and clock stay.
    void factoryReset();

private:
    const torvik::products::Product& product_;
    std::string serial_;
    UnitClock clock_;
    std::vector<std::uint8_t> eeprom_;
};

}  // namespace sim
