#include "measure/signal_queue.hpp"
#include "args.hpp"

#include <map>
#include <vector>

#include "blocking.hpp"
#include "bindings.hpp"
#include "device/device_binding.hpp"
#include "stream/ai_decoder.hpp"
#include "stream/worker.hpp"
#include "wire/commands.hpp"

namespace torvik::py_binding {

namespace {

// The float object of every count's volts for one ratio, made once and kept for the process:
// a frame then becomes a list of references, with no float to allocate.
const std::vector<PyObject*>& voltObjects(double ratio) {
    static auto* cache = new std::map<double, std::vector<PyObject*>>();
    auto& objs = (*cache)[ratio];
    if (objs.empty()) {
        auto table = stream::voltTable(ratio);
        objs.resize(65536);
        for (int c = -32768; c <= 32767; ++c) {
            auto i = static_cast<std::uint16_t>(c);
            objs[i] = PyFloat_FromDouble((*table)[static_cast<std::int16_t>(c)]);
            if (objs[i] == nullptr) throw py::error_already_set();
        }
    }
    return objs;
}

class AIDecoder : public RecordDecoder {
public:
    AIDecoder(double ratio, std::size_t channels) : volts_(voltObjects(ratio)), channels_(channels) {}
    void decodeRun(const std::uint8_t* p, std::size_t count, py::list& out) const override {
        for (std::size_t f = 0; f < count; ++f) {
            PyObject* frame = PyList_New(static_cast<Py_ssize_t>(channels_));
            if (frame == nullptr) throw py::error_already_set();
            for (std::size_t ch = 0; ch < channels_; ++ch, p += 2) {
                PyObject* v = volts_[static_cast<std::uint16_t>((p[0] << 8) | p[1])];
                Py_INCREF(v);
                PyList_SET_ITEM(frame, static_cast<Py_ssize_t>(ch), v);
            }
            if (PyList_Append(out.ptr(), frame) != 0) {
                Py_DECREF(frame);
                throw py::error_already_set();
            }
            Py_DECREF(frame);
        }
    }

private:
    const std::vector<PyObject*>& volts_;
    std::size_t channels_;
};

class ByteDecoder : public RecordDecoder {
public:
    // The run is appended in one resize: a megabyte of bytes is a million list entries, and an
    // append each cost more than the rest of the path together.
    void decodeRun(const std::uint8_t* p, std::size_t count, py::list& out) const override {
        const Py_ssize_t at = PyList_GET_SIZE(out.ptr());
        PyObject* tail = PyList_New(static_cast<Py_ssize_t>(count));
        if (tail == nullptr) throw py::error_already_set();
        for (std::size_t i = 0; i < count; ++i) {
            PyObject* v = PyLong_FromLong(p[i]);  // a small int: shared, never allocated
            if (v == nullptr) {
                Py_DECREF(tail);
                throw py::error_already_set();
            }
            PyList_SET_ITEM(tail, static_cast<Py_ssize_t>(i), v);
        }
        const int rc = PyList_SetSlice(out.ptr(), at, at, tail);
        Py_DECREF(tail);
        if (rc != 0) throw py::error_already_set();
    }
};

// The 256 one-character strings are made once; a run becomes a list of references to them.
class CharDecoder : public RecordDecoder {
public:
    CharDecoder() {
        for (int i = 0; i < 256; ++i)
            if ((chars_[i] = PyUnicode_FromOrdinal(i)) == nullptr) throw py::error_already_set();
    }
    void decodeRun(const std::uint8_t* p, std::size_t count, py::list& out) const override {
        const Py_ssize_t at = PyList_GET_SIZE(out.ptr());
        PyObject* tail = PyList_New(static_cast<Py_ssize_t>(count));
        if (tail == nullptr) throw py::error_already_set();
        for (std::size_t i = 0; i < count; ++i) {
            PyObject* c = chars_[p[i]];
            Py_INCREF(c);
            PyList_SET_ITEM(tail, static_cast<Py_ssize_t>(i), c);
        }
        // Appending to an empty list, as a read does, is a swap of the item arrays.
        const int rc = at == 0 ? PyList_SetSlice(out.ptr(), 0, 0, tail) : PyList_SetSlice(out.ptr(), at, at, tail);
        Py_DECREF(tail);
        if (rc != 0) throw py::error_already_set();
    }

    // A reader gets chr() of every entry, whatever put it there.
    py::object decodeOther(py::object item) const override { return py::module_::import("builtins").attr("chr")(item); }

private:
    PyObject* chars_[256];  // kept for the process, as the strings of the interpreter's own table
};

py::object getOne(const SignalQueue& q, bool block, py::handle timeout) {
    std::optional<stream::RecordQueue::Item> item;
    auto limit = queueTimeout(block, timeout);
    if (limit && *limit == 0) {
        item = q.queue->get(std::chrono::nanoseconds::zero());
    } else {
        waitReleased(
            [&](std::optional<std::chrono::nanoseconds> l) {
                item = q.queue->get(l);
                return item.has_value();
            },
            limit);
    }
    if (!item) raiseQueue("Empty");
    if (item->other) return streamItemToPython(std::move(*item->other));
    py::list out;
    q.decoder->decodeRun(item->record.data(), 1, out);
    return out[0];
}

void putOne(const SignalQueue& q, py::handle obj, bool block, py::handle timeout) {
    device::StreamItem item = toStreamItem(obj);
    auto limit = queueTimeout(block, timeout);
    bool ok;
    if (limit && *limit == 0)
        ok = q.queue->putOther(std::move(item), std::chrono::nanoseconds::zero());
    else
        ok = waitReleased([&](std::optional<std::chrono::nanoseconds> l) { return q.queue->putOther(item, l); }, limit);
    if (!ok) raiseQueue("Full");
}

}  // namespace

// Holds the cyclic collector off while a batch of values is made: collections triggered by a
// million new lists would walk the growing batch again and again. It runs as usual afterwards.
class CollectorPause {
public:
#if PY_VERSION_HEX >= 0x030A0000
    CollectorPause() : was_enabled_(PyGC_Disable() == 1) {}
    ~CollectorPause() {
        if (was_enabled_) PyGC_Enable();
    }
#else
    CollectorPause() : gc_(py::module_::import("gc")), was_enabled_(gc_.attr("isenabled")().cast<bool>()) { gc_.attr("disable")(); }
    ~CollectorPause() {
        if (was_enabled_) gc_.attr("enable")();
    }

private:
    py::module_ gc_;
#endif

private:
    bool was_enabled_;
};

py::list takeDecoded(const SignalQueue& q, std::size_t n, const RecordDecoder* decoder) {
    py::list out;
    CollectorPause pause;
    const RecordDecoder& d = decoder ? *decoder : *q.decoder;
    std::vector<Py_ssize_t> others;
    q.queue->take(
        n, [&](const std::uint8_t* records, std::size_t count) { d.decodeRun(records, count, out); },
        [&](device::StreamItem&& other) {
            others.push_back(PyList_GET_SIZE(out.ptr()));
            out.append(streamItemToPython(std::move(other)));
        });
    // Decoded once the queue's step is over: a decoding that fails must not fail inside it.
    for (Py_ssize_t i : others) out[i] = d.decodeOther(out[i]);
    return out;
}

const SignalQueue* signalQueueOf(py::handle obj) {
    if (!py::isinstance<SignalQueue>(obj)) return nullptr;
    return &py::cast<const SignalQueue&>(obj);
}

py::object makeSignalQueue(std::size_t record_size, std::size_t maxsize, std::shared_ptr<const RecordDecoder> decoder) {
    return py::cast(SignalQueue{std::make_shared<stream::RecordQueue>(record_size, maxsize), std::move(decoder)});
}

std::shared_ptr<const RecordDecoder> aiDecoder(double ratio, std::size_t channels) {
    return std::make_shared<AIDecoder>(ratio, channels);
}

std::shared_ptr<const RecordDecoder> byteDecoder() { return std::make_shared<ByteDecoder>(); }

std::shared_ptr<const RecordDecoder> charDecoder() {
    static auto* decoder = new std::shared_ptr<const RecordDecoder>(std::make_shared<CharDecoder>());
    return *decoder;
}

void runWorkerThread(std::atomic<bool>& killed, py::handle gate_obj, py::handle data_queue, const SignalQueue& signal,
                     const char* warning, const char* shape) {
    auto gate = gateOf(gate_obj);
    auto data = streamQueueOf(data_queue);
    if (!data) throw py::type_error("a stream data queue must be a StreamQueue");
    stream::WorkerHooks hooks;
    hooks.foreign_bytes = [](const device::StreamItem& item) {
        py::gil_scoped_acquire gil;
        py::object obj = streamItemToPython(device::StreamItem(item));
        PyObject* b = PyBytes_FromObject(obj.ptr());
        if (b == nullptr) throw py::error_already_set();
        auto owned = py::reinterpret_steal<py::bytes>(b);
        std::string_view v = owned;
        return device::Bytes(v.begin(), v.end());
    };
    hooks.dropped = [warning](std::size_t n) {
        py::gil_scoped_acquire gil;
        py::handle cls = errorClass(warning);
        for (std::size_t i = 0; i < n; ++i) cls();
    };
    stream::WorkerResult result;
    {
        py::gil_scoped_release nogil;
        result = stream::runStreamWorker(killed, *gate, *data, *signal.queue, std::chrono::seconds(wire::QUEUE_TIMEOUT), hooks);
    }
    if (result.end == stream::WorkerEnd::BadLength)
        throw py::value_error("cannot reshape array of size " + std::to_string(result.bad_length) + " into shape " + shape);
    if (result.end == stream::WorkerEnd::TimedOut) raiseQueue("Empty");
}

void bindSignalQueue(py::module_& m) {
    py::class_<SignalQueue>(m, "SignalQueue", "A bounded FIFO queue of decoded stream records, kept packed until read.")
        .def("qsize", [](const SignalQueue& q) { return q.queue->size(); })
        .def("empty", [](const SignalQueue& q) { return q.queue->size() == 0; })
        .def("full", [](const SignalQueue& q) { return q.queue->full(); })
        .def_property_readonly("maxsize", [](const SignalQueue& q) { return q.queue->maxsize(); })
        .def("put", [](const SignalQueue& q, py::handle o, py::handle block, py::handle timeout) { putOne(q, o, args::truth(block), timeout); },
             py::arg("item"), py::arg("block") = true, py::arg("timeout") = py::none())
        .def("put_nowait", [](const SignalQueue& q, py::handle o) { putOne(q, o, false, py::none()); }, py::arg("item"))
        .def("get", [](const SignalQueue& q, py::handle block, py::handle timeout) { return getOne(q, args::truth(block), timeout); },
             py::arg("block") = true, py::arg("timeout") = py::none())
        .def("get_nowait", [](const SignalQueue& q) { return getOne(q, false, py::none()); })
        .def("__repr__", [](const SignalQueue& q) { return "<SignalQueue qsize=" + std::to_string(q.queue->size()) + ">"; });
}

}  // namespace torvik::py_binding
