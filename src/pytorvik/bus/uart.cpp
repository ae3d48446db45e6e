// UARTModule: two serial ports. Settings and writes are exchanges; received bytes are a stream:
// the routing files each packet under (START_UART_READING, port), one worker per port cuts it
// into bytes for the reader's queue. One gate pair serves both ports, taken port 1 first.
#include "args.hpp"
#include "measure/signal_queue.hpp"
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

struct UARTCore {
    std::atomic<bool> killed{false};
};

UARTCore& uartCore(py::handle self) { return py::cast<UARTCore&>(self.attr("_uart_core")); }

void uartPort(py::handle self, py::handle port) { checkTablePort(self, "uart_dict", port, "UARTPortNotAvaliableError"); }

void checkPort(py::handle self, py::handle port) {
    checkInputType(port, intType());
    uartPort(self, port);
}

Co<> statusOp(py::object self, long long cmd, py::list data_out, long long index) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return statusTail(data_in, index);
}

py::list portOnly(py::handle port) { return Payload().byte(port).list(); }

Co<> uartCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "uart_dict", "_UART_getPinMapPort", port, allow_state, "UARTPortNotAvaliableError");
}

Co<> uartOpen(py::object self, py::object port) {
    checkPort(self, port);
    co_await aio::awaitObject(self.attr("_checkUARTPinState_async")(port, oneOf("Idle", "DI", "DO")));
    py::object status = co_await statusOp(self, w::OPEN_UART, portOnly(port), 1);
    if (!status.equal(py::int_(0))) co_return status;
    co_await aio::awaitObject(self.attr("_UART_startReading_async")(port));
    self.attr("uart_p1_lock").attr("release")();
    self.attr("uart_p2_lock").attr("release")();
    co_return status;
}

Co<> uartClose(py::object self, py::object port) {
    checkPort(self, port);
    co_await aio::awaitObject(self.attr("UART_stopReading_async")(port));  // its status is not looked at
    py::object status = co_await statusOp(self, w::CLOSE_UART, portOnly(port), 1);
    if (!status.equal(py::int_(0))) co_return status;
    self.attr("uart_p1_lock").attr("acquire")();
    self.attr("uart_p2_lock").attr("acquire")();
    self.attr("uart_p1_data_queue").attr("put")(py::none());
    self.attr("uart_p2_data_queue").attr("put")(py::none());
    co_return status;
}

// Whether the handle's class gives _getStreamingFromPool_async a body of its own.
bool overridesPoolRead(py::handle self) {
    // Kept for the process: no reference to let go of after the interpreter has ended.
    static PyObject* const base = py::object(moduleObject().attr("Packet").attr("_getStreamingFromPool_async")).release().ptr();
    return py::type::of(self).attr("_getStreamingFromPool_async").ptr() != base;
}

// chr() of every item. Bytes go through a table of the 256 one-character strings: a call of
// chr per byte would cost more than all the rest of a read.
py::list charsOf(py::handle data) {
    static PyObject* const* table = [] {
        auto* t = new PyObject*[256];
        for (int i = 0; i < 256; ++i) t[i] = PyUnicode_FromOrdinal(i);
        return t;
    }();
    py::object chr = py::module_::import("builtins").attr("chr");
    // A list, as our queues give it, is read in place; anything else through its iterator.
    py::list items = PyList_CheckExact(data.ptr()) ? py::reinterpret_borrow<py::list>(data) : py::list(py::reinterpret_borrow<py::object>(data));
    const py::ssize_t n = PyList_GET_SIZE(items.ptr());
    py::list chars(n);
    for (py::ssize_t i = 0; i < n; ++i) {
        PyObject* b = PyList_GET_ITEM(items.ptr(), i);
        PyObject* c = nullptr;
        if (PyLong_CheckExact(b)) {
            const long v = PyLong_AsLong(b);
            if (v >= 0 && v < 256) {
                c = table[v];
                Py_INCREF(c);
            }
        }
        if (c == nullptr) {
            if (PyErr_Occurred()) PyErr_Clear();
            c = chr(py::handle(b)).release().ptr();
        }
        PyList_SET_ITEM(chars.ptr(), i, c);
    }
    return chars;
}

Co<> uartRead(py::object self, py::object port, py::object bytes_to_read, py::object delay) {
    checkInputType(port, intType());
    checkInputType(bytes_to_read, intType());
    uartPort(self, port);
    py::object queue = self.attr(port.equal(py::int_(1)) ? "uart_p1_signal_queue" : "uart_p2_signal_queue");
    const SignalQueue* signal = signalQueueOf(queue);
    if (!signal || overridesPoolRead(self)) {
        py::object data = co_await aio::awaitObject(self.attr("_getStreamingFromPool_async")(queue, bytes_to_read, delay));
        co_return charsOf(data);
    }
    // What _getStreamingFromPool_async does, with the bytes decoded straight into characters:
    // no list of ints to make and throw away.
    co_await aio::sleep(args::sleepSeconds(delay));
    long long n = static_cast<long long>(signal->queue->size());
    if (n == 0) co_return py::list();
    n = args::takeCount(bytes_to_read, n);
    co_return takeDecoded(*signal, n > 0 ? static_cast<std::size_t>(n) : 0, charDecoder().get());
}

Co<> uartWrite(py::object self, py::object port, py::object write_data) {
    checkInputType(port, intType());
    checkInputType(write_data, py::make_tuple(py::handle(reinterpret_cast<PyObject*>(&PyUnicode_Type)),
                                              py::handle(reinterpret_cast<PyObject*>(&PyList_Type))));
    uartPort(self, port);
    if (py::len(write_data) > 50) raiseError("UARTExceedMaxLengthError");
    Payload p;
    p.byte(port).byte(py::len(write_data));
    if (PyUnicode_Check(write_data.ptr())) {
        p.extend(strToU8List(write_data));
    } else {
        py::object ord = py::module_::import("builtins").attr("ord");
        for (py::handle ch : write_data) p.byte(ord(ch));
    }
    co_return co_await statusOp(self, w::WRITE_UART, p.list(), 2);
}

template <long long Cmd>
Co<> uartPortCommand(py::object self, py::object port) {
    checkPort(self, port);
    co_return co_await statusOp(self, Cmd, portOnly(port), 1);
}

Co<> uartSetBaudRate(py::object self, py::object port, py::object baud_rate) {
    checkInputType(port, intType());
    checkInputType(baud_rate, intType());
    uartPort(self, port);
    if (baud_rate > py::int_(400000)) raiseError("UARTBaudRateNotSupportError");
    py::list data_out = Payload().byte(port).extend(moduleObject().attr("convertU32To4U8")(baud_rate)).list();
    co_return co_await statusOp(self, w::SET_UART_BAUD_RATE, data_out, 1);
}

// `allowed` is taken by value: the body runs at the first send, after the caller's temporaries are gone.
Co<> uartSetting(py::object self, long long cmd, py::object port, py::object mode, std::vector<long long> allowed,
                 const char* error) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    uartPort(self, port);
    py::list l;
    for (long long v : allowed) l.append(v);
    const int known = PySequence_Contains(l.ptr(), mode.ptr());
    if (known < 0) throw py::error_already_set();
    if (known == 0) raiseError(error);
    co_return co_await statusOp(self, cmd, Payload().byte(port).byte(mode).list(), 1);
}

Co<> uartSetDataBit(py::object self, py::object port, py::object mode) {
    return uartSetting(self, w::SET_UART_DATA_SIZE, port, mode, {0, 1}, "UARTDataBitNotSupportError");
}
Co<> uartSetParity(py::object self, py::object port, py::object mode) {
    return uartSetting(self, w::SET_UART_PARITY, port, mode, {0, 1, 2, 3}, "UARTParityNotSupportError");
}
Co<> uartSetNumStopBit(py::object self, py::object port, py::object mode) {
    return uartSetting(self, w::SET_UART_NUM_STOP_BITS, port, mode, {0, 1, 2, 3}, "UARTStopBitNotSupportError");
}

Co<> uartStartReading(py::object self, py::object port) {
    checkPort(self, port);
    co_await aio::awaitObject(self.attr("_sendPacketWithoutReply")(py::int_(static_cast<long long>(w::START_UART_READING)), portOnly(port)));
    co_return py::int_(0);
}

void uartStreamThread(py::handle self, py::handle lock, py::handle data_queue, py::handle signal_queue) {
    const SignalQueue* signal = signalQueueOf(signal_queue);
    if (!signal) throw py::type_error("the UART signal queue must be a SignalQueue");
    runWorkerThread(uartCore(self).killed, lock, data_queue, *signal, "UARTQueueOverflowWarning", "(-1,)");
}

py::object startWorker(py::handle self, int port) {
    const std::string n = std::to_string(port);
    return startNamedThread(self.attr("_UARTStreamThread"),
                            py::make_tuple(self.attr(("uart_p" + n + "_lock").c_str()), self.attr(("uart_p" + n + "_data_queue").c_str()),
                                           self.attr(("uart_p" + n + "_signal_queue").c_str())));
}

void uartInit(py::handle self, py::handle uart_dict) {
    self.attr("uart_dict") = uart_dict;
    py::object pool = self.attr("data_pool_strm");
    const py::int_ code(static_cast<long long>(w::START_UART_READING));
    self.attr("uart_p1_data_queue") = pool[py::make_tuple(code, 1)];
    self.attr("uart_p2_data_queue") = pool[py::make_tuple(code, 2)];
    self.attr("uart_p1_signal_queue") = makeSignalQueue(1, w::QUEUE_SIZE_MAX, byteDecoder());
    self.attr("uart_p2_signal_queue") = makeSignalQueue(1, w::QUEUE_SIZE_MAX, byteDecoder());
    self.attr("_uart_core") = py::cast(std::make_shared<UARTCore>());
    self.attr("uart_killed") = false;
    self.attr("uart_p1_lock") = newGate(true);
    self.attr("uart_p2_lock") = newGate(true);
    self.attr("uart_p1_stream_thread") = startWorker(self, 1);
    self.attr("uart_p2_stream_thread") = startWorker(self, 2);
}

void uartFree(py::handle self) {
    self.attr("uart_killed") = true;
    self.attr("uart_p1_lock").attr("acquire")(false);
    self.attr("uart_p2_lock").attr("acquire")(false);
    self.attr("uart_p1_lock").attr("release")();
    self.attr("uart_p2_lock").attr("release")();
    self.attr("uart_p1_data_queue").attr("put")(py::none());
    self.attr("uart_p2_data_queue").attr("put")(py::none());
}

}  // namespace

void bindUARTModule(py::module_& m) {
    py::class_<UARTCore, std::shared_ptr<UARTCore>>(m, "_UARTCore");
    PyClass uart(m, "UARTModule", py::make_tuple(m.attr("Packet")), "Two serial ports: settings, writes, and received bytes as a stream.");
    uart.def("__init__", &uartInit, py::arg("uart_dict"))
        .property(
            "uart_killed", [](py::handle self) { return uartCore(self).killed.load(); },
            [](py::handle self, py::handle v) { uartCore(self).killed = py::bool_(py::reinterpret_borrow<py::object>(v)); },
            "True ends both workers.");
    const auto port = py::arg("port");
    const auto mode = py::arg("mode");
    defOp(uart, "UART_open_async", &uartOpen, port);
    defOp(uart, "UART_close_async", &uartClose, port);
    defOp(uart, "UART_read_async", &uartRead, port, py::arg("bytes_to_read"), py::arg("delay") = 0.005);
    defOp(uart, "UART_write_async", &uartWrite, port, py::arg("write_data"));
    defOp(uart, "UART_reset_async", &uartPortCommand<w::RESET_UART>, port);
    defOp(uart, "UART_setBaudRate_async", &uartSetBaudRate, port, py::arg("baud_rate"));
    defOp(uart, "UART_setDataBit_async", &uartSetDataBit, port, py::arg("mode") = 0);
    defOp(uart, "UART_setParity_async", &uartSetParity, port, py::arg("mode") = 0);
    defOp(uart, "UART_setNumStopBit_async", &uartSetNumStopBit, port, py::arg("mode") = 0);
    defOp(uart, "UART_stopReading_async", &uartPortCommand<w::STOP_UART_READING>, port);
    defOp(uart, "_UART_startReading_async", &uartStartReading, port);
    defOp(uart, "_checkUARTPinState_async", &uartCheckPinState, port, py::arg("allow_state"));
    uart.def("UART_getPinMap", [](py::handle self) { return self.attr("uart_dict"); })
        .def("_UART_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "uart_dict", p); }, py::arg("UART_port"))
        .def("_checkUARTPort", [](py::handle self, py::handle p) { uartPort(self, p); return true; }, port)
        .def("_checkUARTBaudRate",
             [](py::handle, py::object rate) {
                 if (rate > py::int_(400000)) raiseError("UARTBaudRateNotSupportError");
                 return true;
             },
             py::arg("baud_rate"))
        .def("_checkUARTDataLength",
             [](py::handle, py::handle data) {
                 if (py::len(data) > 50) raiseError("UARTExceedMaxLengthError");
                 return true;
             },
             py::arg("data"))
        .def("_checkUARTNumStopBitMode", [](py::handle, py::handle v) { checkInList(v, {0, 1, 2, 3}, "UARTStopBitNotSupportError"); return true; }, mode)
        .def("_checkUARTParityMode", [](py::handle, py::handle v) { checkInList(v, {0, 1, 2, 3}, "UARTParityNotSupportError"); return true; }, mode)
        .def("_checkUARTDataBit", [](py::handle, py::handle v) { checkInList(v, {0, 1}, "UARTDataBitNotSupportError"); return true; }, mode)
        .def("_UART_free", [](py::handle self) { uartFree(self); })
        .def("_UARTStreamThread", &uartStreamThread, py::arg("lock"), py::arg("data_queue"), py::arg("signal_queue"));
}

}  // namespace torvik::py_binding
