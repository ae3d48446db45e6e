// NetworkModule: addresses, gateway and MAC of a network unit, with the older Sys_ aliases.
// Status replies carry the status at reply index 0.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

constexpr const char* kDotted = "{:d}.{:d}.{:d}.{:d}";

Co<> getIPAddrAndSubmask(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_IP, py::list());
    py::str ip = format(kDotted, slice(data_in, 0, 4));
    py::str mask = format(kDotted, slice(data_in, 4, 8));
    self.attr("ip_addr") = ip;
    self.attr("subnet_mask") = mask;
    py::list out;
    out.append(ip);
    out.append(mask);
    co_return out;
}

Co<> setIPAddrAndSubmask(py::object self, py::object ip_addr, py::object subnet_mask) {
    checkInputType(ip_addr, strType());
    checkInputType(subnet_mask, strType());
    py::list data_out = Payload().extend(ipAddrTo4U8(ip_addr)).extend(ipAddrTo4U8(subnet_mask)).list();
    py::object data_in = co_await exchange(self, w::SET_IP, data_out);
    co_return statusTail(data_in, 0);
}

Co<> getMACAddr(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_MAC, py::list());
    // No zero padding: a byte below 16 gives one digit.
    py::str mac = format("{:x}:{:x}:{:x}:{:x}:{:x}:{:x}", slice(data_in, 0, 6));
    self.attr("mac_addr") = mac;
    co_return mac;
}

Co<> getGateway(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_GATEWAY, py::list());
    py::str gateway = format(kDotted, slice(data_in, 0, 4));
    self.attr("gateway") = gateway;
    co_return gateway;
}

Co<> setGateway(py::object self, py::object gateway) {
    checkInputType(gateway, strType());
    py::object data_in = co_await exchange(self, w::SET_GATEWAY, ipAddrTo4U8(gateway));
    co_return statusTail(data_in, 0);
}

Co<> setMACAddr(py::object self, py::object mac_addr) {
    checkInputType(mac_addr, strType());
    py::object data_in = co_await exchange(self, w::SET_MAC, macAddrTo6U8(mac_addr));
    co_return statusTail(data_in, 0);
}

}  // namespace

void bindNetworkModule(py::module_& m) {
    PyClass net(m, "NetworkModule", py::make_tuple(m.attr("Packet")), "IP address, subnet mask, gateway and MAC address of a network unit.");
    const auto mask = py::arg("subnet_mask") = "255.255.255.0";
    defOp(net, "Net_getIPAddrAndSubmask_async", &getIPAddrAndSubmask);
    defOp(net, "Net_setIPAddrAndSubmask_async", &setIPAddrAndSubmask, py::arg("ip_addr"), mask);
    defOp(net, "Net_getMACAddr_async", &getMACAddr);
    defOp(net, "Net_getGateway_async", &getGateway);
    defOp(net, "_setGateway_async", &setGateway, py::arg("gateway"));
    defOp(net, "_setMACAddr_async", &setMACAddr, py::arg("mac_addr"));
    // The older names; each awaits its Net_ operation and adds nothing.
    defOp(net, "Sys_getIPAddrAndSubmask_async", &getIPAddrAndSubmask);
    defOp(net, "Sys_setIPAddrAndSubmask_async", &setIPAddrAndSubmask, py::arg("ip_addr"), mask);
    defOp(net, "Sys_getMACAddr_async", &getMACAddr);
    defOp(net, "Sys_getGateway_async", &getGateway);
}

}  // namespace torvik::py_binding
