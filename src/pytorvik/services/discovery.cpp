// BroadcastModule: finds units without a connection to any of them, USB units by walking the bus
// and network units by UDP broadcast; and DeviceFinder, its handle. Each broadcast takes the
// packet layer's fixed wait, and a unit answering several times counts once (the answers are a set).
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

Co<> broadcast(py::object self, long long cmd, py::list data_out) {
    co_return co_await aio::awaitObject(self.attr("_broadcastPacket_async")(py::int_(cmd), data_out));
}

// [ip_addr, submask, mac_addr, firmware_model] of one answer.
py::list deviceRecord(const py::object& reply) {
    py::list record;
    record.append(format("{:d}.{:d}.{:d}.{:d}", slice(reply, 0, 4)));
    record.append(format("{:d}.{:d}.{:d}.{:d}", slice(reply, 4, 8)));
    record.append(format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", slice(reply, 8, 14)));
    record.append(u8ListToStr(slice(reply, 14)));
    return record;
}

Co<> enumerateNetworkDevices(py::object self) {
    py::object replies = co_await broadcast(self, w::GET_DEVICE_INFO, Payload().byte(0).list());
    py::list devices;
    for (py::handle reply : replies) devices.append(deviceRecord(py::reinterpret_borrow<py::object>(reply)));
    co_return devices;
}

// The status of each answer, in the set's order; the one at index 1 is the result, so fewer than
// two distinct answers fail with the list's index error.
Co<> statusAtIndexOne(py::object self, long long cmd, py::list data_out) {
    py::object replies = co_await broadcast(self, cmd, data_out);
    py::list status_list;
    for (py::handle reply : replies) {
        py::object s_to_c = replyByte(py::reinterpret_borrow<py::object>(reply), 0);
        (void)s_to_c;  // read, and not looked at
        status_list.append(replyByte(py::reinterpret_borrow<py::object>(reply), 1));
    }
    co_return py::object(status_list[py::int_(1)]);
}

Co<> checkMACAndSetIP(py::object self, py::object ip_addr, py::object mac_addr, py::object subnet_mask) {
    checkInputType(ip_addr, strType());
    checkInputType(mac_addr, strType());
    checkInputType(subnet_mask, strType());
    py::list data_out =
        Payload().byte(0).extend(ipAddrTo4U8(ip_addr)).extend(ipAddrTo4U8(subnet_mask)).extend(macAddrTo6U8(mac_addr)).list();
    co_return co_await statusAtIndexOne(self, w::CHECK_MAC_AND_SET_IP, data_out);
}

Co<> checkMACAndReboot(py::object self, py::object mac_addr) {
    checkInputType(mac_addr, strType());
    py::list data_out = Payload().byte(0).list();
    py::list u8_list = macAddrTo6U8(mac_addr);
    // The command's own number goes in where a sequence belongs: extend fails on it, always, and
    // the packet never leaves.
    data_out.attr("extend")(py::int_(static_cast<int>(w::CHECK_MAC_AND_REBOOT)));
    data_out.attr("extend")(u8_list);
    co_return co_await statusAtIndexOne(self, w::CHECK_MAC_AND_REBOOT, data_out);
}

}  // namespace

void bindBroadcastModule(py::module_& m) {
    PyClass bcst(m, "BroadcastModule", py::make_tuple(m.attr("Packet")),
                 "Finds units: USB units on the bus, network units by broadcast.");
    bcst.def("Bcst_enumerateUSBDevices", [](py::handle self) { return self.attr("_getAllUSBDevices")(); });
    defOp(bcst, "Bcst_enumerateNetworkDevices_async", &enumerateNetworkDevices);
    defOp(bcst, "Bcst_checkMACAndSetIP_async", &checkMACAndSetIP, py::arg("ip_addr"), py::arg("mac_addr"),
          py::arg("subnet_mask") = "255.255.255.0");
    defOp(bcst, "Bcst_checkMACAndReboot_async", &checkMACAndReboot, py::arg("mac_addr"));

    // No constructor of its own: building one runs BroadcastDevice's.
    PyClass(m, "DeviceFinder", py::make_tuple(m.attr("BroadcastDevice"), bcst.object()),
            "Finds every unit on USB and on the local network.");
}

}  // namespace torvik::py_binding
