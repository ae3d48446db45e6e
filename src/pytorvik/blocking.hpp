// Blocking waits made from Python: the GIL is released while waiting, and on the main thread
// the wait is cut into slices so that Ctrl-C (a pending signal) can interrupt it.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <optional>

namespace torvik::py_binding {

namespace py = pybind11;

// Ident of the interpreter's main thread, the only one that runs signal handlers.
inline unsigned long g_main_thread_ident = 0;

// Calls wait(limit) with the GIL released until it returns true or `timeout` (seconds, nullopt
// for none) has passed; returns the last result. wait must return false only on its limit.
template <typename WaitFn>
bool waitReleased(WaitFn&& wait, std::optional<double> timeout) {
    using clock = std::chrono::steady_clock;
    const bool main_thread = PyThread_get_thread_ident() == g_main_thread_ident;
    const auto slice = std::chrono::milliseconds(100);
    const auto deadline = timeout ? clock::now() + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(*timeout))
                                  : clock::time_point::max();
    for (;;) {
        std::optional<std::chrono::nanoseconds> limit;
        if (timeout) limit = std::max(deadline - clock::now(), clock::duration::zero());
        if (main_thread && (!limit || *limit > slice)) limit = slice;
        bool done;
        {
            py::gil_scoped_release nogil;
            done = wait(limit);
        }
        if (done) return true;
        if (timeout && clock::now() >= deadline) return false;
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
}

}  // namespace torvik::py_binding
