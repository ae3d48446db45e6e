// The C++ object behind a Python object whose class is exactly a bound type, found without
// pybind11's general cast: that one looks the type up by its name on every call, several times
// per request. A subclass a script made, or anything else, gives null: the caller then takes the
// general way.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <typeinfo>

namespace torvik::py_binding {

namespace py = pybind11;

template <class T>
const py::detail::type_info* boundType() {
    // Asked for after the module bound its types; a type not bound gives null, and stays so.
    static const py::detail::type_info* const type = py::detail::get_type_info(typeid(T));
    return type;
}

template <class T>
py::detail::value_and_holder exactValue(py::handle h) {
    const py::detail::type_info* type = boundType<T>();
    if (type == nullptr || h.ptr() == nullptr || Py_TYPE(h.ptr()) != type->type) return {};
    return reinterpret_cast<py::detail::instance*>(h.ptr())->get_value_and_holder(type, false);
}

template <class T>
T* exactly(py::handle h) {
    auto vh = exactValue<T>(h);
    return vh.inst != nullptr ? vh.template value_ptr<T>() : nullptr;
}

// For types held by shared_ptr.
template <class T>
const std::shared_ptr<T>* exactHolder(py::handle h) {
    auto vh = exactValue<T>(h);
    if (vh.inst == nullptr || !vh.holder_constructed()) return nullptr;
    return &vh.template holder<std::shared_ptr<T>>();
}

}  // namespace torvik::py_binding
