#include <memory>

#include "bindings.hpp"
#include "transport/client.hpp"

namespace torvik::py_binding {

namespace {

std::span<const std::uint8_t> bufferBytes(const py::buffer_info& info) {
    return {static_cast<const std::uint8_t*>(info.ptr), static_cast<std::size_t>(info.size * info.itemsize)};
}

py::bytes toBytes(std::span<const std::uint8_t> v) { return py::bytes(reinterpret_cast<const char*>(v.data()), v.size()); }

}  // namespace

std::vector<std::uint8_t> bytesOf(py::handle obj) {
    PyObject* b = PyBytes_FromObject(obj.ptr());
    if (b == nullptr) throw py::error_already_set();
    auto owned = py::reinterpret_steal<py::bytes>(b);
    std::string_view v = owned;
    return {v.begin(), v.end()};
}

py::list packetsToList(const std::vector<wire::Packet>& packets) {
    py::list out(packets.size());
    for (std::size_t i = 0; i < packets.size(); ++i) out[i] = py::make_tuple(packets[i].cmd, toBytes(packets[i].data));
    return out;
}

void bindClient(py::module_& m) {
    using transport::Client;
    py::class_<Client, std::shared_ptr<Client>>(m, "Client", py::dynamic_attr(),
                                                 "Owner of a received byte stream and its framing into packets.")
        .def(py::init<>())
        .def_property(
            "stream", [](Client& c) { return c.withStream([](auto& s) { return toBytes(s.stream()); }); },
            [](Client& c, const py::buffer& b) {
                py::buffer_info info = b.request();
                c.withStream([&](auto& s) { s.setStream(bufferBytes(info)); });
            },
            "Received bytes not yet consumed by a recognised frame.")
        .def_property(
            "last_index", [](Client& c) { return c.withStream([](auto& s) { return s.lastIndex(); }); },
            [](Client& c, long long v) { c.withStream([&](auto& s) { s.setLastIndex(v); }); },
            "Offset in stream where the next terminator search starts.")
        .def(
            "_splitPacket",
            [](Client& c) { return packetsToList(c.withStream([](auto& s) { return s.split(); })); },
            "Consumes every frame recognisable now; returns the (cmd, data) packets in stream order.");
}

}  // namespace torvik::py_binding
