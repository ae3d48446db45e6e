// Discovery: the UDP port on which the network units of this emulator hear broadcasts
// (UDP_SEND_PORT, every local address). Every unit hears every request, as units on one network
// do; each answers to UDP_RECV_PORT of the sender. The socket shares its port (SO_REUSEADDR), so
// that several emulators and a test's own listener can hear the same broadcast.
//
// Only senders on loopback (127.0.0.0/8) are heard: whatever else reaches the port is dropped, so
// that the emulator never sends a packet off the machine.
#pragma once

#include <memory>
#include <vector>

#include "link/event_loop.hpp"
#include "unit.hpp"

namespace sim {

class DiscoveryPort {
public:
    DiscoveryPort(EventLoop& loop, std::vector<std::unique_ptr<Unit>>& units);
    ~DiscoveryPort();
    DiscoveryPort(const DiscoveryPort&) = delete;
    DiscoveryPort& operator=(const DiscoveryPort&) = delete;

    // Binds and listens; throws std::system_error.
    void open(std::uint16_t port);

private:
    void onReadable();

    EventLoop& loop_;
    std::vector<std::unique_ptr<Unit>>& units_;
    int fd_ = -1;
};

}  // namespace sim
