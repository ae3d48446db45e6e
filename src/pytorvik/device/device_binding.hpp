// Shared pieces of the device bindings: the engine state behind a handle and how to reach it.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>

#include "aio/coro.hpp"
#include "device/gate.hpp"
#include "device/receiver.hpp"

namespace torvik::py_binding {

namespace py = pybind11;

// The engine state of one handle, kept on the instance as `_core`. Receive threads hold the
// same shared pieces, so they need no Python object to run.
struct HandleCore {
    std::shared_ptr<device::DeviceCore> core = std::make_shared<device::DeviceCore>();
    std::shared_ptr<device::ClientSlot> cmd_slot = std::make_shared<device::ClientSlot>();
    std::shared_ptr<device::ClientSlot> data_slot = std::make_shared<device::ClientSlot>();
    std::shared_ptr<device::ClientSlot> udp_slot = std::make_shared<device::ClientSlot>();
};

HandleCore& coreOf(py::handle self);
std::shared_ptr<device::EchoPool> echoPoolOf(py::handle pool_view);
std::shared_ptr<device::BcstPool> bcstPoolOf(py::handle pool_view);
std::shared_ptr<device::StreamQueue> streamQueueOf(py::handle queue);  // null if not ours
std::shared_ptr<device::Gate> gateOf(py::handle gate);
py::object newGate(bool held);
py::object streamItemToPython(device::StreamItem&& item);
// The wait of a queue's get or put as queue.Queue reads block and timeout (0: do not wait).
std::optional<double> queueTimeout(bool block, py::handle timeout);
// Raises queue.Empty or queue.Full.
[[noreturn]] void raiseQueue(const char* cls);
// A script's object as a queue item: None is the wake-up token, exact bytes are stored as bytes.
device::StreamItem toStreamItem(py::handle obj);
py::object makePoolView(const device::DataPools& pools, const char* which);

// The packet layer's request with retries, as _echoPacketWithRetry_async runs it.
aio::Co<> echoPacketWithRetry(py::object self, py::object cmd, py::object data_out, py::object num_retries,
                              py::object timeout);

// The module object, for module-level tables such as LABEL_DICT.
py::module_& moduleObject();

void bindGate(py::module_& m);
void bindPools(py::module_& m);
void bindDevices(py::module_& m);
void bindPacket(py::module_& m);
// `with`, `async with` and reprs of the device bases; after the handles exist.
void bindContextManagers(py::module_& m);

}  // namespace torvik::py_binding
