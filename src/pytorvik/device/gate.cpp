#include "args.hpp"
#include "blocking.hpp"
#include "device/device_binding.hpp"
#include "exact_cast.hpp"

namespace torvik::py_binding {

using device::Gate;

std::shared_ptr<Gate> gateOf(py::handle gate) {
    const std::shared_ptr<Gate>* held = exactHolder<Gate>(gate);
    return held != nullptr ? *held : py::cast<std::shared_ptr<Gate>>(gate);
}

py::object newGate(bool held) { return py::cast(std::make_shared<Gate>(held)); }

namespace {

bool acquire(Gate& gate, bool blocking, double timeout) {
    if (!blocking && timeout != -1) throw py::value_error("can't specify a timeout for a non-blocking call");
    if (timeout < 0 && timeout != -1) throw py::value_error("timeout value must be positive");
    if (timeout > 9.2e9) args::raise(PyExc_OverflowError, "timeout value is too large");
    if (!blocking) return gate.tryAcquire();
    std::optional<double> limit;
    if (timeout != -1) limit = timeout;
    return waitReleased([&](std::optional<std::chrono::nanoseconds> l) { return gate.acquire(l); }, limit);
}

// As threading.Lock.acquire takes its arguments.
bool acquireArgs(Gate& gate, py::handle blocking, py::handle timeout) {
    return acquire(gate, args::truth(blocking), args::clockSeconds(timeout));
}

}  // namespace

void bindGate(py::module_& m) {
    py::class_<Gate, std::shared_ptr<Gate>>(m, "Gate",
                                             "A lock without an owner: the gate a worker thread passes each round.")
        .def(py::init([](py::handle held) { return std::make_shared<Gate>(args::truth(held)); }), py::arg("held") = false)
        .def("acquire", &acquireArgs, py::arg("blocking") = true, py::arg("timeout") = -1)
        .def("release",
             [](Gate& g) {
                 if (!g.release()) throw std::runtime_error("release unlocked lock");
             })
        .def("locked", &Gate::locked)
        .def("__enter__", [](Gate& g) { return acquire(g, true, -1); })
        .def("__exit__",
             [](Gate& g, py::args) {
                 if (!g.release()) throw std::runtime_error("release unlocked lock");
             })
        .def("__repr__", [](Gate& g) { return std::string("<Gate ") + (g.locked() ? "locked" : "unlocked") + ">"; });
}

}  // namespace torvik::py_binding
