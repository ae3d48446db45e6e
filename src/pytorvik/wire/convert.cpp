// Byte packing, text and address decoding, bit lists and argument checks as module functions.
// Packing goes through the engine's big-endian helpers; everything that takes arbitrary script
// values follows the interpreter's own rules for them (bool counts as int, any number compares).

#include <cmath>
#include <cstdint>
#include <string>

#include "args.hpp"
#include "bindings.hpp"
#include "wire/bytes.hpp"
#include "wire/convert_py.hpp"
#include "wire/ipv4.hpp"

namespace torvik::py_binding {

namespace w = torvik::wire;

namespace {

// bytes(obj): a bytes-like object, or an iterable of integers 0 to 255.
py::bytes asBytes(py::handle obj) {
    PyObject* b = PyBytes_FromObject(obj.ptr());
    if (b == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::bytes>(b);
}

template <typename T>
T unpackExact(py::handle int_list) {
    py::bytes b = asBytes(int_list);
    std::string_view v = b;
    if (v.size() != sizeof(T))
        throw py::value_error("expected " + std::to_string(sizeof(T)) + " bytes, got " + std::to_string(v.size()));
    return w::unpackBE<T>(reinterpret_cast<const std::uint8_t*>(v.data()));
}

template <std::size_t N>
py::list toList(const std::array<std::uint8_t, N>& bytes) {
    py::list out(N);
    for (std::size_t i = 0; i < N; ++i) out[i] = py::int_(bytes[i]);
    return out;
}

// The low 64 bits of int(value): integers wrap modulo 2^64, floats are truncated toward zero,
// as a fixed-width integer cast does.
std::uint64_t wrapToU64(py::handle value) {
    PyObject* as_int = PyNumber_Long(value.ptr());
    if (as_int == nullptr) throw py::error_already_set();
    unsigned long long bits = PyLong_AsUnsignedLongLongMask(as_int);
    Py_DECREF(as_int);
    if (bits == static_cast<unsigned long long>(-1) && PyErr_Occurred()) throw py::error_already_set();
    return bits;
}

template <typename T>
py::list packInt(py::handle value) {
    return toList(w::packBE<T>(static_cast<T>(wrapToU64(value))));
}

double asDouble(py::handle value) {
    py::object f = py::reinterpret_steal<py::object>(PyNumber_Float(value.ptr()));
    if (!f) throw py::error_already_set();
    return PyFloat_AS_DOUBLE(f.ptr());
}

// min(max(item, lower), upper): with lower above upper, everything becomes upper.
py::object clampItem(py::handle item, py::handle lower, py::handle upper) {
    auto r = py::reinterpret_borrow<py::object>(item);
    if (r < py::reinterpret_borrow<py::object>(lower)) r = py::reinterpret_borrow<py::object>(lower);
    if (r > py::reinterpret_borrow<py::object>(upper)) r = py::reinterpret_borrow<py::object>(upper);
    return r;
}

bool isNumber(py::handle o) { return PyLong_Check(o.ptr()) || PyFloat_Check(o.ptr()); }

// The element kind an array of these values would have: bool, int or float (empty is float).
enum class Kind { Bool, Int, Float };
Kind kindOf(const py::list& items) {
    if (items.empty()) return Kind::Float;
    bool all_bool = true, any_float = false;
    for (py::handle o : items) {
        if (!isNumber(o)) throw py::type_error("unsupported element type: " + std::string(py::str(py::type::handle_of(o).attr("__name__"))));
        all_bool = all_bool && PyBool_Check(o.ptr());
        any_float = any_float || PyFloat_Check(o.ptr());
    }
    return any_float ? Kind::Float : all_bool ? Kind::Bool : Kind::Int;
}

py::object castTo(Kind kind, py::handle o) {
    switch (kind) {
        case Kind::Bool: return py::bool_(py::reinterpret_borrow<py::object>(o));
        case Kind::Int: return args::index(o);
        case Kind::Float: return py::float_(asDouble(o));
    }
    return py::none();
}

py::list coerce(py::handle list_, py::handle lower, py::handle upper) {
    py::list items(py::reinterpret_borrow<py::object>(list_));
    Kind kind = kindOf(items);
    if (!isNumber(lower) || !isNumber(upper)) throw py::type_error("bounds must be numbers");
    if (PyFloat_Check(lower.ptr()) || PyFloat_Check(upper.ptr())) kind = Kind::Float;
    if (kind == Kind::Bool) kind = Kind::Int;  // clamping to integer bounds leaves integers
    py::list out(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) out[i] = castTo(kind, clampItem(items[i], lower, upper));
    return out;
}

py::list adjustDataList(py::handle data_list, py::handle list_length_arg, py::handle padding_num_arg) {
    py::list items(py::reinterpret_borrow<py::object>(data_list));
    Kind kind = kindOf(items);
    const Py_ssize_t n = static_cast<Py_ssize_t>(items.size());
    // Lengths beyond any list saturate: cutting to one keeps all, padding to one cannot be had.
    const long long list_length = args::clampedLL(args::index(list_length_arg));
    const long long padding_num = args::clampedLL(args::index(padding_num_arg));
    py::list out;
    if (n > list_length) {
        // Slicing rules: a negative length counts from the end.
        long long stop = list_length < 0 ? std::max<long long>(n + list_length, 0) : list_length;
        for (Py_ssize_t i = 0; i < stop; ++i) out.append(castTo(kind, items[i]));
        return out;
    }
    if (padding_num < 0) throw py::value_error("index can't contain negative values");
    if (padding_num > PY_SSIZE_T_MAX - list_length) {
        PyErr_NoMemory();
        throw py::error_already_set();
    }
    out = args::newList(static_cast<Py_ssize_t>(padding_num + list_length));
    py::object zero = castTo(kind, py::int_(0));
    Py_ssize_t at = 0;
    for (long long i = 0; i < padding_num; ++i) out[at++] = zero;
    for (py::handle o : items) out[at++] = castTo(kind, o);
    for (long long i = n; i < list_length; ++i) out[at++] = zero;
    return out;
}

py::list intToBinaryList(py::handle value_int, py::handle width) {
    py::int_ value = py::reinterpret_steal<py::int_>(PyNumber_Index(value_int.ptr()));
    if (!value) throw py::error_already_set();
    if (value < py::int_(0)) throw py::value_error("value_int must not be negative");
    std::size_t nbits = py::cast<std::size_t>(value.attr("bit_length")());
    // Bits go on while fewer than `width` have been produced: width is compared with a count, so
    // any number serves (nan asks for none) and anything else fails as `<` does. A length that no
    // list can have fails for want of memory, as the growing list would.
    constexpr long long kNoList = PY_SSIZE_T_MAX / static_cast<long long>(sizeof(PyObject*));
    long long min_len = 0;
    if (PyFloat_Check(width.ptr())) {
        const double w = PyFloat_AS_DOUBLE(width.ptr());
        min_len = w > static_cast<double>(kNoList) ? kNoList + 1 : w > 0 ? static_cast<long long>(std::ceil(w)) : 0;
    } else if (PyLong_Check(width.ptr())) {
        min_len = std::max<long long>(0, args::clampedLL(width));
    } else {
        // Any other object: as many bits as `count < width` asks for, within a bound.
        min_len = static_cast<long long>(nbits);
        while (min_len <= kNoList && args::compare(py::int_(min_len), width, Py_LT))
            if (++min_len > (1LL << 24)) min_len = kNoList + 1;
    }
    if (min_len > kNoList) {
        PyErr_NoMemory();
        throw py::error_already_set();
    }
    std::string le;  // value's bytes, least significant first
    if (nbits <= 64) {
        std::uint64_t v = py::cast<std::uint64_t>(value);
        for (std::size_t i = 0; i < 8; ++i) le.push_back(static_cast<char>(v >> (8 * i)));
    } else {
        le = py::cast<std::string>(value.attr("to_bytes")((nbits + 7) / 8, "little"));
    }
    std::size_t count = std::max<std::size_t>(nbits, static_cast<std::size_t>(min_len));
    py::list out = args::newList(static_cast<Py_ssize_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
        int bit = i < nbits ? (static_cast<unsigned char>(le[i / 8]) >> (i % 8)) & 1 : 0;
        out[i] = py::int_(bit);
    }
    return out;
}

py::list intToIndexList(py::handle value_int) {
    py::int_ value = py::reinterpret_steal<py::int_>(PyNumber_Index(value_int.ptr()));
    if (!value) throw py::error_already_set();
    if (value < py::int_(0)) throw py::value_error("value_int must not be negative");
    std::size_t nbits = py::cast<std::size_t>(value.attr("bit_length")());
    std::string le = nbits <= 64 ? std::string() : py::cast<std::string>(value.attr("to_bytes")((nbits + 7) / 8, "little"));
    std::uint64_t small = nbits <= 64 ? py::cast<std::uint64_t>(value) : 0;
    py::list out;
    for (std::size_t i = 0; i < nbits; ++i) {
        bool set = nbits <= 64 ? ((small >> i) & 1) : ((static_cast<unsigned char>(le[i / 8]) >> (i % 8)) & 1);
        if (set) out.append(py::int_(i));
    }
    return out;
}

// value | (bit << index), on small integers without the interpreter's arithmetic.
py::object orShifted(py::object value, py::handle bit, py::handle index) {
    if (PyLong_CheckExact(value.ptr()) && PyLong_Check(bit.ptr()) && PyLong_Check(index.ptr())) {
        long long v = PyLong_AsLongLong(value.ptr()), b = PyLong_AsLongLong(bit.ptr()), i = PyLong_AsLongLong(index.ptr());
        if (!PyErr_Occurred() && v >= 0 && (b == 0 || b == 1) && i >= 0 && i < 62)
            return py::int_(v | (b << i));
        PyErr_Clear();
    }
    py::object shifted = py::reinterpret_steal<py::object>(PyNumber_Lshift(bit.ptr(), index.ptr()));
    if (!shifted) throw py::error_already_set();
    py::object result = py::reinterpret_steal<py::object>(PyNumber_Or(value.ptr(), shifted.ptr()));
    if (!result) throw py::error_already_set();
    return result;
}

bool inRange(py::handle item, py::handle low, py::handle high) {
    int r = PyObject_RichCompareBool(low.ptr(), item.ptr(), Py_LE);
    if (r < 0) throw py::error_already_set();
    if (r == 0) return false;
    r = PyObject_RichCompareBool(item.ptr(), high.ptr(), Py_LE);
    if (r < 0) throw py::error_already_set();
    return r == 1;
}

bool checkFuncPinMap(py::handle cell, py::handle pinmap_list, py::handle allow_state_list) {
    py::object pin = py::reinterpret_borrow<py::object>(cell)[py::int_(1)];
    py::object mode = py::reinterpret_borrow<py::object>(pinmap_list)[pin];
    int r = PySequence_Contains(allow_state_list.ptr(), mode.ptr());
    if (r < 0) throw py::error_already_set();
    return r == 1;
}

}  // namespace

py::list u16To2U8(py::handle value) { return packInt<std::uint16_t>(value); }
py::object u8x2ToU16(py::handle int_list) { return py::int_(unpackExact<std::uint16_t>(int_list)); }
py::object u8x2ToI16(py::handle int_list) { return py::int_(unpackExact<std::int16_t>(int_list)); }

py::str u8ListToStr(py::handle int_list) {
    py::bytes b = asBytes(int_list);
    std::string_view v = b;
    auto text = py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(v.data(), static_cast<Py_ssize_t>(v.size()), "strict"));
    if (!text) throw py::error_already_set();
    Py_ssize_t nul = PyUnicode_FindChar(text.ptr(), 0, 0, PyUnicode_GetLength(text.ptr()), 1);
    if (nul < 0) return text;
    return py::reinterpret_steal<py::str>(PyUnicode_Substring(text.ptr(), 0, nul));
}

py::list strToU8List(py::handle str_) {
    py::list out;
    py::object ord = py::module_::import("builtins").attr("ord");
    for (py::handle ch : py::reinterpret_borrow<py::iterable>(str_)) out.append(ord(ch));
    return out;
}

py::list ipAddrTo4U8(py::handle value) {
    if (!PyUnicode_Check(value.ptr()))
        throw py::type_error("inet_aton() argument 1 must be str, not " + std::string(py::str(py::type::handle_of(value).attr("__name__"))));
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(value.ptr(), &size);
    if (utf8 == nullptr) throw py::error_already_set();
    std::string text(utf8, static_cast<std::size_t>(size));
    if (text.find('\0') != std::string::npos) throw py::value_error("embedded null character");
    const std::optional<std::uint32_t> addr = w::parseIPv4(text);
    if (!addr) {
        PyErr_SetString(PyExc_OSError, "illegal IP address string passed to inet_aton");
        throw py::error_already_set();
    }
    return toList(w::packBE<std::uint32_t>(*addr));
}

py::list macAddrTo6U8(py::handle str_) {
    py::list out;
    py::object to_int = py::module_::import("builtins").attr("int");
    for (py::handle part : py::reinterpret_borrow<py::object>(str_).attr("split")(":")) out.append(to_int(part, 16));
    return out;
}

py::list convertIntToBinaryList(py::handle value_int, py::handle width) { return intToBinaryList(value_int, width); }
py::list convertIntToIndexList(py::handle value_int) { return intToIndexList(value_int); }

py::object indexAndBinaryListsToInt(py::handle index_list, py::handle binary_list) {
    py::list bits = coerce(binary_list, py::int_(0), py::int_(1));
    py::object value = py::int_(0);
    std::size_t i = 0;
    for (py::handle index : py::reinterpret_borrow<py::iterable>(index_list)) {
        if (i == bits.size()) break;
        value = orShifted(value, bits[i++], index);
    }
    return value;
}

py::object indexListToInt(py::handle index_list) {
    py::object value = py::int_(0);
    for (py::handle index : py::reinterpret_borrow<py::iterable>(index_list)) value = orShifted(value, py::int_(1), index);
    return value;
}

void checkInputType(py::handle data, py::handle correct_type) {
    int r = PyObject_IsInstance(data.ptr(), correct_type.ptr());
    if (r < 0) throw py::error_already_set();
    if (r == 0) raiseError("InputTypeNotCorrectError");
}

void checkInputTypeConsistent(py::handle data, py::handle data2) {
    if (Py_TYPE(data.ptr()) != Py_TYPE(data2.ptr())) raiseError("InputTypeNotConsistentError");
}

void bindConvert(py::module_& m) {
    m.def("convert2U8ToU16", [](py::handle l) { return unpackExact<std::uint16_t>(l); }, py::arg("int_list"));
    m.def("convert4U8ToU32", [](py::handle l) { return unpackExact<std::uint32_t>(l); }, py::arg("int_list"));
    m.def("convert8U8ToU64", [](py::handle l) { return unpackExact<std::uint64_t>(l); }, py::arg("int_list"));
    m.def("convert2U8ToI16", [](py::handle l) { return unpackExact<std::int16_t>(l); }, py::arg("int_list"));
    m.def("convert4U8ToI32", [](py::handle l) { return unpackExact<std::int32_t>(l); }, py::arg("int_list"));
    m.def("convert8U8ToI64", [](py::handle l) { return unpackExact<std::int64_t>(l); }, py::arg("int_list"));
    m.def("convert4U8ToF32", [](py::handle l) { return static_cast<double>(unpackExact<float>(l)); }, py::arg("int_list"));
    m.def("convert8U8ToF64", [](py::handle l) { return unpackExact<double>(l); }, py::arg("int_list"));

    m.def("convertU16To2U8", &u16To2U8, py::arg("value"));
    m.def("convertU32To4U8", [](py::handle v) { return packInt<std::uint32_t>(v); }, py::arg("value"));
    m.def("convertU64To8U8", [](py::handle v) { return packInt<std::uint64_t>(v); }, py::arg("value"));
    m.def("convertI16To2U8", [](py::handle v) { return packInt<std::int16_t>(v); }, py::arg("value"));
    m.def("convertI32To4U8", [](py::handle v) { return packInt<std::int32_t>(v); }, py::arg("value"));
    m.def("convertI64To8U8", [](py::handle v) { return packInt<std::int64_t>(v); }, py::arg("value"));
    m.def("convertF32To4U8", [](py::handle v) { return toList(w::packBE<float>(static_cast<float>(asDouble(v)))); }, py::arg("value"));
    m.def("convertF64To8U8", [](py::handle v) { return toList(w::packBE<double>(asDouble(v))); }, py::arg("value"));

    m.def("convertU8ListToStr", &u8ListToStr, py::arg("int_list"));
    m.def("convertStrToU8List", &strToU8List, py::arg("str_"));
    m.def("convertIPAddrTo4U8", &ipAddrTo4U8, py::arg("value"));
    m.def("convertMACAddrTo6U8", &macAddrTo6U8, py::arg("str_"));

    m.def("convertIntToBinaryList", &intToBinaryList, py::arg("value_int"), py::arg("width"));
    m.def("convertIndexAndBinaryListsToInt", &indexAndBinaryListsToInt, py::arg("index_list"), py::arg("binary_list"));
    m.def("convertIndexListToInt", &indexListToInt, py::arg("index_list"));
    m.def("convertIntToIndexList", &intToIndexList, py::arg("value_int"));

    m.def("coerce", &coerce, py::arg("list_"), py::arg("lower") = 0, py::arg("upper") = 1);
    m.def("adjustDataList", &adjustDataList, py::arg("data_list"), py::arg("list_length") = 8, py::arg("padding_num") = 0);

    py::tuple int_and_list = py::make_tuple(py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyLong_Type)),
                                            py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyList_Type)));
    m.def(
        "checkInputType",
        [](py::handle data, py::handle correct_type) {
            checkInputType(data, correct_type);
            return true;
        },
        py::arg("data"), py::arg("correct_type") = int_and_list);
    m.def(
        "checkInputTypeConsistent",
        [](py::handle data, py::handle data2) {
            checkInputTypeConsistent(data, data2);
            return true;
        },
        py::arg("data"), py::arg("data2"));
    m.def(
        "checkEachItemInRange",
        [](py::handle int_list, py::handle low, py::handle high, py::handle msg) {
            for (py::handle item : py::reinterpret_borrow<py::iterable>(int_list))
                if (!inRange(item, low, high)) raiseError("InputDataNotInRangeError", msg);
            return true;
        },
        py::arg("int_list"), py::arg("low") = 0, py::arg("high") = 255, py::arg("msg") = py::none());
    m.def("checkFuncPinMap", &checkFuncPinMap, py::arg("cell"), py::arg("pinmap_list"), py::arg("allow_state_list"));
    m.def(
        "checkPinMap",
        [](py::handle cell_list, py::handle pinmap_list, py::handle allow_state_list) {
            for (py::handle cell : py::reinterpret_borrow<py::iterable>(cell_list))
                if (!checkFuncPinMap(cell, pinmap_list, allow_state_list)) return false;
            return true;
        },
        py::arg("cell_list"), py::arg("pinmap_list"), py::arg("allow_state_list"));
}

}  // namespace torvik::py_binding
