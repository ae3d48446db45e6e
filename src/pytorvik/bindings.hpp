// Registration entry points of the module's parts, and the error helpers every part raises with.
#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "wire/splitter.hpp"

// The interpreter is shutting down (the name changed in 3.13).
#if PY_VERSION_HEX >= 0x030D0000
#define TORVIK_FINALIZING() Py_IsFinalizing()
#else
#define TORVIK_FINALIZING() _Py_IsFinalizing()
#endif

namespace torvik::py_binding {

namespace py = pybind11;

void bindConstants(py::module_& m);
void bindCatalogue(py::module_& m, const std::string& examples_folder);
void bindErrors(py::module_& m);
void bindConvert(py::module_& m);
void bindClient(py::module_& m);
void bindNetworkClients(py::module_& m);
void bindUsbClient(py::module_& m);
// Maps the engine's failure kinds to Python exceptions, once for the whole module.
void registerTranslators();

// The bytes of a bytes-like object or a list of integers 0-255 (as bytes() takes them).
std::vector<std::uint8_t> bytesOf(py::handle obj);
// (cmd, data) packets as a list of (int, bytes) tuples.
py::list packetsToList(const std::vector<wire::Packet>& packets);

// The Python exception that a failure of the engine (or of Python) stands for, as an instance.
// Needs the GIL.
py::object exceptionObject(std::exception_ptr failure);

// Starts a threading.Thread running target(*args), named "Thread-N (target)" on every Python.
py::object startNamedThread(py::handle target, py::tuple args = py::tuple());

// The module's error or warning class of that name (a borrowed reference kept for the process).
py::handle errorClass(std::string_view name);
// Raises an instance of the named class built with no argument (its own code and text), or with
// `msg` passed by keyword when given.
[[noreturn]] void raiseError(std::string_view name);
[[noreturn]] void raiseError(std::string_view name, py::handle msg);

}  // namespace torvik::py_binding
