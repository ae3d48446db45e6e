// The connection bases: Device, USBDevice and the network family. Their life cycle (constructor, connect,
// disconnect, close) runs on the caller's thread with Python semantics; each receive thread is a
// real threading.Thread whose body runs in the engine without the GIL.
#include <chrono>
#include <thread>

#include "args.hpp"
#include "bindings.hpp"
#include "device/device_binding.hpp"
#include "pyclass.hpp"
#include "transport/network_client.hpp"
#include "transport/usb_client.hpp"
#include "wire/commands.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

py::handle g_device, g_network_device;  // classes; the module keeps them alive

bool truthy(py::handle o) {
    int r = PyObject_IsTrue(o.ptr());
    if (r < 0) throw py::error_already_set();
    return r == 1;
}

void blockingSleep1ms() {
    py::gil_scoped_release nogil;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

py::object deviceName(py::handle self) { return self.attr("_getDeviceName")(); }

void say(py::handle self, const char* head, py::object middle, const char* tail = ")") {
    py::object line = py::str(head);
    if (middle) line = line + middle + py::str(" (");
    py::print(line + deviceName(self) + py::str(tail));
}

py::object startThread(py::handle self, const char* body) { return startNamedThread(self.attr(body)); }

// A client field's getter, with its key ("_" and the field's name) as its self. A plain C function: every
// request reads client_cmd, and a pybind11 call costs more than the lookup itself.
PyObject* getClientField(PyObject* key, PyObject* self) {
    PyObject* dict = PyObject_GenericGetDict(self, nullptr);
    if (dict == nullptr) return nullptr;
    PyObject* value = PyDict_GetItemWithError(dict, key);
    Py_XINCREF(value);
    Py_DECREF(dict);
    if (value == nullptr && !PyErr_Occurred()) {
        PyObject* name = PyUnicode_Substring(key, 1, PY_SSIZE_T_MAX);
        if (name != nullptr) {
            PyErr_SetObject(PyExc_AttributeError, name);
            Py_DECREF(name);
        }
    }
    return value;
}
PyMethodDef g_client_field_get{"client_field", &getClientField, METH_O, nullptr};

// Client fields whose value the receive thread must see: kept on the instance and mirrored
// into the engine slot the thread reads.
template <std::shared_ptr<device::ClientSlot> HandleCore::*Slot>
void defineClientField(PyClass& cls, const char* name) {
    std::string key = std::string("_") + name;
    PyObject* interned = PyUnicode_InternFromString(key.c_str());
    if (interned == nullptr) throw py::error_already_set();
    auto key_obj = py::reinterpret_steal<py::object>(interned);
    PyObject* get = PyCFunction_New(&g_client_field_get, key_obj.ptr());
    if (get == nullptr) throw py::error_already_set();
    cls.property(
        name, py::reinterpret_steal<py::object>(get),
        [key](py::handle self, py::handle value) {
            self.attr("__dict__")[key.c_str()] = value;
            std::shared_ptr<transport::Client> client;
            if (py::isinstance<transport::Client>(value)) client = py::cast<std::shared_ptr<transport::Client>>(value);
            (coreOf(self).*Slot)->set(std::move(client));
        });
}

// ---- Device ----

void deviceInit(py::handle self) {
    auto hc = std::make_shared<HandleCore>();
    self.attr("_core") = py::cast(hc);
    self.attr("killed") = false;
    self.attr("data_pool_echo") = makePoolView(hc->core->pools, "echo");
    self.attr("data_pool_strm") = makePoolView(hc->core->pools, "strm");
    self.attr("data_pool_bcst") = makePoolView(hc->core->pools, "bcst");
}

void deviceClose(py::handle self, py::handle verbose) {
    if (truthy(self.attr("killed"))) return;
    self.attr("killed") = true;
    if (truthy(verbose)) py::print(py::str("Closed handle (") + deviceName(self) + py::str(")"));
}

// ---- receive threads ----

void runNetworkReceiver(py::handle self, const char* gate_attr, std::shared_ptr<device::ClientSlot> HandleCore::*slot,
                        std::size_t read_size) {
    HandleCore& hc = coreOf(self);
    auto core = hc.core;
    auto client_slot = hc.*slot;
    auto gate = gateOf(self.attr(gate_attr));
    bool routing_failed = false;
    {
        py::gil_scoped_release nogil;
        try {
            device::runReceiveLoop(
                *core, *gate, *client_slot,
                [read_size, echo = core->pools.echo](transport::Client& c, std::unique_lock<std::mutex>& hold) {
                    return dynamic_cast<transport::NetworkClient&>(c).receiveAndSplit(read_size, &echo->awaited(), 0.01,
                                                                                       &hold);
                },
                [](std::exception_ptr, unsigned failures) { return device::backoff(failures); });
        } catch (const device::RoutingError&) {
            routing_failed = true;
        }
    }
    if (routing_failed) throw py::index_error("index out of range");
}

// ---- USBDevice ----

// The thread's three outcomes of a failed read: a time-out says nothing; a missing client says
// nothing once the handle is closed; anything else is printed, unless the client that failed was
// let go meanwhile (a disconnect ended that read; its outcome concerns nobody). An error that
// repeats at once (an unplugged unit) is printed again after a pause, not thousands of times a
// second.
std::chrono::nanoseconds reportUsbReadError(const device::DeviceCore& core, const device::ClientSlot& slot,
                                            const transport::Client* failed, std::exception_ptr failure,
                                            unsigned failures) {
    bool absent = false;
    try {
        std::rethrow_exception(failure);
    } catch (const transport::UsbTimeout&) {
        return std::chrono::nanoseconds::zero();
    } catch (const device::AbsentClient&) {
        if (core.killed) return std::chrono::nanoseconds::zero();
        absent = true;
    } catch (...) {
    }
    py::gil_scoped_acquire gil;
    // Under the GIL, which disconnect holds while it drops the client: either this line comes
    // before the disconnect's own, or not at all.
    if (!absent && slot.get().get() != failed) return std::chrono::nanoseconds::zero();
    try {
        moduleObject().attr("printGenericError")(exceptionObject(failure));
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable("printGenericError on the USB receive thread");
    }
    return device::backoff(failures);
}

void runUsbReceiver(py::handle self) {
    HandleCore& hc = coreOf(self);
    auto core = hc.core;
    auto client_slot = hc.cmd_slot;
    auto gate = gateOf(self.attr("recv_cmd_lock"));
    bool routing_failed = false;
    {
        py::gil_scoped_release nogil;
        const transport::Client* reading = nullptr;  // the client of the last read
        try {
            device::runReceiveLoop(
                *core, *gate, *client_slot,
                [&reading](transport::Client& c, std::unique_lock<std::mutex>&) {
                    reading = &c;
                    auto* usb = dynamic_cast<transport::UsbClient*>(&c);
                    if (usb == nullptr) throw std::logic_error("client_cmd is not a USBClient");
                    // Waits for the unit instead of polling; disconnect and close cancel the wait.
                    return usb->awaitAndSplitPacket(w::USB_PKT_SIZE);
                },
                [&](std::exception_ptr e, unsigned failures) {
                    return reportUsbReadError(*core, *client_slot, reading, e, failures);
                });
        } catch (const device::RoutingError&) {
            routing_failed = true;
        }
    }
    if (routing_failed) throw py::index_error("index out of range");
}

void usbInit(py::handle self, py::handle verbose) {
    deviceInit(self);
    self.attr("serial_num") = py::none();
    self.attr("client_cmd") = py::none();
    self.attr("connect_status_cmd") = false;
    self.attr("recv_cmd_lock") = newGate(true);
    self.attr("recv_cmd_thread") = startThread(self, "_recvCMDThread");
    self.attr("data_pool_strm2") = makePoolView(device::DataPools(), "strm");
    if (truthy(verbose)) say(self, "Opened handle (", py::object(), ")");
}

py::object usbConnect(py::handle self, py::handle serial_num, py::handle verbose) {
    if (truthy(self.attr("connect_status_cmd"))) return py::none();
    self.attr("client_cmd") = moduleObject().attr("USBClient")(serial_num);
    self.attr("connect_status_cmd") = true;
    self.attr("serial_num") = serial_num;
    self.attr("recv_cmd_lock").attr("release")();
    if (truthy(verbose)) say(self, "Connected to ", self.attr("serial_num"));
    return self.attr("connect_status_cmd");
}

void usbDisconnect(py::handle self, py::handle verbose) {
    if (!truthy(self.attr("connect_status_cmd"))) return;
    self.attr("recv_cmd_lock").attr("acquire")();
    blockingSleep1ms();
    py::object old = self.attr("client_cmd");
    self.attr("client_cmd") = py::none();
    // The thread may wait in a read without a time limit: end that read, and let the device
    // handle go once nothing uses it.
    if (py::isinstance<transport::UsbClient>(old)) {
        auto client = py::cast<std::shared_ptr<transport::UsbClient>>(old);
        py::gil_scoped_release nogil;
        client->release();
    }
    self.attr("connect_status_cmd") = false;
    if (truthy(verbose)) say(self, "Disconnected from ", self.attr("serial_num"));
}

void usbClose(py::handle self, py::handle verbose) {
    if (truthy(self.attr("killed"))) return;
    if (truthy(self.attr("connect_status_cmd"))) self.attr("disconnect")();
    deviceClose(self, py::bool_(false));
    self.attr("recv_cmd_lock").attr("release")();
    if (truthy(verbose)) say(self, "Closed handle (", py::object(), ")");
}

// ---- NetworkDevice ----

void networkInit(py::handle self, py::handle verbose) {
    deviceInit(self);
    self.attr("ip_addr") = py::none();
    self.attr("client_cmd") = moduleObject().attr("TCPClient")();
    self.attr("connect_status_cmd") = false;
    self.attr("recv_cmd_lock") = newGate(true);
    self.attr("recv_cmd_thread") = startThread(self, "_recvCMDThread");
    if (truthy(verbose)) say(self, "Opened handle (", py::object(), ")");
}

py::object networkConnect(py::handle self, py::handle ip_addr, py::handle port, py::handle verbose) {
    if (truthy(self.attr("connect_status_cmd"))) return py::none();
    self.attr("connect_status_cmd") = self.attr("client_cmd").attr("connect")(ip_addr, port);
    self.attr("ip_addr") = ip_addr;
    self.attr("_port") = port;  // for the repr only
    self.attr("recv_cmd_lock").attr("release")();
    if (truthy(verbose)) say(self, "Connected to ", self.attr("ip_addr"));
    return self.attr("connect_status_cmd");
}

void networkDisconnect(py::handle self, py::handle verbose) {
    if (!truthy(self.attr("connect_status_cmd"))) return;
    self.attr("recv_cmd_lock").attr("acquire")();
    blockingSleep1ms();
    self.attr("client_cmd").attr("disconnect")();
    self.attr("connect_status_cmd") = false;
    if (truthy(verbose)) say(self, "Disconnected from ", self.attr("ip_addr"));
}

void networkClose(py::handle self, py::handle verbose) {
    if (truthy(self.attr("killed"))) return;
    if (truthy(self.attr("connect_status_cmd"))) self.attr("disconnect")();
    deviceClose(self, py::bool_(false));
    self.attr("recv_cmd_lock").attr("release")();
    blockingSleep1ms();
    self.attr("client_cmd") = py::none();
    if (truthy(verbose)) say(self, "Closed handle (", py::object(), ")");
}

// ---- WifiDevice ----

void wifiInit(py::handle self, py::handle verbose) {
    networkInit(self, py::bool_(false));
    self.attr("client_data") = moduleObject().attr("TCPClient")();
    self.attr("connect_status_data") = false;
    self.attr("recv_data_lock") = newGate(true);
    self.attr("recv_data_thread") = startThread(self, "_recvDataThread");
    if (truthy(verbose)) say(self, "Opened handle (", py::object(), ")");
}

py::object wifiConnect(py::handle self, py::handle ip, py::handle port1, py::handle port2, py::handle verbose) {
    networkConnect(self, ip, port1, py::bool_(false));
    self.attr("connect_status_data") = self.attr("client_data").attr("connect")(ip, port2);
    self.attr("recv_data_lock").attr("release")();
    if (truthy(verbose)) say(self, "Connected to ", self.attr("ip_addr"));
    return self.attr("connect_status_data");
}

void wifiDisconnect(py::handle self, py::handle verbose) {
    networkDisconnect(self, py::bool_(false));
    if (!truthy(self.attr("connect_status_data"))) return;
    self.attr("recv_data_lock").attr("acquire")();
    blockingSleep1ms();
    self.attr("client_data").attr("disconnect")();
    self.attr("connect_status_data") = false;
    if (truthy(verbose)) say(self, "Disconnected from ", self.attr("ip_addr"));
}

void wifiClose(py::handle self, py::handle verbose) {
    if (truthy(self.attr("killed"))) return;
    if (truthy(self.attr("connect_status_cmd"))) self.attr("disconnect")();
    networkClose(self, py::bool_(false));
    self.attr("recv_data_lock").attr("release")();
    if (truthy(verbose)) say(self, "Closed handle (", py::object(), ")");
}

// ---- BroadcastDevice ----

void broadcastInit(py::handle self, py::handle verbose) {
    deviceInit(self);
    self.attr("client_udp") = moduleObject().attr("UDPClient")();
    self.attr("connect_status_udp") = false;
    self.attr("recv_udp_lock") = newGate(true);
    self.attr("recv_udp_thread") = startThread(self, "_recvUDPThread");
    if (truthy(verbose)) say(self, "Opened handle (", py::object(), ")");
}

py::object broadcastConnect(py::handle self, py::handle verbose) {
    if (truthy(self.attr("connect_status_udp"))) return py::none();
    self.attr("connect_status_udp") = self.attr("client_udp").attr("bind")("", w::UDP_RECV_PORT);
    self.attr("recv_udp_lock").attr("release")();
    if (truthy(verbose)) py::print(py::str("Binded ") + deviceName(self));
    return self.attr("connect_status_udp");
}

void broadcastDisconnect(py::handle self, py::handle verbose) {
    if (!truthy(self.attr("connect_status_udp"))) return;
    self.attr("recv_udp_lock").attr("acquire")();
    blockingSleep1ms();
    self.attr("client_udp").attr("disconnect")();
    self.attr("connect_status_udp") = false;
    if (truthy(verbose)) py::print(py::str("Disconnected ") + deviceName(self));
}

void broadcastClose(py::handle self, py::handle verbose) {
    if (truthy(self.attr("killed"))) return;
    if (truthy(self.attr("connect_status_udp"))) self.attr("disconnect")();
    deviceClose(self, py::bool_(false));
    self.attr("recv_udp_lock").attr("release")();
    if (truthy(verbose)) say(self, "Closed handle (", py::object(), ")");
}

device::Bytes payloadOf(py::handle data) {
    PyObject* b = PyBytes_FromObject(data.ptr());
    if (b == nullptr) throw py::error_already_set();
    auto owned = py::reinterpret_steal<py::bytes>(b);
    std::string_view v = owned;
    return device::Bytes(v.begin(), v.end());
}

const char* commandTypeName(device::CommandType t) {
    switch (t) {
        case device::CommandType::Streaming: return "streaming";
        case device::CommandType::Broadcast: return "broadcast";
        case device::CommandType::Ignore: return "ignore";
        case device::CommandType::Echo: return "echo";
    }
    return "echo";
}

}  // namespace

py::object startNamedThread(py::handle target, py::tuple args) {
    py::module_ threading = py::module_::import("threading");
#if PY_VERSION_HEX >= 0x030A0000
    py::object thread = threading.attr("Thread")(py::arg("target") = target, py::arg("args") = args);
#else
    // Python 3.10 and later name a thread "Thread-N (target)"; give older ones the same name.
    py::str name = py::str("{} ({})").format(threading.attr("_newname")("Thread-%d"), target.attr("__name__"));
    py::object thread = threading.attr("Thread")(py::arg("target") = target, py::arg("args") = args, py::arg("name") = name);
#endif
    thread.attr("start")();
    return thread;
}

HandleCore& coreOf(py::handle self) { return py::cast<HandleCore&>(self.attr("_core")); }

void bindDevices(py::module_& m) {
    py::class_<HandleCore, std::shared_ptr<HandleCore>>(m, "_HandleCore");

    const auto verbose = py::arg("verbose") = true;
    const auto no_bases = py::tuple();

    PyClass device(m, "Device", no_bases, "Root of the connection bases: data pools, routing and the end flag.");
    device.def("__init__", [](py::handle self) { deviceInit(self); })
        .property(
            "killed", [](py::handle self) { return coreOf(self).core->killed.load(); },
            [](py::handle self, py::handle v) { coreOf(self).core->killed = truthy(v); },
            "Set once by close; worker threads end when they see it.")
        .def("close", [](py::handle self, py::handle v) { deviceClose(self, v); }, verbose)
        .def("_getDeviceName",
             [](py::handle self) { return moduleObject().attr("LABEL_DICT")[py::type::handle_of(self).attr("__name__")]; })
        .def("_checkCommandType",
             [](py::handle, py::handle cmd, py::handle data) {
                 return commandTypeName(device::checkCommandType(args::code(cmd), payloadOf(data)));
             },
             py::arg("cmd"), py::arg("data"))
        .def("_putToDataPool",
             [](py::handle self, py::handle cmd, py::handle data) {
                 device::putToDataPool(coreOf(self).core->pools, args::code(cmd), payloadOf(data));
             },
             py::arg("cmd"), py::arg("data"));
    g_device = device.object();

    PyClass usb(m, "USBDevice", py::make_tuple(g_device), "Base of the USB units: one USBClient while connected, and its thread.");
    usb.def("__init__", [](py::handle self, py::handle v) { usbInit(self, v); }, verbose)
        .def("connect", &usbConnect, py::arg("serial_num"), verbose)
        .def("disconnect", [](py::handle self, py::handle v) { usbDisconnect(self, v); }, verbose)
        .def("close", [](py::handle self, py::handle v) { usbClose(self, v); }, verbose)
        .def("_recvCMDThread", [](py::handle self) { runUsbReceiver(self); });
    defineClientField<&HandleCore::cmd_slot>(usb, "client_cmd");

    PyClass network(m, "NetworkDevice", py::make_tuple(g_device), "A unit reached over TCP: one command connection and its thread.");
    network.def("__init__", [](py::handle self, py::handle v) { networkInit(self, v); }, verbose)
        .def("connect", &networkConnect, py::arg("ip_addr"), py::arg("port") = w::TCP_CMD_PORT, verbose)
        .def("disconnect", [](py::handle self, py::handle v) { networkDisconnect(self, v); }, verbose)
        .def("close", [](py::handle self, py::handle v) { networkClose(self, v); }, verbose)
        .def("_recvCMDThread", [](py::handle self) {
            runNetworkReceiver(self, "recv_cmd_lock", &HandleCore::cmd_slot, w::TCP_PKT_LENGTH_MAX);
        });
    defineClientField<&HandleCore::cmd_slot>(network, "client_cmd");
    g_network_device = network.object();

    PyClass eth(m, "ETHDevice", py::make_tuple(g_network_device), "Base of the Ethernet units: the command connection alone.");

    PyClass wifi(m, "WifiDevice", py::make_tuple(g_network_device),
                 "Base of the Wi-Fi units: a command connection and a receive-only data connection.");
    wifi.def("__init__", [](py::handle self, py::handle v) { wifiInit(self, v); }, verbose)
        .def("connect", &wifiConnect, py::arg("ip"), py::arg("port1") = w::TCP_CMD_PORT, py::arg("port2") = w::TCP_DATA_PORT,
             verbose)
        .def("disconnect", [](py::handle self, py::handle v) { wifiDisconnect(self, v); }, verbose)
        .def("close", [](py::handle self, py::handle v) { wifiClose(self, v); }, verbose)
        .def("_recvDataThread", [](py::handle self) {
            runNetworkReceiver(self, "recv_data_lock", &HandleCore::data_slot, w::TCP_DATA_LENGTH_MAX);
        });
    defineClientField<&HandleCore::data_slot>(wifi, "client_data");

    PyClass bcst(m, "BroadcastDevice", py::make_tuple(g_device), "A UDP socket and its thread, for discovery answers.");
    bcst.def("__init__", [](py::handle self, py::handle v) { broadcastInit(self, v); }, verbose)
        .def("connect", &broadcastConnect, verbose)
        .def("disconnect", [](py::handle self, py::handle v) { broadcastDisconnect(self, v); }, verbose)
        .def("close", [](py::handle self, py::handle v) { broadcastClose(self, v); }, verbose)
        .def("_recvUDPThread", [](py::handle self) {
            runNetworkReceiver(self, "recv_udp_lock", &HandleCore::udp_slot, w::UDP_PKT_LENGTH_MAX);
        });
    defineClientField<&HandleCore::udp_slot>(bcst, "client_udp");
}

}  // namespace torvik::py_binding
