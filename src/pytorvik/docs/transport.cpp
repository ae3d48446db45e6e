// Texts of the byte transports (scripts rarely use them directly: the handles own them).
#include "docs/docs.hpp"

namespace torvik::py_binding {

void documentTransport(py::module_& m) {
    applyDocs(m, {
        {"Socket.fileno", "The operating system's number of the socket.", "", "int: the descriptor."},
        {"NetworkClient.setTimeout", "Sets the time limit of the socket's receives.",
         "timeout (float | None): seconds; None waits without limit."},
        {"NetworkClient.recvPacket", "Receives up to `length` bytes (waits for at least one).",
         "length (int): the most bytes to take.", "bytes: what came.",
         "socket.timeout: nothing came within the time limit.\nOSError: the connection failed."},
        {"NetworkClient.recvAndSplitPacket", "Receives bytes and splits the stream into packets.",
         "length (int): the most bytes to take at once.", "list[tuple[int, bytes]]: (command code, data) packets.",
         "socket.timeout: nothing came within the time limit."},
        {"NetworkClient.sendPacket", "Sends bytes.", "int_list (list[int]): the bytes (a framed packet).",
         "int: the number of bytes sent.", "OSError: the connection failed."},
        {"NetworkClient.disconnect", "Shuts the socket down and closes it.", "", "",
         "NetworkConnectionLostError: the shutdown failed (-8007)."},
        {"TCPClient.connect", "Connects to a unit.", "ip_addr (str): its IPv4 address.\nport (int): its TCP port.",
         "", "NetworkConnectionError: the unit cannot be reached (-8002)."},
        {"UDPClient.bind", "Binds the socket for broadcast answers.",
         "ip_addr (str): the local address (\"\" for all).\nport (int): the local port.", "",
         "NetworkConnectionError: the port cannot be bound (-8002)."},
        {"UDPClient.sendBcstPacket", "Broadcasts bytes to 255.255.255.255 from every local IPv4 address.",
         "packet (list[int]): the bytes (a framed packet)."},
        {"USBClient.takeSerialNumber", "The unit's serial number string.", "", "str: the serial number."},
        {"USBClient.takeProductName", "The unit's product string.", "", "str: the product name."},
        {"USBClient.recvAndSplitPacket", "Reads from the unit and splits the stream into packets.",
         "length (int): the most bytes to take at once.", "list[tuple[int, bytes]]: (command code, data) packets.",
         "USBTimeoutError: nothing came within the time limit.\nUSBError: the transfer failed."},
        {"USBClient.sendPacket", "Writes bytes to the unit in 64-byte transfers.",
         "int_list (list[int]): the bytes (a framed packet).", "", "USBError: the transfer failed."},
    });
}

}  // namespace torvik::py_binding
