#include "transport/network_client.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "wire/commands.hpp"

namespace torvik::transport {

namespace {

[[noreturn]] void throwErrno(const char* op) {
    int err = errno;
    throw SocketError(err, std::string(op) + ": " + std::strerror(err));
}

int toPollTimeout(std::optional<double> seconds) {
    if (!seconds) return -1;
    double ms = std::ceil(*seconds * 1000.0);
    return ms >= INT_MAX ? INT_MAX : ms <= 0 ? 0 : static_cast<int>(ms);
}

sockaddr_in makeAddress(const std::string& host, int port, const char* op) {
    if (port < 0 || port > 65535) throw BadPort(std::string(op) + "(): port must be 0-65535.");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(resolveIPv4(host));
    return addr;
}

}  // namespace

std::uint32_t resolveIPv4(const std::string& host) {
    if (host.empty()) return INADDR_ANY;
    if (host == "<broadcast>") return INADDR_BROADCAST;
    in_addr a{};
    if (inet_aton(host.c_str(), &a) != 0) return ntohl(a.s_addr);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    int rc = getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (rc != 0) throw ResolveError(rc, gai_strerror(rc));
    std::uint32_t ip = ntohl(reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr);
    freeaddrinfo(res);
    return ip;
}

SocketHandle::SocketHandle(int domain, int type, int protocol) : stream_(type == SOCK_STREAM) {
    fd_ = ::socket(domain, type | SOCK_CLOEXEC, protocol);
    if (fd_ < 0) throwErrno("socket");
    cancel_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (cancel_fd_ < 0) {
        int err = errno;
        ::close(fd_);
        errno = err;
        throwErrno("eventfd");
    }
}

SocketHandle::~SocketHandle() {
    ::close(fd_);
    ::close(cancel_fd_);
}

void SocketHandle::cancel() {
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(cancel_fd_, &one, sizeof one);
}

void SocketHandle::setWakeThreshold(int bytes) {
    if (bytes == threshold_) return;
    // A failure leaves the threshold as it was: a raised one still ends each wait by its window.
    if (::setsockopt(fd_, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) == 0) threshold_ = bytes;
}

void SocketHandle::stopBatching() {
    if (!batching_.load()) return;
    std::lock_guard lock(threshold_m_);
    if (!batching_.exchange(false)) return;
    // One byte more than is there: a reader that waits is woken by the next arrival, not at
    // once for the stream data that gathered.
    int queued = 0;
    if (::ioctl(fd_, FIONREAD, &queued) != 0) queued = 0;
    setWakeThreshold(queued + 1);
}

SocketHandle::Wait SocketHandle::waitFor(std::optional<double> timeout, bool park) {
    pollfd fds[2] = {{cancel_fd_, POLLIN, 0}, {fd_, POLLIN, 0}};
    for (;;) {
        int rc = ::poll(fds, park ? 1 : 2, park ? -1 : toPollTimeout(timeout));
        if (rc < 0) {
            if (errno == EINTR) continue;
            throwErrno("poll");
        }
        if (fds[0].revents) return Wait::Cancelled;  // the value stays set, so every wait ends
        return rc == 0 ? Wait::TimedOut : Wait::Readable;
    }
}

bool SocketHandle::waitReadable(std::optional<double> timeout, bool park_when_ended) {
    switch (waitFor(timeout, park_when_ended && ended)) {
        case Wait::Cancelled:
            return false;
        case Wait::TimedOut:
            throw ReceiveTimeout();
        case Wait::Readable:
            break;
    }
    return true;
}

std::shared_ptr<SocketHandle> NetworkClient::socket() const {
    std::lock_guard lock(mutex_);
    return sock_;
}

std::shared_ptr<SocketHandle> NetworkClient::requireSocket(const char* op) const {
    std::lock_guard lock(mutex_);
    if (!sock_) throw NoSocket(op);
    return sock_;
}

std::shared_ptr<SocketHandle> NetworkClient::newSocket(int type, int protocol) {
    auto sock = std::make_shared<SocketHandle>(AF_INET, type, protocol);
    std::lock_guard lock(mutex_);
    sock_ = sock;
    return sock;
}

void NetworkClient::setTimeout(std::optional<double> seconds) {
    std::lock_guard lock(mutex_);
    if (!sock_) return;
    timeout_ = seconds;
}

std::vector<std::uint8_t> NetworkClient::recvPacket(std::size_t length, bool park_when_ended) {
    std::shared_ptr<SocketHandle> sock;
    std::optional<double> timeout;
    {
        std::lock_guard lock(mutex_);
        if (!sock_) throw NoSocket("recv");
        sock = sock_;
        timeout = timeout_;
    }
    sock->prepareWait([] { return false; });  // a blocking read waits for a byte, not for a batch
    const bool nonblocking = timeout && *timeout <= 0;
    if (!nonblocking && !sock->waitReadable(timeout, park_when_ended)) return {};
    std::vector<std::uint8_t> buf(length);
    for (;;) {
        ssize_t n = ::recv(sock->fd(), buf.data(), length, nonblocking ? MSG_DONTWAIT : 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK) sock->ended = true;
            throwErrno("recv");
        }
        if (n == 0 && length > 0 && sock->isStream()) sock->ended = true;  // a datagram may be empty
        buf.resize(static_cast<std::size_t>(n));
        return buf;
    }
}

std::vector<wire::Packet> NetworkClient::recvAndSplitPacket(std::size_t length, bool park_when_ended) {
    std::vector<std::uint8_t> chunk = recvPacket(length, park_when_ended);
    if (chunk.empty()) return {};
    return withStream([&](wire::FrameSplitter& s) {
        s.append(chunk);
        return s.split();
    });
}

std::vector<wire::Packet> NetworkClient::receiveAndSplit(std::size_t length, const std::atomic<int>* awaited,
                                                        double window) {
    std::shared_ptr<SocketHandle> sock;
    std::optional<double> timeout;
    {
        std::lock_guard lock(mutex_);
        sock = sock_;
        timeout = timeout_;
    }
    // Datagrams, non-blocking reads and ended streams read as a script's recv does.
    if (!sock || !sock->isStream() || sock->ended || length == 0 || (timeout && *timeout <= 0))
        return recvAndSplitPacket(length, true);

    // Batch only while stream data flow: an idle connection, or one that carries replies alone,
    // waits for its next byte without a window.
    sock->prepareWait([&] { return flowing_ && awaited && awaited->load() == 0; });
    if (sock->batching()) {
        if (sock->waitFor(timeout ? std::min(*timeout, window) : window) == SocketHandle::Wait::Cancelled) return {};
    } else if (!sock->waitReadable(timeout, true)) {
        return {};
    }
    // The whole burst that is there, in reads of a buffer kept for the purpose, up to a bound
    // that keeps the split moving. Never blocking: below the wake threshold a blocking recv
    // would wait for more. Same frames, same order as reads of `length` bytes.
    constexpr std::size_t kBurstBound = 256 * 1024;
    const std::size_t step = std::max<std::size_t>(length, 64 * 1024);
    std::size_t have = 0;
    for (;;) {
        if (burst_.size() < have + step) burst_.resize(have + step);
        const ssize_t n = ::recv(sock->fd(), burst_.data() + have, step, MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (n < 0) {
            if (have > 0) break;  // reported by the next read
            sock->ended = true;
            throwErrno("recv");
        }
        if (n == 0) {
            if (have == 0) sock->ended = true;
            break;
        }
        have += static_cast<std::size_t>(n);
        if (static_cast<std::size_t>(n) < step || have >= kBurstBound) break;
    }
    if (have == 0) {
        flowing_ = false;
        return {};
    }
    auto packets = withStream([&](wire::FrameSplitter& s) {
        s.append({burst_.data(), have});
        return s.split();
    });
    flowing_ = std::any_of(packets.begin(), packets.end(), [](const wire::Packet& p) { return wire::isStreamingCommand(p.cmd); });
    return packets;
}

void NetworkClient::sendPacket(std::span<const std::uint8_t> bytes) {
    auto sock = requireSocket("send");
    sock->stopBatching();  // its reply must wake the reader at once
    for (;;) {
        ssize_t n = ::send(sock->fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throwErrno("send");
        return;
    }
}

void NetworkClient::disconnect() {
    auto sock = requireSocket("shutdown");
    // A reader leaves its wait even when the shutdown fails: it goes back to its gate, and the
    // socket stays as it is.
    sock->cancel();
    if (::shutdown(sock->fd(), SHUT_RDWR) != 0) {
        int err = errno;
        throw ConnectionLost(std::string("shutdown: ") + std::strerror(err));
    }
    std::lock_guard lock(mutex_);
    if (sock_ == sock) sock_.reset();
}

bool TcpClient::connect(const std::string& host, int port) {
    auto sock = newSocket(SOCK_STREAM, 0);
    setTimeout(static_cast<double>(wire::CONNECTION_TIMEOUT));
    try {
        sockaddr_in addr = makeAddress(host, port, "connect");
        const int fd = sock->fd();
        int flags = ::fcntl(fd, F_GETFL);
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
        int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        if (rc != 0 && errno != EINPROGRESS) throwErrno("connect");
        if (rc != 0) {
            pollfd p{fd, POLLOUT, 0};
            int ready;
            do ready = ::poll(&p, 1, static_cast<int>(wire::CONNECTION_TIMEOUT * 1000));
            while (ready < 0 && errno == EINTR);
            if (ready == 0) throw SocketError(ETIMEDOUT, "connect: timed out");
            int err = 0;
            socklen_t len = sizeof err;
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            if (err != 0) {
                errno = err;
                throwErrno("connect");
            }
        }
        ::fcntl(fd, F_SETFL, flags);
    } catch (const SocketError& e) {
        throw ConnectFailed(e.what());
    } catch (const ResolveError& e) {
        throw ConnectFailed(e.what());
    }
    setTimeout(std::nullopt);
    return true;
}

bool UdpClient::bind(const std::string& host, int port) {
    auto sock = newSocket(SOCK_DGRAM, 0);
    setTimeout(std::nullopt);
    try {
        sockaddr_in addr = makeAddress(host, port, "bind");
        if (::bind(sock->fd(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) throwErrno("bind");
    } catch (const SocketError& e) {
        throw ConnectFailed(e.what());
    } catch (const ResolveError& e) {
        throw ConnectFailed(e.what());
    }
    return true;
}

void UdpClient::sendBcstPacket(std::span<const std::uint8_t> bytes) {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) throwErrno("gethostname");
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    int rc = getaddrinfo(name, nullptr, &hints, &res);
    if (rc != 0) throw ResolveError(rc, gai_strerror(rc));
    std::vector<in_addr> ips;  // one per record, duplicates kept: each record sends once
    for (addrinfo* ai = res; ai != nullptr; ai = ai->ai_next)
        ips.push_back(reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_addr);
    freeaddrinfo(res);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(wire::UDP_SEND_PORT));
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    for (const in_addr& ip : ips) {
        SocketHandle sock(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        int one = 1;
        if (::setsockopt(sock.fd(), SOL_SOCKET, SO_BROADCAST, &one, sizeof one) != 0) throwErrno("setsockopt");
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_addr = ip;
        if (::bind(sock.fd(), reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) throwErrno("bind");
        if (::sendto(sock.fd(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
            throwErrno("sendto");
    }
}

}  // namespace torvik::transport
