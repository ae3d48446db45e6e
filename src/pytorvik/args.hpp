// Arguments of a script taken as the interpreter's own functions take them: a bad one raises the
// TypeError, ValueError, OverflowError or MemoryError, with the usual text, that the same Python
// code would raise, never a message of the binding library.
#pragma once

#include <pybind11/pybind11.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cmath>
#include <optional>
#include <string>

namespace torvik::py_binding::args {

namespace py = pybind11;

[[noreturn]] inline void raise(PyObject* type, const std::string& text) {
    PyErr_SetString(type, text.c_str());
    throw py::error_already_set();
}

inline std::string typeName(py::handle o) { return Py_TYPE(o.ptr())->tp_name; }

// bool(o).
inline bool truth(py::handle o) {
    int r = PyObject_IsTrue(o.ptr());
    if (r < 0) throw py::error_already_set();
    return r == 1;
}

// operator.index(o) as a plain int: before Python 3.10 PyNumber_Index hands an int subclass (a
// bool) back as it is, and a result must not depend on the interpreter.
inline py::int_ index(py::handle o) {
    PyObject* r = PyNumber_Index(o.ptr());
    if (r != nullptr && !PyLong_CheckExact(r)) {
        PyObject* exact = PyNumber_Long(r);
        Py_DECREF(r);
        r = exact;
    }
    if (r == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::int_>(r);
}

// operator.index(o) in a C long long; OverflowError beyond.
inline long long indexLL(py::handle o) {
    py::int_ i = index(o);
    long long v = PyLong_AsLongLong(i.ptr());
    if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
    return v;
}

// An int saturated to a C long long (for counts compared with sizes).
inline long long clampedLL(py::handle int_obj) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(int_obj.ptr(), &overflow);
    if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
    if (overflow != 0) return overflow > 0 ? LLONG_MAX : LLONG_MIN;
    return v;
}

// operator.index(o) as a size; OverflowError beyond.
inline Py_ssize_t size(py::handle o) {
    py::int_ i = index(o);
    Py_ssize_t v = PyNumber_AsSsize_t(i.ptr(), PyExc_OverflowError);
    if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
    return v;
}

// A new list of n entries (all None until set); MemoryError when it cannot be had.
inline py::list newList(Py_ssize_t n) {
    if (n < 0 || static_cast<std::size_t>(n) > static_cast<std::size_t>(PY_SSIZE_T_MAX) / sizeof(PyObject*)) {
        PyErr_NoMemory();
        throw py::error_already_set();
    }
    PyObject* l = PyList_New(n);
    if (l == nullptr) throw py::error_already_set();
    for (Py_ssize_t i = 0; i < n; ++i) {
        Py_INCREF(Py_None);
        PyList_SET_ITEM(l, i, Py_None);
    }
    return py::reinterpret_steal<py::list>(l);
}

// `a op b` as Python evaluates it (the TypeError of incomparable operands included).
inline bool compare(py::handle a, py::handle b, int op) {
    int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), op);
    if (r < 0) throw py::error_already_set();
    return r == 1;
}

// Seconds as float(o) takes a number (no text): asyncio's time limits and delays.
inline double seconds(py::handle o) {
    double d = PyFloat_AsDouble(o.ptr());
    if (d == -1.0 && PyErr_Occurred()) throw py::error_already_set();
    return d;
}

// Seconds as the interpreter's clocks take them (time.sleep, lock and socket time-outs): an int or a
// float that fits its nanosecond clock.
inline double clockSeconds(py::handle o) {
    constexpr double kMax = 9.2e9;  // about 2^63 ns
    if (PyFloat_Check(o.ptr())) {
        double d = PyFloat_AS_DOUBLE(o.ptr());
        if (std::isnan(d)) raise(PyExc_ValueError, "Invalid value NaN (not a number)");
        if (!(std::fabs(d) < kMax)) raise(PyExc_OverflowError, "timestamp out of range for platform time_t");
        return d;
    }
    long long v = clampedLL(index(o));
    if (v > static_cast<long long>(kMax) || v < -static_cast<long long>(kMax))
        raise(PyExc_OverflowError, "timestamp too large to convert to C _PyTime_t");
    return static_cast<double>(v);
}

// A socket's time-out (socket.settimeout): None for none, else non-negative seconds.
inline std::optional<double> socketTimeout(py::handle o) {
    if (o.is_none()) return std::nullopt;
    double v = clockSeconds(o);
    if (v < 0) raise(PyExc_ValueError, "Timeout value out of range");
    return v;
}

// A queue's time-out (queue.Queue.get/put): None for none; the comparison with 0 comes first.
inline std::optional<double> queueTimeout(py::handle o) {
    if (o.is_none()) return std::nullopt;
    if (compare(o, py::int_(0), Py_LT)) raise(PyExc_ValueError, "'timeout' must be a non-negative number");
    return clockSeconds(o);
}

// The delay of asyncio.sleep: compared with 0 first, then used as a float.
inline double sleepSeconds(py::handle o) {
    if (compare(o, py::int_(0), Py_LE)) return 0.0;
    return seconds(o);
}

// How many of `available` entries a read takes: all, or min(count, available) when count > -1,
// used as range() uses it.
inline long long takeCount(py::handle count, long long available) {
    if (!compare(count, py::int_(-1), Py_GT)) return available;
    if (PyLong_Check(count.ptr())) return std::min(clampedLL(count), available);
    py::object m = py::module_::import("builtins").attr("min")(count, available);
    return clampedLL(index(m));
}

// A command code (an unsigned 32-bit int).
inline std::uint32_t code(py::handle o) {
    py::int_ i = index(o);
    unsigned long long v = PyLong_AsUnsignedLongLong(i.ptr());
    if (v == static_cast<unsigned long long>(-1) && PyErr_Occurred()) throw py::error_already_set();
    if (v > 0xFFFFFFFFULL) raise(PyExc_OverflowError, "Python int too large to convert to C unsigned int");
    return static_cast<std::uint32_t>(v);
}

// A read's buffer size, as socket.recv checks it.
inline std::size_t bufferSize(py::handle o) {
    Py_ssize_t n = size(o);
    if (n < 0) raise(PyExc_ValueError, "negative buffersize in recv");
    return static_cast<std::size_t>(n);
}

// A host name for a socket address: str (UTF-8), bytes or bytearray, without NUL.
inline std::string hostName(py::handle o) {
    std::string host;
    if (PyUnicode_Check(o.ptr())) {
        Py_ssize_t n = 0;
        const char* p = PyUnicode_AsUTF8AndSize(o.ptr(), &n);
        if (p == nullptr) {
            PyErr_Clear();
            raise(PyExc_TypeError, "encoding of hostname failed");
        }
        host.assign(p, static_cast<std::size_t>(n));
    } else if (PyBytes_Check(o.ptr())) {
        host.assign(PyBytes_AS_STRING(o.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(o.ptr())));
    } else if (PyByteArray_Check(o.ptr())) {
        host.assign(PyByteArray_AS_STRING(o.ptr()), static_cast<std::size_t>(PyByteArray_GET_SIZE(o.ptr())));
    } else {
        raise(PyExc_TypeError, "str, bytes or bytearray expected, not " + typeName(o));
    }
    if (host.find('\0') != std::string::npos) raise(PyExc_TypeError, "host name must not contain null character");
    return host;
}

// The port of a socket address (0-65535), as socket.connect and bind check it.
inline int portNumber(py::handle o, const char* fn) {
    py::int_ i = index(o);
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(i.ptr(), &overflow);
    if (overflow != 0 || v < 0 || v > 65535) raise(PyExc_OverflowError, std::string(fn) + "(): port must be 0-65535.");
    return static_cast<int>(v);
}

// A text argument (str only), with Python's message for other types.
inline std::string text(py::handle o, const char* what) {
    if (!PyUnicode_Check(o.ptr())) raise(PyExc_TypeError, std::string(what) + " must be str, not " + typeName(o));
    Py_ssize_t n = 0;
    const char* p = PyUnicode_AsUTF8AndSize(o.ptr(), &n);
    if (p == nullptr) throw py::error_already_set();
    return std::string(p, static_cast<std::size_t>(n));
}

}  // namespace torvik::py_binding::args
