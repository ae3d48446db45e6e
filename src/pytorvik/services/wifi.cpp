// WifiModule and SystemAnalogModule of the Wi-Fi unit. Every request starts with port 1 and
// every reply with the port, so status replies carry the status at index 1.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

py::list port1() { return Payload().byte(1).list(); }

// The 16-bit words at 2i, 2i+1 of the reply behind its port byte.
py::list words(const py::object& data_in, int count) {
    py::list d = slice(data_in, 1), out;
    for (int i = 0; i < count; ++i) {
        py::list pair;
        pair.append(d[py::int_(2 * i)]);
        pair.append(d[py::int_(2 * i + 1)]);
        out.append(u8x2ToU16(pair));
    }
    return out;
}

Co<> readBattery(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_BATTERY, port1());
    py::object battery = u8x2ToU16(slice(data_in, 1));
    self.attr("battery") = battery;
    co_return battery * py::int_(3);
}

Co<> readThermo(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_THERMOMETER, port1());
    py::object thermo = u8x2ToI16(slice(data_in, 1)).attr("__truediv__")(128);
    self.attr("thermo") = thermo;
    co_return thermo;
}

Co<> readAcceleration(py::object self) {
    py::object data_in = co_await exchange(self, w::READ_ACCELERATION, port1());
    co_return words(data_in, 3);
}

Co<> setAP(py::object self) {
    py::object data_in = co_await exchange(self, w::SET_AP, port1());
    co_return statusTail(data_in, 1);
}

Co<> readRSSI(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_RSSI, port1());
    py::object rssi = replyByte(data_in, 1) - py::int_(256);
    self.attr("rssi") = rssi;
    co_return rssi;
}

Co<> getWifiConfiguration(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_WIFI_CONFIGURATION, port1());
    co_return words(data_in, 2);
}

Co<> getWifiBandwidth(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_WIFI_BANDWIDTH, port1());
    py::object bandwidth = replyByte(data_in, 1);
    self.attr("bandwidth") = bandwidth;
    co_return bandwidth;
}

Co<> setWifiBandwidth(py::object self, py::object bandwidth) {
    checkInputType(bandwidth, intType());
    py::object data_in = co_await exchange(self, w::SET_WIFI_BANDWIDTH, Payload().byte(1).byte(bandwidth).list());
    co_return statusTail(data_in, 1);
}

Co<> setWifiConfiguration(py::object self, py::object retry_wifi_times, py::object ap_time) {
    checkInputType(retry_wifi_times, intType());
    checkInputType(ap_time, intType());
    py::object data_in =
        co_await exchange(self, w::SET_WIFI_CONFIGURATION, Payload().byte(1).u16(retry_wifi_times).u16(ap_time).list());
    co_return statusTail(data_in, 1);
}

}  // namespace

void bindWifiModules(py::module_& m) {
    PyClass analog(m, "SystemAnalogModule", py::make_tuple(m.attr("Packet")), "Battery, thermometer and accelerometer of the Wi-Fi unit.");
    defOp(analog, "Wifi_readBattery_async", &readBattery);
    defOp(analog, "Wifi_readThermo_async", &readThermo);
    defOp(analog, "Wifi_readAccleration_async", &readAcceleration);

    PyClass wifi(m, "WifiModule", py::make_tuple(m.attr("Packet")), "Radio settings of the Wi-Fi unit.");
    defOp(wifi, "Wifi_setAP_async", &setAP);
    defOp(wifi, "Wifi_readRSSI_async", &readRSSI);
    defOp(wifi, "Wifi_getWifiConfiguration_async", &getWifiConfiguration);
    defOp(wifi, "Wifi_getWifiBandwidth_async", &getWifiBandwidth);
    defOp(wifi, "_setWifiBandwidth_async", &setWifiBandwidth, py::arg("bandwidth"));
    defOp(wifi, "_setWifiConfiguration_async", &setWifiConfiguration, py::arg("retry_wifi_times"), py::arg("ap_time"));
}

}  // namespace torvik::py_binding
