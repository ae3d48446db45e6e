#include <pybind11/stl.h>

#include "args.hpp"
#include "bindings.hpp"
#include "transport/network_client.hpp"

namespace torvik::py_binding {

using transport::NetworkClient;
using transport::SocketHandle;
using transport::TcpClient;
using transport::UdpClient;

void bindNetworkClients(py::module_& m) {
    py::class_<SocketHandle, std::shared_ptr<SocketHandle>>(m, "Socket", "An open socket of a network client.")
        .def("fileno", &SocketHandle::fileno)
        .def("__repr__", [](const SocketHandle& s) { return "<Socket fd=" + std::to_string(s.fd()) + ">"; });

    py::class_<NetworkClient, transport::Client, std::shared_ptr<NetworkClient>>(m, "NetworkClient", py::dynamic_attr(),
                                                                                 "Socket transport to a unit.")
        .def(py::init<>())
        .def_property_readonly(
            "socket",
            [](const NetworkClient& c) -> py::object {
                auto s = c.socket();
                return s ? py::cast(s) : py::int_(0);
            },
            "The open socket, or 0 when there is none.")
        .def("setTimeout", [](NetworkClient& c, py::handle t) { c.setTimeout(args::socketTimeout(t)); }, py::arg("timeout"))
        .def(
            "recvPacket",
            [](NetworkClient& c, py::handle length_arg) {
                const std::size_t length = args::bufferSize(length_arg);
                std::vector<std::uint8_t> data;
                {
                    py::gil_scoped_release nogil;
                    data = c.recvPacket(length);
                }
                return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
            },
            py::arg("length"))
        .def(
            "recvAndSplitPacket",
            [](NetworkClient& c, py::handle length_arg) {
                const std::size_t length = args::bufferSize(length_arg);
                std::vector<wire::Packet> packets;
                {
                    py::gil_scoped_release nogil;
                    packets = c.recvAndSplitPacket(length);
                }
                return packetsToList(packets);
            },
            py::arg("length"))
        .def(
            "sendPacket",
            [](NetworkClient& c, py::handle int_list) {
                auto bytes = bytesOf(int_list);
                py::gil_scoped_release nogil;
                c.sendPacket(bytes);
            },
            py::arg("int_list"))
        .def("disconnect", [](NetworkClient& c) {
            py::gil_scoped_release nogil;
            c.disconnect();
        });

    py::class_<TcpClient, NetworkClient, std::shared_ptr<TcpClient>>(m, "TCPClient", py::dynamic_attr(),
                                                                     "TCP transport: a unit's command or data connection.")
        .def(py::init<>())
        .def(
            "connect",
            [](TcpClient& c, py::handle ip_arg, py::handle port_arg) {
                const std::string ip_addr = args::hostName(ip_arg);
                const int port = args::portNumber(port_arg, "connect");
                py::gil_scoped_release nogil;
                return c.connect(ip_addr, port);
            },
            py::arg("ip_addr"), py::arg("port"));

    py::class_<UdpClient, NetworkClient, std::shared_ptr<UdpClient>>(m, "UDPClient", py::dynamic_attr(),
                                                                     "UDP transport: discovery answers and broadcasts.")
        .def(py::init<>())
        .def(
            "bind",
            [](UdpClient& c, py::handle ip_arg, py::handle port_arg) {
                const std::string ip_addr = args::hostName(ip_arg);
                const int port = args::portNumber(port_arg, "bind");
                py::gil_scoped_release nogil;
                return c.bind(ip_addr, port);
            },
            py::arg("ip_addr"), py::arg("port"))
        .def(
            "sendBcstPacket",
            [](UdpClient&, py::handle packet) {
                auto bytes = bytesOf(packet);
                py::gil_scoped_release nogil;
                UdpClient::sendBcstPacket(bytes);
            },
            py::arg("packet"));
}

}  // namespace torvik::py_binding
