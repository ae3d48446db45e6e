#include "firmware/network.hpp"

#include <algorithm>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;

namespace {

std::array<std::uint8_t, 4> quad(std::uint32_t v) {
    return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v)};
}

std::uint32_t value(const std::uint8_t* p) {
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

// Ones from the top, then zeros, and not all zeros.
bool isMask(std::uint32_t m) { return m != 0 && (~m & (~m + 1)) == 0; }

// Neither 0.0.0.0, nor a broadcast, nor multicast and above.
bool isHostAddress(std::uint32_t a) { return a != 0 && (a >> 28) < 0xE; }

// The address must be a host of its network, not the network's own or broadcast address.
bool validAddress(std::uint32_t ip, std::uint32_t mask) {
    return isHostAddress(ip) && isMask(mask) && (mask == 0xFFFFFFFFu || ((ip & ~mask) != 0 && (ip | mask) != 0xFFFFFFFFu));
}

}  // namespace

Bytes NetworkSettings::identity() const {
    Bytes out(current_.ip.begin(), current_.ip.end());
    out.insert(out.end(), current_.mask.begin(), current_.mask.end());
    out.insert(out.end(), current_.mac.begin(), current_.mac.end());
    return out;
}

bool NetworkSettings::hasMac(const std::uint8_t* mac) const { return std::equal(current_.mac.begin(), current_.mac.end(), mac); }

std::uint8_t NetworkSettings::takeAddress(std::uint32_t ip, std::uint32_t mask, const std::function<bool(std::uint32_t)>& move) {
    if (!validAddress(ip, mask) || !move(ip)) return kSysError;
    current_.ip = quad(ip);
    current_.mask = quad(mask);
    return kOk;
}

std::array<std::uint8_t, 6> NetworkSettings::macOf(const std::string& serial) {
    std::uint32_t h = 2166136261u;  // FNV-1a
    for (unsigned char c : serial) h = (h ^ c) * 16777619u;
    return {0x02, 0x54, static_cast<std::uint8_t>(h >> 24), static_cast<std::uint8_t>(h >> 16),
            static_cast<std::uint8_t>(h >> 8), static_cast<std::uint8_t>(h)};
}

NetworkSettings::NetworkSettings(std::uint32_t ipv4, const std::string& serial) {
    factory_.ip = quad(ipv4);
    factory_.mask = quad(0xFFFFFF00u);
    factory_.gateway = quad((ipv4 & 0xFFFFFF00u) | 1);
    factory_.mac = macOf(serial);
    current_ = factory_;
}

bool NetworkSettings::isNetworkCode(std::uint16_t code) {
    switch (code) {
    case wire::GET_IP:
    case wire::SET_IP:
    case wire::GET_MAC:
    case wire::SET_MAC:
    case wire::GET_GATEWAY:
    case wire::SET_GATEWAY: return true;
    default: return false;
    }
}

Bytes NetworkSettings::handle(std::uint16_t code, const Bytes& in) {
    auto status = [](std::uint8_t s) { return Bytes{s}; };
    auto& v = current_;
    switch (code) {
    case wire::GET_IP: {
        Bytes out(v.ip.begin(), v.ip.end());
        out.insert(out.end(), v.mask.begin(), v.mask.end());
        return out;
    }
    case wire::SET_IP: {
        if (in.size() != 8) return status(kCommandsError);
        const std::uint32_t ip = value(in.data()), mask = value(in.data() + 4);
        if (!validAddress(ip, mask)) return status(kSysError);
        v.ip = quad(ip);
        v.mask = quad(mask);
        return status(kOk);
    }
    case wire::GET_MAC: return Bytes(v.mac.begin(), v.mac.end());
    case wire::SET_MAC:
        if (in.size() != 6) return status(kCommandsError);
        if ((in[0] & 1) || std::all_of(in.begin(), in.end(), [](std::uint8_t b) { return b == 0; }))
            return status(kSysError);  // multicast or empty
        std::copy(in.begin(), in.end(), v.mac.begin());
        return status(kOk);
    case wire::GET_GATEWAY: return Bytes(v.gateway.begin(), v.gateway.end());
    case wire::SET_GATEWAY:
        if (in.size() != 4) return status(kCommandsError);
        if (!isHostAddress(value(in.data()))) return status(kSysError);
        std::copy(in.begin(), in.end(), v.gateway.begin());
        return status(kOk);
    default: return status(kCommandsError);
    }
}

}  // namespace sim
