// IPv4 sockets and the cancellable wait on them: the one place where the engine differs between
// BSD sockets (Linux) and Winsock 2 (Windows). Everything above speaks this interface only.
//
// Conventions: addresses and ports are numbers in host byte order. A call that fails returns -1
// (false, or kInvalidSocket) and leaves its reason in lastSocketError(), read on the same thread
// before any other socket call. Sockets are blocking and not inherited by child processes.
// Thread contract: any thread may call anything; a socket is closed by one thread once no other
// uses it (its users hold it through a shared owner, see transport::SocketHandle).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace torvik::platform {

#if defined(_WIN32)
using NativeSocket = std::uintptr_t;  // SOCKET
#else
using NativeSocket = int;
#endif
inline constexpr NativeSocket kInvalidSocket = static_cast<NativeSocket>(-1);

enum class SocketKind { Stream, Datagram };

// The reason of the last failed socket call of this thread (errno, or WSAGetLastError) and the
// system's text for such a reason.
int lastSocketError();
std::string socketErrorText(int err);
// The reason a "don't wait" read gives when nothing is there, and the one of a connect that ran
// out of time.
bool isWouldBlock(int err);
int timedOutError();

// A new IPv4 socket (UDP for a datagram one). Starts the socket library on first use.
NativeSocket openSocket(SocketKind kind);
void closeSocket(NativeSocket s);

bool bindTo(NativeSocket s, std::uint32_t ip, int port);
// Connects within the time limit; 0, or the reason it failed (timedOutError() when time ran out).
int connectWithin(NativeSocket s, std::uint32_t ip, int port, int timeout_ms);
bool listenOn(NativeSocket s, int backlog);
NativeSocket acceptOn(NativeSocket s);
// The local port the socket is bound to; -1 on failure.
int localPort(NativeSocket s);

// One recv of up to `length` bytes: the count (0 when a stream has ended, or an empty datagram),
// or -1. Without `wait` it returns at once, -1 with isWouldBlock when nothing is there. A signal
// that interrupts the call makes it try again.
long receive(NativeSocket s, void* buf, std::size_t length, bool wait);
// One send (never raising a signal for a closed peer): the count sent, or -1.
long sendBytes(NativeSocket s, const void* buf, std::size_t length);
long sendTo(NativeSocket s, const void* buf, std::size_t length, std::uint32_t ip, int port);
enum class Shut { Send, Both };
bool shutdownSocket(NativeSocket s, Shut how);

bool setBroadcast(NativeSocket s);
// The fewest queued bytes that make a wait report readable. Not every system has it: false then.
bool setReceiveLowWater(NativeSocket s, int bytes);
// Bounds every blocking receive on the socket to `ms` (it then fails with isWouldBlock). Not
// every system leaves a connection usable after such a receive ran out: false there.
bool setReceiveTimeout(NativeSocket s, int ms);
// Bytes queued for reading; 0 on failure.
int queuedBytes(NativeSocket s);

// The system's resolver for IPv4: 0 and the addresses in the order given (duplicates kept), or a
// resolver code whose text resolverErrorText gives.
int resolveIPv4All(const std::string& host, std::vector<std::uint32_t>& out);
std::string resolverErrorText(int code);
// This machine's host name, or nothing (with lastSocketError).
std::optional<std::string> hostName();

// A handle that becomes readable when raised and stays readable until drained: the wake-up of a
// wait (an eventfd on Linux, a loopback datagram socket talking to itself on Windows, where waits
// and event loops watch sockets only). Raise and drain never block and may run on any thread.
class WakeSignal {
public:
    WakeSignal();  // valid() tells whether the system gave one (reason in lastSocketError)
    ~WakeSignal();
    WakeSignal(const WakeSignal&) = delete;
    WakeSignal& operator=(const WakeSignal&) = delete;

    bool valid() const { return handle_ != kInvalidSocket; }
    // What a poll, select or an event loop's add_reader watches.
    NativeSocket handle() const { return handle_; }
    void raise() noexcept;
    void drain() noexcept;

private:
    NativeSocket handle_ = kInvalidSocket;
};

// Waits until `signal` is raised or the time limit passes (nullopt: none); false when it passed
// or the wait failed.
bool waitRaised(const WakeSignal& signal, std::optional<double> timeout);

enum class WaitResult { Readable, Cancelled, TimedOut, Failed };
// Waits until `s` is readable (data, the end of a stream, or an error to read), `cancel` is raised,
// or the time limit passes (nullopt: none). With `cancel_only` the socket is not watched. Failed
// leaves its reason in lastSocketError. A raised `cancel` wins over a readable socket.
WaitResult waitReadable(NativeSocket s, const WakeSignal& cancel, std::optional<double> timeout, bool cancel_only);

}  // namespace torvik::platform
