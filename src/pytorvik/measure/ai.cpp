// AIModule: analog input, on demand and streamed. A worker thread of the module's own cuts the
// raw stream payloads into frames for the reader's queue; it passes a gate that stands closed
// while the port is, and its body runs in the engine without the GIL.
#include <atomic>

#include "measure/signal_queue.hpp"
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

// What the worker shares with the handle: its kill flag and the reader's queue.
struct AICore {
    std::atomic<bool> killed{false};
    py::object signal_queue;  // the SignalQueue object, made in the constructor
};

AICore& aiCore(py::handle self) { return py::cast<AICore&>(self.attr("_ai_core")); }

bool classIs(py::handle self, std::initializer_list<const char*> names) {
    std::string name = py::str(py::type::handle_of(self).attr("__name__"));
    for (const char* n : names)
        if (name == n) return true;
    return false;
}

void checkAIPort(py::handle self, py::handle port) { checkTablePort(self, "ai_dict", port, "AIPortNotAvaliableError"); }

void checkPort(py::handle self, py::handle port) {
    checkInputType(port, intType());
    checkAIPort(self, port);
}

py::object intOrFloat() {
    return py::make_tuple(py::handle(reinterpret_cast<PyObject*>(&PyLong_Type)), py::handle(reinterpret_cast<PyObject*>(&PyFloat_Type)));
}

Co<> statusOp(py::object self, long long cmd, py::list data_out) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return statusTail(data_in, 1);
}

py::list portOnly(py::handle port) { return Payload().byte(port).list(); }

Co<> aiOpen(py::object self, py::object port) {
    checkPort(self, port);
    if (classIs(self, {"TorvikAirAnalog", "TorvikLanAnalog"})) {
        self.attr("ai_lock").attr("release")();
        co_return py::int_(0);
    }
    py::object data_in = co_await exchange(self, w::OPEN_AI, portOnly(port));
    py::object status = replyByte(data_in, 1);
    py::object result = statusTail(data_in, 1);
    if (status.equal(py::int_(0))) self.attr("ai_lock").attr("release")();
    co_return result;
}

void closeGate(py::handle self) {
    self.attr("ai_lock").attr("acquire")();  // blocks for ever when the gate is already closed
    self.attr("ai_data_queue").attr("put")(py::none());  // wakes a worker asleep in its get
}

Co<> aiClose(py::object self, py::object port) {
    checkPort(self, port);
    if (classIs(self, {"TorvikAirAnalog", "TorvikLanAnalog"})) {
        closeGate(self);
        co_return py::int_(0);
    }
    py::object data_in = co_await exchange(self, w::CLOSE_AI, portOnly(port));
    py::object status = replyByte(data_in, 1);
    py::object result = statusTail(data_in, 1);
    if (status.equal(py::int_(0))) closeGate(self);
    co_return result;
}

void checkRate(py::handle self, py::handle rate) {
    if (py::reinterpret_borrow<py::object>(rate) > self.attr("ai_max_rate")) raiseError("AIRateNotVaildError");
}

void checkMode(py::handle mode) { checkInList(mode, {0, 1, 2}, "AIModeNotAvaliableError"); }

Co<> aiSetSamplingRate(py::object self, py::object port, py::object sampling_rate) {
    checkInputType(port, intType());
    checkInputType(sampling_rate, intOrFloat());
    checkAIPort(self, port);
    checkRate(self, sampling_rate);
    py::list data_out = Payload().byte(port).extend(moduleObject().attr("convertF32To4U8")(sampling_rate)).list();
    co_return co_await statusOp(self, w::SET_AI_SAMPLING_RATE, data_out);
}

Co<> aiSetMode(py::object self, py::object port, py::object mode) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    checkAIPort(self, port);
    checkMode(mode);
    co_return co_await statusOp(self, w::SET_AI_MODE, Payload().byte(port).byte(mode).list());
}

Co<> aiSetNumSamples(py::object self, py::object port, py::object sample_points) {
    checkInputType(port, intType());
    checkInputType(sample_points, intType());
    checkAIPort(self, port);
    py::list data_out = Payload().byte(port).extend(moduleObject().attr("convertU32To4U8")(sample_points)).list();
    co_return co_await statusOp(self, w::SET_AI_NUM_SAMPLES, data_out);
}

Co<> aiOpenStreaming(py::object self, py::object port) {
    co_await exchange(self, w::OPEN_AI_STREAMING, portOnly(port));  // the reply's content is not read
    co_return py::int_(0);
}

Co<> aiStart(py::object self, py::object port) {
    checkPort(self, port);
    if (!classIs(self, {"TorvikAirAnalog"})) co_await aio::awaitObject(self.attr("_AI_openStreaming_async")(port));
    co_await aio::awaitObject(self.attr("_sendPacketWithoutReply")(self.attr("ai_strm_cmd"), portOnly(port)));
    co_return py::int_(0);
}

Co<> aiStop(py::object self, py::object port) {
    checkPort(self, port);
    co_return co_await statusOp(self, w::CLOSE_AI_STREAMING, portOnly(port));
}

Co<> aiClearBufferStatus(py::object self, py::object port) {
    checkPort(self, port);
    co_return co_await statusOp(self, w::CLEAR_DATA, portOnly(port));
}

Co<> aiReadBufferStatus(py::object self, py::object port) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, w::CHECK_BUFFER_STATUS, portOnly(port));
    py::list d = slice(data_in, 1), out;
    py::object to_u32 = moduleObject().attr("convert4U8ToU32");
    for (int i = 0; i < 4; ++i) out.append(to_u32(d[py::slice(py::int_(i * 4), py::int_((i + 1) * 4), py::none())]));
    co_return out;
}

Co<> aiReadStreaming(py::object self, py::object port, py::object num_samples, py::object delay) {
    checkPort(self, port);
    co_return co_await aio::awaitObject(self.attr("_getStreamingFromPool_async")(self.attr("ai_signal_queue"), num_samples, delay));
}

Co<> aiReadOnDemand(py::object self, py::object port) {
    checkPort(self, port);
    py::object cmd = self.attr("ai_echo_cmd");
    Payload p;
    if (cmd.equal(py::int_(static_cast<long long>(w::READ_AI_ON_DEMAND)))) p.byte(0);
    py::object data_in = co_await aio::awaitObject(self.attr("_echoPacketWithRetry_async")(cmd, p.byte(port).list()));
    py::list raw = slice(data_in, 2), sample;
    py::object round = py::module_::import("builtins").attr("round");
    py::object ratio = self.attr("ai_ratio");
    long long channels = self.attr("ai_num_channels").cast<long long>();
    for (long long i = 0; i < channels; ++i) {
        py::object value = u8x2ToI16(raw[py::slice(py::int_(i * 2), py::int_((i + 1) * 2), py::none())]);
        sample.append(round(value * ratio, 4));
    }
    co_return sample;
}

Co<> aiCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "ai_dict", "_AI_getPinMapPort", port, allow_state, "AIPortNotAvaliableError", true);
}

void aiStreamThread(py::handle self, py::handle queue_) {
    AICore& core = aiCore(self);
    const SignalQueue& signal = *signalQueueOf(core.signal_queue);
    std::string shape = "(" + std::to_string(signal.queue->recordSize() / 2) + ",2)";
    runWorkerThread(core.killed, self.attr("ai_lock"), queue_, signal, "AIQueueOverflowWarning", shape.c_str());
}

void aiInit(py::handle self, py::handle ai_dict, py::handle ai_max_rate, py::handle ai_ratio, py::handle ai_num_channels,
            py::handle ai_variable) {
    self.attr("ai_dict") = ai_dict;
    self.attr("ai_max_rate") = ai_max_rate;
    self.attr("ai_ratio") = ai_ratio;
    self.attr("ai_num_channels") = ai_num_channels;
    const bool variable = py::bool_(py::reinterpret_borrow<py::object>(ai_variable));
    self.attr("ai_echo_cmd") = py::int_(static_cast<long long>(variable ? w::READ_AI_ON_DEMAND_VARIABLE : w::READ_AI_ON_DEMAND));
    self.attr("ai_strm_cmd") = py::int_(static_cast<long long>(variable ? w::START_AI_STREAMING_VARIABLE : w::START_AI_STREAMING));
    self.attr("ai_data_queue") = self.attr("data_pool_strm")[self.attr("ai_strm_cmd")];
    // The reader's queue exists before the worker starts (the worker finds it in the core), but
    // becomes the handle's field last, in the constructor's order.
    auto core = std::make_shared<AICore>();
    const auto channels = py::cast<std::size_t>(ai_num_channels);
    core->signal_queue = makeSignalQueue(2 * channels, w::QUEUE_SIZE_MAX, aiDecoder(py::cast<double>(ai_ratio), channels));
    self.attr("_ai_core") = py::cast(core);
    self.attr("ai_killed") = false;
    self.attr("ai_lock") = newGate(true);
    self.attr("ai_stream_thread") = startNamedThread(self.attr("_AIStreamThread"), py::make_tuple(self.attr("ai_data_queue")));
    self.attr("ai_signal_queue") = core->signal_queue;
}

void aiFree(py::handle self) {
    self.attr("ai_killed") = true;
    self.attr("ai_lock").attr("acquire")(false);
    self.attr("ai_data_queue").attr("put")(py::none());
    self.attr("ai_lock").attr("release")();
}

}  // namespace

void bindAIModule(py::module_& m) {
    py::class_<AICore, std::shared_ptr<AICore>>(m, "_AICore");
    PyClass ai(m, "AIModule", py::make_tuple(m.attr("Packet")), "Analog input: on-demand reads and streamed acquisition.");
    ai.def("__init__", &aiInit, py::arg("ai_dict"), py::arg("ai_max_rate"), py::arg("ai_ratio"), py::arg("ai_num_channels"),
           py::arg("ai_variable"))
        .property(
            "ai_killed", [](py::handle self) { return aiCore(self).killed.load(); },
            [](py::handle self, py::handle v) { aiCore(self).killed = py::bool_(py::reinterpret_borrow<py::object>(v)); },
            "True ends the worker.");
    const auto port = py::arg("port");
    defOp(ai, "AI_open_async", &aiOpen, port);
    defOp(ai, "AI_close_async", &aiClose, port);
    defOp(ai, "AI_setSamplingRate_async", &aiSetSamplingRate, port, py::arg("sampling_rate"));
    defOp(ai, "AI_setMode_async", &aiSetMode, port, py::arg("mode"));
    defOp(ai, "AI_setNumSamples_async", &aiSetNumSamples, port, py::arg("sample_points"));
    defOp(ai, "AI_start_async", &aiStart, port);
    defOp(ai, "AI_stop_async", &aiStop, port);
    defOp(ai, "AI_readBufferStatus_async", &aiReadBufferStatus, port);
    defOp(ai, "AI_clearBufferStatus_async", &aiClearBufferStatus, port);
    defOp(ai, "AI_readStreaming_async", &aiReadStreaming, port, py::arg("num_samples"), py::arg("delay") = 0.005);
    defOp(ai, "AI_readOnDemand_async", &aiReadOnDemand, port);
    defOp(ai, "_AI_openStreaming_async", &aiOpenStreaming, port);
    defOp(ai, "_checkAIPinState_async", &aiCheckPinState, port, py::arg("allow_state"));
    ai.def("AI_getPort", [](py::handle self) { return self.attr("ai_dict").attr("keys")(); })
        .def("_checkAIPort", [](py::handle self, py::handle p) { checkAIPort(self, p); return true; }, port)
        .def("_ckeckAISamplingRate", [](py::handle self, py::handle r) { checkRate(self, r); return true; }, py::arg("sampling_rate"))
        .def("_checkAIMode", [](py::handle, py::handle mode) { checkMode(mode); return true; }, py::arg("mode"))
        .def("_AI_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "ai_dict", p); }, py::arg("AI_port"))
        .def("_AI_free", [](py::handle self) { aiFree(self); })
        .def("_AIStreamThread", &aiStreamThread, py::arg("queue_"));
}

}  // namespace torvik::py_binding
