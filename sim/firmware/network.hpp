// Network settings of the Ethernet and Wi-Fi units: address and mask, gateway, MAC address. They
// are stored and read back; the emulator keeps listening where it was started, as a unit keeps
// its link until it restarts. Status replies carry the status at index 0.
//
// Defaults: the unit's own address with mask 255.255.255.0, the gateway at .1 of that network,
// and a locally administered MAC address derived from the serial number, 02:54:xx:xx:xx:xx.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "firmware/reply.hpp"

namespace sim {

class NetworkSettings {
public:
    // `ipv4` in host byte order.
    NetworkSettings(std::uint32_t ipv4, const std::string& serial);

    static bool isNetworkCode(std::uint16_t code);
    Bytes handle(std::uint16_t code, const Bytes& payload);

    static std::array<std::uint8_t, 6> macOf(const std::string& serial);

    // Address, mask and MAC address as discovery tells them: 14 bytes.
    Bytes identity() const;
    bool hasMac(const std::uint8_t* mac) const;
    // Takes a new address and mask, told by discovery: the status of the answer. The unit moves
    // there at once (`move` is false if it cannot, and nothing changes).
    std::uint8_t takeAddress(std::uint32_t ip, std::uint32_t mask, const std::function<bool(std::uint32_t)>& move);
    void factoryReset() { current_ = factory_; }

private:
    struct Values {
        std::array<std::uint8_t, 4> ip{}, mask{}, gateway{};
        std::array<std::uint8_t, 6> mac{};
    };
    Values factory_, current_;
};

}  // namespace sim
