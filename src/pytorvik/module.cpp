#include <string>

#include "aio/op.hpp"
#include "bindings.hpp"
#include "blocking.hpp"
#include "device/device_binding.hpp"
#include "docs/docs.hpp"
#include "measure/signal_queue.hpp"
#include "services/modules.hpp"

#ifndef TORVIK_VERSION
#error "TORVIK_VERSION must come from the build"
#endif

namespace torvik::py_binding {

void registerEngineClientTypes(py::module_& m);

namespace {
py::module_* g_module = nullptr;  // leaked: threads may use it during shutdown
}

py::module_& moduleObject() { return *g_module; }

namespace {

// The named values (IntEnums) live in pytorvik._enums, loaded when a script first asks for one,
// and then stand in the module's namespace like every other name.
py::object namedValues() { return py::module_::import("pytorvik._enums"); }

py::object moduleGetattr(const py::str& name) {
    const std::string text = name;
    const bool dunder = text.size() > 4 && text.rfind("__", 0) == 0 && text.compare(text.size() - 2, 2, "__") == 0;
    if (!dunder) {
        py::object values = namedValues();
        if (py::list(values.attr("__all__")).contains(name)) {
            for (py::handle n : values.attr("__all__")) moduleObject().attr(n) = values.attr(n);
            return values.attr(name);
        }
    }
    PyErr_Format(PyExc_AttributeError, "module 'pytorvik' has no attribute '%U'", name.ptr());
    throw py::error_already_set();
}

py::list moduleDir() {
    py::list names = py::list(moduleObject().attr("__dict__").attr("keys")());
    for (py::handle n : namedValues().attr("__all__"))
        if (!names.contains(n)) names.append(n);
    names.attr("sort")();
    return names;
}

}  // namespace

}  // namespace torvik::py_binding

namespace tb = torvik::py_binding;
namespace py = pybind11;

PYBIND11_MODULE(pytorvik, m) {
    tb::g_module = new py::module_(m);
    tb::g_main_thread_ident = py::module_::import("threading").attr("main_thread")().attr("ident").cast<unsigned long>();
    m.doc() = "Host-side driver library for Torvik data-acquisition units.";
    m.attr("__version__") = TORVIK_VERSION;
    tb::bindConstants(m);
    // Installed with the package into the environment's shared data.
    tb::bindCatalogue(m, py::module_::import("os.path")
                             .attr("join")(py::module_::import("sys").attr("prefix"), "share", "pytorvik", "examples")
                             .cast<std::string>());
    tb::bindErrors(m);
    tb::registerTranslators();
    tb::bindConvert(m);
    tb::bindClient(m);
    tb::bindNetworkClients(m);
    tb::bindUsbClient(m);
    tb::registerEngineClientTypes(m);
    tb::aio::bindAio(m);
    tb::bindGate(m);
    tb::bindPools(m);
    tb::bindDevices(m);
    tb::bindPacket(m);
    tb::bindSystemModule(m);
    tb::bindNetworkModule(m);
    tb::bindWifiModules(m);
    tb::bindDIOModule(m);
    tb::bindSignalQueue(m);
    tb::bindAIModule(m);
    tb::bindAOModule(m);
    tb::bindBusModules(m);
    tb::bindUARTModule(m);
    tb::bindCAN(m);
    tb::bindThermalModules(m);
    tb::bindDataLogger(m);
    tb::bindBroadcastModule(m);
    tb::bindHandles(m);
    tb::bindContextManagers(m);
    m.def("__getattr__", &tb::moduleGetattr, py::arg("name"));
    m.def("__dir__", &tb::moduleDir);
    tb::documentWire(m);
    tb::documentTransport(m);
    tb::documentDevice(m);
    tb::documentServices(m);
    tb::documentMeasure(m);
    tb::documentBus(m);
    tb::documentLoggerAndProducts(m);
    tb::finishSignatures(m);  // last: every function is bound and has its text by now
}
