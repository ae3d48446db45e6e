// Temperature channels of the thermocouple unit (products with a tc table) and the RTD unit (an rd
// table): two channels on each logical port, each a converter chip of its own. Every request
// starts with the port, and every channel request with port and channel; replies start the same
// way. The status stands at index 1 in open and close, at index 2 in channel replies; temperatures
// are IEEE singles, high byte first, in degrees C.
//
//   OPEN_THERMAL [port]               the port's pins go to SPI mode (ProductFirmware takes
//                                     them); an unknown port, or a pin another function holds: 17
//   CLOSE_THERMAL [port]              the pins go back to Idle
//   channel commands                  need the port open, else [port, channel, 1]; a channel other
//                                     than 0 and 1, or a bad size: [port, channel, 23]
//   SET_THERMAL_NOISE_FILTER          0 60 Hz, 1 50 Hz; else 17
//   SET_THERMAL_OVER_SAMPLING         0..4 (1 to 16 samples); else 17       thermocouples only
//   SET_THERMAL_TYPE                  thermocouple 0..7 (B E J K N R S T), RTD 0..1; else 17
//   GET_THERMAL_STATUS [p, c, mode]   the fault register at index 2, in the form the mode asks
//                                     for: 2 thermocouple (bit 0 open circuit), 1 RTD (bit 7 open
//                                     element); the other unit's mode: 23
//   READ_THERMAL_COUPLE               the reading: the sensor's temperature plus the offset. A
//                                     thermocouple measures against its cold junction: with the
//                                     junction sensor off the chip uses the written junction
//                                     temperature instead, and the reading is off by the
//                                     difference. An open circuit reads NaN
//   READ_THERMAL_JUNCTION             the junction temperature in use        thermocouples only
//   WRITE_THERMAL_JUNCTION [p,c,f32]  the junction temperature to use while the sensor is off
//   SET_THERMAL_JUNCTION_ON [p,c,b]   0 or 1; else 17
//   READ_THERMAL_OFFSET               the offset in force
//   WRITE_THERMAL_OFFSET [p,c,f32]    puts an offset in force
//   LOAD_THERMAL_OFFSET               puts the saved offset in force and answers it
//   SAVE_THERMAL_OFFSET [p,c,f32]     saves an offset in the unit's EEPROM (in force after LOAD
//                                     or a restart)
//
// A sensor's temperature is the one a test set, swinging slowly around it (amplitude `drift`,
// one minute a swing) so that repeated reads see a live value; drift 0 holds it exact.
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <vector>

#include "firmware/clock.hpp"
#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

class Thermal {
public:
    static constexpr int kChannels = 2;
    static constexpr std::uint8_t kThermalError = 17;
    static constexpr auto kDriftPeriod = std::chrono::seconds(60);

    struct Sensor {
        double temperature = 0;  // degrees C at the sensor
        double drift = 0;        // amplitude of the slow swing around it
        double junction = 0;     // what the cold-junction sensor measures
        bool junction_on = true;
        float written_junction = 0;
        float offset = 0, saved_offset = 0;
        std::uint8_t filter = 0, oversampling = 0, type = 0;
        bool open_circuit = false;
        std::uint8_t faults = 0;  // further fault bits a test set, reported as they are
        std::chrono::steady_clock::time_point set_at{};
    };

    Thermal(const torvik::products::Product& product, UnitClock::Now now);

    bool present() const { return !ports_.empty(); }
    bool thermocouple() const { return thermocouple_; }
    static bool isThermalCode(std::uint16_t code);
    // Where the status stands in a reply to `code`.
    static std::size_t statusIndex(std::uint16_t code);
    bool isPort(int port) const;
    std::vector<PinRef> pins(int port) const;
    bool isOpen(int port) const;

    // The reply to a thermal command; OPEN_THERMAL only after the caller took the pins.
    Bytes handle(std::uint16_t code, const Bytes& payload);

    // Null for a port or channel the unit does not have.
    Sensor* sensor(int port, int channel);
    // The temperature at the sensor now, drift included.
    double temperatureNow(const Sensor& s) const;
    // Sets the sensor's temperature (and drift), starting its swing afresh.
    void setTemperature(Sensor& s, double temperature, double drift);

    // The unit restarts: ports close, saved offsets come into force.
    void reset();
    // Saved offsets and settings back to the factory's.
    void factoryReset();

private:
    Bytes channelCommand(std::uint16_t code, const Bytes& in);
    float reading(const Sensor& s) const;

    bool thermocouple_ = false;
    std::vector<int> ports_;
    std::vector<std::vector<PinRef>> pins_;  // by index into ports_
    std::vector<bool> open_;
    std::vector<std::array<Sensor, kChannels>> sensors_;
    UnitClock::Now now_;
};

}  // namespace sim
