// Plain Python classes whose methods are C++ functions. The device bases, the modules and the
// handles are built this way, so scripts compose and subclass them like any Python class and
// their method resolution order is exactly the one their bases give.
#pragma once

#include <pybind11/pybind11.h>

#include <string_view>
#include <type_traits>
#include <utility>

namespace torvik::py_binding {

namespace py = pybind11;

class PyClass {
public:
    // `slots`, when given, becomes the class's __slots__.
    PyClass(py::module_& m, std::string_view name, const py::tuple& bases, std::string_view doc,
            const py::object& slots = py::object()) {
        py::dict ns;
        ns["__module__"] = m.attr("__name__");
        ns["__doc__"] = py::str(doc.data(), doc.size());
        if (slots) ns["__slots__"] = slots;
        cls_ = py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyType_Type))(
            py::str(name.data(), name.size()), bases, ns);
        m.attr(py::str(name.data(), name.size())) = cls_;
    }

    template <typename F, typename... Extra>
    PyClass& def(const char* name, F&& f, const Extra&... extra) {
        // pybind11 takes a function named __init__ for the constructor of one of its own types.
        const char* fn_name = std::string_view(name) == "__init__" ? "init" : name;
        py::setattr(cls_, name, py::cpp_function(std::forward<F>(f), py::name(fn_name), py::is_method(cls_), extra...));
        return *this;
    }

    // `get` may be a function object already (a plain C one, say).
    template <typename Get, typename Set>
    PyClass& property(const char* name, Get&& get, Set&& set, const char* doc = "") {
        py::object getter;
        if constexpr (std::is_base_of_v<py::object, std::decay_t<Get>>)
            getter = std::forward<Get>(get);
        else
            getter = py::cpp_function(std::forward<Get>(get));
        py::object prop = py::module_::import("builtins").attr("property")(
            getter, py::cpp_function(std::forward<Set>(set)), py::none(), doc);
        py::setattr(cls_, name, prop);
        return *this;
    }

    const py::object& object() const { return cls_; }

private:
    py::object cls_;
};

}  // namespace torvik::py_binding
