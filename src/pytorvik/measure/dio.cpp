// DIOModule: digital ports and pins. A pin selection is a list of pin indices or an int mask;
// both reach the wire as one 16-bit mask word. The module keeps nothing but the handle's tables.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

constexpr long long kAll = 0xFFFF;

// ---- selections and checks ----

py::object pinIndexInList(py::handle pin) {
    if (Py_TYPE(pin.ptr()) == &PyList_Type) return py::reinterpret_borrow<py::object>(pin);
    return convertIntToIndexList(pin);
}

py::object pinIndexInInt(py::handle pin) {
    if (Py_TYPE(pin.ptr()) == &PyLong_Type) return py::reinterpret_borrow<py::object>(pin);
    return indexListToInt(pin);
}

bool contains(const py::object& table, py::handle port) {
    int r = PySequence_Contains(table.ptr(), port.ptr());
    if (r < 0) throw py::error_already_set();
    return r == 1;
}

void checkPort(py::handle self, const char* table, const char* error, py::handle port) {
    if (!contains(self.attr(table), port)) raiseError(error);
}

void checkPortAndPin(py::handle self, const char* table, const char* error, py::handle port, py::handle pin_list) {
    py::object t = self.attr(table);
    if (!contains(t, port)) raiseError(error);
    py::set wanted(py::reinterpret_borrow<py::object>(pin_list));
    py::set existing(t[port]);
    if (!wanted.attr("issubset")(existing).cast<bool>()) raiseError("PinsNotExistError");
}

struct Direction {
    const char* table;   // di_dict / do_dict
    const char* error;   // the port's error class
    const char* mode;    // the pin mode an open accepts beside "Idle"
    long long direction;  // the direction word an open writes
};
constexpr Direction kIn{"di_dict", "DIPortNotAvaliableError", "DI", 0};
constexpr Direction kOut{"do_dict", "DOPortNotAvaliableError", "DO", kAll};

py::list levels(py::handle self, const py::object& word) { return convertIntToBinaryList(word, self.attr("dio_num_pins_per_port")); }

py::object wordAt(const py::object& data_in, long long from) { return u8x2ToU16(slice(data_in, from, from + 2)); }

// ---- the unit's lower vocabulary ----

Co<> setDIOCurrent(py::object self, py::object port, py::object mask, py::object enabled, py::object direction, py::object state) {
    py::object data_in =
        co_await exchange(self, w::SET_DIO_CURRENT, Payload().byte(port).u16(mask).u16(enabled).u16(direction).u16(state).list());
    co_return statusTail(data_in, 1);
}

// Reads enabled, direction and state: the tuple of three level lists.
Co<> threeWords(py::object self, long long cmd, py::list data_out) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return py::make_tuple(levels(self, wordAt(data_in, 1)), levels(self, wordAt(data_in, 3)), levels(self, wordAt(data_in, 5)));
}

Payload sixOnes(Payload p) {
    for (int i = 0; i < 6; ++i) p.byte(1);
    return p;
}

Co<> getDIOCurrent(py::object self, py::object port, py::object mask) {
    return threeWords(self, w::GET_DIO_CURRENT, sixOnes(Payload().byte(port).u16(mask)).list());
}

Co<> loadDIOStartup(py::object self, py::object port) {
    return threeWords(self, w::LOAD_DIO_STARTUP, sixOnes(Payload().byte(port)).list());
}

Co<> statusOf(py::object self, long long cmd, py::list data_out) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return statusTail(data_in, 1);
}

Co<> levelsOf(py::object self, long long cmd, py::list data_out) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return levels(self, wordAt(data_in, 1));
}

Co<> toggleDIODirection(py::object self, py::object port, py::object mask, py::object state) {
    return statusOf(self, w::TOGGLE_DIO_DIR, Payload().byte(port).u16(mask).u16(state).list());
}
Co<> saveDIOStartup(py::object self, py::object port, py::object enabled, py::object direction, py::object state) {
    return statusOf(self, w::SAVE_DIO_STARTUP, Payload().byte(port).u16(enabled).u16(direction).u16(state).list());
}
Co<> getDIOState(py::object self, py::object port, py::object mask) {
    return levelsOf(self, w::GET_DIO_STATE, Payload().byte(port).u16(mask).list());
}
Co<> setDIOState(py::object self, py::object port, py::object mask, py::object state) {
    return statusOf(self, w::SET_DIO_STATE, Payload().byte(port).u16(mask).u16(state).list());
}
Co<> readDI(py::object self, py::object port) { return statusOf(self, w::READ_DI, Payload().byte(port).byte(0).list()); }
Co<> writeDO(py::object self, py::object port) { return statusOf(self, w::WRITE_DO, Payload().byte(port).byte(0).list()); }
Co<> readAndGetDI(py::object self, py::object port, py::object mask) {
    return levelsOf(self, w::READ_AND_GET_DI, Payload().byte(port).u16(mask).list());
}
Co<> setAndWriteDO(py::object self, py::object port, py::object mask, py::object state) {
    return levelsOf(self, w::SET_AND_WRITE_DO, Payload().byte(port).u16(mask).u16(state).list());
}
Co<> toggleAndWriteDO(py::object self, py::object port, py::object mask) {
    return levelsOf(self, w::TOGGLE_AND_WRITE_DO, Payload().byte(port).u16(mask).list());
}
Co<> closeDIOInPort(py::object self, py::object port) {
    return setDIOCurrent(self, port, py::int_(kAll), py::int_(0), py::int_(0), py::int_(0));
}
Co<> closeDIOInPins(py::object self, py::object port, py::object pin) {
    return setDIOCurrent(self, port, pin, py::int_(0), py::int_(0), py::int_(0));
}
// The port-wide mask of a toggle is 255: it reaches pins 0 to 7 only.
Co<> togglePort(py::object self, py::object port) { return toggleAndWriteDO(self, port, py::int_(255)); }
Co<> togglePins(py::object self, py::object port, py::object pin) { return toggleAndWriteDO(self, port, pinIndexInInt(pin)); }

// ---- public operations ----

// Fails with the port's error at the first pin that a function other than this direction holds.
Co<> pinModeTest(py::object self, const Direction& d, py::object port, py::object pins) {
    py::object pin_map = co_await aio::awaitObject(self.attr("Sys_getPinModeInPort_async")(port));
    for (py::handle i : py::reinterpret_borrow<py::iterable>(pins)) {
        py::object mode = pin_map[i];
        if (!mode.equal(py::str("Idle")) && !mode.equal(py::str(d.mode))) raiseError(d.error);
    }
    co_return py::none();
}

Co<> openPort(py::object self, const Direction& d, py::object port) {
    checkInputType(port, intType());
    checkPort(self, d.table, d.error, port);
    co_await pinModeTest(self, d, port, self.attr(d.table)[port]);
    co_return co_await setDIOCurrent(self, port, py::int_(kAll), py::int_(kAll), py::int_(d.direction), py::int_(0));
}

Co<> openPins(py::object self, const Direction& d, py::object port, py::object pin) {
    checkInputType(port, intType());
    checkInputType(pin, intOrList());
    py::object pin_list = pinIndexInList(pin);
    checkPortAndPin(self, d.table, d.error, port, pin_list);
    co_await pinModeTest(self, d, port, pin_list);
    co_return co_await setDIOCurrent(self, port, pinIndexInInt(pin), py::int_(kAll), py::int_(d.direction), py::int_(0));
}

Co<> closePort(py::object self, const Direction& d, py::object port) {
    checkInputType(port, intType());
    checkPort(self, d.table, d.error, port);
    co_return co_await closeDIOInPort(self, port);
}

Co<> closePins(py::object self, const Direction& d, py::object port, py::object pin) {
    checkInputType(port, intType());
    checkInputType(pin, intOrList());
    checkPortAndPin(self, d.table, d.error, port, pinIndexInList(pin));
    co_return co_await closeDIOInPins(self, port, pinIndexInInt(pin));
}

Co<> diOpenPort(py::object self, py::object port) { return openPort(self, kIn, port); }
Co<> doOpenPort(py::object self, py::object port) { return openPort(self, kOut, port); }
Co<> diOpenPins(py::object self, py::object port, py::object pin) { return openPins(self, kIn, port, pin); }
Co<> doOpenPins(py::object self, py::object port, py::object pin) { return openPins(self, kOut, port, pin); }
Co<> diClosePort(py::object self, py::object port) { return closePort(self, kIn, port); }
Co<> doClosePort(py::object self, py::object port) { return closePort(self, kOut, port); }
Co<> diClosePins(py::object self, py::object port, py::object pin) { return closePins(self, kIn, port, pin); }
Co<> doClosePins(py::object self, py::object port, py::object pin) { return closePins(self, kOut, port, pin); }

Co<> diReadPort(py::object self, py::object port) {
    checkInputType(port, intType());
    checkPort(self, kIn.table, kIn.error, port);
    co_return co_await readAndGetDI(self, port, py::int_(kAll));
}

Co<> diReadPins(py::object self, py::object port, py::object pin) {
    checkInputType(port, intType());
    checkInputType(pin, intOrList());
    py::object pin_list = pinIndexInList(pin);
    checkPortAndPin(self, kIn.table, kIn.error, port, pin_list);
    py::object state_list = co_await readAndGetDI(self, port, pinIndexInInt(pin));
    py::list filtered;
    for (py::handle i : py::reinterpret_borrow<py::iterable>(pin_list)) filtered.append(state_list[i]);
    co_return filtered;
}

Co<> doWritePort(py::object self, py::object port, py::object value) {
    checkInputType(port, intType());
    checkInputType(value, intOrList());
    checkPort(self, kOut.table, kOut.error, port);
    py::object word = value;
    if (PyList_Check(value.ptr()))
        word = indexAndBinaryListsToInt(py::list(py::module_::import("builtins").attr("range")(py::len(value))), value);
    co_return co_await setAndWriteDO(self, port, py::int_(kAll), word);
}

Co<> doWritePins(py::object self, py::object port, py::object pin, py::object value) {
    checkInputType(port, intType());
    checkInputType(pin, intOrList());
    checkInputType(value, intOrList());
    checkInputTypeConsistent(pin, value);
    py::object pin_list = pinIndexInList(pin);
    checkPortAndPin(self, kOut.table, kOut.error, port, pin_list);
    if (PyList_Check(pin.ptr()) && py::len(pin) > py::len(value)) raiseError("PinsValueNotDefineError");
    py::object word = PyList_Check(value.ptr()) ? indexAndBinaryListsToInt(pin, value) : value;
    co_return co_await setAndWriteDO(self, port, pinIndexInInt(pin_list), word);
}

Co<> setPortIdle(py::object self, py::object port) {
    checkInputType(port, intType());
    co_return co_await statusOf(self, w::SET_SLOT_IDLE, Payload().byte(port).byte(0).list());
}

Co<> setPortDI(py::object self, py::object port) {
    checkInputType(port, intType());
    checkPort(self, kIn.table, kIn.error, port);
    co_return co_await statusOf(self, w::SET_SLOT_DI, Payload().byte(port).byte(0).list());
}

Co<> setPortDO(py::object self, py::object port) {
    checkInputType(port, intType());
    checkPort(self, kOut.table, kOut.error, port);
    co_return co_await statusOf(self, w::SET_SLOT_DO, Payload().byte(port).byte(0).list());
}

}  // namespace

void bindDIOModule(py::module_& m) {
    PyClass dio(m, "DIOModule", py::make_tuple(m.attr("Packet")), "Digital input and output ports and pins of a unit.");
    dio.def(
        "__init__",
        [](py::handle self, py::handle di_dict, py::handle do_dict, py::handle dio_num_pins_per_port) {
            self.attr("di_dict") = di_dict;
            self.attr("do_dict") = do_dict;
            self.attr("dio_num_pins_per_port") = dio_num_pins_per_port;
        },
        py::arg("di_dict"), py::arg("do_dict"), py::arg("dio_num_pins_per_port"));
    const auto port = py::arg("port");
    const auto pin = py::arg("pin");
    defOp(dio, "DI_openPort_async", &diOpenPort, port);
    defOp(dio, "DO_openPort_async", &doOpenPort, port);
    defOp(dio, "DI_openPins_async", &diOpenPins, port, pin);
    defOp(dio, "DO_openPins_async", &doOpenPins, port, pin);
    defOp(dio, "DI_closePort_async", &diClosePort, port);
    defOp(dio, "DO_closePort_async", &doClosePort, port);
    defOp(dio, "DI_closePins_async", &diClosePins, port, pin);
    defOp(dio, "DO_closePins_async", &doClosePins, port, pin);
    defOp(dio, "DI_readPort_async", &diReadPort, port);
    defOp(dio, "DI_readPins_async", &diReadPins, port, pin);
    defOp(dio, "DO_writePort_async", &doWritePort, port, py::arg("value"));
    defOp(dio, "DO_writePins_async", &doWritePins, port, pin, py::arg("value"));
    defOp(dio, "Sys_setPortIdle_async", &setPortIdle, port);
    defOp(dio, "Sys_setPortDI_async", &setPortDI, port);
    defOp(dio, "Sys_setPortDO_async", &setPortDO, port);
    dio.def("DI_getPinMap", [](py::handle self) { return self.attr("di_dict"); });
    dio.def("DO_getPinMap", [](py::handle self) { return self.attr("do_dict"); });
    dio.def("_getPinIndexInList", [](py::handle, py::handle p) { return pinIndexInList(p); }, pin);
    dio.def("_getPinIndexInInt", [](py::handle, py::handle p) { return pinIndexInInt(p); }, pin);
    dio.def("_checkDIPort", [](py::handle self, py::handle p) { checkPort(self, kIn.table, kIn.error, p); return true; }, port);
    dio.def("_checkDOPort", [](py::handle self, py::handle p) { checkPort(self, kOut.table, kOut.error, p); return true; }, port);
    dio.def("_checkDIPortAndPin",
            [](py::handle self, py::handle p, py::handle l) {
                checkPortAndPin(self, kIn.table, kIn.error, p, l);
                return true;
            },
            port, py::arg("pin_list"));
    dio.def("_checkDOPortAndPin",
            [](py::handle self, py::handle p, py::handle l) {
                checkPortAndPin(self, kOut.table, kOut.error, p, l);
                return true;
            },
            port, py::arg("pin_list"));
    const auto mask = py::arg("mask");
    const auto state = py::arg("state");
    defOp(dio, "_getDIOCurrent_async", &getDIOCurrent, port, mask);
    defOp(dio, "_setDIOCurrent_async", &setDIOCurrent, port, mask, py::arg("enabled"), py::arg("direction"), state);
    defOp(dio, "_toggleDIODirection_async", &toggleDIODirection, port, mask, state);
    defOp(dio, "_loadDIOStartup_async", &loadDIOStartup, port);
    defOp(dio, "_saveDIOStartup_async", &saveDIOStartup, port, py::arg("enabled"), py::arg("direction"), state);
    defOp(dio, "_getDIOState_async", &getDIOState, port, mask);
    defOp(dio, "_setDIOState_async", &setDIOState, port, mask, state);
    defOp(dio, "_readDI_async", &readDI, port);
    defOp(dio, "_writeDO_async", &writeDO, port);
    defOp(dio, "_readAndGetDI_async", &readAndGetDI, port, mask);
    defOp(dio, "_setAndWriteDO_async", &setAndWriteDO, port, mask, state);
    defOp(dio, "_toggleAndWriteDO_async", &toggleAndWriteDO, port, mask);
    defOp(dio, "_closeDIOInPort_async", &closeDIOInPort, port);
    defOp(dio, "_closeDIOInPins_async", &closeDIOInPins, port, pin);
    defOp(dio, "_togglePort_async", &togglePort, port);
    defOp(dio, "_togglePins_async", &togglePins, port, pin);
}

}  // namespace torvik::py_binding
