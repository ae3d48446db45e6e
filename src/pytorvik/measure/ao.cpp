// AOModule: direct analog output and the set-up of the unit's waveform generator. The host only
// configures: no data flows while a waveform runs, so the module has no thread and no queue.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

void checkMode(py::handle mode) { checkInList(mode, {0, 1, 2}, "AOModeNotVaildError"); }
void checkForm(py::handle form) { checkInList(form, {1, 2, 3}, "AOFormNotAvaliableError"); }
void checkChannel(py::handle channel) { checkInList(channel, {0, 1, 2, 3, 4, 5, 6, 7}, "AOChannelNotAvaliableError"); }
void checkSpan(py::handle span) { checkInList(span, {0, 1, 2, 3, 4}, "AOSpanNotVaildError"); }
void checkAOPort(py::handle self, py::handle port) { checkTablePort(self, "ao_dict", port, "AOPortNotAvaliableError"); }

py::object number() {
    return py::make_tuple(py::handle(reinterpret_cast<PyObject*>(&PyLong_Type)), py::handle(reinterpret_cast<PyObject*>(&PyFloat_Type)));
}
py::object intOrListType() { return intOrList(); }
py::object listType() { return py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyList_Type)); }

bool classIs(py::handle self, const char* name) { return std::string(py::str(py::type::handle_of(self).attr("__name__"))) == name; }

py::list single(py::handle v) { return moduleObject().attr("convertF32To4U8")(v); }
py::list u32(py::handle v) { return moduleObject().attr("convertU32To4U8")(v); }

void checkRange(py::handle self, py::handle values) {
    moduleObject().attr("checkEachItemInRange")(values, self.attr("ao_volt_min"), self.attr("ao_volt_max"));
}

Co<> statusOp(py::object self, long long cmd, py::list data_out, long long index) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return statusTail(data_in, index);
}

void checkPort(py::handle self, py::handle port) {
    checkInputType(port, intType());
    checkAOPort(self, port);
}

py::list portOnly(py::handle port) { return Payload().byte(port).list(); }

Co<> aoCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "ao_dict", "_AO_getPinMapPort", port, allow_state, "AOPortNotAvaliableError");
}

Co<> aoOpen(py::object self, py::object port) {
    checkPort(self, port);
    if (!classIs(self, "TorvikLanOutput")) {
        co_await aio::awaitObject(self.attr("_checkAOPinState_async")(port, oneOf("Idle")));
    }
    co_return co_await statusOp(self, w::OPEN_AO, portOnly(port), 1);
}

Co<> aoClose(py::object self, py::object port) {
    checkPort(self, port);
    if (classIs(self, "TorvikLanOutput")) co_return py::int_(0);
    co_return co_await statusOp(self, w::CLOSE_AO, portOnly(port), 1);
}

Co<> writeOneChannel(py::object self, py::object port, py::object channel, py::object AO_value) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(AO_value, number());
    checkAOPort(self, port);
    checkChannel(channel);
    py::list values;
    values.append(AO_value);
    checkRange(self, values);
    co_return co_await statusOp(self, w::WRITE_AO_BY_CHANNEL, Payload().byte(port).byte(channel).extend(single(AO_value)).list(), 1);
}

Co<> writeAllChannels(py::object self, py::object port, py::object AO_value) {
    checkInputType(port, intType());
    checkInputType(AO_value, listType());
    checkAOPort(self, port);
    checkRange(self, AO_value);
    Payload p;
    p.byte(port);
    py::list values = moduleObject().attr("adjustDataList")(AO_value);
    long long channels = self.attr("ao_channel").cast<long long>();
    for (long long i = 0; i < channels; ++i) p.extend(single(values[py::int_(i)]));
    co_return co_await statusOp(self, w::WRITE_AO_SYNCHRONIZED, p.list(), 1);
}

Co<> getValues(py::object self, py::object port) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, w::GET_AO_VALUES, portOnly(port));
    py::list d = slice(data_in, 2), out;
    py::object to_f32 = moduleObject().attr("convert4U8ToF32");
    for (int i = 0; i < 8; ++i) out.append(to_f32(d[py::slice(py::int_(i * 4), py::int_((i + 1) * 4), py::none())]));
    co_return out;
}

Co<> openStreaming(py::object self, py::object port) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, w::OPEN_AO_STREAMING, portOnly(port));
    py::list out;
    out.append(replyByte(data_in, 1));
    out.append(moduleObject().attr("convert4U8ToF32")(slice(data_in, 2)));
    co_return out;
}

Co<> startStreaming(py::object self, py::object port) {
    checkPort(self, port);
    co_await aio::awaitObject(self.attr("_sendPacketWithoutReply")(py::int_(static_cast<long long>(w::START_AO_STREAMING)), portOnly(port)));
    co_return py::int_(0);
}

Co<> stopStreaming(py::object self, py::object port) {
    checkPort(self, port);
    co_return co_await statusOp(self, w::STOP_AO_STREAMING, portOnly(port), 1);
}

Co<> closeStreaming(py::object self, py::object port) {
    checkPort(self, port);
    co_return co_await statusOp(self, w::CLOSE_AO_STREAMING, portOnly(port), 1);
}

Co<> setMode(py::object self, py::object port, py::object mode) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    checkAOPort(self, port);
    checkMode(mode);
    co_return co_await statusOp(self, w::SET_AO_MODE, Payload().byte(port).byte(mode).list(), 1);
}

Co<> setSamplingRate(py::object self, py::object port, py::object sampling_rate) {
    checkInputType(port, intType());
    checkInputType(sampling_rate, number());
    checkAOPort(self, port);
    co_return co_await statusOp(self, w::SET_AO_SAMPLING_RATE, Payload().byte(port).extend(single(sampling_rate)).list(), 1);
}

Co<> setNumSamples(py::object self, py::object port, py::object sample_points) {
    checkInputType(port, intType());
    checkInputType(sample_points, intType());
    checkAOPort(self, port);
    co_return co_await statusOp(self, w::SET_AO_NUM_SAMPLES, Payload().byte(port).extend(u32(sample_points)).list(), 1);
}

Co<> setEnableChannels(py::object self, py::object port, py::object channel) {
    checkInputType(port, intType());
    checkInputType(channel, intOrListType());
    checkAOPort(self, port);
    checkChannel(channel);  // a list never passes: the check is by index, the wire takes a mask
    py::object channel_int = Py_TYPE(channel.ptr()) == &PyList_Type ? indexListToInt(channel) : py::object(u16To2U8(channel)[1]);
    co_return co_await statusOp(self, w::SET_AO_ENABLED_CHANNELS, Payload().byte(port).byte(0).byte(channel_int).list(), 1);
}

Co<> setForm(py::object self, py::object port, py::object channel, py::object form) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    checkInputType(form, intType());
    checkAOPort(self, port);
    checkForm(form);
    checkChannel(channel);
    co_return co_await statusOp(self, w::SET_AO_FORM, Payload().byte(port).byte(0).byte(channel).byte(form).list(), 3);
}

Co<> setFormParam(py::object self, py::object port, py::object channel, py::object amplitude, py::object offset, py::object period) {
    checkInputType(port, intType());
    checkInputType(channel, intType());
    for (const py::object& v : {amplitude, offset, period}) checkInputType(v, number());
    checkAOPort(self, port);
    checkChannel(channel);
    Payload p;
    p.byte(port).byte(0).byte(channel).extend(single(amplitude)).extend(single(offset)).extend(single(period));
    co_return co_await statusOp(self, w::SET_AO_FORM_PARAM, p.list(), 3);
}

Co<> initialBuffer(py::object self, py::object port) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, w::INIT_AO_BUFFER, portOnly(port));
    py::list out;
    out.append(moduleObject().attr("convert4U8ToU32")(slice(data_in, 1, 5)));
    out.append(replyByte(data_in, 5));
    co_return out;
}

Co<> pushToBuffer(py::object, py::object) { co_return py::int_(0); }

Co<> getCounters(py::object self, py::object port) {
    checkPort(self, port);
    py::object data_in = co_await exchange(self, w::GET_AO_COUNTERS, portOnly(port));
    py::list d = slice(data_in, 1), out;
    py::object to_u32 = moduleObject().attr("convert4U8ToU32");
    for (int i = 0; i < 2; ++i) out.append(to_u32(d[py::slice(py::int_(i * 4), py::int_((i + 1) * 4), py::none())]));
    co_return out;
}

Co<> setSpan(py::object self, py::object port, py::object span) {
    checkInputType(port, intType());
    checkInputType(span, intType());
    checkAOPort(self, port);
    checkSpan(span);
    co_return co_await statusOp(self, w::SET_AO_SPAN, portOnly(port), 1);  // the span itself is not sent
}

}  // namespace

void bindAOModule(py::module_& m) {
    PyClass ao(m, "AOModule", py::make_tuple(m.attr("Packet")), "Analog output: direct writes and the unit's waveform generator.");
    ao.def(
        "__init__",
        [](py::handle self, py::handle ao_dict, py::handle ao_volt_min, py::handle ao_volt_max, py::handle ao_channel) {
            self.attr("ao_dict") = ao_dict;
            self.attr("ao_volt_min") = ao_volt_min;
            self.attr("ao_volt_max") = ao_volt_max;
            self.attr("ao_channel") = ao_channel;
        },
        py::arg("ao_dict"), py::arg("ao_volt_min"), py::arg("ao_volt_max"), py::arg("ao_channel"));
    const auto port = py::arg("port");
    const auto channel = py::arg("channel");
    defOp(ao, "AO_open_async", &aoOpen, port);
    defOp(ao, "AO_close_async", &aoClose, port);
    defOp(ao, "AO_writeOneChannel_async", &writeOneChannel, port, channel, py::arg("AO_value"));
    defOp(ao, "AO_writeAllChannels_async", &writeAllChannels, port, py::arg("AO_value"));
    defOp(ao, "AO_getValues_async", &getValues, port);
    defOp(ao, "AO_openStreaming_async", &openStreaming, port);
    defOp(ao, "AO_startStreaming_async", &startStreaming, port);
    defOp(ao, "AO_stopStreaming_async", &stopStreaming, port);
    defOp(ao, "AO_closeStreaming_async", &closeStreaming, port);
    defOp(ao, "AO_setMode_async", &setMode, port, py::arg("mode"));
    defOp(ao, "AO_setSamplingRate_async", &setSamplingRate, port, py::arg("sampling_rate"));
    defOp(ao, "AO_setNumSamples_async", &setNumSamples, port, py::arg("sample_points"));
    defOp(ao, "AO_setEnableChannels_async", &setEnableChannels, port, channel);
    defOp(ao, "AO_setForm_async", &setForm, port, channel, py::arg("form"));
    defOp(ao, "AO_setFormParam_async", &setFormParam, port, channel, py::arg("amplitude"), py::arg("offset"), py::arg("period"));
    defOp(ao, "_AO_initialBuffer_async", &initialBuffer, port);
    defOp(ao, "_AO_PushToBuffer_async", &pushToBuffer, port);
    defOp(ao, "_AO_getCounters_async", &getCounters, port);
    defOp(ao, "_AO_setSpan_async", &setSpan, port, py::arg("span"));
    defOp(ao, "_checkAOPinState_async", &aoCheckPinState, port, py::arg("allow_state"));
    ao.def("AO_getPort", [](py::handle self) { return self.attr("ao_dict").attr("keys")(); })
        .def("_checkAOPort", [](py::handle self, py::handle p) { checkAOPort(self, p); return true; }, port)
        .def("_checkAOMode", [](py::handle, py::handle v) { checkMode(v); return true; }, py::arg("mode"))
        .def("_checkAOForm", [](py::handle, py::handle v) { checkForm(v); return true; }, py::arg("form"))
        .def("_checkAOChannel", [](py::handle, py::handle v) { checkChannel(v); return true; }, channel)
        .def("_checkAOSpan", [](py::handle, py::handle v) { checkSpan(v); return true; }, py::arg("span"))
        .def("_AO_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "ao_dict", p); }, py::arg("AO_port"));
}

}  // namespace torvik::py_binding
