// The handles: one class per product, composed of a device base and the modules of what the
// unit offers. A handle's constructor builds its tables from the product table, then runs the
// constructors of its bases in the product's order.
#include <functional>
#include <string>
#include <vector>

#include "device/device_binding.hpp"
#include "products/products.hpp"
#include "pyclass.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace pr = torvik::products;

// A table as the modules use it: pin lists for digital tables, (hardware port, pin) cells else.
py::dict tableOf(std::string_view text) {
    py::dict out;
    for (const auto& [port, entries] : pr::parsePortTable(text)) {
        py::list items;
        for (const auto& e : entries) {
            if (e.hw_port < 0)
                items.append(e.pin);
            else
                items.append(py::make_tuple(e.hw_port, e.pin));
        }
        out[py::int_(port)] = items;
    }
    return out;
}

// The handle's documentation: what the unit is, then the ports it names.
std::string docOf(const pr::Product& p) {
    std::string doc(p.description);
    if (!p.doc_ports.empty()) {
        doc += "\n\nPorts:";
        std::string_view rest = p.doc_ports;
        while (!rest.empty()) {
            auto cut = rest.find(';');
            std::string_view item = rest.substr(0, cut);
            while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
            doc += "\n    " + std::string(item);
            rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
        }
    }
    return doc;
}

using Init = std::function<void(py::handle self, const pr::Product& p)>;

PyClass handle(py::module_& m, const char* name, std::initializer_list<const char*> bases, Init init) {
    const pr::Product& p = *pr::findProduct(name);
    py::list base_classes;
    for (const char* b : bases) base_classes.append(m.attr(b));
    PyClass cls(m, name, py::tuple(base_classes), docOf(p));
    if (init) cls.def("__init__", [init, &p](py::handle self) { init(self, p); });
    return cls;
}

// Runs a base's constructor on the handle, as the handle's own constructor does explicitly.
template <typename... A>
void initBase(const char* base, py::handle self, A&&... args) {
    moduleObject().attr(base).attr("__init__")(self, std::forward<A>(args)...);
}

void aiInit(py::handle self, const pr::Product& p) {
    initBase("AIModule", self, tableOf(p.ai), p.ai_max_rate, p.ai_ratio, p.ai_num_channels, p.ai_variable);
}

// close of a handle with stream modules: the base's close with its defaults, then the frees in order.
void defineClose(PyClass& cls, const char* base, std::initializer_list<const char*> frees) {
    std::vector<const char*> order(frees);
    cls.def("close", [base, order](py::handle self) {
        if (py::bool_(self.attr("killed"))) return;
        moduleObject().attr(base).attr("close")(self);
        for (const char* f : order) self.attr(f)();
    });
}

void dioInit(py::handle self, const pr::Product& p) {
    initBase("DIOModule", self, tableOf(p.di), tableOf(p.do_), p.dio_num_pins_per_port);
}

// The Wi-Fi unit guards connect and disconnect by the connection state, and disconnects before
// its base's close.
void bindAirAnalog(py::module_& m) {
    PyClass air = handle(m, "TorvikAirAnalog",
                         {"WifiDevice", "SystemModule", "SystemAnalogModule", "NetworkModule", "WifiModule", "AIModule"},
                         [](py::handle self, const pr::Product& p) {
                             initBase("WifiDevice", self);
                             aiInit(self, p);
                         });
    air.def(
           "connect",
           [](py::handle self, py::handle ip) {
               if (py::bool_(self.attr("connect_status_cmd"))) return;
               moduleObject().attr("WifiDevice").attr("connect")(self, ip);
           },
           py::arg("ip"))
        .def("disconnect",
             [](py::handle self) {
                 if (!py::bool_(self.attr("connect_status_cmd"))) return;
                 moduleObject().attr("WifiDevice").attr("disconnect")(self);
             })
        .def("close", [](py::handle self) {
            if (py::bool_(self.attr("killed"))) return;
            if (py::bool_(self.attr("connect_status_cmd"))) self.attr("disconnect")();
            moduleObject().attr("WifiDevice").attr("close")(self);
            self.attr("_AI_free")();
        });
}

}  // namespace

void bindHandles(py::module_& m) {
    handle(m, "TorvikLanLogic", {"ETHDevice", "SystemModule", "NetworkModule", "DIOModule"}, [](py::handle self, const pr::Product& p) {
        initBase("ETHDevice", self);
        dioInit(self, p);
    });
    handle(m, "TorvikUsbSink", {"USBDevice", "SystemModule", "DIOModule"}, [](py::handle self, const pr::Product& p) {
        initBase("USBDevice", self);
        dioInit(self, p);
    });
    PyClass usb_logic = handle(m, "TorvikUsbLogic", {"USBDevice", "SystemModule", "UARTModule", "I2CModule", "SPIModule", "DIOModule"},
                               [](py::handle self, const pr::Product& p) {
                                   initBase("USBDevice", self);
                                   initBase("UARTModule", self, tableOf(p.uart));
                                   initBase("I2CModule", self, tableOf(p.i2c));
                                   initBase("SPIModule", self, tableOf(p.spi));
                                   dioInit(self, p);
                               });
    defineClose(usb_logic, "USBDevice", {"_UART_free"});
    PyClass usb_can = handle(m, "TorvikUsbCan",
                             {"USBDevice", "SystemModule", "UARTModule", "I2CModule", "SPIModule", "CANModule", "DIOModule"},
                             [](py::handle self, const pr::Product& p) {
                                 initBase("USBDevice", self);
                                 initBase("UARTModule", self, tableOf(p.uart));
                                 initBase("I2CModule", self, tableOf(p.i2c));
                                 initBase("SPIModule", self, tableOf(p.spi));
                                 initBase("CANModule", self, tableOf(p.can));
                                 dioInit(self, p);
                             });
    defineClose(usb_can, "USBDevice", {"_UART_free", "_CAN_free"});
    // Both temperature classes get the same table, the thermocouple class's constructor first.
    PyClass usb_thermo = handle(m, "TorvikUsbThermo",
                                {"USBDevice", "SystemModule", "UARTModule", "I2CModule", "SPIModule", "ThermalModule", "ThermocoupleModule",
                                 "DIOModule"},
                                [](py::handle self, const pr::Product& p) {
                                    initBase("USBDevice", self);
                                    initBase("UARTModule", self, tableOf(p.uart));
                                    initBase("I2CModule", self, tableOf(p.i2c));
                                    initBase("SPIModule", self, tableOf(p.spi));
                                    py::dict tc = tableOf(p.tc);
                                    initBase("ThermocoupleModule", self, tc);
                                    initBase("ThermalModule", self, tc);
                                    dioInit(self, p);
                                });
    defineClose(usb_thermo, "USBDevice", {"_UART_free"});
    PyClass usb_rtd = handle(m, "TorvikUsbRtd",
                             {"USBDevice", "SystemModule", "UARTModule", "I2CModule", "SPIModule", "ThermalModule", "DIOModule"},
                             [](py::handle self, const pr::Product& p) {
                                 initBase("USBDevice", self);
                                 initBase("UARTModule", self, tableOf(p.uart));
                                 initBase("I2CModule", self, tableOf(p.i2c));
                                 initBase("SPIModule", self, tableOf(p.spi));
                                 initBase("ThermalModule", self, tableOf(p.rd));
                                 dioInit(self, p);
                             });
    defineClose(usb_rtd, "USBDevice", {"_UART_free"});
    PyClass lan_relay = handle(m, "TorvikLanRelay", {"ETHDevice", "SystemModule", "NetworkModule", "DIOModule", "RelayModule"},
                               [](py::handle self, const pr::Product& p) {
                                   initBase("ETHDevice", self);
                                   dioInit(self, p);
                                   initBase("RelayModule", self);
                               });
    defineClose(lan_relay, "ETHDevice", {});
    PyClass lan_analog = handle(m, "TorvikLanAnalog", {"ETHDevice", "SystemModule", "NetworkModule", "AIModule"},
                                [](py::handle self, const pr::Product& p) {
                                    initBase("ETHDevice", self);
                                    aiInit(self, p);
                                });
    defineClose(lan_analog, "ETHDevice", {"_AI_free"});
    PyClass lan_output = handle(m, "TorvikLanOutput", {"ETHDevice", "SystemModule", "NetworkModule", "AOModule"},
                                [](py::handle self, const pr::Product& p) {
                                    initBase("ETHDevice", self);
                                    initBase("AOModule", self, tableOf(p.ao), p.ao_volt_min, p.ao_volt_max, p.ao_channel);
                                });
    defineClose(lan_output, "ETHDevice", {});
    PyClass usb_analog = handle(m, "TorvikUsbAnalog",
                                {"USBDevice", "SystemModule", "UARTModule", "I2CModule", "SPIModule", "AIModule", "DIOModule"},
                                [](py::handle self, const pr::Product& p) {
                                    initBase("USBDevice", self);
                                    initBase("UARTModule", self, tableOf(p.uart));
                                    initBase("I2CModule", self, tableOf(p.i2c));
                                    initBase("SPIModule", self, tableOf(p.spi));
                                    aiInit(self, p);
                                    dioInit(self, p);
                                });
    defineClose(usb_analog, "USBDevice", {"_AI_free", "_UART_free"});
    PyClass usb_mixed = handle(m, "TorvikUsbMixed",
                               {"USBDevice", "SystemModule", "UARTModule", "I2CModule", "AIModule", "AOModule", "DIOModule"},
                               [](py::handle self, const pr::Product& p) {
                                   initBase("USBDevice", self);
                                   initBase("UARTModule", self, tableOf(p.uart));
                                   initBase("I2CModule", self, tableOf(p.i2c));
                                   aiInit(self, p);
                                   initBase("AOModule", self, tableOf(p.ao), p.ao_volt_min, p.ao_volt_max, p.ao_channel);
                                   dioInit(self, p);
                               });
    defineClose(usb_mixed, "USBDevice", {"_AI_free", "_UART_free"});
    bindAirAnalog(m);
    // Declared compositions: no constructor of their own, so only the first base's runs and the
    // module tables stay unset.
    const std::initializer_list<const char*> composed = {"ETHDevice", "SystemModule", "NetworkModule", "AIModule", "AOModule", "DIOModule"};
    handle(m, "TorvikCore", composed, nullptr);
    handle(m, "TorvikCoreMini", composed, nullptr);
    handle(m, "TorvikDrive", {"ETHDevice", "SystemModule", "NetworkModule"}, nullptr);
    handle(m, "TorvikBox", composed, nullptr);
}

}  // namespace torvik::py_binding
