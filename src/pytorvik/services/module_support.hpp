// What every module operation needs: the one exchange with its defaults, payload building, the
// status tail, argument types, and the registration of an operation under its public name.
#pragma once

#include <pybind11/pybind11.h>

#include <deque>
#include <string>

#include "aio/op.hpp"
#include "bindings.hpp"
#include "device/device_binding.hpp"
#include "pyclass.hpp"
#include "wire/commands.hpp"
#include "wire/convert_py.hpp"
#include "wire/error_codes.hpp"

namespace torvik::py_binding {

using aio::Co;

// One request with the packet layer's default retries and time limit; the reply's bytes.
inline Co<> exchange(py::object self, long long cmd, py::list data_out) {
    co_return co_await echoPacketWithRetry(std::move(self), py::int_(cmd), std::move(data_out), py::int_(wire::NUM_RETRIES),
                                           py::int_(wire::PACKET_TIMEOUT));
}

// A request payload as a list of the values given; 16-bit words go high byte first.
class Payload {
public:
    Payload& byte(py::handle v) {
        list_.append(v);
        return *this;
    }
    Payload& byte(long long v) { return byte(py::int_(v)); }
    Payload& u16(py::handle v) {
        for (py::handle b : u16To2U8(v)) list_.append(b);
        return *this;
    }
    Payload& u16(long long v) { return u16(py::int_(v)); }
    Payload& extend(py::handle iterable) {
        for (py::handle b : py::reinterpret_borrow<py::iterable>(iterable)) list_.append(b);
        return *this;
    }
    py::list list() const { return list_; }

private:
    py::list list_;
};

// The byte at `index` of a reply (an index failure when the reply is shorter).
inline py::object replyByte(const py::object& data_in, long long index) { return data_in[py::int_(index)]; }

// Reads the status byte at `index` and returns it, or the code of the firmware error it names.
inline py::object statusTail(const py::object& data_in, long long index) {
    py::object status = replyByte(data_in, index);
    long long s = status.cast<long long>();
    if (const wire::ErrorClass* e = wire::firmwareErrorClass(s)) return py::int_(e->code);
    return status;
}

inline py::handle intType() { return reinterpret_cast<PyObject*>(&PyLong_Type); }
inline py::handle strType() { return reinterpret_cast<PyObject*>(&PyUnicode_Type); }
inline py::object intOrList() {
    return py::make_tuple(py::handle(reinterpret_cast<PyObject*>(&PyLong_Type)), py::handle(reinterpret_cast<PyObject*>(&PyList_Type)));
}

// "a.format(*args)"
inline py::str format(const char* fmt, const py::list& args) {
    return py::str(fmt).attr("format")(*py::tuple(args));
}

// data_in[a:b] as a list of ints (b = -1: to the end).
inline py::list slice(const py::object& data_in, long long a, long long b = -1) {
    py::object s = b < 0 ? data_in[py::slice(py::int_(a), py::none(), py::none())]
                         : data_in[py::slice(py::int_(a), py::int_(b), py::none())];
    return py::list(s);
}

// The distinct hardware ports of the cells of table[port], as a list built through a set.
inline py::list pinMapPorts(py::handle self, const char* table, py::handle port) {
    py::set hw;
    for (py::handle cell : self.attr(table)[port]) hw.add(py::reinterpret_borrow<py::object>(cell)[py::int_(0)]);
    return py::list(hw);
}

// The pin test of a bus or analog open: every cell of table[port] must be in one of the allowed
// modes, read hardware port by hardware port through the handle's Sys_getPinModeInPort_async.
// `ports_of` names the module's own pin-map-port operation; `print_cell` prints the offending cell.
inline Co<> checkPinState(py::object self, const char* table, const char* ports_of, py::object port, py::object allow_state,
                          const char* error, bool print_cell = false) {
    py::list pinmap_port = self.attr(ports_of)(port);
    py::object cells = self.attr(table)[port];
    py::object check = moduleObject().attr("checkFuncPinMap");
    for (py::handle i : pinmap_port) {
        py::object pin_map = co_await aio::awaitObject(self.attr("Sys_getPinModeInPort_async")(i));
        for (py::handle cell : cells) {
            py::object hw = py::reinterpret_borrow<py::object>(cell)[py::int_(0)];
            if (!hw.equal(py::reinterpret_borrow<py::object>(i))) continue;
            if (!check(cell, pin_map, allow_state).cast<bool>()) {
                if (print_cell) py::print(cell);
                raiseError(error);
            }
        }
    }
    co_return py::none();
}

// A value check against a fixed list of ints, by membership as `in` tests it.
inline void checkInList(py::handle value, std::initializer_list<long long> list, const char* error) {
    py::list l;
    for (long long v : list) l.append(v);
    int r = PySequence_Contains(l.ptr(), value.ptr());
    if (r < 0) throw py::error_already_set();
    if (r == 0) raiseError(error);
}

// A port check: `port` must be a key of the module's table.
inline void checkTablePort(py::handle self, const char* table, py::handle port, const char* error) {
    int r = PySequence_Contains(self.attr(table).ptr(), port.ptr());
    if (r < 0) throw py::error_already_set();
    if (r == 0) raiseError(error);
}

inline py::list oneOf(const char* a, const char* b = nullptr, const char* c = nullptr) {
    py::list l;
    for (const char* s : {a, b, c})
        if (s) l.append(s);
    return l;
}

// Registers an operation: calling it builds the body lazily, so its checks raise at the first
// send, as a coroutine function's body does.
template <typename... A>
void defOp(PyClass& cls, const char* name, Co<> (*body)(py::object, A...), auto... extra) {
    static std::deque<std::string> names;  // qualified names live as long as the module
    names.push_back(std::string(py::str(cls.object().attr("__name__"))) + "." + name);
    const char* qualname = names.back().c_str();
    cls.def(
        name, [body, qualname](py::object self, A... args) { return aio::makeOp(body(std::move(self), std::move(args)...), qualname); },
        extra...);
}

}  // namespace torvik::py_binding
