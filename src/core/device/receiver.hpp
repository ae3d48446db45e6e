// The body of a receive thread: pass the gate, read from the client, file what came.
#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

#include "device/gate.hpp"
#include "device/router.hpp"
#include "transport/client.hpp"

namespace torvik::device {

// The state a device's threads share with its owner: the end flag, the pools, the gates.
struct DeviceCore {
    std::atomic<bool> killed{false};
    DataPools pools;
};

// A client that the owner may swap or drop while a thread reads from it.
class ClientSlot {
public:
    std::shared_ptr<transport::Client> get() const {
        std::lock_guard lock(m_);
        return client_;
    }
    void set(std::shared_ptr<transport::Client> c) {
        std::lock_guard lock(m_);
        client_ = std::move(c);
    }

private:
    mutable std::mutex m_;
    std::shared_ptr<transport::Client> client_;
};

// Thrown by a read when the slot holds no client.
struct AbsentClient : std::logic_error {
    AbsentClient() : std::logic_error("no client") {}
};

// Reads one chunk from the client and returns the packets it completed. May throw anything.
// A read may leave a lock in `hold` that must be held while its packets are filed.
using ReadFn = std::function<std::vector<wire::Packet>(transport::Client&, std::unique_lock<std::mutex>& hold)>;
// Decides about a failed read, the `failures`-th in a row; returns how long to pause before the
// next round (a read that fails at once again and again must not spin a core).
using ReadErrorFn = std::function<std::chrono::nanoseconds(std::exception_ptr, unsigned failures)>;

// The pause for failures that repeat at once: none for the first, then 1 ms doubling to 50 ms.
std::chrono::nanoseconds backoff(unsigned failures);

// Loops until `killed`: the gate, one read, then the packets filed in order. Returns normally
// when killed; a RoutingError from filing leaves the loop and ends the thread.
void runReceiveLoop(DeviceCore& core, Gate& gate, const ClientSlot& slot, const ReadFn& read,
                    const ReadErrorFn& onReadError);

}  // namespace torvik::device
