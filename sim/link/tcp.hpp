// TCP transport: a listening port of a unit and the connections it accepts. Any number of hosts may
// connect; each accepted connection is a Link. A host that reconnects after a disconnect simply
// makes the next link.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "link/bytes.hpp"
#include "link/event_loop.hpp"
#include "link/link.hpp"
#include "link/transport.hpp"

namespace sim {

class TcpPort;

class TcpConnection final : public Link {
public:
    TcpConnection(TcpPort& port, int fd, std::uint64_t id);
    ~TcpConnection() override;

    std::uint64_t id() const override { return id_; }
    Channel channel() const override;
    bool writable() const override { return fd_ >= 0 && !finishing_; }
    void send(std::span<const std::uint8_t> bytes) override;
    std::size_t backlog() const override { return out_.size(); }
    void finish() override;
    void abort() override;

    bool closed() const { return fd_ < 0; }

private:
    void onEvents(std::uint32_t events);
    void flush();
    void updateInterest();
    void closeNow(bool reset);

    TcpPort& port_;
    int fd_;
    std::uint64_t id_;
    Bytes out_;              // queued bytes not yet taken by the kernel
    bool finishing_ = false; // FIN once out_ is empty
    bool finished_ = false;  // FIN sent
};

class TcpPort final : public Transport {
public:
    TcpPort(EventLoop& loop, Channel channel, LinkEvents& events);
    ~TcpPort() override;
    TcpPort(const TcpPort&) = delete;
    TcpPort& operator=(const TcpPort&) = delete;

    // Binds and listens; port 0 lets the system choose. Throws std::system_error.
    void listen(const in_addr& addr, std::uint16_t port);
    std::uint16_t port() const { return port_; }
    // Moving to another address: bind() makes the new listening socket (throws std::system_error),
    // adopt() listens there instead and resets the connections made to the old address.
    int bind(const in_addr& addr, std::uint16_t port);
    void adopt(int fd);

    Channel channel() const override { return channel_; }
    Link* find(std::uint64_t id) const override;
    Link* newest() const override;
    std::vector<Link*> links() const override;
    std::uint64_t accepted() const override { return accepted_; }
    std::size_t open() const override { return conns_.size(); }

private:
    friend class TcpConnection;
    void onAccept();
    void connectionClosed(TcpConnection& conn);

    EventLoop& loop_;
    Channel channel_;
    LinkEvents& events_;
    int fd_ = -1;
    std::uint16_t port_ = 0;
    std::uint64_t accepted_ = 0;
    std::vector<std::unique_ptr<TcpConnection>> conns_;  // open ones, oldest first
};

}  // namespace sim
