// Registration entry points of the module's parts, and the error helpers every part raises with.
#pragma once

#include <pybind11/pybind11.h>

#include <string_view>

namespace torvik::py_binding {

namespace py = pybind11;

void bindConstants(py::module_& m);
void bindErrors(py::module_& m);
void bindConvert(py::module_& m);
void bindClient(py::module_& m);

// The module's error or warning class of that name (a borrowed reference kept for the process).
py::handle errorClass(std::string_view name);
// Raises an instance of the named class built with no argument (its own code and text), or with
// `msg` passed by keyword when given.
[[noreturn]] void raiseError(std::string_view name);
[[noreturn]] void raiseError(std::string_view name, py::handle msg);

}  // namespace torvik::py_binding
