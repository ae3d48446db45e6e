// DataLogger: rows go to a CSV file from a worker thread, so that a measuring script never waits
// for the disk. A write costs the caller one put into an engine queue. The worker waits at its
// gate and on the queue without the GIL, and takes it only to hand an item to the csv module's
// writer, whose bytes are the standard ones by construction.
#include <chrono>
#include <future>
#include <memory>
#include <mutex>

#include "args.hpp"
#include "bindings.hpp"
#include "device/device_binding.hpp"
#include "pyclass.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

constexpr double kQueueTimeout = 999999;

void saveThread(py::handle self, py::handle queue_) {
    auto q = streamQueueOf(queue_);
    while (!py::bool_(self.attr("killed"))) {
        // Passes only while no one holds the gate: before the first open the worker waits here.
        auto gate = gateOf(self.attr("save_data_lock"));
        {
            py::gil_scoped_release nogil;
            gate->pass();
        }
        py::object item;
        double limit = py::cast<double>(self.attr("queue_timeout"));
        if (q) {
            std::optional<device::StreamItem> got;
            {
                py::gil_scoped_release nogil;
                got = q->get(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(limit)));
            }
            if (!got) raiseQueue("Empty");
            item = streamItemToPython(std::move(*got));
        } else {
            item = queue_.attr("get")(py::arg("timeout") = limit);
        }
        if (item.is_none()) continue;
        self.attr("writer_csv").attr("writerows")(item);
    }
}

void init(py::handle self) {
    self.attr("killed") = false;
    self.attr("save_data_lock") = newGate(true);
    self.attr("save_data_queue") = py::cast(std::make_shared<device::StreamQueue>());
    self.attr("save_data_thread") = startNamedThread(self.attr("_saveStreamingDataThread"), py::make_tuple(self.attr("save_data_queue")));
    self.attr("queue_timeout") = kQueueTimeout;
}

bool isTrue(py::handle v) { return v.equal(py::bool_(true)); }

void openFile(py::handle self, py::object filename, py::handle clear_old, py::handle verbose) {
    self.attr("filename") = filename;
    const int truncate = PyObject_IsTrue(clear_old.ptr());
    if (truncate < 0) throw py::error_already_set();
    const char* mode = truncate == 1 ? "w" : "a";
    py::object f = py::module_::import("builtins").attr("open")(filename, mode, py::arg("encoding") = "UTF8", py::arg("newline") = "");
    self.attr("f_handle") = f;
    self.attr("writer_csv") = py::module_::import("csv").attr("writer")(f);
    self.attr("save_data_lock").attr("release")();
    if (isTrue(verbose)) py::print(py::str("Opened file name: (") + py::str(self.attr("filename")) + py::str(")"));
}

void write2DList(py::handle self, py::handle value_mat) { self.attr("save_data_queue").attr("put")(value_mat); }

// Each write goes through the next one by name, so a script's override of it takes part.
void writeList(py::handle self, py::handle value_list) {
    py::list rows;
    rows.append(value_list);
    self.attr("Logger_write2DList")(rows);
}

// Sets the end flag and wakes the worker wherever it waits, at its gate or on the queue.
void endWorker(py::handle self) {
    self.attr("killed") = true;
    py::object lock = self.attr("save_data_lock");
    lock.attr("acquire")(false);
    self.attr("save_data_queue").attr("put")(py::none());
    lock.attr("release")();
}

void closeFile(py::handle self, py::handle verbose) {
    // The order is the contract: the file closes first, so rows still queued are not written.
    self.attr("f_handle").attr("close")();
    endWorker(self);
    if (isTrue(verbose)) py::print(py::str("Close file name: (") + py::str(self.attr("filename")) + py::str(")"));
}

// A queue item that writes no row and tells, when the worker reaches it, that every item queued
// before it has been written: the worker hands it to writerows, which iterates it.
struct DrainMark {
    struct State {
        std::promise<void> reached;
        std::once_flag once;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

// Waits (without the GIL) until the worker has written all that is queued now, or has ended.
void waitDrained(py::handle self) {
    DrainMark mark;
    std::future<void> reached = mark.state->reached.get_future();
    self.attr("save_data_queue").attr("put")(py::cast(mark));
    py::object worker = self.attr("save_data_thread");
    for (;;) {
        {
            py::gil_scoped_release nogil;
            if (reached.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready) return;
        }
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        if (!args::truth(worker.attr("is_alive")())) return;
    }
}

// Leaving a `with` block: nothing queued is lost. A logger that never opened a file has nowhere
// to write: its queued rows are dropped (the worker would fail on the first) and it is ended.
bool exitLogger(py::handle self) {
    if (args::truth(self.attr("killed"))) return false;
    if (!py::hasattr(self, "f_handle")) {
        if (auto q = streamQueueOf(self.attr("save_data_queue"))) q->takeUpTo(q->size());
        endWorker(self);
        return false;
    }
    waitDrained(self);
    self.attr("Logger_closeFile")();
    return false;
}

py::str loggerRepr(py::handle self) {
    py::str name = py::type::handle_of(self).attr("__name__");
    py::object file = py::getattr(self, "filename", py::none());
    const char* state = args::truth(self.attr("killed")) ? "closed" : file.is_none() ? "no file" : "open";
    if (file.is_none()) return py::str("<{} {}>").format(name, state);
    return py::str("<{} {!r} {}>").format(name, file, state);
}

}  // namespace

void bindDataLogger(py::module_& m) {
    PyClass base(m, "DataLogger", py::tuple(), "Writes rows to a CSV file from a worker thread.");
    base.def("__init__", &init)
        .def("_saveStreamingDataThread", &saveThread, py::arg("queue_"))
        .def("Logger_openFile", &openFile, py::arg("filename"), py::arg("clear_old") = true, py::arg("verbose") = true)
        .def("Logger_writeHeader", [](py::handle self, py::handle header) { self.attr("Logger_writeList")(header); }, py::arg("header"))
        .def("Logger_writeValue",
             [](py::handle self, py::handle value) {
                 py::list row;
                 row.append(value);
                 self.attr("Logger_writeList")(row);
             },
             py::arg("value"))
        .def("Logger_writeList", &writeList, py::arg("value_list"))
        .def("Logger_write2DList", &write2DList, py::arg("value_mat"))
        .def("Logger_closeFile", &closeFile, py::arg("verbose") = true)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](py::handle self, py::handle, py::handle, py::handle) { return exitLogger(self); }, py::arg("exc_type"),
             py::arg("exc_value"), py::arg("traceback"))
        .def("__repr__", &loggerRepr);
    py::class_<DrainMark>(base.object(), "_DrainMark").def("__iter__", [](DrainMark& d) {
        std::call_once(d.state->once, [&] { d.state->reached.set_value(); });
        return py::iter(py::tuple());
    });
    // The exported class derives from the logger with nothing added, as the handles derive from
    // their bases.
    PyClass(m, "DataLogger", py::make_tuple(base.object()), "Writes rows to a CSV file from a worker thread.");
}

}  // namespace torvik::py_binding
