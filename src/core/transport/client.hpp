// Base of every byte transport: owns the received stream and its splitter.
//
// Thread contract: the reader thread appends and splits; other threads (a script inspecting the
// stream) go through the same mutex, which is never held across a blocking read.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <stdexcept>

#include "wire/splitter.hpp"

namespace torvik::transport {

class NetworkClient;

class Client {
public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    virtual ~Client() = default;

    // Sends one frame as this transport does (any thread). A bare client has no transport.
    virtual void sendPacket(std::span<const std::uint8_t>) { throw std::logic_error("client without a transport"); }
    // This client as a network client, or null: asked on every request, where a dynamic_cast
    // costs a noticeable share.
    virtual NetworkClient* network() noexcept { return nullptr; }

    // Runs fn(splitter) under the stream's mutex.
    template <typename Fn>
    decltype(auto) withStream(Fn&& fn) {
        std::lock_guard lock(stream_mutex_);
        return fn(splitter_);
    }

private:
    std::mutex stream_mutex_;
    wire::FrameSplitter splitter_;  // guarded by stream_mutex_
};

}  // namespace torvik::transport
