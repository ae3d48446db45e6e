// Packet: the request/reply layer every module class derives from. It has no state of its own;
// it uses the client and the pools of the connection base in the same object.
#include <type_traits>
#include <unordered_map>

#include "aio/op.hpp"
#include "device/reply_taker.hpp"
#include "args.hpp"
#include "device/device_binding.hpp"
#include "exact_cast.hpp"
#include "measure/signal_queue.hpp"
#include "pyclass.hpp"
#include "transport/client.hpp"
#include "transport/network_client.hpp"
#include "transport/usb_backend.hpp"
#include "transport/usb_client.hpp"
#include "wire/commands.hpp"
#include "wire/frame.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;
using aio::Co;

// Attribute names looked up on every request, made once: building a str per lookup is a
// measurable share of a blocking round trip. Kept until the interpreter ends.
struct Names {
    py::str client_cmd, data_pool_echo, core, recv_cmd_lock;
};
const Names& names() {
    static const Names* n = [] {
        auto interned = [](const char* text) {
            PyObject* s = PyUnicode_InternFromString(text);
            if (s == nullptr) throw py::error_already_set();
            return py::reinterpret_steal<py::str>(s);
        };
        return new Names{interned("client_cmd"), interned("data_pool_echo"), interned("_core"), interned("recv_cmd_lock")};
    }();
    return *n;
}

// Python classes of our own transports (exactly those, not a script's subclasses): their
// sendPacket is called in the engine directly. Each with the way to its engine client.
struct EngineClientType {
    std::shared_ptr<transport::Client> (*client)(py::handle);
    bool usb;
};
std::unordered_map<PyTypeObject*, EngineClientType>& engineClientTypes() {
    static auto* types = new std::unordered_map<PyTypeObject*, EngineClientType>();
    return *types;
}

template <class T>
std::shared_ptr<transport::Client> engineClient(py::handle h) {
    const std::shared_ptr<T>* held = exactHolder<T>(h);
    return held != nullptr ? *held : py::cast<std::shared_ptr<transport::Client>>(h);
}

template <class T>
void addEngineClientType(py::module_& m, const char* name) {
    engineClientTypes()[reinterpret_cast<PyTypeObject*>(m.attr(name).ptr())] =
        EngineClientType{&engineClient<T>, std::is_same_v<T, transport::UsbClient>};
}

std::optional<std::vector<std::uint8_t>> smallBytes(py::handle data) {
    std::vector<std::uint8_t> out;
    if (PyBytes_Check(data.ptr())) {
        auto* p = reinterpret_cast<const std::uint8_t*>(PyBytes_AS_STRING(data.ptr()));
        return std::vector<std::uint8_t>(p, p + PyBytes_GET_SIZE(data.ptr()));
    }
    if (!PyList_Check(data.ptr())) return std::nullopt;
    Py_ssize_t n = PyList_GET_SIZE(data.ptr());
    out.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = PyList_GET_ITEM(data.ptr(), i);
        if (!PyLong_Check(item)) return std::nullopt;
        long v = PyLong_AsLong(item);
        if (v < 0 || v > 255) {
            PyErr_Clear();
            return std::nullopt;
        }
        out.push_back(static_cast<std::uint8_t>(v));
    }
    return out;
}

std::optional<std::uint16_t> smallCode(py::handle cmd) {
    if (!PyLong_Check(cmd.ptr())) return std::nullopt;
    long v = PyLong_AsLong(cmd.ptr());
    if (v < 0 || v > 0xFFFF) {
        PyErr_Clear();
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(v);
}

// _preparePacket as the builder does it, on Python values.
py::list preparePacket(py::handle cmd, py::handle data_out) {
    py::module_& mod = moduleObject();
    py::list pkt;
    pkt.append(py::int_(w::CMD_STX));
    for (py::handle b : mod.attr("convertU16To2U8")(py::len(data_out) + 1)) pkt.append(b);
    if (py::reinterpret_borrow<py::object>(cmd) < py::int_(256))
        pkt.append(cmd);
    else
        for (py::handle b : mod.attr("convertU16To2U8")(cmd)) pkt.append(b);
    for (py::handle b : py::reinterpret_borrow<py::iterable>(data_out)) pkt.append(b);
    pkt.append(py::int_(w::CMD_CR));
    pkt.append(py::int_(w::CMD_LF));
    return pkt;
}

// Frames and sends a command through client_cmd. Our own transports are called in the engine
// with the GIL released; a USB transfer goes out on the client's sender thread while the loop
// runs on (it takes a millisecond or more, and a loop that drives several units would otherwise
// wait for each of them in turn). Anything else goes through its Python sendPacket.
Co<> sendCommand(py::object self, py::object cmd, py::object data_out) {
    py::object client = self.attr(names().client_cmd);
    const auto& types = engineClientTypes();
    if (auto type = types.find(Py_TYPE(client.ptr())); type != types.end()) {
        auto code = smallCode(cmd);
        auto payload = code ? smallBytes(data_out) : std::nullopt;
        if (payload) {
            auto frame = w::buildFrame(*code, *payload);
            auto transport = type->second.client(client);
            if (type->second.usb) {
                auto usb = std::static_pointer_cast<transport::UsbClient>(transport);
                if (py::object loop = aio::currentLoop(); !loop.is_none()) {
                    co_await aio::awaitCompletion(loop, [&usb, &frame](aio::Finished done) {
                        usb->sendPacketLater(std::move(frame), std::move(done));
                    });
                    co_return py::none();
                }
            }
            {
                py::gil_scoped_release nogil;
                transport->sendPacket(frame);
            }
            co_return py::none();
        }
    }
    client.attr("sendPacket")(self.attr("_preparePacket")(cmd, data_out));
    co_return py::none();
}

std::uint32_t replyCode(py::handle cmd) {
    if (!PyLong_Check(cmd.ptr())) throw py::type_error("command code must be an integer");
    return args::code(cmd);
}

std::optional<double> limitOf(py::handle timeout) {
    if (timeout.is_none()) return std::nullopt;
    return args::seconds(timeout);
}

// Under pytorvik.run, the waiting thread reads a network unit's replies from the command
// connection itself (see device::takeReading); elsewhere, and for other transports, nothing.
// Made before the request goes out.
aio::BlockingTake readingTake(py::handle self, const std::shared_ptr<device::EchoPool>& pool) {
    if (!aio::blocking()) return {};
    py::object core = py::getattr(self, names().core, py::none());
    py::object gate = py::getattr(self, names().recv_cmd_lock, py::none());
    const HandleCore* hc = exactly<HandleCore>(core);
    if (hc == nullptr && py::isinstance<HandleCore>(core)) hc = &py::cast<const HandleCore&>(core);
    if (hc == nullptr || (exactHolder<device::Gate>(gate) == nullptr && !py::isinstance<device::Gate>(gate))) return {};
    std::shared_ptr<transport::Client> slot = hc->cmd_slot->get();
    transport::NetworkClient* network = slot ? slot->network() : nullptr;
    // A script that swapped the pool waits on its own pool, which no read here fills.
    if (network == nullptr || hc->core->pools.echo != pool) return {};
    std::shared_ptr<transport::NetworkClient> client(std::move(slot), network);
    struct Reading {
        Reading(std::shared_ptr<transport::NetworkClient> c, const std::atomic<int>* awaited)
            : client(std::move(c)), taker(*client, awaited) {}
        std::shared_ptr<transport::NetworkClient> client;
        transport::NetworkClient::Taker taker;  // let go before its client
    };
    return [device_core = hc->core, reading = std::make_shared<Reading>(client, &pool->awaited()), gate = gateOf(gate)](
               std::uint32_t code, std::optional<std::chrono::nanoseconds> limit, device::AwaitedReply* announced) {
        return device::takeReading(device_core->pools, code, limit, announced, reading->taker, *gate);
    };
}

Co<> getReplyFromPool(py::object self, py::object cmd) {
    auto pool = echoPoolOf(self.attr(names().data_pool_echo));
    auto take = readingTake(self, pool);
    co_return co_await aio::awaitReply(pool, replyCode(cmd), std::nullopt, std::nullopt, std::move(take));
}

// One send and one wait; a time limit that runs out gives None.
Co<> echoPacket(py::object self, py::object cmd, py::object data_out, py::object timeout) {
    auto pool = echoPoolOf(self.attr(names().data_pool_echo));
    device::AwaitedReply announced(pool);
    auto take = readingTake(self, pool);
    co_await sendCommand(self, cmd, data_out);
    try {
        co_return co_await aio::awaitReply(pool, replyCode(cmd), limitOf(timeout), std::move(announced), std::move(take));
    } catch (const aio::TimedOut&) {
    }
    co_return py::none();
}

}  // namespace

Co<> echoPacketWithRetry(py::object self, py::object cmd, py::object data_out, py::object num_retries, py::object timeout) {
    py::object value = py::none();
    const py::object retry_timeout = py::int_(w::RETRY_TIMEOUT);
    int overflow = 1;
    const long long retries =
        PyLong_CheckExact(num_retries.ptr()) ? PyLong_AsLongLongAndOverflow(num_retries.ptr(), &overflow) : 0;
    if (overflow == 0) {
        // The usual count, counted here rather than in Python objects.
        for (long long count = 0; value.is_none() && count < retries; ++count)
            value = co_await echoPacket(self, cmd, data_out, retry_timeout);
    } else {
        py::object count = py::int_(0);
        while (value.is_none() && count < num_retries) {
            value = co_await echoPacket(self, cmd, data_out, retry_timeout);
            count = count + py::int_(1);
        }
    }
    if (!value.is_none()) co_return value;
    py::object remaining = py::module_::import("builtins").attr("max")(timeout - retry_timeout * num_retries, 0);
    auto pool = echoPoolOf(self.attr(names().data_pool_echo));
    bool timed_out = false;
    try {
        value = co_await aio::awaitReply(pool, replyCode(cmd), args::seconds(remaining), std::nullopt,
                                         readingTake(self, pool));
    } catch (const aio::TimedOut&) {
        timed_out = true;
    }
    if (timed_out) aio::raiseLoopTimeout();
    co_return value;
}

namespace {

Co<> sendPacketWithoutReply(py::object self, py::object cmd, py::object data_out) {
    co_return co_await sendCommand(self, cmd, data_out);
}

Co<> getStreamingFromPool(py::object, py::object queue_, py::object num_samples, py::object delay) {
    py::list data_list;
    co_await aio::sleep(args::sleepSeconds(delay));
    if (const SignalQueue* sq = signalQueueOf(queue_)) {
        // A reader's queue of ours: the frames asked for come out decoded in one step.
        long long n = static_cast<long long>(sq->queue->size());
        if (n == 0) co_return data_list;
        n = args::takeCount(num_samples, n);
        co_return takeDecoded(*sq, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    if (auto q = streamQueueOf(queue_)) {
        // Our own queue: take what is asked for in one step.
        long long n = static_cast<long long>(q->size());
        if (n == 0) co_return data_list;
        n = args::takeCount(num_samples, n);
        for (auto& item : q->takeUpTo(n > 0 ? static_cast<std::size_t>(n) : 0)) data_list.append(streamItemToPython(std::move(item)));
        co_return data_list;
    }
    py::object queue_size = queue_.attr("qsize")();
    if (queue_size.equal(py::int_(0))) co_return data_list;
    if (num_samples > py::int_(-1)) queue_size = py::module_::import("builtins").attr("min")(num_samples, queue_size);
    for ([[maybe_unused]] py::handle i : py::module_::import("builtins").attr("range")(queue_size))
        data_list.append(queue_.attr("get_nowait")());
    co_return data_list;
}

Co<> broadcastPacket(py::object self, py::object cmd, py::object data_out) {
    py::object pool = self.attr("data_pool_bcst");
    pool[cmd].attr("clear")();
    py::object packet = self.attr("_preparePacket")(cmd, data_out);
    py::object client = self.attr("client_udp");
    for (int i = 0; i < w::NUM_BCST_RETRIES; ++i) client.attr("sendBcstPacket")(packet);
    co_await aio::sleep(static_cast<double>(w::PACKET_TIMEOUT));
    co_return pool[cmd];
}

}  // namespace

void registerEngineClientTypes(py::module_& m) {
    addEngineClientType<transport::NetworkClient>(m, "NetworkClient");
    addEngineClientType<transport::TcpClient>(m, "TCPClient");
    addEngineClientType<transport::UdpClient>(m, "UDPClient");
    addEngineClientType<transport::UsbClient>(m, "USBClient");
}

void bindPacket(py::module_& m) {
    PyClass packet(m, "Packet", py::tuple(), "The request/reply layer: framing, sending, and waiting for replies.");
    packet
        .def("_preparePacket", [](py::handle, py::handle cmd, py::handle data_out) { return preparePacket(cmd, data_out); },
             py::arg("cmd"), py::arg("data_out") = py::list())
        .def("_getReplyFromPool_async",
             [](py::object self, py::object cmd) { return aio::makeOp(getReplyFromPool(self, cmd), "Packet._getReplyFromPool_async"); },
             py::arg("cmd"))
        .def("_getStreamingFromPool_async",
             [](py::object self, py::object q, py::object n, py::object delay) {
                 return aio::makeOp(getStreamingFromPool(self, q, n, delay), "Packet._getStreamingFromPool_async");
             },
             py::arg("queue_"), py::arg("num_samples"), py::arg("delay"))
        .def("_echoPacket_async",
             [](py::object self, py::object cmd, py::object data_out, py::object timeout) {
                 return aio::makeOp(echoPacket(self, cmd, data_out, timeout), "Packet._echoPacket_async");
             },
             py::arg("cmd"), py::arg("data_out"), py::arg("timeout") = w::PACKET_TIMEOUT)
        .def("_echoPacketWithRetry_async",
             [](py::object self, py::object cmd, py::object data_out, py::object num_retries, py::object timeout) {
                 return aio::makeOp(echoPacketWithRetry(self, cmd, data_out, num_retries, timeout),
                                    "Packet._echoPacketWithRetry_async");
             },
             py::arg("cmd"), py::arg("data_out"), py::arg("num_retries") = w::NUM_RETRIES, py::arg("timeout") = w::PACKET_TIMEOUT)
        .def("_sendPacketWithoutReply",
             [](py::object self, py::object cmd, py::object data_out) {
                 return aio::makeOp(sendPacketWithoutReply(self, cmd, data_out), "Packet._sendPacketWithoutReply");
             },
             py::arg("cmd"), py::arg("data_out"))
        .def("_broadcastPacket_async",
             [](py::object self, py::object cmd, py::object data_out) {
                 return aio::makeOp(broadcastPacket(self, cmd, data_out), "Packet._broadcastPacket_async");
             },
             py::arg("cmd"), py::arg("data_out"))
        .def("_getAllUSBDevices", [](py::handle) {
            requireLibusb();
            std::vector<transport::UsbUnitStrings> units;
            {
                py::gil_scoped_release nogil;
                units = transport::listUsbUnits();
            }
            auto text = [](const std::optional<std::string>& s) -> py::object { return s ? py::object(py::str(*s)) : py::object(py::none()); };
            py::list out;
            for (const auto& u : units) {
                py::list pair;
                pair.append(text(u.serial));
                pair.append(text(u.product));
                out.append(pair);
            }
            return out;
        });
}

}  // namespace torvik::py_binding
