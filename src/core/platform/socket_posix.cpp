#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "platform/socket.hpp"

namespace torvik::platform {

namespace {

sockaddr_in address(std::uint32_t ip, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(ip);
    return a;
}

int toPollTimeout(std::optional<double> seconds) {
    if (!seconds) return -1;
    double ms = std::ceil(*seconds * 1000.0);
    return ms >= INT_MAX ? INT_MAX : ms <= 0 ? 0 : static_cast<int>(ms);
}

}  // namespace

int lastSocketError() { return errno; }
std::string socketErrorText(int err) { return std::strerror(err); }
bool isWouldBlock(int err) { return err == EAGAIN || err == EWOULDBLOCK; }
int timedOutError() { return ETIMEDOUT; }

NativeSocket openSocket(SocketKind kind) {
    return kind == SocketKind::Stream ? ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)
                                      : ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
}

void closeSocket(NativeSocket s) {
    if (s != kInvalidSocket) ::close(s);
}

bool bindTo(NativeSocket s, std::uint32_t ip, int port) {
    sockaddr_in a = address(ip, port);
    return ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

int connectWithin(NativeSocket s, std::uint32_t ip, int port, int timeout_ms) {
    sockaddr_in a = address(ip, port);
    const int flags = ::fcntl(s, F_GETFL);
    ::fcntl(s, F_SETFL, flags | O_NONBLOCK);
    int err = 0;
    if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        err = errno;
        if (err == EINPROGRESS) {
            pollfd p{s, POLLOUT, 0};
            int ready;
            do ready = ::poll(&p, 1, timeout_ms);
            while (ready < 0 && errno == EINTR);
            if (ready == 0) {
                err = ETIMEDOUT;
            } else {
                err = 0;
                socklen_t len = sizeof err;
                ::getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &len);
            }
        }
    }
    if (err == 0) ::fcntl(s, F_SETFL, flags);
    return err;
}

bool listenOn(NativeSocket s, int backlog) { return ::listen(s, backlog) == 0; }

NativeSocket acceptOn(NativeSocket s) { return ::accept4(s, nullptr, nullptr, SOCK_CLOEXEC); }

int localPort(NativeSocket s) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) return -1;
    return ntohs(a.sin_port);
}

long receive(NativeSocket s, void* buf, std::size_t length, bool wait) {
    for (;;) {
        const ssize_t n = ::recv(s, buf, length, wait ? 0 : MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        return static_cast<long>(n);
    }
}

long sendBytes(NativeSocket s, const void* buf, std::size_t length) {
    for (;;) {
        const ssize_t n = ::send(s, buf, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        return static_cast<long>(n);
    }
}

long sendTo(NativeSocket s, const void* buf, std::size_t length, std::uint32_t ip, int port) {
    sockaddr_in to = address(ip, port);
    return static_cast<long>(::sendto(s, buf, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
}

bool shutdownSocket(NativeSocket s, Shut how) { return ::shutdown(s, how == Shut::Both ? SHUT_RDWR : SHUT_WR) == 0; }

bool setBroadcast(NativeSocket s) {
    int one = 1;
    return ::setsockopt(s, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) == 0;
}

bool setReceiveLowWater(NativeSocket s, int bytes) {
    return ::setsockopt(s, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) == 0;
}

bool setReceiveTimeout(NativeSocket s, int ms) {
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    return ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

int queuedBytes(NativeSocket s) {
    int queued = 0;
    if (::ioctl(s, FIONREAD, &queued) != 0) return 0;
    return queued;
}

int resolveIPv4All(const std::string& host, std::vector<std::uint32_t>& out) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    const int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (rc != 0) return rc;
    for (addrinfo* ai = res; ai != nullptr; ai = ai->ai_next)
        out.push_back(ntohl(reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_addr.s_addr));
    ::freeaddrinfo(res);
    return 0;
}

std::string resolverErrorText(int code) { return ::gai_strerror(code); }

std::optional<std::string> hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return std::nullopt;
    return std::string(name);
}

WakeSignal::WakeSignal() : handle_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WakeSignal::~WakeSignal() { closeSocket(handle_); }

void WakeSignal::raise() noexcept {
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(handle_, &one, sizeof one);
}

void WakeSignal::drain() noexcept {
    std::uint64_t count;
    [[maybe_unused]] ssize_t n = ::read(handle_, &count, sizeof count);
}

bool waitRaised(const WakeSignal& signal, std::optional<double> timeout) {
    pollfd fd{signal.handle(), POLLIN, 0};
    for (;;) {
        const int rc = ::poll(&fd, 1, toPollTimeout(timeout));
        if (rc >= 0 || errno != EINTR) return rc > 0;
    }
}

WaitResult waitReadable(NativeSocket s, const WakeSignal& cancel, std::optional<double> timeout, bool cancel_only) {
    pollfd fds[2] = {{cancel.handle(), POLLIN, 0}, {s, POLLIN, 0}};
    for (;;) {
        const int rc = ::poll(fds, cancel_only ? 1 : 2, cancel_only ? -1 : toPollTimeout(timeout));
        if (rc < 0) {
            if (errno == EINTR) continue;
            return WaitResult::Failed;
        }
        if (fds[0].revents) return WaitResult::Cancelled;
        return rc == 0 ? WaitResult::TimedOut : WaitResult::Readable;
    }
}

}  // namespace torvik::platform
