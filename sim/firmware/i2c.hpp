// The I2C ports of a unit (products with an i2c table), each a master with one EEPROM on its
// wires. Requests start with the port; replies are [port, status], status 5 when refused or when
// no device acknowledges its address (a NACK).
//
//   OPEN_I2C, CLOSE_I2C   the pins go into I2C mode and back (ProductFirmware sees to them);
//                         every other request wants the port open
//   WRITE_I2C             [port, addr, n, n bytes] -> [port, addr, n, status]: the first byte
//                         (two for an EEPROM above 256 bytes) sets the EEPROM's address, the rest
//                         is written there, wrapping inside the page it started in
//   READ_I2C              [port, addr, n] -> [port, status, n, n bytes]: read from the current
//                         address on, wrapping at the end of the memory; after a NACK [port, 5, 0]
//   RESET_I2C             [port, 0]; SET_I2C_FREQUENCY u32, 1..3400000; SET_I2C_ADDR_SIZE 0..1
//
// The EEPROM (address 0x50, 256 bytes in pages of 16, erased to 0xFF) can move, change its size,
// or go silent, as a device that stops answering.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

class I2c {
public:
    static constexpr std::uint8_t kI2cError = 5;

    struct Eeprom {
        std::uint8_t address = 0x50;
        std::size_t page = 16;
        std::vector<std::uint8_t> memory = std::vector<std::uint8_t>(256, 0xFF);
        std::size_t pointer = 0;
        bool silent = false;
        // Address bytes a write starts with.
        std::size_t addressBytes() const { return memory.size() > 256 ? 2 : 1; }
    };
    struct Port {
        int number = 0;
        std::vector<PinRef> pins;
        bool open = false;
        std::uint32_t frequency = 100000;
        std::uint8_t address_size = 0;
        Eeprom eeprom;
        std::uint64_t nacks = 0;
    };

    explicit I2c(const torvik::products::Product& product);

    bool present() const { return !ports_.empty(); }
    static bool isI2cCode(std::uint16_t code);
    Port* port(int number);

    Bytes handle(std::uint16_t code, const Bytes& payload);
    // The unit restarts: ports close; the EEPROMs keep what they hold.
    void reset();
    void clearFaults();

private:
    std::vector<Port> ports_;
};

}  // namespace sim
