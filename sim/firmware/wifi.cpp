#include "firmware/wifi.hpp"

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;

bool WifiRadio::isWifiCode(std::uint16_t code) {
    return code == wire::READ_ACCELERATION || (code >= wire::SET_AP && code <= wire::GET_WIFI_BANDWIDTH);
}

void WifiRadio::factoryReset() {
    retry_times_ = 5;
    ap_time_ = 60;
    bandwidth_ = 20;
    access_point_ = false;
}

Bytes WifiRadio::handle(std::uint16_t code, const Bytes& in) {
    const std::uint8_t port = portOf(in);
    static constexpr std::size_t kLength[] = {
        // SET_AP .. GET_WIFI_BANDWIDTH
        1, 1, 1, 1, 5, 1, 2, 1};
    const std::size_t length = code == wire::READ_ACCELERATION ? 1 : kLength[code - wire::SET_AP];
    if (in.size() != length) return portStatus(port, kCommandsError);
    if (port != kPort) return portStatus(port, kNotEnabled);
    Bytes out{port};
    switch (code) {
    case wire::SET_AP: access_point_ = true; return portStatus(port, kOk);
    case wire::GET_RSSI: out.push_back(static_cast<std::uint8_t>(sensors_.rssi + 256)); return out;
    case wire::GET_BATTERY: putU16(out, sensors_.battery); return out;
    case wire::GET_THERMOMETER: putU16(out, static_cast<std::uint16_t>(sensors_.thermo)); return out;
    case wire::READ_ACCELERATION:
        for (auto v : sensors_.accel) putU16(out, v);
        return out;
    case wire::SET_WIFI_CONFIGURATION:
        retry_times_ = u16At(in, 1);
        ap_time_ = u16At(in, 3);
        return portStatus(port, kOk);
    case wire::GET_WIFI_CONFIGURATION:
        putU16(out, retry_times_);
        putU16(out, ap_time_);
        return out;
    case wire::SET_WIFI_BANDWIDTH:
        if (in[1] != 20 && in[1] != 40) return portStatus(port, kSysError);
        bandwidth_ = in[1];
        return portStatus(port, kOk);
    case wire::GET_WIFI_BANDWIDTH: out.push_back(bandwidth_); return out;
    default: return portStatus(port, kCommandsError);
    }
}

}  // namespace sim
