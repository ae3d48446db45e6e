// The few failure kinds of the transports. The binding layer maps each to one Python exception.
#pragma once

#include <stdexcept>
#include <string>

namespace torvik::transport {

// An operating system call failed; `err` is its errno.
struct SocketError : std::runtime_error {
    SocketError(int err, const std::string& what) : std::runtime_error(what), err(err) {}
    int err;
};

// Name resolution failed; `code` is the getaddrinfo result.
struct ResolveError : std::runtime_error {
    ResolveError(int code, const std::string& what) : std::runtime_error(what), code(code) {}
    int code;
};

// A receive ran into the time limit set with setTimeout.
struct ReceiveTimeout : std::runtime_error {
    ReceiveTimeout() : std::runtime_error("timed out") {}
};

// The client has no socket (it was never connected, or was disconnected). `op` names the call.
struct NoSocket : std::logic_error {
    explicit NoSocket(const char* op) : std::logic_error(op), op(op) {}
    const char* op;
};

// A TCP connect or UDP bind failed, for whatever reason.
struct ConnectFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// shutdown or close of a socket failed: the connection is in an unknown state.
struct ConnectionLost : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A libusb call failed; `code` is libusb's (negative) error code, what() its text.
struct UsbError : std::runtime_error {
    explicit UsbError(int code);
    UsbError(int code, const std::string& what) : std::runtime_error(what), code(code) {}
    int code;
};

// A USB transfer ran into its time limit with nothing transferred.
struct UsbTimeout : UsbError {
    UsbTimeout();
};

// No attached unit has the vendor, product and serial number asked for.
struct UsbUnitNotFound : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A port number outside 0..65535.
struct BadPort : std::out_of_range {
    using std::out_of_range::out_of_range;
};

}  // namespace torvik::transport
