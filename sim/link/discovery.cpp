#include "link/discovery.hpp"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;

DiscoveryPort::DiscoveryPort(EventLoop& loop, std::vector<std::unique_ptr<Unit>>& units) : loop_(loop), units_(units) {}

DiscoveryPort::~DiscoveryPort() {
    if (fd_ >= 0) {
        loop_.unwatch(fd_);
        close(fd_);
    }
}

void DiscoveryPort::open(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "socket");
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);  // broadcasts reach only sockets bound to every address
    sa.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) {
        const int e = errno;
        close(fd);
        throw std::system_error(e, std::generic_category(), "bind UDP port " + std::to_string(port));
    }
    fd_ = fd;
    loop_.watch(fd_, EPOLLIN, [this](std::uint32_t) { onReadable(); });
}

void DiscoveryPort::onReadable() {
    // A bounded round, so that a flood cannot starve the rest of the loop.
    for (int round = 0; round < 64; ++round) {
        std::uint8_t buf[2048];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        const ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) return;  // EAGAIN: all read
        if ((ntohl(from.sin_addr.s_addr) >> 24) != 127) continue;
        RequestParser parser;  // a datagram is whole: no frame continues in the next one
        for (const Frame& frame : parser.feed(std::span<const std::uint8_t>(buf, static_cast<std::size_t>(n)))) {
            if (!wire::isBroadcastCommand(frame.code)) continue;
            sockaddr_in to = from;
            to.sin_port = htons(static_cast<std::uint16_t>(wire::UDP_RECV_PORT));
            // Iterate by index: an answer may move its unit, never add or remove one.
            for (std::size_t i = 0; i < units_.size(); ++i)
                for (const Bytes& answer : units_[i]->answerBroadcast(frame))
                    sendto(fd_, answer.data(), answer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&to), sizeof to);
        }
    }
}

}  // namespace sim
