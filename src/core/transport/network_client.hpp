// Socket transports: TCP for a unit's command and data connections, UDP for discovery answers
// and broadcasts.
//
// Thread contract: one reader thread calls recvPacket / recvAndSplitPacket; any other thread may
// send, set the time limit or disconnect at the same time. A disconnect wakes a blocked reader.
// All calls may block (connect up to its time limit, recv without limit unless set); callers
// that hold an interpreter lock release it first.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/socket.hpp"
#include "transport/client.hpp"
#include "transport/errors.hpp"

namespace torvik::transport {

// One open IPv4 socket and the signal that cancels waits on it. The socket is closed when the
// last user lets go, so a reader that is still inside a wait never sees its handle reused.
class SocketHandle {
public:
    explicit SocketHandle(platform::SocketKind kind);
    ~SocketHandle();
    SocketHandle(const SocketHandle&) = delete;
    SocketHandle& operator=(const SocketHandle&) = delete;

    platform::NativeSocket fd() const { return fd_; }
    platform::NativeSocket fileno() const { return fd_; }
    bool isStream() const { return stream_; }
    // Wakes every current and future wait on this socket for good.
    void cancel();
    // Waits until the socket is readable or cancelled; false on cancel, throws ReceiveTimeout.
    // After the peer ended the stream or reading failed, the socket reports readable for ever:
    // with park_when_ended such a wait waits for the cancel alone instead of returning at once.
    bool waitReadable(std::optional<double> timeout, bool park_when_ended);
    // The same wait without exceptions; `park` waits for the cancel alone.
    enum class Wait { Readable, Cancelled, TimedOut };
    Wait waitFor(std::optional<double> timeout, bool park = false);
    std::atomic<bool> ended{false};

    // Batching of a stream socket's reads: while no reply is awaited, the reader is woken only
    // when a batch of bytes has gathered or its wait's window ends, not for every segment a
    // streaming unit sends. A sender ends the batching before it sends: from then on the next
    // byte to arrive (its reply, or stream data before it) wakes the reader, and what gathered
    // meanwhile comes along.
    bool batching() const { return batching_.load(); }
    // The reader, before each wait: batch when `quiet`, else wake for every byte. `quiet` is
    // read under the same lock that a sender's stopBatching takes, so a sender that announced
    // its reply before is seen here, and one that comes after finds the batching and ends it.
    template <class Quiet>
    void prepareWait(Quiet&& quiet) {
        std::lock_guard lock(threshold_m_);
        const bool batch = quiet();
        batching_.store(batch);
        setWakeThreshold(batch ? kBatchBytes : 1);
    }
    void stopBatching();
    static constexpr int kBatchBytes = 32 * 1024;

    // Blocking receives on the socket end after kReadTick at the latest (then as "would block"),
    // so that a thread waiting inside one looks at its time limit between ticks. Set on first
    // use; false where the system cannot bound them.
    bool boundReads();
    static constexpr std::chrono::milliseconds kReadTick{20};

private:
    void setWakeThreshold(int bytes);

    std::mutex threshold_m_;
    int threshold_ = 1;  // guarded by threshold_m_
    std::atomic<bool> batching_{false};
    std::atomic<int> bound_reads_{-1};  // -1 not tried yet, else 0 or 1
    bool stream_;
    platform::NativeSocket fd_ = platform::kInvalidSocket;
    std::optional<platform::WakeSignal> cancel_;  // set by the constructor
};

class NetworkClient : public Client {
public:
    NetworkClient* network() noexcept override { return this; }
    // A thread about to block for a reply may first look for it for a moment, yielding the core
    // between looks: a nearby unit answers within tens of microseconds, and a core that went to
    // sleep meanwhile takes as long again to wake. That pays only while the unit runs on another
    // core that stays awake; on this core (the emulator beside a script) the looks only delay it,
    // and a far unit answers too late. Where the unit runs is the system's choice and changes, so
    // both ways are measured (send to reply, averaged), the faster is taken, looking only when
    // clearly faster, and the other is tried again every kProbe waits.
    class Glance {
    public:
        static constexpr std::chrono::microseconds kMoment{50};
        static constexpr std::chrono::microseconds kYielded{5};  // a yield that long ran someone else
        static constexpr int kProbe = 256;
        bool due() {
            const bool looking = avg_[1] == 0 || (avg_[0] != 0 && avg_[1] < avg_[0] * 0.9);
            return ++waits_ % kProbe == 0 ? !looking : looking;
        }
        void record(bool looked, double round_trip_ns) {
            double& avg = avg_[looked ? 1 : 0];
            avg = avg == 0 ? round_trip_ns : avg + (round_trip_ns - avg) / 4;
        }

    private:
        double avg_[2] = {0, 0};  // waiting, looking first; 0 until measured
        unsigned waits_ = 0;
    };

    // The open socket, or null for "no socket".
    std::shared_ptr<SocketHandle> socket() const;
    // Applies a receive time limit (seconds; nullopt blocks without limit). No effect without a socket.
    void setTimeout(std::optional<double> seconds);
    // One recv of up to `length` bytes; empty when the peer has shut the stream down. A receive
    // thread passes park_when_ended: once the stream has ended its next read waits for the
    // disconnect (and then returns empty) instead of returning empty at once, for ever.
    // With `hold`, the read lock is taken after the wait and left there (see receiveAndSplit).
    std::vector<std::uint8_t> recvPacket(std::size_t length, bool park_when_ended = false,
                                         std::unique_lock<std::mutex>* hold = nullptr);
    // recvPacket, then the frames it completed.
    std::vector<wire::Packet> recvAndSplitPacket(std::size_t length, bool park_when_ended = false,
                                                 std::unique_lock<std::mutex>* hold = nullptr);
    // A receive thread's read: recvAndSplitPacket(length, true), except that a stream socket
    // takes the whole burst that is there at once (one wake-up and one split a burst; same
    // frames, same order). With `awaited` (the count of replies operations wait for), a stream
    // socket batches its reads while that count is zero and stream data flow: the wait then ends after
    // `window` at the latest, and returns nothing when nothing came; a window without data ends
    // the batching until bytes come again.
    //
    // With `hold`, what the read gives is filed under the connection's read lock, which the read
    // leaves in `hold` (the caller files, then lets go): a thread reading for its reply (below)
    // then never files between a read and its filing. While such threads read, the receive thread
    // stands aside: it returns nothing, once they are done.
    std::vector<wire::Packet> receiveAndSplit(std::size_t length, const std::atomic<int>* awaited = nullptr,
                                              double window = 0.01, std::unique_lock<std::mutex>* hold = nullptr);

    // Reading by a thread that blocks for a reply: the arrival then wakes that thread itself,
    // instead of waking the receive thread, which would wake it in turn (on a machine with few
    // cores the hand-over is a large share of a round trip). The receive thread files as before
    // whatever it read before; a taker reads only a connected stream without a time limit.
    class Taker {
    public:
        // `awaited` (if any): the count of replies operations wait for, this taker's own not
        // among them once it leaves.
        explicit Taker(NetworkClient& client, const std::atomic<int>* awaited = nullptr);
        ~Taker();
        Taker(const Taker&) = delete;
        Taker& operator=(const Taker&) = delete;
        // The socket to watch; null when this connection is not read this way (the taker then
        // waits for the receive thread's filing alone).
        const std::shared_ptr<SocketHandle>& socket() const { return sock_; }
        // Done: read what there was (maybe nothing). Watch: nothing read, see below.
        enum class Read { Done, Watch };
        // Reads what is there without waiting and hands the frames to `file` under the read lock.
        // A frame `file` refuses (throws) is kept with the rest for the receive thread to file
        // (and fail on) as it would have; no taker reads this connection after that. Watch when
        // another thread holds the read lock: it reads and files what came (a taker may wait
        // inside its read until its own reply comes, and must not be queued behind); wait for
        // its filing a moment instead.
        Read readAndFile(const std::function<void(wire::Packet&)>& file);
        // The same, except that the read waits for what comes next, up to kReadTick: the arrival
        // then wakes this thread inside its read, with no wait before it. Only one thread reads
        // this way at a time, and only on a socket whose reads are bounded: Watch when this
        // taker must wait (socket() and its own signal) and read with readAndFile instead.
        Read readWaiting(const std::function<void(wire::Packet&)>& file);
        // Stops reading: the receive thread reads again once no taker does.
        void leave();

    private:
        void fileAll(std::vector<wire::Packet>& packets, const std::function<void(wire::Packet&)>& file);

        NetworkClient& client_;
        const std::atomic<int>* awaited_;
        std::shared_ptr<SocketHandle> sock_;
    };
    // One send of the bytes; a partial send is not completed.
    void sendPacket(std::span<const std::uint8_t> bytes) override;
    // Wakes a blocked reader for good, shuts the socket down both ways and lets it go. Throws
    // ConnectionLost (socket kept) when the shutdown fails, NoSocket when there is none.
    void disconnect();

protected:
    std::shared_ptr<SocketHandle> newSocket(platform::SocketKind kind);
    std::shared_ptr<SocketHandle> requireSocket(const char* op) const;

    mutable std::mutex mutex_;  // guards sock_ and timeout_
    std::shared_ptr<SocketHandle> sock_;
    std::optional<double> timeout_;

private:
    // The burst that is there, read without waiting (with `wait`, its first read waits as a
    // blocking receive does, after a Glance); read lock held.
    std::vector<wire::Packet> readBurst(SocketHandle& sock, std::size_t length, bool wait = false);
    long receiveWaiting(SocketHandle& sock, std::size_t step);

    // The reads' state, written under read_m_ (flowing_ is also looked at before a wait).
    std::mutex read_m_;
    std::vector<std::uint8_t> burst_;
    std::atomic<bool> flowing_{false};  // the last read took stream data
    std::vector<wire::Packet> held_;    // frames a taker could not file, to the receive thread
    Glance glance_;
    std::atomic<std::int64_t> sent_at_{0};  // steady clock, ns: the last send's start
    std::atomic<bool> refused_{false};  // a taker could not file a frame: takers read no more
    // The receive thread's wait while takers read: until a tick of kLinger passed without
    // takers, or until a send or a taker that leaves finds others waiting for a reply.
    void standAside();
    void resumeReader();
    static constexpr std::chrono::milliseconds kLinger{1};
    std::atomic<int> takers_{0};            // threads reading for their reply
    std::atomic<std::uint64_t> leaves_{0};  // takers that have left so far
    std::atomic<bool> aside_{false};        // the receive thread stands aside
    std::atomic<bool> waits_for_none_{false};
    std::mutex aside_m_;
    std::condition_variable aside_cv_;
    bool resume_ = false;  // guarded by aside_m_
};

class TcpClient : public NetworkClient {
public:
    // New socket, connect with the connection time limit, then no limit. Throws ConnectFailed.
    bool connect(const std::string& host, int port);
};

class UdpClient : public NetworkClient {
public:
    // New datagram socket bound to host ("" = every address) and port. Throws ConnectFailed.
    bool bind(const std::string& host, int port);
    // Sends the bytes to the broadcast address through every address the host name resolves to.
    static void sendBcstPacket(std::span<const std::uint8_t> bytes);
};

// Resolves an IPv4 host text as a socket address would ("" is any address).
std::uint32_t resolveIPv4(const std::string& host);

}  // namespace torvik::transport
