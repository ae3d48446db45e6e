// ThermalModule (thermocouple and RTD units alike), ThermocoupleModule (over-sampling and the cold
// junction), and RelayModule. The status byte is the result here: no firmware error is raised.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

constexpr const char* kThermo = "Torvik-USB-Thermo";

void thermalPort(py::handle self, py::handle port) { checkTablePort(self, "thermal_dict", port, "ThermalPortNotAvaliableError"); }
void chipSelect(py::handle cs) { checkInList(cs, {0, 1}, "ThermalChipSelectNotAvaliableError"); }

py::object numberType() {
    return py::make_tuple(py::handle(reinterpret_cast<PyObject*>(&PyLong_Type)), py::handle(reinterpret_cast<PyObject*>(&PyFloat_Type)));
}

// Type checks on the port and the given ints, then port and chip-select checks.
void checkChannelOp(py::handle self, py::handle port, py::handle channel) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    thermalPort(self, port);
    chipSelect(channel);
}

bool isThermocouple(py::handle self) { return std::string(py::str(self.attr("_getDeviceName")())) == kThermo; }

Co<> byteAt(py::object self, long long cmd, py::list data_out, long long index) {
    py::object data_in = co_await aio::awaitObject(self.attr("_echoPacketWithRetry_async")(py::int_(cmd), data_out));
    co_return replyByte(data_in, index);
}

Co<> floatReply(py::object self, long long cmd, py::list data_out, bool round3) {
    py::object data_in = co_await aio::awaitObject(self.attr("_echoPacketWithRetry_async")(py::int_(cmd), data_out));
    py::object value = moduleObject().attr("convert4U8ToF32")(slice(data_in, 2, 6));
    if (round3) value = py::module_::import("builtins").attr("round")(value, 3);
    co_return value;
}

py::list portChannel(py::handle port, py::handle channel) { return Payload().byte(port).byte(channel).list(); }

py::list withTemperature(py::handle port, py::handle channel, py::handle temperature) {
    return Payload().byte(port).byte(channel).extend(moduleObject().attr("convertF32To4U8")(temperature)).list();
}

// ---- ThermalModule ----

Co<> thermalCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "thermal_dict", "_Thermal_getPinMapPort", port, allow_state, "ThermalPortNotAvaliableError");
}

Co<> thermalOpen(py::object self, py::object port) {
    checkInputType(port, intType());
    thermalPort(self, port);
    co_await aio::awaitObject(self.attr("_checkThermalPinState_async")(port, oneOf("Idle", "DI", "DO")));
    co_return co_await byteAt(self, w::OPEN_THERMAL, Payload().byte(port).list(), 1);
}

Co<> thermalClose(py::object self, py::object port) {
    checkInputType(port, intType());
    thermalPort(self, port);
    co_return co_await byteAt(self, w::CLOSE_THERMAL, Payload().byte(port).list(), 1);
}

Co<> setNoiseFilter(py::object self, py::object port, py::object channel, py::object mode) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(mode, intType());
    thermalPort(self, port);
    chipSelect(channel);
    checkInList(mode, {0, 1}, "ThermalModeNotVaildError");
    co_return co_await byteAt(self, w::SET_THERMAL_NOISE_FILTER, Payload().byte(port).byte(channel).byte(mode).list(), 2);
}

Co<> setType(py::object self, py::object port, py::object channel, py::object type_) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(type_, intType());
    thermalPort(self, port);
    chipSelect(channel);
    if (isThermocouple(self))
        checkInList(type_, {0, 1, 2, 3, 4, 5, 6, 7}, "ThermalTypeNotVaildError");
    else
        checkInList(type_, {0, 1}, "ThermalTypeNotVaildError");
    co_return co_await byteAt(self, w::SET_THERMAL_TYPE, Payload().byte(port).byte(channel).byte(type_).list(), 2);
}

Co<> getStatus(py::object self, py::object port, py::object channel) {
    checkChannelOp(self, port, channel);
    const bool thermocouple = isThermocouple(self);
    py::object status = co_await byteAt(self, w::GET_THERMAL_STATUS, Payload().byte(port).byte(channel).byte(thermocouple ? 2 : 1).list(), 2);
    co_return thermocouple ? status & py::int_(1) : status;  // bit 0 is the open-circuit fault
}

Co<> readSensor(py::object self, py::object port, py::object channel) {
    checkChannelOp(self, port, channel);
    co_return co_await floatReply(self, w::READ_THERMAL_COUPLE, portChannel(port, channel), true);
}

template <long long Cmd>
Co<> readFloat(py::object self, py::object port, py::object channel) {
    checkChannelOp(self, port, channel);
    co_return co_await floatReply(self, Cmd, portChannel(port, channel), false);
}

template <long long Cmd>
Co<> writeFloat(py::object self, py::object port, py::object channel, py::object temperature) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(temperature, numberType());
    thermalPort(self, port);
    chipSelect(channel);
    co_return co_await byteAt(self, Cmd, withTemperature(port, channel, temperature), 2);
}

// ---- ThermocoupleModule ----

Co<> setOverSampling(py::object self, py::object port, py::object channel, py::object mode) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(mode, intType());
    thermalPort(self, port);
    chipSelect(channel);
    checkInList(mode, {0, 1, 2, 3, 4}, "ThermalModeNotVaildError");
    co_return co_await byteAt(self, w::SET_THERMAL_OVER_SAMPLING, Payload().byte(port).byte(channel).byte(mode).list(), 2);
}

Co<> setJunctionOn(py::object self, py::object port, py::object channel, py::object status) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(status, py::handle(reinterpret_cast<PyObject*>(&PyBool_Type)));
    thermalPort(self, port);
    chipSelect(channel);
    co_return co_await byteAt(self, w::SET_THERMAL_JUNCTION_ON, Payload().byte(port).byte(channel).byte(py::int_(status)).list(), 2);
}

// ---- RelayModule ----

Co<> relayRead(py::object self, py::object index) {
    py::object data_in = co_await exchange(self, w::RELAY_READ, Payload().byte(index).list());
    py::list d = slice(data_in, 1), counters;
    py::object to_u32 = moduleObject().attr("convert4U8ToU32");
    for (Py_ssize_t i = 0; i < static_cast<Py_ssize_t>(py::len(d)) / 4; ++i) counters.append(to_u32(d[py::slice(i * 4, (i + 1) * 4, 1)]));
    co_return counters;
}

// The checks both temperature classes carry, each its own.
void defineSharedChecks(PyClass& cls) {
    const auto port = py::arg("port");
    cls.def("_checkThermalPort", [](py::handle self, py::handle p) { thermalPort(self, p); return true; }, port)
        .def("_checkThermalChipSelect", [](py::handle, py::handle cs) { chipSelect(cs); return true; }, py::arg("cs"));
}

}  // namespace

void bindThermalModules(py::module_& m) {
    const auto port = py::arg("port");
    const auto channel = py::arg("channel");
    const auto init = [](py::handle self, py::handle d) { self.attr("thermal_dict") = d; };

    PyClass thermal(m, "ThermalModule", py::tuple(), "Temperature channels: open, filters, sensor type, status, readings and offsets.");
    thermal.def("__init__", init, py::arg("thermal_dict"));
    defOp(thermal, "Thermal_open_async", &thermalOpen, port);
    defOp(thermal, "Thermal_close_async", &thermalClose, port);
    defOp(thermal, "Thermal_setNoiseFilter_async", &setNoiseFilter, port, channel, py::arg("mode"));
    defOp(thermal, "Thermal_setType_async", &setType, port, channel, py::arg("type_"));
    defOp(thermal, "Thermal_getStatus_async", &getStatus, port, channel);
    defOp(thermal, "Thermal_readSensor_async", &readSensor, port, channel);
    defOp(thermal, "_Thermal_readOffset_async", &readFloat<w::READ_THERMAL_OFFSET>, port, channel);
    defOp(thermal, "_Thermal_writeOffset_async", &writeFloat<w::WRITE_THERMAL_OFFSET>, port, channel, py::arg("temperature"));
    defOp(thermal, "_Thermal_loadOffset_async", &readFloat<w::LOAD_THERMAL_OFFSET>, port, channel);
    defOp(thermal, "_Thermal_saveOffset_async", &writeFloat<w::SAVE_THERMAL_OFFSET>, port, channel, py::arg("temperature"));
    defOp(thermal, "_checkThermalPinState_async", &thermalCheckPinState, port, py::arg("allow_state"));
    thermal.def("Thermal_getPinMap", [](py::handle self) { return self.attr("thermal_dict"); })
        .def("_Thermal_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "thermal_dict", p); },
             py::arg("thermal_port"))
        .def("_checkThermalFilterMode", [](py::handle, py::handle v) { checkInList(v, {0, 1}, "ThermalModeNotVaildError"); return true; },
             py::arg("mode"))
        .def("_checkThermalTCType",
             [](py::handle, py::handle v) {
                 checkInList(v, {0, 1, 2, 3, 4, 5, 6, 7}, "ThermalTypeNotVaildError");
                 return true;
             },
             py::arg("TC_type"))
        .def("_checkThermalRTDType", [](py::handle, py::handle v) { checkInList(v, {0, 1}, "ThermalTypeNotVaildError"); return true; },
             py::arg("RTD_type"));
    defineSharedChecks(thermal);

    PyClass tc(m, "ThermocoupleModule", py::make_tuple(m.attr("Packet")), "Thermocouple channels: over-sampling and the cold junction.");
    tc.def("__init__", init, py::arg("thermal_dict"));
    defOp(tc, "Thermal_setOverSampling_async", &setOverSampling, port, channel, py::arg("mode"));
    defOp(tc, "Thermal_setJunctionOn_async", &setJunctionOn, port, channel, py::arg("status"));
    defOp(tc, "_Thermal_readJunction_async", &readFloat<w::READ_THERMAL_JUNCTION>, port, channel);
    defOp(tc, "_Thermal_writeJunction_async", &writeFloat<w::WRITE_THERMAL_JUNCTION>, port, channel, py::arg("temperature"));
    tc.def("_checkThermalSamplingMode",
           [](py::handle, py::handle v) {
               checkInList(v, {0, 1, 2, 3, 4}, "ThermalModeNotVaildError");
               return true;
           },
           py::arg("mode"));
    defineSharedChecks(tc);

    PyClass relay(m, "RelayModule", py::make_tuple(m.attr("Packet")), "Relay counters of the relay unit.");
    relay.def("__init__", [](py::handle) {});
    defOp(relay, "Relay_read_async", &relayRead, py::arg("index"));
}

}  // namespace torvik::py_binding
