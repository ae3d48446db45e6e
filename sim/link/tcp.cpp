#include "link/tcp.hpp"

#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace sim {

TcpConnection::TcpConnection(TcpPort& port, int fd, std::uint64_t id) : port_(port), fd_(fd), id_(id) {
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);  // replies go out at once
    port_.loop_.watch(fd_, EPOLLIN, [this](std::uint32_t ev) { onEvents(ev); });
}

TcpConnection::~TcpConnection() {
    if (fd_ >= 0) {
        port_.loop_.unwatch(fd_);
        close(fd_);
    }
}

Channel TcpConnection::channel() const { return port_.channel_; }

void TcpConnection::send(std::span<const std::uint8_t> bytes) {
    if (!writable() || bytes.empty()) return;
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    flush();
}

void TcpConnection::finish() {
    if (!writable()) return;
    finishing_ = true;
    flush();
}

void TcpConnection::abort() {
    if (fd_ >= 0) closeNow(true);
}

void TcpConnection::flush() {
    while (!out_.empty() && fd_ >= 0) {
        ssize_t n = ::send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            closeNow(false);  // the host is gone; reading will not tell us more
            return;
        }
        out_.erase(out_.begin(), out_.begin() + n);
    }
    if (fd_ < 0) return;
    if (out_.empty() && finishing_ && !finished_) {
        shutdown(fd_, SHUT_WR);
        finished_ = true;
    }
    updateInterest();
}

void TcpConnection::updateInterest() {
    port_.loop_.modify(fd_, out_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

void TcpConnection::onEvents(std::uint32_t events) {
    if (events & EPOLLOUT) {
        const bool backlogged = !out_.empty();
        flush();
        if (fd_ < 0) return;
        if (backlogged && out_.empty()) port_.events_.linkDrained(*this);
    }
    if (fd_ < 0) return;
    if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
        std::uint8_t buf[65536];
        ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            port_.events_.linkReceived(*this, std::span<const std::uint8_t>(buf, static_cast<std::size_t>(n)));
        } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            closeNow(false);  // host closed or reset
        }
    }
}

void TcpConnection::closeNow(bool reset) {
    if (reset) {
        linger lg{1, 0};  // close() then sends RST instead of FIN
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    }
    port_.loop_.unwatch(fd_);
    close(fd_);
    fd_ = -1;
    out_.clear();
    port_.connectionClosed(*this);
}

TcpPort::TcpPort(EventLoop& loop, Channel channel, LinkEvents& events)
    : loop_(loop), channel_(channel), events_(events) {}

TcpPort::~TcpPort() {
    conns_.clear();
    if (fd_ >= 0) {
        loop_.unwatch(fd_);
        close(fd_);
    }
}

void TcpPort::listen(const in_addr& addr, std::uint16_t port) { adopt(bind(addr, port)); }

int TcpPort::bind(const in_addr& addr, std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "socket");
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);  // restart while old links linger
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr = addr;
    sa.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0 || ::listen(fd, 16) < 0) {
        const int e = errno;
        close(fd);
        throw std::system_error(e, std::generic_category(), "bind");
    }
    return fd;
}

void TcpPort::adopt(int fd) {
    if (fd_ >= 0) {
        loop_.unwatch(fd_);
        close(fd_);
        for (Link* l : links()) l->abort();  // the old address is gone, and what was made to it
    }
    fd_ = fd;
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
    port_ = ntohs(sa.sin_port);
    loop_.watch(fd_, EPOLLIN, [this](std::uint32_t) { onAccept(); });
}

void TcpPort::onAccept() {
    for (;;) {
        int fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;  // EAGAIN, or a connection that died in the backlog
        conns_.push_back(std::make_unique<TcpConnection>(*this, fd, ++accepted_));
        events_.linkOpened(*conns_.back());
    }
}

void TcpPort::connectionClosed(TcpConnection& conn) {
    auto it = std::find_if(conns_.begin(), conns_.end(), [&](auto& c) { return c.get() == &conn; });
    if (it == conns_.end()) return;
    std::shared_ptr<TcpConnection> doomed(std::move(*it));
    conns_.erase(it);
    events_.linkClosed(*doomed);
    // Its handler may be running right now, so it dies after this round.
    loop_.defer([doomed] {});
}

Link* TcpPort::find(std::uint64_t id) const { return findLink(conns_, id); }

Link* TcpPort::newest() const { return newestWritable(conns_); }

std::vector<Link*> TcpPort::links() const { return linkList(conns_); }

}  // namespace sim
