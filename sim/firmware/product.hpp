// The firmware of one product: system services, network settings (Ethernet and Wi-Fi units),
// radio and sensors (Wi-Fi units), pin modes and digital I/O (units with digital tables).
//
// What it answers, by code:
//   - system and network codes: status replies carry the status at index 0;
//   - GET_PIN_MODE_OF_SLOT: [port, pin count, modes two a byte, low nibble first]; a port the
//     unit does not have has 0 pins;
//   - REBOOT, REBOOT_ON_BOOTLOADER: [0]; the unit restarts: pins go back to their start modes and
//     the digital start-up values come into force;
//   - RESET_FACTORY: [0]; settings, EEPROM and start-up values back to the factory's, then a
//     restart. Serial number and clock stay;
//   - Wi-Fi, sensor and digital codes: [port, ...], status at index 1;
//   - analog input and output codes (firmware/ai.hpp, firmware/ao.hpp): [port, ...]; opening an
//     analog port takes its pins into ADC mode (refused while another function or digital I/O
//     holds one), closing the output frees them again;
//   - CAN codes (firmware/can.hpp): [port, ...]; opening the port takes its pins into CAN mode
//     (refused, 18, while another function holds one), closing frees them;
//   - thermal codes (firmware/thermal.hpp): opening a port takes its pins into SPI mode (refused
//     while another function holds one), closing frees them;
//   - relay codes (firmware/relay.hpp), on the relay unit;
//   - bus codes (firmware/uart.hpp, firmware/i2c.hpp, firmware/spi.hpp): opening a bus port
//     takes its pins into the bus's mode (refused with the bus's status while another function
//     holds one), closing it frees them;
//   - codes that start a stream, and discovery codes: no reply (the analog ones start what they
//     start);
//   - discovery broadcasts (network units, over UDP; requests carry 0 in front, answers 1):
//       GET_DEVICE_INFO [0]                 [1, address, mask, MAC, the product's label]
//       CHECK_MAC_AND_SET_IP [0, address, mask, MAC]
//                                           the unit with that MAC takes address and mask and
//                                           moves there: [1, 1, status] (11: not a host address,
//                                           or one the emulator cannot listen at); others are quiet
//       CHECK_MAC_AND_REBOOT [0, MAC]       the unit with that MAC restarts: [1, 1, 0]
//   - codes of a module the product lacks, and unassigned codes: [port, 23].
#pragma once

#include <chrono>

#include "firmware/firmware.hpp"
#include "firmware/ai.hpp"
#include "firmware/ao.hpp"
#include "firmware/can.hpp"
#include "firmware/dio.hpp"
#include "firmware/i2c.hpp"
#include "firmware/network.hpp"
#include "firmware/pins.hpp"
#include "firmware/relay.hpp"
#include "firmware/spi.hpp"
#include "firmware/system.hpp"
#include "firmware/thermal.hpp"
#include "firmware/uart.hpp"
#include "firmware/wifi.hpp"

namespace sim {

class ProductFirmware : public Firmware {
public:
    explicit ProductFirmware(const UnitIdentity& identity,
                             UnitClock::Now now = [] { return std::chrono::steady_clock::now(); });

    std::vector<Frame> handle(const Request& request) override;
    std::size_t statusIndex(std::uint16_t code) const override;
    std::optional<Bytes> broadcast(std::uint16_t code, const Bytes& payload, const Mover& move) override;

    const torvik::products::Product& product() const { return product_; }
    SystemServices& system() { return system_; }
    PinBoard& pins() { return pins_; }
    DigitalIo& dio() { return dio_; }
    bool hasNetwork() const { return product_.link != torvik::products::Link::Usb; }
    bool hasWifi() const { return product_.link == torvik::products::Link::Wifi; }
    WifiRadio& wifi() { return wifi_; }
    AnalogInput& ai() { return ai_; }
    AnalogOutput& ao() { return ao_; }
    CanController& can() { return can_; }
    Thermal& thermal() { return thermal_; }
    RelayCounters& relays() { return relays_; }
    Uart& uart() { return uart_; }
    I2c& i2c() { return i2c_; }
    Spi& spi() { return spi_; }

    // The mode GET_PIN_MODE_OF_SLOT reports for a pin.
    PinMode modeOf(PinRef p) const;
    // Gives a pin a mode: DI or DO opens it for digital I/O, Idle frees it, any other mode lets a
    // function hold it (and digital I/O lets go of it). False if the pin does not exist, or
    // cannot be a digital pin of that direction.
    bool setPinMode(PinRef p, PinMode mode);

    void reboot();
    void factoryReset();

private:
    Bytes answer(std::uint16_t code, const Bytes& payload);
    Bytes pinModes(std::uint8_t port) const;
    Bytes analogInput(std::uint16_t code, const Bytes& payload);
    Bytes analogOutput(std::uint16_t code, const Bytes& payload);
    Bytes canBus(std::uint16_t code, const Bytes& payload);
    Bytes thermalCommand(std::uint16_t code, const Bytes& payload);
    // Takes the pins into ADC mode; false, and nothing changes, if another function or digital
    // I/O holds one of them.
    bool takeAnalogPins(const std::vector<PinRef>& pins);
    // A bus port's open and close move its pins: opening takes them into `mode` unless the port
    // is open already; false, and nothing changes, if another function holds one of them.
    template <class Bus>
    Bytes bus(Bus& model, PinMode mode, std::uint16_t open, std::uint16_t close, std::uint8_t refusal,
              std::uint16_t code, const Bytes& payload);

    const torvik::products::Product& product_;
    SystemServices system_;
    NetworkSettings network_;
    WifiRadio wifi_;
    PinBoard pins_;
    DigitalIo dio_;
    AnalogOutput ao_;
    AnalogInput ai_;  // after ao_, which it may read
    Thermal thermal_;
    RelayCounters relays_;  // after dio_, which it watches
    UnitClock::Now now_;
    Uart uart_;
    I2c i2c_;
    Spi spi_;
    CanController can_;
};

}  // namespace sim
