// `with` and `async with` for every handle, and the handles' reprs. Leaving the block calls the
// handle's own close (a subclass's override included), so its threads end and the interpreter can
// exit, whether the body returned, raised, or its connect failed. Exceptions of the body are never
// swallowed: the exit methods return False.
#include "aio/op.hpp"
#include "args.hpp"
#include "bindings.hpp"
#include "device/device_binding.hpp"

namespace torvik::py_binding {

namespace {

using aio::Co;

py::object field(py::handle self, const char* name) { return py::getattr(self, name, py::none()); }

void closeHandle(py::handle self) { self.attr("close")(); }

// A finder's disconnect fails on Linux (a datagram socket that never connected cannot be shut
// down), leaving its gate held and close blocked behind it. The finder is finished all the same:
// mark it unbound so that close releases the gate and ends the thread. A bind that failed left
// its socket open and unbound, where the thread, let through the gate by close, would wait for
// ever: the client's disconnect wakes it (and fails on that socket, which is expected).
void closeFinder(py::handle self) {
    if (!args::truth(self.attr("killed")) && args::truth(field(self, "connect_status_udp"))) {
        try {
            self.attr("disconnect")();
        } catch (py::error_already_set& e) {
            if (!e.matches(errorClass("NetworkConnectionLostError"))) throw;
            self.attr("connect_status_udp") = false;
        }
    }
    self.attr("close")();
    py::object client = field(self, "client_udp");
    if (client.is_none() || !args::truth(field(client, "socket"))) return;
    try {
        client.attr("disconnect")();
    } catch (py::error_already_set& e) {
        if (!e.matches(errorClass("Error"))) throw;
    }
}

using Closer = void (*)(py::handle);

Co<> enterBody(py::object self) { co_return self; }

Co<> exitBody(py::object self, Closer close) {
    close(self);
    co_return py::bool_(false);
}

// "127.0.0.5:7", "serial='21JA1439'" or "" for a handle that never connected.
py::str whereOf(py::handle self) {
    py::object ip = field(self, "ip_addr");
    if (!ip.is_none()) {
        py::object port = field(self, "_port");
        return port.is_none() ? py::str(ip) : py::str("{}:{}").format(ip, port);
    }
    py::object serial = field(self, "serial_num");
    if (!serial.is_none()) return py::str("serial={!r}").format(serial);
    return py::str("");
}

py::str stateOf(py::handle self) {
    if (args::truth(field(self, "killed"))) return py::str("closed");
    for (const char* status : {"connect_status_cmd", "connect_status_udp"})
        if (args::truth(field(self, status))) return py::str("connected");
    return py::str("not connected");
}

py::str handleRepr(py::handle self) {
    py::str where = whereOf(self);
    py::str name = py::type::handle_of(self).attr("__name__");
    if (py::len(where) == 0) return py::str("<{} {}>").format(name, stateOf(self));
    return py::str("<{} {} {}>").format(name, where, stateOf(self));
}

void defineExit(py::handle cls, Closer close, const char* async_qualname) {
    py::setattr(cls, "__exit__",
                py::cpp_function(
                    [close](py::handle self, py::handle, py::handle, py::handle) {
                        close(self);
                        return false;
                    },
                    py::name("__exit__"), py::is_method(cls), py::arg("exc_type"), py::arg("exc_value"), py::arg("traceback")));
    py::setattr(cls, "__aexit__",
                py::cpp_function(
                    [close, async_qualname](py::object self, py::handle, py::handle, py::handle) {
                        return aio::makeOp(exitBody(std::move(self), close), async_qualname);
                    },
                    py::name("__aexit__"), py::is_method(cls), py::arg("exc_type"), py::arg("exc_value"), py::arg("traceback")));
}

}  // namespace

void bindContextManagers(py::module_& m) {
    py::object device = m.attr("Device");
    py::setattr(device, "__enter__", py::cpp_function([](py::object self) { return self; }, py::name("__enter__"), py::is_method(device)));
    py::setattr(device, "__aenter__",
                py::cpp_function([](py::object self) { return aio::makeOp(enterBody(std::move(self)), "Device.__aenter__"); },
                                 py::name("__aenter__"), py::is_method(device)));
    defineExit(device, &closeHandle, "Device.__aexit__");
    defineExit(m.attr("BroadcastDevice"), &closeFinder, "BroadcastDevice.__aexit__");
    py::setattr(device, "__repr__", py::cpp_function(&handleRepr, py::name("__repr__"), py::is_method(device)));
}

}  // namespace torvik::py_binding
