// What help() and inspect show: each module's texts in a table of its own (docs/*.cpp), applied to
// the bound names once everything is registered, and a real signature on every compiled function.
#pragma once

#include <pybind11/pybind11.h>

#include <initializer_list>

namespace torvik::py_binding {

namespace py = pybind11;

// One documented name: "Class.member", "Class" or a module-level name. The sections follow the
// usual Args/Returns/Raises layout; tools/gen_stubs.py reads the types written there, so write
// "name (type): meaning" per argument line and "type: meaning" for the result. For an `_async`
// operation the result is what awaiting it gives. `returns` = STATUS stands for the status tail.
struct Doc {
    const char* name;
    const char* text;
    const char* args = "";
    const char* returns = "";
    const char* raises = "";
};

// The result of every operation that ends in the unit's status byte.
inline constexpr const char* STATUS =
    "int: 0 on success; a refusal of the unit's firmware comes back as its negative status, "
    "-7001 (FirmwareEnableError) to -7023 (FirmwareCommandsError), and is not raised.";

// The failures every operation that checks its arguments and sends can end in.
#define TORVIK_DOC_SENDS                                                                    \
    "InputTypeNotCorrectError: an argument of the wrong type (-8012); nothing is sent.\n" \
    "asyncio.TimeoutError: no reply within PACKET_TIMEOUT (the request is sent up to three times)."

// Sets the texts of `docs` on the module's functions and classes. Names that are not bound are
// skipped: the test over all public names finds what is left without a text.
void applyDocs(py::module_& m, std::initializer_list<Doc> docs);

// Gives every compiled function of the module and of its classes a signature that inspect reads
// (the "name(args)\n--\n\n" head CPython takes from a builtin's doc), keeping its text.
void finishSignatures(py::module_& m);

// The tables, one per part of the module.
void documentWire(py::module_& m);
void documentTransport(py::module_& m);
void documentDevice(py::module_& m);
void documentServices(py::module_& m);
void documentMeasure(py::module_& m);
void documentBus(py::module_& m);
void documentLoggerAndProducts(py::module_& m);

}  // namespace torvik::py_binding
