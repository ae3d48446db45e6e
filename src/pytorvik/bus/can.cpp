// CANFrame, the value type of the bus, and CANModule: one CAN port set-up, writes, filters, and
// received frames as a stream through one worker for the whole module.
#include "measure/signal_queue.hpp"
#include "services/module_support.hpp"
#include "services/modules.hpp"

#include <structmember.h>  // PyMemberDef: where a slot lives

#include <cstring>

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

py::handle g_frame_class;  // CANFrame; the module keeps it alive

py::object u32Bytes(py::handle v) { return moduleObject().attr("convertU32To4U8")(v); }

py::list regularizeData(py::handle data) {
    py::list out;
    for (py::handle b : py::reinterpret_borrow<py::iterable>(data)) out.append(b);
    for (int i = 0; i < 8; ++i) out.append(0);
    return py::list(out[py::slice(0, 8, 1)]);
}

void setID(py::handle self) {
    py::object id = self.attr("id");
    py::object new_id;
    if (py::object(self.attr("id_format")).equal(py::int_(0))) {
        new_id = id << py::int_(21);
    } else {
        py::object high = id & py::int_(0x1FFC0000), low = id & py::int_(0x3FFFF);
        new_id = ((high << py::int_(3)) | low) | py::int_(0x80000);
    }
    if (py::object(self.attr("remote")) > py::int_(0)) new_id = new_id | py::int_(0x100000);
    py::list id_in_list = u32Bytes(new_id);
    self.attr("id_in_list") = id_in_list;
    self.attr("frame_in_list") = id_in_list + self.attr("data");
}

void frameInit(py::handle self, py::handle id_, py::handle id_format, py::handle remote, py::handle data) {
    self.attr("id") = id_;
    self.attr("id_format") = id_format;
    self.attr("remote") = remote;
    self.attr("data") = regularizeData(data);
    self.attr("id_in_list") = py::none();
    self.attr("frame_in_list") = py::none();
    self.attr("setID")();
}

// The fields of a frame from its first bytes, as fromU8List reads them.
py::tuple frameFields(const py::list& u8) {
    py::list id_in_list = u8[py::slice(0, 4, 1)];
    py::object b1 = id_in_list[1];
    py::object id_format = (b1 >> py::int_(3)) & py::int_(1), remote = (b1 >> py::int_(4)) & py::int_(1);
    py::object id;
    if (id_format.equal(py::int_(0))) {
        id = moduleObject().attr("convert2U8ToU16")(id_in_list[py::slice(0, 2, 1)]) >> py::int_(5);
    } else {
        py::object word = moduleObject().attr("convert4U8ToU32")(id_in_list);
        id = ((word & py::int_(0xFFE00000LL)) >> py::int_(3)) | (word & py::int_(0x3FFFF));
    }
    return py::make_tuple(id, id_format, remote);
}

py::object fromU8List(py::handle cls, py::handle u8_list) {
    py::list u8(py::reinterpret_borrow<py::object>(u8_list));
    py::tuple f = frameFields(u8);
    if (py::len(u8) > 4) return cls(f[0], f[1], f[2], u8[py::slice(4, 12, 1)]);
    return cls(f[0], f[1], f[2]);
}

// What the fast path of the decoder relies on: the class's own operations, as bound. A script
// that replaces one of them gets the frames its replacement makes.
struct FrameClassState {
    std::vector<std::pair<py::object, py::object>> originals;  // (name, function)
    py::object names[6];  // id, id_format, remote, data, id_in_list, frame_in_list
    Py_ssize_t offsets[6];  // where an instance holds each of them
};
FrameClassState* g_frame_state = nullptr;  // lives as long as the module

bool frameClassIntact() {
    PyObject* dict = reinterpret_cast<PyTypeObject*>(g_frame_class.ptr())->tp_dict;
    for (const auto& [name, fn] : g_frame_state->originals)
        if (PyDict_GetItemWithError(dict, name.ptr()) != fn.ptr() || PyErr_Occurred()) {
            PyErr_Clear();
            return false;
        }
    return true;
}

// Steals `v`; throws if it is null.
PyObject* owned(PyObject* v) {
    if (v == nullptr) throw py::error_already_set();
    return v;
}

// The int of an identifier: those of standard frames are made once and shared, as ints are
// immutable (the interpreter does the same for small ones).
PyObject* standardId(std::uint32_t id) {
    static std::vector<PyObject*>* ids = [] {
        auto* v = new std::vector<PyObject*>(2048);
        for (std::size_t i = 0; i < v->size(); ++i) (*v)[i] = owned(PyLong_FromSize_t(i));
        return v;
    }();
    if (id < ids->size()) {
        Py_INCREF((*ids)[id]);
        return (*ids)[id];
    }
    return owned(PyLong_FromUnsignedLong(id));
}

// ---- received frames: their lists are made when first used ----
// A received frame keeps its 12 wire bytes in the instance and makes its three lists (two
// allocations each) only when they are first read: a reader that looks at an identifier and a
// byte or two pays for neither. Every frame is an instance of this base.
struct FrameWire {
    PyObject_HEAD
    std::uint8_t raw[12];  // setID's word, then the data bytes
    std::uint8_t pending;  // bit i: list i (data, id_in_list, frame_in_list) not made yet
};
PyTypeObject* g_wire_type = nullptr;

// data, id_in_list and frame_in_list: where each lies in the wire bytes.
constexpr struct {
    int from, count;
} kListBytes[3] = {{4, 8}, {0, 4}, {0, 12}};

// The descriptor of one of the three list fields, in the place of the slot's own descriptor.
struct LazyList {
    PyObject_HEAD
    int index;
    Py_ssize_t offset;  // of the slot
    PyObject* name;
};

PyObject** listSlot(const LazyList* d, PyObject* obj) {
    return reinterpret_cast<PyObject**>(reinterpret_cast<char*>(obj) + d->offset);
}

bool wrongInstance(const LazyList* d, PyObject* obj) {
    if (PyObject_TypeCheck(obj, reinterpret_cast<PyTypeObject*>(g_frame_class.ptr()))) return false;
    PyErr_Format(PyExc_TypeError, "descriptor '%U' for 'CANFrame' objects doesn't apply to a '%s' object", d->name,
                 Py_TYPE(obj)->tp_name);
    return true;
}

// A new reference to `o` (Py_NewRef and Py_XNewRef come with Python 3.10).
PyObject* newRef(PyObject* o) {
    Py_XINCREF(o);
    return o;
}

PyObject* lazyGet(PyObject* self, PyObject* obj, PyObject*) {
    auto* d = reinterpret_cast<LazyList*>(self);
    if (obj == nullptr) return newRef(self);
    if (wrongInstance(d, obj)) return nullptr;
    PyObject** slot = listSlot(d, obj);
    if (*slot == nullptr) {
        auto* w = reinterpret_cast<FrameWire*>(obj);
        const int bit = 1 << d->index;
        if (!(w->pending & bit)) {
            PyErr_Format(PyExc_AttributeError, "'%s' object has no attribute '%U'", Py_TYPE(obj)->tp_name, d->name);
            return nullptr;
        }
        const auto [from, count] = kListBytes[d->index];
        PyObject* list = PyList_New(count);
        if (list == nullptr) return nullptr;
        for (int i = 0; i < count; ++i) PyList_SET_ITEM(list, i, PyLong_FromLong(w->raw[from + i]));  // small ints
        // A list of small ints takes part in no reference cycle, so the cyclic collector need not
        // walk it (as the interpreter stops tracking tuples of atomic values): a reader that takes
        // the data of a million frames otherwise pays for collections that find nothing. The
        // price: a cycle that a script builds through such a list itself is never collected.
        PyObject_GC_UnTrack(list);
        *slot = list;
        w->pending &= static_cast<std::uint8_t>(~bit);
    }
    return newRef(*slot);
}

int lazySet(PyObject* self, PyObject* obj, PyObject* value) {
    auto* d = reinterpret_cast<LazyList*>(self);
    if (wrongInstance(d, obj)) return -1;
    PyObject** slot = listSlot(d, obj);
    auto* w = reinterpret_cast<FrameWire*>(obj);
    const int bit = 1 << d->index;
    if (value == nullptr && *slot == nullptr && !(w->pending & bit)) {
        PyErr_Format(PyExc_AttributeError, "'%s' object has no attribute '%U'", Py_TYPE(obj)->tp_name, d->name);
        return -1;
    }
    w->pending &= static_cast<std::uint8_t>(~bit);
    PyObject* old = *slot;
    *slot = newRef(value);
    Py_XDECREF(old);
    return 0;
}

PyObject* lazyRepr(PyObject* self) {
    return PyUnicode_FromFormat("<member '%U' of 'CANFrame' objects>", reinterpret_cast<LazyList*>(self)->name);
}

void lazyDealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    Py_XDECREF(reinterpret_cast<LazyList*>(self)->name);
    type->tp_free(self);
    Py_DECREF(type);
}

PyTypeObject* newType(const char* name, int basicsize, unsigned flags, PyType_Slot* slots) {
    PyType_Spec layout{name, basicsize, 0, flags, slots};
    PyObject* type = PyType_FromSpec(&layout);
    if (type == nullptr) throw py::error_already_set();
    return reinterpret_cast<PyTypeObject*>(type);  // lives as long as the process
}

// Puts the lazy descriptors in the place of the slots' own; returns where the slots lie.
void installLazyLists(PyTypeObject* frame_type, const py::object (&names)[6], Py_ssize_t (&offsets)[6]) {
    static PyType_Slot slots[] = {{Py_tp_descr_get, reinterpret_cast<void*>(&lazyGet)},
                                  {Py_tp_descr_set, reinterpret_cast<void*>(&lazySet)},
                                  {Py_tp_dealloc, reinterpret_cast<void*>(&lazyDealloc)},
                                  {Py_tp_repr, reinterpret_cast<void*>(&lazyRepr)},
                                  {0, nullptr}};
    static PyTypeObject* lazy_type = newType("pytorvik._LazyList", sizeof(LazyList), Py_TPFLAGS_DEFAULT, slots);
    for (int i = 0; i < 6; ++i) {
        PyObject* member = PyDict_GetItemWithError(frame_type->tp_dict, names[i].ptr());
        if (member == nullptr || Py_TYPE(member) != &PyMemberDescr_Type) throw std::logic_error("CANFrame field without a slot");
        offsets[i] = reinterpret_cast<PyMemberDescrObject*>(member)->d_member->offset;
        if (i < 3) continue;
        auto* d = PyObject_New(LazyList, lazy_type);
        if (d == nullptr) throw py::error_already_set();
        d->index = i - 3;
        d->offset = offsets[i];
        d->name = newRef(names[i].ptr());
        py::object owner = py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(d));
        if (PyObject_SetAttr(reinterpret_cast<PyObject*>(frame_type), names[i].ptr(), owner.ptr()) < 0)
            throw py::error_already_set();
    }
}

// Builds one CANFrame from its 12 bytes with the fields that fromU8List and the constructor
// give it, without running them: no calls, and the lists wait until they are read.
PyObject* fastFrame(PyTypeObject* cls, const std::uint8_t* p) {
    const std::uint32_t word = std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
    const int ext = (p[1] >> 3) & 1, remote = (p[1] >> 4) & 1;
    const std::uint32_t id = ext ? ((word & 0xFFE00000u) >> 3) | (word & 0x3FFFFu) : (std::uint32_t{p[0]} << 8 | p[1]) >> 5;
    // setID's word: the identifier bits and the flags again; bit 18 and a standard frame's low
    // bits do not come back.
    std::uint32_t again = ext ? (word & 0xFFE3FFFFu) | 0x80000u : word & 0xFFE00000u;
    if (remote) again |= 0x100000u;
    PyObject* id_value = standardId(id);
    PyObject* frame = cls->tp_alloc(cls, 0);
    if (frame == nullptr) {
        Py_DECREF(id_value);
        throw py::error_already_set();
    }
    auto* w = reinterpret_cast<FrameWire*>(frame);
    for (int i = 0; i < 4; ++i) w->raw[i] = static_cast<std::uint8_t>(again >> (24 - 8 * i));
    std::memcpy(w->raw + 4, p + 4, 8);
    w->pending = 7;
    char* base = reinterpret_cast<char*>(frame);
    const Py_ssize_t* at = g_frame_state->offsets;
    *reinterpret_cast<PyObject**>(base + at[0]) = id_value;
    *reinterpret_cast<PyObject**>(base + at[1]) = PyLong_FromLong(ext);  // small ints: never fail
    *reinterpret_cast<PyObject**>(base + at[2]) = PyLong_FromLong(remote);
    return frame;
}

// What copy and pickle take of a frame: its instance attributes, and its fields (lists made).
py::object frameState(py::handle self) {
    py::dict fields;
    for (const auto& name : g_frame_state->names)
        if (py::hasattr(self, name)) fields[name] = self.attr(name);
    py::object attrs = py::none();
    if (PyObject** dict = _PyObject_GetDictPtr(self.ptr()); dict != nullptr && *dict != nullptr && PyDict_GET_SIZE(*dict) > 0)
        attrs = py::reinterpret_borrow<py::object>(*dict);
    return py::make_tuple(attrs, fields);
}

// Received records become CANFrame objects only when they are read.
class FrameDecoder : public RecordDecoder {
public:
    void decodeRun(const std::uint8_t* p, std::size_t count, py::list& out) const override {
        if (!frameClassIntact()) {
            for (std::size_t i = 0; i < count; ++i, p += 12) {
                py::list u8;
                for (int k = 0; k < 12; ++k) u8.append(p[k]);
                out.append(fromU8List(g_frame_class, u8));
            }
            return;
        }
        auto* cls = reinterpret_cast<PyTypeObject*>(g_frame_class.ptr());
        for (std::size_t i = 0; i < count; ++i, p += 12) {
            PyObject* frame = fastFrame(cls, p);
            const int failed = PyList_Append(out.ptr(), frame);
            Py_DECREF(frame);
            if (failed) throw py::error_already_set();
        }
    }
};

// ---- the module ----

struct CANCore {
    std::atomic<bool> killed{false};
};

CANCore& canCore(py::handle self) { return py::cast<CANCore&>(self.attr("_can_core")); }

void canPort(py::handle self, py::handle port) { checkTablePort(self, "can_dict", port, "CANPortNotAvaliableError"); }

void checkPort(py::handle self, py::handle port) {
    checkInputType(port, intType());
    canPort(self, port);
}

py::handle boolType() { return reinterpret_cast<PyObject*>(&PyBool_Type); }
py::handle listType() { return reinterpret_cast<PyObject*>(&PyList_Type); }

Co<> statusOp(py::object self, long long cmd, py::list data_out) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return statusTail(data_in, 1);
}

py::list portOnly(py::handle port) { return Payload().byte(port).list(); }

Co<> canCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "can_dict", "_CAN_getPinMapPort", port, allow_state, "CANPortNotAvaliableError");
}

Co<> canOpen(py::object self, py::object port) {
    checkPort(self, port);
    co_await aio::awaitObject(self.attr("_checkCANPinState_async")(port, oneOf("Idle", "DI", "DO")));
    py::object status = co_await statusOp(self, w::OPEN_CAN, portOnly(port));
    if (!status.equal(py::int_(0))) co_return status;
    self.attr("can_lock").attr("release")();
    co_return status;
}

Co<> canClose(py::object self, py::object port) {
    checkPort(self, port);
    py::object status = co_await aio::awaitObject(self.attr("CAN_stop_async")(port));
    try {
        moduleObject().attr("checkFirmwareError")(status);
    } catch (py::error_already_set& e) {
        co_return e.value().attr("code");  // the close is not sent, the gate stays as it is
    }
    status = co_await statusOp(self, w::CLOSE_CAN, portOnly(port));
    if (!status.equal(py::int_(0))) co_return status;
    self.attr("can_lock").attr("acquire")();
    self.attr("can_data_queue").attr("put")(py::none());
    co_return status;
}

void checkDataRangeAndLength(py::handle data) {
    if (py::len(data) > 8) raiseError("CANDataLengthNotVaildError");
    moduleObject().attr("checkEachItemInRange")(data, py::arg("msg") = "The specified CAN data elements not in range");
}

py::object makeFrame(py::handle id_, py::handle id_format, py::handle remote, py::handle data) {
    return g_frame_class(id_, py::int_(py::reinterpret_borrow<py::object>(id_format)), py::int_(py::reinterpret_borrow<py::object>(remote)),
                         data);
}

Co<> canWrite(py::object self, py::object port, py::object id_, py::object data, py::object remote, py::object id_format) {
    checkInputType(port, intType());
    checkInputType(id_, intType());
    checkInputType(data, listType());
    checkInputType(remote, boolType());
    checkInputType(id_format, boolType());
    canPort(self, port);
    checkDataRangeAndLength(data);
    py::object frame = makeFrame(id_, id_format, remote, data);
    co_return co_await statusOp(self, w::WRITE_CAN, Payload().byte(port).byte(0).extend(frame.attr("frame_in_list")).list());
}

Co<> canRead(py::object self, py::object port, py::object num_frames, py::object delay) {
    checkInputType(port, intType());
    checkInputType(num_frames, intType());
    canPort(self, port);
    co_return co_await aio::awaitObject(self.attr("_getStreamingFromPool_async")(self.attr("can_frame_queue"), num_frames, delay));
}

Co<> canStart(py::object self, py::object port) {
    checkPort(self, port);
    co_await aio::awaitObject(self.attr("_sendPacketWithoutReply")(py::int_(static_cast<long long>(w::START_CAN)), portOnly(port)));
    co_return py::int_(0);
}

Co<> canStop(py::object self, py::object port) {
    checkPort(self, port);
    co_return co_await statusOp(self, w::STOP_CAN, portOnly(port));
}

Co<> canSetSpeed(py::object self, py::object port, py::object mode) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    canPort(self, port);
    checkInList(mode, {0, 1, 2, 3}, "CANSpeedNotVaildError");
    co_return co_await statusOp(self, w::SET_CAN_SPEED, Payload().byte(port).byte(mode).list());
}

// The operations that take a bool `status` and send it as 0 or 1.
Co<> canFlag(py::object self, long long cmd, py::object port, py::object status) {
    checkInputType(port, intType());
    checkInputType(status, boolType());
    canPort(self, port);
    co_return co_await statusOp(self, cmd, Payload().byte(port).byte(py::int_(status)).list());
}
Co<> canSetRXFilteringOn(py::object self, py::object port, py::object status) {
    return canFlag(self, w::SET_CAN_RX_FILTERING_ON, port, status);
}
Co<> canSetEnableInterrupt(py::object self, py::object port, py::object status) {
    return canFlag(self, w::SET_CAN_ENABLED_ITR, port, status);
}
Co<> canSetRXRollover(py::object self, py::object port, py::object status) { return canFlag(self, w::SET_CAN_RX_ROLLOVER, port, status); }

Co<> canSetRXFilterOrMask(py::object self, py::object port, py::object index, py::object id_, py::object data, py::object remote,
                          py::object id_format) {
    checkInputType(port, intType());
    checkInputType(index, intType());
    checkInputType(id_, intType());
    checkInputType(data, listType());
    checkInputType(remote, boolType());
    checkInputType(id_format, boolType());
    canPort(self, port);
    py::object frame = makeFrame(id_, id_format, remote, data);
    co_return co_await statusOp(self, w::SET_CAN_RX_FILTER_OR_MASK,
                                Payload().byte(port).byte(index).extend(frame.attr("frame_in_list")).list());
}

Co<> canSetTXPriority(py::object self, py::object port, py::object tx_mode, py::object priority_mode) {
    checkInputType(port, intType());
    checkInputType(tx_mode, intType());
    checkInputType(priority_mode, intType());
    canPort(self, port);
    self.attr("_checkCANTXIndex")(tx_mode);  // called through the instance: fails, see _checkCANTXIndex
    self.attr("_checkCANTXPriority")(priority_mode);
    co_return co_await statusOp(self, w::SET_CAN_TX_PRIORITY, Payload().byte(port).byte(tx_mode).byte(priority_mode).list());
}

Co<> canReadInfo(py::object self, long long cmd, py::object port, int count) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, cmd, portOnly(port));
    py::list out;
    for (int i = 1; i <= count; ++i) out.append(replyByte(data_in, i));
    co_return out;
}
Co<> canGetInterrupts(py::object self, py::object port) { return canReadInfo(self, w::GET_CAN_INTERRUPTS, port, 3); }
Co<> canGetErrors(py::object self, py::object port) { return canReadInfo(self, w::GET_CAN_ERRORS, port, 2); }

Co<> canGetCounters(py::object self, py::object port) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, w::GET_CAN_COUNTERS, portOnly(port));
    py::list d = slice(data_in, 1), out;
    py::object to_u32 = moduleObject().attr("convert4U8ToU32");
    for (int i = 0; i < 6; ++i) out.append(to_u32(d[py::slice(i * 4, (i + 1) * 4, 1)]));
    co_return out;
}

// A check declared without a receiver: called on the class it takes the mode; called through an
// instance it gets the instance as well and fails, as such a function does.
py::cpp_function receiverless(const char* name, std::vector<long long> allowed, const char* error) {
    return py::cpp_function(
        [name, allowed, error](py::handle first, py::args rest) {
            if (rest.size() > 0) {
                PyErr_Format(PyExc_TypeError, "%.200s() takes exactly one argument (%zd given)", name,
                             static_cast<Py_ssize_t>(rest.size() + 1));
                throw py::error_already_set();
            }
            py::list l;
            for (long long v : allowed) l.append(v);
            int r = PySequence_Contains(l.ptr(), first.ptr());
            if (r < 0) throw py::error_already_set();
            if (r == 0) raiseError(error);
            return true;
        },
        py::name(name));
}

void canStreamThread(py::handle self, py::handle queue_) {
    const SignalQueue* signal = signalQueueOf(self.attr("_can_core_queue"));
    runWorkerThread(canCore(self).killed, self.attr("can_lock"), queue_, *signal, "CANQueueOverflowWarning", "(12)");
}

void canInit(py::handle self, py::handle can_dict) {
    self.attr("can_dict") = can_dict;
    self.attr("can_data_queue") = self.attr("data_pool_strm")[py::int_(static_cast<long long>(w::START_CAN))];
    self.attr("_can_core") = py::cast(std::make_shared<CANCore>());
    // The frame queue exists before the worker starts, and becomes the handle's field last.
    self.attr("_can_core_queue") = makeSignalQueue(12, w::QUEUE_SIZE_MAX, std::make_shared<FrameDecoder>());
    self.attr("can_killed") = false;
    self.attr("can_lock") = newGate(true);
    self.attr("can_stream_thread") = startNamedThread(self.attr("_CANStreamThread"), py::make_tuple(self.attr("can_data_queue")));
    self.attr("can_frame_queue") = self.attr("_can_core_queue");
}

void canFree(py::handle self) {
    self.attr("can_killed") = true;
    self.attr("can_lock").attr("acquire")(false);
    self.attr("can_data_queue").attr("put")(py::none());
    self.attr("can_lock").attr("release")();
}

}  // namespace

void bindCAN(py::module_& m) {
    // The fields are slots (with a __dict__ beside them for a script's own attributes): a frame
    // is then one allocation, not two, and the decoder fills it without attribute lookups.
    static char wire_doc[] = "The wire bytes that a received CANFrame keeps until its lists are first read.";
    static PyType_Slot wire_slots[] = {{Py_tp_doc, wire_doc}, {0, nullptr}};
    g_wire_type = newType("pytorvik._CANFrameWire", sizeof(FrameWire), Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, wire_slots);
    m.attr("_CANFrameWire") = py::handle(reinterpret_cast<PyObject*>(g_wire_type));
    PyClass frame(m, "CANFrame", py::make_tuple(py::handle(reinterpret_cast<PyObject*>(g_wire_type))),
                  "A CAN frame: identifier, format and remote flags, eight data bytes, and its 12-byte wire form.",
                  py::make_tuple("id", "id_format", "remote", "data", "id_in_list", "frame_in_list", "__dict__", "__weakref__"));
    frame
        .def("__init__", &frameInit, py::arg("id_"), py::arg("id_format") = 0, py::arg("remote") = 0,
             py::arg("data") = py::list(py::make_tuple(0, 0, 0, 0, 0, 0, 0, 0)))
        .def("__str__",
             [](py::handle self) {
                 return py::str("CANFrame(id={}, id_format={}, remote={}, data={})")
                     .format(self.attr("id"), self.attr("id_format"), self.attr("remote"), self.attr("data"));
             })
        // As __str__, with the identifier in hex, as CAN tools show it.
        .def("__repr__",
             [](py::handle self) {
                 py::object id = self.attr("id");
                 py::object shown = PyLong_Check(id.ptr()) ? py::module_::import("builtins").attr("hex")(id) : py::repr(id);
                 return py::str("CANFrame(id={}, id_format={!r}, remote={!r}, data={!r})")
                     .format(shown, self.attr("id_format"), self.attr("remote"), self.attr("data"));
             })
        .def("regularizeData", [](py::handle, py::handle data) { return regularizeData(data); }, py::arg("data"))
        .def("setID", [](py::handle self) { setID(self); })
        .def("__getstate__", &frameState);
    py::setattr(frame.object(), "fromU8List",
                py::module_::import("builtins").attr("classmethod")(py::cpp_function(&fromU8List, py::name("fromU8List"))));
    g_frame_class = frame.object();
    g_frame_state = new FrameClassState();
    // __setattr__ is not the class's own: a script that gives it one gets its frames through it.
    for (const char* name : {"__init__", "setID", "regularizeData", "fromU8List", "__setattr__"}) {
        py::str key = py::str(name);
        PyObject* fn = PyDict_GetItemWithError(reinterpret_cast<PyTypeObject*>(frame.object().ptr())->tp_dict, key.ptr());
        if (fn == nullptr && PyErr_Occurred()) throw py::error_already_set();
        g_frame_state->originals.emplace_back(key, py::reinterpret_borrow<py::object>(fn));
    }
    const char* fields[6] = {"id", "id_format", "remote", "data", "id_in_list", "frame_in_list"};
    for (int i = 0; i < 6; ++i) {
        PyObject* interned = PyUnicode_InternFromString(fields[i]);
        if (interned == nullptr) throw py::error_already_set();
        g_frame_state->names[i] = py::reinterpret_steal<py::object>(interned);
    }
    auto* frame_type = reinterpret_cast<PyTypeObject*>(frame.object().ptr());
    installLazyLists(frame_type, g_frame_state->names, g_frame_state->offsets);
    for (const auto& name : g_frame_state->names)
        g_frame_state->originals.emplace_back(name, py::reinterpret_borrow<py::object>(PyDict_GetItem(frame_type->tp_dict, name.ptr())));

    py::class_<CANCore, std::shared_ptr<CANCore>>(m, "_CANCore");
    PyClass can(m, "CANModule", py::make_tuple(m.attr("Packet")), "A CAN port: set-up, writes, acceptance filters and received frames.");
    can.def("__init__", &canInit, py::arg("can_dict"))
        .property(
            "can_killed", [](py::handle self) { return canCore(self).killed.load(); },
            [](py::handle self, py::handle v) { canCore(self).killed = py::bool_(py::reinterpret_borrow<py::object>(v)); },
            "True ends the worker.");
    const auto port = py::arg("port");
    const auto falsy = py::arg("remote") = false;
    defOp(can, "CAN_open_async", &canOpen, port);
    defOp(can, "CAN_close_async", &canClose, port);
    defOp(can, "CAN_write_async", &canWrite, port, py::arg("id_"), py::arg("data"), falsy, py::arg("id_format") = false);
    defOp(can, "CAN_read_async", &canRead, port, py::arg("num_frames"), py::arg("delay") = 0.005);
    defOp(can, "CAN_start_async", &canStart, port);
    defOp(can, "CAN_stop_async", &canStop, port);
    defOp(can, "CAN_setSpeed_async", &canSetSpeed, port, py::arg("mode"));
    defOp(can, "CAN_setRXFilteringOn_async", &canSetRXFilteringOn, port, py::arg("status"));
    defOp(can, "CAN_setRXFilterOrMask_async", &canSetRXFilterOrMask, port, py::arg("index"), py::arg("id_"), py::arg("data"), falsy,
          py::arg("id_format") = false);
    defOp(can, "_CAN_setEnableInterrupt_async", &canSetEnableInterrupt, port, py::arg("status"));
    defOp(can, "_CAN_setTXPriority_async", &canSetTXPriority, port, py::arg("tx_mode"), py::arg("priority_mode"));
    defOp(can, "_CAN_setRXRollover_async", &canSetRXRollover, port, py::arg("status"));
    defOp(can, "_CAN_getInterrupts_async", &canGetInterrupts, port);
    defOp(can, "_CAN_getErrors_async", &canGetErrors, port);
    defOp(can, "_CAN_getCounters_async", &canGetCounters, port);
    defOp(can, "_checkCANPinState_async", &canCheckPinState, port, py::arg("allow_state"));
    can.def("CAN_getPinMap", [](py::handle self) { return self.attr("can_dict"); })
        .def("_CAN_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "can_dict", p); }, py::arg("CAN_port"))
        .def("_checkCANPort", [](py::handle self, py::handle p) { canPort(self, p); return true; }, port)
        .def("_checkCANSpeed", [](py::handle, py::handle v) { checkInList(v, {0, 1, 2, 3}, "CANSpeedNotVaildError"); return true; },
             py::arg("speed"))
        .def("_checkCANDataRangeAndLength", [](py::handle, py::handle d) { checkDataRangeAndLength(d); return true; }, py::arg("data"))
        .def("_CAN_free", [](py::handle self) { canFree(self); })
        .def("_CANStreamThread", &canStreamThread, py::arg("queue_"));
    // Bound as methods are, so that an instance hands itself over as the first argument.
    for (auto [name, fn] : {std::pair{"_checkCANTXIndex", receiverless("_checkCANTXIndex", {0, 1, 2}, "CANTXNotVaildError")},
                            std::pair{"_checkCANTXPriority",
                                      receiverless("_checkCANTXPriority", {0, 1, 2, 3}, "CANTXPriorityNotVaildError")}})
        py::setattr(can.object(), name, py::reinterpret_steal<py::object>(PyInstanceMethod_New(fn.ptr())));
}

}  // namespace torvik::py_binding
