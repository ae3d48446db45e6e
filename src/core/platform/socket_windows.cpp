#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <climits>
#include <cmath>
#include <mutex>

#include "platform/socket.hpp"

#ifndef WSA_FLAG_NO_HANDLE_INHERIT
#define WSA_FLAG_NO_HANDLE_INHERIT 0x80
#endif

namespace torvik::platform {

namespace {

// Winsock is started once for the process and left running: sockets may outlive any owner that
// could stop it.
void startWinsock() {
    static std::once_flag once;
    std::call_once(once, [] {
        WSADATA data;
        ::WSAStartup(MAKEWORD(2, 2), &data);
    });
}

sockaddr_in address(std::uint32_t ip, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<u_short>(port));
    a.sin_addr.s_addr = htonl(ip);
    return a;
}

timeval toTimeval(double seconds) {
    // Whole milliseconds, rounded up as on Linux, so that a short limit never becomes no wait.
    double ms = std::ceil(seconds * 1000.0);
    ms = ms >= INT_MAX ? INT_MAX : ms <= 0 ? 0 : ms;
    const long whole = static_cast<long>(ms);
    return timeval{whole / 1000, (whole % 1000) * 1000};
}

bool setBlocking(NativeSocket s, bool blocking) {
    u_long nonblocking = blocking ? 0 : 1;
    return ::ioctlsocket(s, FIONBIO, &nonblocking) == 0;
}

std::string utf8(const wchar_t* w, int len) {
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, w, len, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
    if (n > 0) ::WideCharToMultiByte(CP_UTF8, 0, w, len, out.data(), n, nullptr, nullptr);
    return out;
}

}  // namespace

int lastSocketError() { return ::WSAGetLastError(); }

std::string socketErrorText(int err) {
    wchar_t* text = nullptr;
    const DWORD n = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                     nullptr, static_cast<DWORD>(err), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::string out = n ? utf8(text, static_cast<int>(n)) : "socket error " + std::to_string(err);
    if (text) ::LocalFree(text);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ' || out.back() == '.')) out.pop_back();
    return out;
}

bool isWouldBlock(int err) { return err == WSAEWOULDBLOCK; }
int timedOutError() { return WSAETIMEDOUT; }

NativeSocket openSocket(SocketKind kind) {
    startWinsock();
    const bool stream = kind == SocketKind::Stream;
    return ::WSASocketW(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, stream ? IPPROTO_TCP : IPPROTO_UDP, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}

void closeSocket(NativeSocket s) {
    if (s != kInvalidSocket) ::closesocket(s);
}

bool bindTo(NativeSocket s, std::uint32_t ip, int port) {
    sockaddr_in a = address(ip, port);
    return ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

int connectWithin(NativeSocket s, std::uint32_t ip, int port, int timeout_ms) {
    sockaddr_in a = address(ip, port);
    if (!setBlocking(s, false)) return ::WSAGetLastError();
    int err = 0;
    if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        err = ::WSAGetLastError();
        if (err == WSAEWOULDBLOCK) {
            // Winsock reports a failed connect among the exceptions, a made one as writable.
            fd_set w, e;
            FD_ZERO(&w);
            FD_ZERO(&e);
            FD_SET(s, &w);
            FD_SET(s, &e);
            timeval tv = toTimeval(timeout_ms / 1000.0);
            const int ready = ::select(0, nullptr, &w, &e, &tv);
            if (ready == 0) {
                err = WSAETIMEDOUT;
            } else if (ready < 0) {
                err = ::WSAGetLastError();
            } else {
                err = 0;
                int len = sizeof err;
                ::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &len);
                if (err == 0 && FD_ISSET(s, &e)) err = WSAECONNREFUSED;
            }
        }
    }
    if (err == 0) setBlocking(s, true);
    ::WSASetLastError(err);
    return err;
}

bool listenOn(NativeSocket s, int backlog) { return ::listen(s, backlog) == 0; }

NativeSocket acceptOn(NativeSocket s) { return ::accept(s, nullptr, nullptr); }

int localPort(NativeSocket s) {
    sockaddr_in a{};
    int len = sizeof a;
    if (::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) return -1;
    return ntohs(a.sin_port);
}

long receive(NativeSocket s, void* buf, std::size_t length, bool wait) {
    // Winsock has no per-call "don't wait": ask whether anything is there first. The socket has
    // one reader, so what select saw is still there for the recv.
    if (!wait) {
        fd_set r;
        FD_ZERO(&r);
        FD_SET(s, &r);
        timeval now{0, 0};
        const int ready = ::select(0, &r, nullptr, nullptr, &now);
        if (ready < 0) return -1;
        if (ready == 0) {
            ::WSASetLastError(WSAEWOULDBLOCK);
            return -1;
        }
    }
    const int n = ::recv(s, static_cast<char*>(buf), static_cast<int>(length < INT_MAX ? length : INT_MAX), 0);
    // A datagram longer than the buffer comes cut to the buffer, as on Linux, not as an error.
    if (n < 0 && ::WSAGetLastError() == WSAEMSGSIZE) return static_cast<long>(length);
    return n;
}

long sendBytes(NativeSocket s, const void* buf, std::size_t length) {
    return ::send(s, static_cast<const char*>(buf), static_cast<int>(length < INT_MAX ? length : INT_MAX), 0);
}

long sendTo(NativeSocket s, const void* buf, std::size_t length, std::uint32_t ip, int port) {
    sockaddr_in to = address(ip, port);
    return ::sendto(s, static_cast<const char*>(buf), static_cast<int>(length < INT_MAX ? length : INT_MAX), 0,
                    reinterpret_cast<sockaddr*>(&to), sizeof to);
}

bool shutdownSocket(NativeSocket s, Shut how) { return ::shutdown(s, how == Shut::Both ? SD_BOTH : SD_SEND) == 0; }

bool setBroadcast(NativeSocket s) {
    BOOL one = TRUE;
    return ::setsockopt(s, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&one), sizeof one) == 0;
}

// Winsock has the option, but a receive that runs out of it leaves the connection in an undefined
// state: readers wait in select instead.
bool setReceiveTimeout(NativeSocket, int) {
    ::WSASetLastError(WSAENOPROTOOPT);
    return false;
}

// Winsock has no receive low-water mark (SO_RCVLOWAT is refused): every arrival wakes a wait.
bool setReceiveLowWater(NativeSocket, int) {
    ::WSASetLastError(WSAENOPROTOOPT);
    return false;
}

int queuedBytes(NativeSocket s) {
    u_long queued = 0;
    if (::ioctlsocket(s, FIONREAD, &queued) != 0) return 0;
    return queued > INT_MAX ? INT_MAX : static_cast<int>(queued);
}

int resolveIPv4All(const std::string& host, std::vector<std::uint32_t>& out) {
    startWinsock();
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

std::string resolverErrorText(int code) { return socketErrorText(code); }

std::optional<std::string> hostName() {
    startWinsock();
    char name[256 + 1] = {};  // Winsock's documented bound for a host name
    if (::gethostname(name, sizeof name - 1) != 0) return std::nullopt;
    return std::string(name);
}

// A datagram socket on loopback connected to itself: a byte sent is a byte to read, and select
// and event loops can watch it as they watch any socket.
WakeSignal::WakeSignal() {
    NativeSocket s = openSocket(SocketKind::Datagram);
    if (s == kInvalidSocket) return;
    const std::uint32_t loopback = 0x7F000001;
    int port = -1;
    if (!bindTo(s, loopback, 0) || (port = localPort(s)) < 0) {
        const int err = ::WSAGetLastError();
        closeSocket(s);
        ::WSASetLastError(err);
        return;
    }
    sockaddr_in self = address(loopback, port);
    if (::connect(s, reinterpret_cast<sockaddr*>(&self), sizeof self) != 0 || !setBlocking(s, false)) {
        const int err = ::WSAGetLastError();
        closeSocket(s);
        ::WSASetLastError(err);
        return;
    }
    handle_ = s;
}

WakeSignal::~WakeSignal() { closeSocket(handle_); }

void WakeSignal::raise() noexcept {
    const char one = 1;
    ::send(handle_, &one, 1, 0);
}

void WakeSignal::drain() noexcept {
    char sink[64];
    while (::recv(handle_, sink, sizeof sink, 0) >= 0) {
    }
}

bool waitRaised(const WakeSignal& signal, std::optional<double> timeout) {
    timeval tv{};
    if (timeout) tv = toTimeval(*timeout);
    fd_set r;
    FD_ZERO(&r);
    FD_SET(signal.handle(), &r);
    return ::select(0, &r, nullptr, nullptr, timeout ? &tv : nullptr) > 0;
}

WaitResult waitReadable(NativeSocket s, const WakeSignal& cancel, std::optional<double> timeout, bool cancel_only) {
    timeval tv{};
    if (timeout && !cancel_only) tv = toTimeval(*timeout);
    auto wait = [&](bool watch_socket, fd_set& r) {
        FD_ZERO(&r);
        FD_SET(cancel.handle(), &r);
        if (watch_socket) FD_SET(s, &r);
        return ::select(0, &r, nullptr, nullptr, timeout && !cancel_only ? &tv : nullptr);
    };
    fd_set r;
    int rc = wait(!cancel_only, r);
    // Winsock refuses to select on a datagram socket that is not bound (a bind that failed): such
    // a socket never has anything to read, as Linux's poll sees it, so wait for the rest alone.
    if (rc < 0 && !cancel_only && ::WSAGetLastError() == WSAEINVAL) rc = wait(false, r);
    if (rc < 0) return WaitResult::Failed;
    if (FD_ISSET(cancel.handle(), &r)) return WaitResult::Cancelled;
    return rc == 0 ? WaitResult::TimedOut : WaitResult::Readable;
}

}  // namespace torvik::platform
