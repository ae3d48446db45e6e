// Registration of the module classes (the mixins handles are composed of), and the operations
// one module awaits of another.
#pragma once

#include <pybind11/pybind11.h>

#include "aio/coro.hpp"

namespace torvik::py_binding {

namespace py = pybind11;

void bindSystemModule(py::module_& m);
void bindNetworkModule(py::module_& m);
void bindWifiModules(py::module_& m);
void bindDIOModule(py::module_& m);
void bindAIModule(py::module_& m);
void bindAOModule(py::module_& m);
void bindBusModules(py::module_& m);  // I2C and SPI
void bindUARTModule(py::module_& m);
void bindCAN(py::module_& m);  // CANFrame and CANModule
void bindThermalModules(py::module_& m);  // ThermalModule, ThermocoupleModule and RelayModule
void bindDataLogger(py::module_& m);
void bindBroadcastModule(py::module_& m);  // BroadcastModule and DeviceFinder
void bindHandles(py::module_& m);

// Sys_getPinModeInPort_async's body, for the pin-mode tests of other modules.
aio::Co<> sysGetPinModeInPort(py::object self, py::object port);

}  // namespace torvik::py_binding
