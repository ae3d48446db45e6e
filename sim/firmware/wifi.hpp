// The radio and on-board sensors of the Wi-Fi units. Every request starts with the port, which is
// 1, and every reply with the port; the status of a status reply is at index 1.
//
// Defaults: Wi-Fi configuration 5 retries and 60 s in access-point mode, bandwidth 20 (MHz; 40 is
// the other value a unit takes), RSSI -56 dBm (sent as the byte 200), battery 1380 (the host
// shows 4140 mV), thermometer 25.5 degrees C (3264 / 128), acceleration x 16, y 65520 (-16), z 16384
// (lying flat, 1 g at 16384 counts).
#pragma once

#include <array>

#include "firmware/reply.hpp"

namespace sim {

struct Sensors {
    int rssi = -56;  // dBm, -255..-1
    std::uint16_t battery = 1380;
    std::int16_t thermo = 3264;  // 1/128 degrees C
    std::array<std::uint16_t, 3> accel{16, 65520, 16384};
};

class WifiRadio {
public:
    static constexpr std::uint8_t kPort = 1;

    static bool isWifiCode(std::uint16_t code);
    Bytes handle(std::uint16_t code, const Bytes& payload);

    Sensors& sensors() { return sensors_; }
    bool accessPoint() const { return access_point_; }
    // Back to the factory: the radio settings; the sensors measure on.
    void factoryReset();

private:
    Sensors sensors_;
    std::uint16_t retry_times_ = 5, ap_time_ = 60;
    std::uint8_t bandwidth_ = 20;
    bool access_point_ = false;
};

}  // namespace sim
