#include <pybind11/stl.h>

#include <cstdio>
#include <optional>

#include "args.hpp"
#include "bindings.hpp"
#include "device/device_binding.hpp"
#include "transport/libusb_loader.hpp"
#include "transport/usb_backend.hpp"
#include "transport/usb_client.hpp"

namespace torvik::py_binding {

using transport::UsbClient;

namespace {

// What getLibUSB1 reports: the libusb-1.0 that was loaded.
struct UsbBackend {
    std::string version, path;
};

// The directory of a file, as the bytes the system knows it by (UTF-8 on Windows), so that any
// name the interpreter could import from reaches the loader unchanged.
std::string dirOf(py::handle file) {
    py::object dir = py::module_::import("os.path").attr("dirname")(file);
    return py::module_::import("os").attr("fsencode")(dir).cast<std::string>();
}

// The directory of the module's file; empty when it has none.
std::string moduleDir() {
    py::object file = py::getattr(moduleObject(), "__file__", py::none());
    return py::isinstance<py::str>(file) ? dirOf(file) : std::string();
}

// The directory of the libusb-package wheel, found without importing it (its import costs much).
std::optional<std::string> libusbPackageDir() {
    try {
        py::object found = py::module_::import("importlib.util").attr("find_spec")("libusb_package");
        if (found.is_none()) return std::nullopt;
        py::object where = py::getattr(found, "submodule_search_locations", py::none());
        if (!where.is_none())
            for (py::handle dir : where)
                if (py::isinstance<py::str>(dir))
                    return py::module_::import("os").attr("fsencode")(dir).cast<std::string>();
        py::object origin = py::getattr(found, "origin", py::none());
        if (!py::isinstance<py::str>(origin)) return std::nullopt;
        return dirOf(origin);
    } catch (py::error_already_set& e) {
        if (!e.matches(PyExc_Exception)) throw;
        return std::nullopt;  // a sys.path entry that cannot be searched: as good as absent
    }
}

// The search of getLibUSB1: beside the module, its ../ext_lib, the system's own, then the copy of
// the libusb-package wheel (looked up only when the others fail). Null when none loads; `tried`
// then names every place looked in.
const transport::Libusb* findLibusb(std::vector<std::string>& tried) {
    transport::LibusbLoader& loader = transport::processLibusb();
    if (const transport::Libusb* api = loader.loaded()) return api;
    const std::vector<std::string> candidates = transport::libusbCandidates(moduleDir());
    {
        py::gil_scoped_release nogil;
        if (const transport::Libusb* api = loader.load(candidates, &tried)) return api;
    }
    const std::optional<std::string> wheel = libusbPackageDir();
    if (!wheel) {
        tried.push_back("the libusb-package wheel (not installed)");
        return nullptr;
    }
    const std::vector<std::string> last{transport::libusbFileIn(*wheel)};
    py::gil_scoped_release nogil;
    return loader.load(last, &tried);
}

std::string hex4(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04x", v & 0xFFFF);
    return buf;
}

// A client's end waits for its sender thread, whose last send may still wake a loop through the
// interpreter: the last reference may go under the GIL (a cancelled operation), so let go of it
// (not at shutdown, when no other thread may take it any more).
void deleteWithoutGil(UsbClient* client) {
    if (Py_IsInitialized() && !TORVIK_FINALIZING() && PyGILState_Check()) {
        py::gil_scoped_release nogil;
        delete client;
        return;
    }
    delete client;
}

}  // namespace

const transport::Libusb& requireLibusb() {
    std::vector<std::string> tried;
    if (const transport::Libusb* api = findLibusb(tried)) return *api;
    throw transport::LibusbNotFound(tried, std::string(transport::kInstallLibusbHint) + " or pip install pytorvik[usb]");
}

void bindUsbClient(py::module_& m) {
    using transport::UsbConfigInfo;
    using transport::UsbDeviceInfo;
    using transport::UsbEndpointInfo;
    using transport::UsbInterfaceInfo;

    py::class_<UsbBackend>(m, "USBBackend", "The USB library the module loaded: libusb-1.0, its version and file.")
        .def_property_readonly("name", [](const UsbBackend&) { return "libusb-1.0"; })
        .def_readonly("version", &UsbBackend::version)
        .def_readonly("path", &UsbBackend::path)
        .def("__repr__",
             [](const UsbBackend& b) { return "<USBBackend libusb-1.0 " + b.version + " from " + b.path + ">"; });
    m.def(
        "getLibUSB1",
        []() -> py::object {
            std::vector<std::string> tried;
            const transport::Libusb* api = findLibusb(tried);
            if (!api) return py::none();
            return py::cast(UsbBackend{transport::libusbVersion(), api->path});
        },
        "The USB backend: the libusb-1.0 loaded from beside the module, from ../ext_lib, the system's own, or "
        "the libusb-package wheel's, in that order; None when none can be loaded.");

    py::class_<UsbDeviceInfo>(m, "USBDeviceHandle", "Descriptor fields and bus position of a matched unit.")
        .def_readonly("idVendor", &UsbDeviceInfo::vendor)
        .def_readonly("idProduct", &UsbDeviceInfo::product)
        .def_readonly("bcdDevice", &UsbDeviceInfo::bcd_device)
        .def_readonly("bus", &UsbDeviceInfo::bus)
        .def_readonly("address", &UsbDeviceInfo::address)
        .def_readonly("iManufacturer", &UsbDeviceInfo::i_manufacturer)
        .def_readonly("iProduct", &UsbDeviceInfo::i_product)
        .def_readonly("iSerialNumber", &UsbDeviceInfo::i_serial)
        .def_readonly("bNumConfigurations", &UsbDeviceInfo::num_configurations)
        .def("__repr__", [](const UsbDeviceInfo& d) {
            return "<USBDeviceHandle " + hex4(d.vendor) + ":" + hex4(d.product) + " bus " + std::to_string(d.bus) +
                   " address " + std::to_string(d.address) + ">";
        });

    py::class_<UsbConfigInfo>(m, "USBConfiguration", "The configuration at index 0 of a matched unit.")
        .def_readonly("bConfigurationValue", &UsbConfigInfo::value)
        .def_readonly("bNumInterfaces", &UsbConfigInfo::num_interfaces)
        .def_readonly("bmAttributes", &UsbConfigInfo::attributes)
        .def_readonly("bMaxPower", &UsbConfigInfo::max_power)
        .def_property_readonly("index", [](const UsbConfigInfo&) { return 0; });

    py::class_<UsbEndpointInfo>(m, "USBEndpoint", "An endpoint descriptor.")
        .def_readonly("bEndpointAddress", &UsbEndpointInfo::address)
        .def_readonly("bmAttributes", &UsbEndpointInfo::attributes)
        .def_readonly("wMaxPacketSize", &UsbEndpointInfo::max_packet_size)
        .def("__repr__", [](const UsbEndpointInfo& e) {
            static const char* const kinds[] = {"control", "isochronous", "bulk", "interrupt"};
            return std::string("<USBEndpoint 0x") + hex4(e.address).substr(2) + " " + kinds[e.attributes & 3] + " " +
                   std::to_string(e.max_packet_size) + ">";
        });

    py::class_<UsbInterfaceInfo>(m, "USBInterface", "Interface 0, alternate setting 0, of the first configuration.")
        .def_readonly("bInterfaceNumber", &UsbInterfaceInfo::number)
        .def_readonly("bAlternateSetting", &UsbInterfaceInfo::alternate)
        .def_readonly("bInterfaceClass", &UsbInterfaceInfo::interface_class)
        .def_property_readonly("bNumEndpoints", [](const UsbInterfaceInfo& i) { return i.endpoints.size(); })
        .def_readonly("endpoints", &UsbInterfaceInfo::endpoints);

    py::class_<UsbClient, transport::Client, std::shared_ptr<UsbClient>>(
        m, "USBClient", py::dynamic_attr(), "USB transport to the unit with a given serial number.")
        .def(py::init([](py::handle serial_arg) {
                 // A unit's serial number is text: anything else matches no unit.
                 Py_ssize_t size = 0;
                 const char* utf8 = PyUnicode_Check(serial_arg.ptr()) ? PyUnicode_AsUTF8AndSize(serial_arg.ptr(), &size) : nullptr;
                 if (utf8 == nullptr || std::string_view(utf8, static_cast<std::size_t>(size)).find('\0') != std::string_view::npos) {
                     PyErr_Clear();
                     raiseError("USBConnectionError");
                 }
                 const std::string serial_num(utf8, static_cast<std::size_t>(size));
                 requireLibusb();
                 py::gil_scoped_release nogil;
                 return std::shared_ptr<UsbClient>(new UsbClient(serial_num), deleteWithoutGil);
             }),
             py::arg("serial_num"))
        .def_property_readonly("device", &UsbClient::device)
        .def_property_readonly("config", &UsbClient::config)
        .def_property_readonly("interface", &UsbClient::interfaceInfo)
        .def_property_readonly("ep_in", &UsbClient::epIn)
        .def_property_readonly("ep_out", &UsbClient::epOut)
        .def("takeSerialNumber", &UsbClient::takeSerialNumber, py::call_guard<py::gil_scoped_release>())
        .def("takeProductName", &UsbClient::takeProductName, py::call_guard<py::gil_scoped_release>())
        .def(
            "recvPacket",
            [](UsbClient& c, py::handle length_arg) {
                const std::size_t length = args::bufferSize(length_arg);
                std::vector<std::uint8_t> data;
                {
                    py::gil_scoped_release nogil;
                    data = c.recvPacket(length, 1);
                }
                return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
            },
            py::arg("length"), "One read of up to `length` bytes within 1 ms; USBTimeoutError when nothing came.")
        .def(
            "recvAndSplitPacket",
            [](UsbClient& c, py::handle length_arg) {
                const std::size_t length = args::bufferSize(length_arg);
                std::vector<wire::Packet> packets;
                {
                    py::gil_scoped_release nogil;
                    packets = c.recvAndSplitPacket(length, 1);
                }
                return packetsToList(packets);
            },
            py::arg("length"))
        .def(
            "sendPacket",
            [](UsbClient& c, py::handle int_list) {
                auto bytes = bytesOf(int_list);
                py::gil_scoped_release nogil;
                c.sendPacket(bytes);
            },
            py::arg("int_list"));
}

}  // namespace torvik::py_binding
