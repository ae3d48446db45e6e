// Python views on the engine's data pools. Each step is one atomic engine call; the views hold
// no data of their own, so scripts and receive threads always see the same pools.
#include <pybind11/stl.h>

#include "args.hpp"
#include "blocking.hpp"
#include "device/device_binding.hpp"
#include "exact_cast.hpp"

namespace torvik::py_binding {

using device::Bytes;
using device::StreamItem;
using device::StreamKey;
using device::StreamQueue;

namespace {

py::bytes toPy(const Bytes& b) { return py::bytes(reinterpret_cast<const char*>(b.data()), b.size()); }

Bytes fromPy(py::handle obj) {
    PyObject* b = PyBytes_FromObject(obj.ptr());
    if (b == nullptr) throw py::error_already_set();
    auto owned = py::reinterpret_steal<py::bytes>(b);
    std::string_view v = owned;
    return Bytes(v.begin(), v.end());
}

// A code as a pool key; nullopt for anything that cannot be one (so it is simply absent).
std::optional<std::uint32_t> asCode(py::handle key) {
    if (!PyLong_Check(key.ptr())) return std::nullopt;
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(key.ptr(), &overflow);
    if (overflow != 0 || v < 0 || v > 0xFFFFFFFFLL) return std::nullopt;
    return static_cast<std::uint32_t>(v);
}

std::uint32_t requireCode(py::handle key) {
    if (auto c = asCode(key)) return *c;
    throw py::key_error(py::repr(key).cast<std::string>());
}

std::optional<StreamKey> asStreamKey(py::handle key) {
    if (auto c = asCode(key)) return StreamKey{*c, std::nullopt};
    if (PyTuple_Check(key.ptr()) && PyTuple_GET_SIZE(key.ptr()) == 2) {
        auto code = asCode(PyTuple_GET_ITEM(key.ptr(), 0));
        py::handle port = PyTuple_GET_ITEM(key.ptr(), 1);
        if (code && PyLong_Check(port.ptr())) {
            int overflow = 0;
            long long p = PyLong_AsLongLongAndOverflow(port.ptr(), &overflow);
            if (overflow == 0) return StreamKey{*code, p};
        }
    }
    return std::nullopt;
}

StreamKey requireStreamKey(py::handle key) {
    if (auto k = asStreamKey(key)) return *k;
    throw py::type_error("a stream key is a command code or a (code, port) pair, not " + py::repr(key).cast<std::string>());
}

py::object streamKeyToPy(const StreamKey& k) {
    if (!k.port) return py::int_(k.code);
    return py::make_tuple(k.code, *k.port);
}

// An object a script put into a stream queue; released with the GIL wherever the queue lets go.
struct PyObjectItem : device::ForeignObject {
    explicit PyObjectItem(py::handle o) : obj(o.inc_ref().ptr()) {}
    ~PyObjectItem() override {
        if (!Py_IsInitialized()) return;
        PyGILState_STATE s = PyGILState_Ensure();
        Py_DECREF(obj);
        PyGILState_Release(s);
    }
    PyObject* obj;
};

}  // namespace

StreamItem toStreamItem(py::handle obj) {
    StreamItem item;
    if (obj.is_none()) {
        item.kind = StreamItem::Kind::Token;
    } else if (PyBytes_CheckExact(obj.ptr())) {
        std::string_view v = py::reinterpret_borrow<py::bytes>(obj);
        item.bytes.assign(v.begin(), v.end());
    } else {
        item.kind = StreamItem::Kind::Foreign;
        item.foreign = std::make_shared<PyObjectItem>(obj);
    }
    return item;
}

std::optional<double> queueTimeout(bool block, py::handle timeout) {
    if (!block) return 0.0;
    return args::queueTimeout(timeout);
}

void raiseQueue(const char* cls) {
    py::object exc = py::module_::import("queue").attr(cls);
    PyErr_SetNone(exc.ptr());
    throw py::error_already_set();
}

namespace {

py::object queueGet(StreamQueue& q, bool block, py::handle timeout) {
    std::optional<StreamItem> item;
    auto limit = queueTimeout(block, timeout);
    if (limit && *limit == 0) {
        item = q.get(std::chrono::nanoseconds::zero());
    } else {
        waitReleased(
            [&](std::optional<std::chrono::nanoseconds> l) {
                item = q.get(l);
                return item.has_value();
            },
            limit);
    }
    if (!item) raiseQueue("Empty");
    return streamItemToPython(std::move(*item));
}

void queuePut(StreamQueue& q, py::handle obj, bool block, py::handle timeout) {
    StreamItem item = toStreamItem(obj);
    auto limit = queueTimeout(block, timeout);
    bool ok;
    if (limit && *limit == 0) {
        ok = q.put(std::move(item), std::chrono::nanoseconds::zero());
    } else {
        // Only a bounded, full queue waits; the item is kept across slices.
        ok = waitReleased([&](std::optional<std::chrono::nanoseconds> l) { return q.put(item, l); }, limit);
    }
    if (!ok) raiseQueue("Full");
}

template <typename Seq, typename Fn>
py::list mapList(const Seq& seq, Fn fn) {
    py::list out;
    for (const auto& x : seq) out.append(fn(x));
    return out;
}

struct EchoView {
    std::shared_ptr<device::EchoPool> pool;
};
struct StreamView {
    std::shared_ptr<device::StreamPool> pool;
};
struct BcstView {
    std::shared_ptr<device::BcstPool> pool;
};

py::set answerSet(const device::BytesSet& s) {
    py::set out;
    for (const auto& b : s.items()) out.add(toPy(b));
    return out;
}

}  // namespace

py::object streamItemToPython(StreamItem&& item) {
    switch (item.kind) {
        case StreamItem::Kind::Bytes: return toPy(item.bytes);
        case StreamItem::Kind::Token: return py::none();
        case StreamItem::Kind::Foreign:
            return py::reinterpret_borrow<py::object>(static_cast<PyObjectItem&>(*item.foreign).obj);
    }
    return py::none();
}

std::shared_ptr<device::EchoPool> echoPoolOf(py::handle v) {
    const EchoView* view = exactly<EchoView>(v);
    return (view != nullptr ? *view : py::cast<EchoView&>(v)).pool;
}
std::shared_ptr<device::BcstPool> bcstPoolOf(py::handle v) { return py::cast<BcstView&>(v).pool; }
std::shared_ptr<StreamQueue> streamQueueOf(py::handle q) {
    if (!py::isinstance<StreamQueue>(q)) return nullptr;
    return py::cast<std::shared_ptr<StreamQueue>>(q);
}

py::object makePoolView(const device::DataPools& pools, const char* which) {
    std::string w = which;
    if (w == "echo") return py::cast(EchoView{pools.echo});
    if (w == "strm") return py::cast(StreamView{pools.strm});
    return py::cast(BcstView{pools.bcst});
}

void bindPools(py::module_& m) {
    py::class_<StreamQueue, std::shared_ptr<StreamQueue>>(
        m, "StreamQueue", "A FIFO queue of stream data, shared by a receive thread, a worker and scripts.")
        // maxsize <= 0 means no bound, as for queue.Queue.
        .def(py::init([](py::handle maxsize) {
                 return std::make_shared<StreamQueue>(static_cast<std::size_t>(std::max<long long>(0, args::clampedLL(args::index(maxsize)))));
             }),
             py::arg("maxsize") = 0)
        .def("qsize", &StreamQueue::size)
        .def("empty", [](const StreamQueue& q) { return q.size() == 0; })
        .def("full", &StreamQueue::full)
        .def_property_readonly("maxsize", &StreamQueue::maxsize)
        .def("put", [](StreamQueue& q, py::handle o, py::handle block, py::handle timeout) { queuePut(q, o, args::truth(block), timeout); },
             py::arg("item"), py::arg("block") = true, py::arg("timeout") = py::none())
        .def("put_nowait", [](StreamQueue& q, py::handle o) { queuePut(q, o, false, py::none()); }, py::arg("item"))
        .def("get", [](StreamQueue& q, py::handle block, py::handle timeout) { return queueGet(q, args::truth(block), timeout); },
             py::arg("block") = true, py::arg("timeout") = py::none())
        .def("get_nowait", [](StreamQueue& q) { return queueGet(q, false, py::none()); })
        .def("__repr__", [](const StreamQueue& q) { return "<StreamQueue qsize=" + std::to_string(q.size()) + ">"; });

    py::class_<EchoView>(m, "EchoPool", "Latest unclaimed reply of each command code (a live mapping).")
        .def("__getitem__",
             [](const EchoView& v, py::handle key) {
                 auto data = asCode(key) ? v.pool->get(*asCode(key)) : std::nullopt;
                 if (!data) throw py::key_error(py::repr(key).cast<std::string>());
                 return toPy(*data);
             })
        .def("__setitem__", [](EchoView& v, py::handle key, py::handle data) { v.pool->put(requireCode(key), fromPy(data)); })
        .def("__delitem__",
             [](EchoView& v, py::handle key) {
                 if (!v.pool->erase(requireCode(key))) throw py::key_error(py::repr(key).cast<std::string>());
             })
        .def("__contains__", [](const EchoView& v, py::handle key) { return asCode(key) && v.pool->contains(*asCode(key)); })
        .def("__len__", [](const EchoView& v) { return v.pool->size(); })
        .def("__iter__", [](const EchoView& v) { return py::iter(py::cast(v.pool->codes())); })
        .def("keys", [](const EchoView& v) { return py::cast(v.pool->codes()); })
        .def("get",
             [](const EchoView& v, py::handle key, py::object dflt) -> py::object {
                 auto data = asCode(key) ? v.pool->get(*asCode(key)) : std::nullopt;
                 return data ? py::object(toPy(*data)) : dflt;
             },
             py::arg("key"), py::arg("default") = py::none())
        .def("pop",
             [](EchoView& v, py::handle key, py::args dflt) -> py::object {
                 auto data = asCode(key) ? v.pool->take(*asCode(key)) : std::nullopt;
                 if (data) return toPy(*data);
                 if (dflt.size() > 0) return dflt[0];
                 throw py::key_error(py::repr(key).cast<std::string>());
             })
        .def("items",
             [](const EchoView& v) {
                 py::list out;
                 for (auto c : v.pool->codes())
                     if (auto d = v.pool->get(c)) out.append(py::make_tuple(c, toPy(*d)));
                 return out;
             })
        .def("clear",
             [](EchoView& v) {
                 for (auto c : v.pool->codes()) v.pool->erase(c);
             })
        .def("__repr__", [](const EchoView& v) {
            py::dict d;
            for (auto c : v.pool->codes())
                if (auto data = v.pool->get(c)) d[py::int_(c)] = toPy(*data);
            return py::repr(d);
        });

    py::class_<StreamView>(m, "StreamPool", "Stream queues by command code or (code, port); a queue is made on first access.")
        .def("__getitem__", [](const StreamView& v, py::handle key) { return v.pool->at(requireStreamKey(key)); })
        .def("__setitem__",
             [](StreamView& v, py::handle key, py::handle q) {
                 auto queue = streamQueueOf(q);
                 if (!queue) throw py::type_error("a stream pool holds StreamQueue objects, not " + args::typeName(q));
                 v.pool->set(requireStreamKey(key), std::move(queue));
             })
        .def("__delitem__",
             [](StreamView& v, py::handle key) {
                 auto k = asStreamKey(key);
                 if (!k || !v.pool->erase(*k)) throw py::key_error(py::repr(key).cast<std::string>());
             })
        .def("__contains__", [](const StreamView& v, py::handle key) {
            auto k = asStreamKey(key);
            return k && v.pool->contains(*k);
        })
        .def("__len__", [](const StreamView& v) { return v.pool->size(); })
        .def("__iter__", [](const StreamView& v) { return py::iter(mapList(v.pool->keys(), streamKeyToPy)); })
        .def("keys", [](const StreamView& v) { return mapList(v.pool->keys(), streamKeyToPy); })
        .def("__repr__", [](const StreamView& v) {
            return "<StreamPool keys=" + py::repr(mapList(v.pool->keys(), streamKeyToPy)).cast<std::string>() + ">";
        });

    py::class_<device::BytesSet, std::shared_ptr<device::BytesSet>>(m, "AnswerSet", "The distinct answers to a broadcast (a live set).")
        .def("__len__", &device::BytesSet::size)
        .def("__iter__", [](const device::BytesSet& s) { return py::iter(answerSet(s)); })
        .def("__contains__", [](const device::BytesSet& s, py::handle b) { return PyBytes_Check(b.ptr()) && s.contains(fromPy(b)); })
        .def("add", [](device::BytesSet& s, py::handle b) { s.add(fromPy(b)); })
        .def("discard", [](device::BytesSet& s, py::handle b) { s.discard(fromPy(b)); })
        .def("remove",
             [](device::BytesSet& s, py::handle b) {
                 if (!s.discard(fromPy(b))) throw py::key_error(py::repr(b).cast<std::string>());
             })
        .def("clear", &device::BytesSet::clear)
        .def("copy", &answerSet)
        .def("__eq__", [](const device::BytesSet& s, py::handle other) -> py::object {
            if (py::isinstance<device::BytesSet>(other)) return py::bool_(answerSet(s).equal(answerSet(py::cast<device::BytesSet&>(other))));
            if (PySet_Check(other.ptr()) || PyFrozenSet_Check(other.ptr())) return py::bool_(answerSet(s).equal(other));
            return py::reinterpret_borrow<py::object>(Py_NotImplemented);
        })
        .def("__repr__", [](const device::BytesSet& s) {
            return s.size() == 0 ? std::string("set()") : py::repr(answerSet(s)).cast<std::string>();
        });
    py::module_::import("_collections_abc").attr("Set").attr("register")(m.attr("AnswerSet"));  // collections.abc.Set

    py::class_<BcstView>(m, "BroadcastPool", "Answer sets by command code; a set is made on first access.")
        .def("__getitem__", [](const BcstView& v, py::handle key) { return v.pool->at(requireCode(key)); })
        .def("__contains__", [](const BcstView& v, py::handle key) { return asCode(key) && v.pool->contains(*asCode(key)); })
        .def("__delitem__",
             [](BcstView& v, py::handle key) {
                 if (!v.pool->erase(requireCode(key))) throw py::key_error(py::repr(key).cast<std::string>());
             })
        .def("__len__", [](const BcstView& v) { return v.pool->size(); })
        .def("__iter__", [](const BcstView& v) { return py::iter(py::cast(v.pool->codes())); })
        .def("keys", [](const BcstView& v) { return py::cast(v.pool->codes()); });
}

}  // namespace torvik::py_binding
