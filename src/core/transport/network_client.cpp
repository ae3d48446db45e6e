#include "transport/network_client.hpp"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "wire/commands.hpp"
#include "wire/ipv4.hpp"

namespace torvik::transport {

namespace pf = platform;

namespace {

[[noreturn]] void throwSocketError(const char* op, int err) {
    throw SocketError(err, std::string(op) + ": " + pf::socketErrorText(err));
}

[[noreturn]] void throwLastError(const char* op) { throwSocketError(op, pf::lastSocketError()); }

void checkPort(int port, const char* op) {
    if (port < 0 || port > 65535) throw BadPort(std::string(op) + "(): port must be 0-65535.");
}

// Closes a socket of one send when the send is done, whichever way it ends.
struct ScopedSocket {
    pf::NativeSocket s;
    ~ScopedSocket() { pf::closeSocket(s); }
};

}  // namespace

std::uint32_t resolveIPv4(const std::string& host) {
    if (host.empty()) return 0;                     // any address
    if (host == "<broadcast>") return 0xFFFFFFFFu;  // the limited broadcast address
    if (auto ip = wire::parseIPv4(host)) return *ip;
    std::vector<std::uint32_t> ips;
    const int rc = pf::resolveIPv4All(host, ips);
    if (rc != 0) throw ResolveError(rc, pf::resolverErrorText(rc));
    return ips.front();
}

SocketHandle::SocketHandle(pf::SocketKind kind) : stream_(kind == pf::SocketKind::Stream) {
    fd_ = pf::openSocket(kind);
    if (fd_ == pf::kInvalidSocket) throwLastError("socket");
    cancel_.emplace();
    if (!cancel_->valid()) {
        const int err = pf::lastSocketError();
        pf::closeSocket(fd_);
        throwSocketError("eventfd", err);
    }
}

SocketHandle::~SocketHandle() { pf::closeSocket(fd_); }

void SocketHandle::cancel() { cancel_->raise(); }

void SocketHandle::setWakeThreshold(int bytes) {
    if (bytes == threshold_) return;
    // A failure leaves the threshold as it was: a raised one still ends each wait by its window.
    if (pf::setReceiveLowWater(fd_, bytes)) threshold_ = bytes;
}

void SocketHandle::stopBatching() {
    if (!batching_.load()) return;
    std::lock_guard lock(threshold_m_);
    if (!batching_.exchange(false)) return;
    // One byte more than is there: a reader that waits is woken by the next arrival, not at
    // once for the stream data that gathered.
    setWakeThreshold(pf::queuedBytes(fd_) + 1);
}

bool SocketHandle::boundReads() {
    int bound = bound_reads_.load();
    if (bound < 0) {
        bound = pf::setReceiveTimeout(fd_, static_cast<int>(kReadTick.count())) ? 1 : 0;
        bound_reads_ = bound;
    }
    return bound == 1;
}

SocketHandle::Wait SocketHandle::waitFor(std::optional<double> timeout, bool park) {
    switch (pf::waitReadable(fd_, *cancel_, timeout, park)) {
        case pf::WaitResult::Cancelled:
            return Wait::Cancelled;  // the signal stays raised, so every wait ends
        case pf::WaitResult::TimedOut:
            return Wait::TimedOut;
        case pf::WaitResult::Readable:
            return Wait::Readable;
        case pf::WaitResult::Failed:
            break;
    }
    throwLastError("poll");
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

std::shared_ptr<SocketHandle> NetworkClient::newSocket(pf::SocketKind kind) {
    auto sock = std::make_shared<SocketHandle>(kind);
    std::lock_guard lock(mutex_);
    sock_ = sock;
    return sock;
}

void NetworkClient::setTimeout(std::optional<double> seconds) {
    std::lock_guard lock(mutex_);
    if (!sock_) return;
    timeout_ = seconds;
}

std::vector<std::uint8_t> NetworkClient::recvPacket(std::size_t length, bool park_when_ended,
                                                    std::unique_lock<std::mutex>* hold) {
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
    std::vector<std::uint8_t> buf(length);
    long n;
    for (;;) {
        if (!nonblocking && !sock->waitReadable(timeout, park_when_ended)) return {};
        if (hold != nullptr) *hold = std::unique_lock(read_m_);
        n = pf::receive(sock->fd(), buf.data(), length, !nonblocking);
        // A bounded receive that found nothing (a taker read first) waits again, as it would
        // have without the bound.
        if (n >= 0 || nonblocking || !pf::isWouldBlock(pf::lastSocketError())) break;
        if (hold != nullptr) hold->unlock();
    }
    if (n < 0) {
        const int err = pf::lastSocketError();
        if (!pf::isWouldBlock(err)) sock->ended = true;
        throwSocketError("recv", err);
    }
    if (n == 0 && length > 0 && sock->isStream()) sock->ended = true;  // a datagram may be empty
    buf.resize(static_cast<std::size_t>(n));
    return buf;
}

std::vector<wire::Packet> NetworkClient::recvAndSplitPacket(std::size_t length, bool park_when_ended,
                                                          std::unique_lock<std::mutex>* hold) {
    std::vector<std::uint8_t> chunk = recvPacket(length, park_when_ended, hold);
    if (chunk.empty()) return {};
    return withStream([&](wire::FrameSplitter& s) {
        s.append(chunk);
        return s.split();
    });
}

std::vector<wire::Packet> NetworkClient::receiveAndSplit(std::size_t length, const std::atomic<int>* awaited,
                                                        double window, std::unique_lock<std::mutex>* hold) {
    if (hold != nullptr) {
        *hold = std::unique_lock(read_m_);
        if (!held_.empty()) return std::exchange(held_, {});
        hold->unlock();
        // Takers read now: wait until they are done instead of being woken by what they read,
        // then come back for what they may have left.
        if (takers_.load() != 0) {
            standAside();
            return {};
        }
    }
    std::shared_ptr<SocketHandle> sock;
    std::optional<double> timeout;
    {
        std::lock_guard lock(mutex_);
        sock = sock_;
        timeout = timeout_;
    }
    // Datagrams, non-blocking reads and ended streams read as a script's recv does.
    if (!sock || !sock->isStream() || sock->ended || length == 0 || (timeout && *timeout <= 0))
        return recvAndSplitPacket(length, true, hold);

    // Batch only while stream data flow: an idle connection, or one that carries replies alone,
    // waits for its next byte without a window.
    sock->prepareWait([&] { return flowing_ && awaited && awaited->load() == 0 && takers_.load() == 0; });
    if (sock->batching()) {
        if (sock->waitFor(timeout ? std::min(*timeout, window) : window) == SocketHandle::Wait::Cancelled) return {};
    } else if (!sock->waitReadable(timeout, true)) {
        return {};
    }
    std::unique_lock<std::mutex> local;
    if (hold == nullptr) hold = &local;
    *hold = std::unique_lock(read_m_);
    if (takers_.load() != 0) {  // a taker came meanwhile: it reads what woke this thread
        hold->unlock();
        return {};
    }
    return readBurst(*sock, length);
}

std::vector<wire::Packet> NetworkClient::readBurst(SocketHandle& sock, std::size_t length, bool wait) {
    // The whole burst that is there, in reads of a buffer kept for the purpose, up to a bound
    // that keeps the split moving. Only the first read may wait (a taker's, whose wake threshold
    // is one byte); the others never do: below the threshold a blocking recv would wait for more.
    // Same frames, same order as reads of `length` bytes.
    constexpr std::size_t kBurstBound = 256 * 1024;
    const std::size_t step = std::max<std::size_t>(length, 64 * 1024);
    std::size_t have = 0;
    for (;;) {
        if (burst_.size() < have + step) burst_.resize(have + step);
        const long n = wait && have == 0 ? receiveWaiting(sock, step) : pf::receive(sock.fd(), burst_.data() + have, step, false);
        if (n < 0) {
            const int err = pf::lastSocketError();
            if (pf::isWouldBlock(err) || have > 0) break;  // an error is reported by the next read
            sock.ended = true;
            throwSocketError("recv", err);
        }
        if (n == 0) {
            if (have == 0) sock.ended = true;
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

long NetworkClient::receiveWaiting(SocketHandle& sock, std::size_t step) {
    using clock = std::chrono::steady_clock;
    const bool look = glance_.due();
    long n = -1;
    bool wait = true, shared = false;
    if (look) {
        const auto until = clock::now() + Glance::kMoment;
        for (;;) {
            n = pf::receive(sock.fd(), burst_.data(), step, false);
            if (n >= 0 || !pf::isWouldBlock(pf::lastSocketError())) {
                wait = false;
                break;
            }
            const auto before = clock::now();
            if (before >= until) break;
            std::this_thread::yield();
            if (clock::now() - before >= Glance::kYielded) {
                shared = true;
                break;
            }
        }
    }
    if (wait) n = pf::receive(sock.fd(), burst_.data(), step, true);
    if (n > 0) {
        // Another thread's later send makes a sample negative: left out. A far unit's long
        // replies count as long, not longer: both ways then come out alike, and waiting is taken.
        // Looks that gave the core away count double: the unit then mostly shares this core, and
        // the turn it got cost the next request its wake-up, which no sample of this one shows.
        const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(clock::now().time_since_epoch()).count();
        const std::int64_t taken = now - sent_at_.load();
        if (taken >= 0) glance_.record(look, static_cast<double>(std::min<std::int64_t>(taken, 10'000'000)) * (shared ? 2 : 1));
    }
    return n;
}

void NetworkClient::standAside() {
    // A condition variable, not an atomic wait: that one spins first, on the core a taker needs.
    std::unique_lock aside(aside_m_);
    aside_ = true;
    // A script that calls again and again leaves gaps between its takers: stay aside through
    // them, looking once a tick, rather than wake for every reply. Back to reading after a tick
    // without takers; a taker that waits long is waited for without ticking.
    for (std::uint64_t seen = leaves_.load();;) {
        if (aside_cv_.wait_for(aside, kLinger, [this] { return resume_; })) break;
        const std::uint64_t leaves = leaves_.load();
        if (takers_.load() == 0) {
            if (leaves == seen) break;
        } else if (leaves == seen) {
            waits_for_none_ = true;
            aside_cv_.wait(aside, [this] { return takers_.load() == 0 || resume_; });
            waits_for_none_ = false;
            if (resume_) break;
        }
        seen = leaves;
    }
    resume_ = false;
    aside_ = false;
}

void NetworkClient::resumeReader() {
    std::lock_guard aside(aside_m_);
    if (!aside_) return;
    resume_ = true;
    aside_cv_.notify_all();
}

NetworkClient::Taker::Taker(NetworkClient& client, const std::atomic<int>* awaited) : client_(client), awaited_(awaited) {
    {
        std::lock_guard lock(client_.mutex_);
        if (!client_.sock_ || !client_.sock_->isStream() || client_.sock_->ended || client_.timeout_ || client_.refused_)
            return;
        sock_ = client_.sock_;
    }
    ++client_.takers_;
    // Wake for a byte: a batching receive thread may have raised the threshold, and sees this
    // taker before it raises it again.
    sock_->prepareWait([] { return false; });
}

NetworkClient::Taker::~Taker() { leave(); }

void NetworkClient::Taker::leave() {
    if (!sock_) return;
    sock_.reset();
    ++client_.leaves_;
    if (--client_.takers_ != 0) return;
    // Others wait for replies (awaited operations of other threads): the receive thread reads
    // for them again at once.
    if (awaited_ != nullptr && awaited_->load() > 0) {
        client_.resumeReader();
    } else if (client_.waits_for_none_.load()) {  // set before it looks at takers_, so one of us sees the other
        std::lock_guard aside(client_.aside_m_);
        client_.aside_cv_.notify_all();
    }
}

NetworkClient::Taker::Read NetworkClient::Taker::readAndFile(const std::function<void(wire::Packet&)>& file) {
    std::unique_lock lock(client_.read_m_, std::try_to_lock);
    if (!sock_ || !lock.owns_lock()) return Read::Watch;
    std::vector<wire::Packet> packets;
    if (client_.held_.empty() && !sock_->ended) {
        try {
            packets = client_.readBurst(*sock_, 0);
        } catch (const SocketError&) {
            // the stream has ended; the receive thread's next read reports it as before
        }
    }
    fileAll(packets, file);
    return Read::Done;
}

NetworkClient::Taker::Read NetworkClient::Taker::readWaiting(const std::function<void(wire::Packet&)>& file) {
    if (!sock_ || !sock_->boundReads()) return Read::Watch;
    // Holding the read lock through the wait keeps every other reader out: nobody can take a
    // reply this thread would then not hear of. Whoever else wants to read waits at most for the
    // next arrival, which this read takes and files.
    std::unique_lock lock(client_.read_m_, std::try_to_lock);
    if (!lock.owns_lock() || !client_.held_.empty() || sock_->ended) return Read::Watch;
    std::vector<wire::Packet> packets;
    try {
        packets = client_.readBurst(*sock_, 0, true);
    } catch (const SocketError&) {
        // as in readAndFile
    }
    fileAll(packets, file);
    return Read::Done;
}

void NetworkClient::Taker::fileAll(std::vector<wire::Packet>& packets, const std::function<void(wire::Packet&)>& file) {
    for (auto it = packets.begin(); it != packets.end(); ++it) {
        try {
            file(*it);
        } catch (...) {
            // The receive thread files these and fails on the first, as it would have had it read
            // them. It may be waiting on a socket that has nothing left to read: the cancel ends
            // that wait (for good, but the thread ends at once, and no taker reads after it).
            client_.held_.assign(std::make_move_iterator(it), std::make_move_iterator(packets.end()));
            client_.refused_ = true;
            sock_->cancel();
            break;
        }
    }
    if (!client_.held_.empty() || sock_->ended) leave();
}

void NetworkClient::sendPacket(std::span<const std::uint8_t> bytes) {
    auto sock = requireSocket("send");
    sock->stopBatching();  // its reply must wake the reader at once
    if (takers_.load() == 0 && aside_.load()) resumeReader();  // nobody else would read it
    sent_at_ = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
    if (pf::sendBytes(sock->fd(), bytes.data(), bytes.size()) < 0) throwLastError("send");
}

void NetworkClient::disconnect() {
    auto sock = requireSocket("shutdown");
    // A reader leaves its wait even when the shutdown fails: it goes back to its gate, and the
    // socket stays as it is.
    sock->cancel();
    resumeReader();
    if (!pf::shutdownSocket(sock->fd(), pf::Shut::Both))
        throw ConnectionLost("shutdown: " + pf::socketErrorText(pf::lastSocketError()));
    std::lock_guard lock(mutex_);
    if (sock_ == sock) sock_.reset();
}

bool TcpClient::connect(const std::string& host, int port) {
    auto sock = newSocket(pf::SocketKind::Stream);
    setTimeout(static_cast<double>(wire::CONNECTION_TIMEOUT));
    try {
        checkPort(port, "connect");
        const std::uint32_t ip = resolveIPv4(host);
        const int err = pf::connectWithin(sock->fd(), ip, port, static_cast<int>(wire::CONNECTION_TIMEOUT * 1000));
        if (err == pf::timedOutError()) throw SocketError(err, "connect: timed out");
        if (err != 0) throwSocketError("connect", err);
    } catch (const SocketError& e) {
        throw ConnectFailed(e.what());
    } catch (const ResolveError& e) {
        throw ConnectFailed(e.what());
    }
    setTimeout(std::nullopt);
    return true;
}

bool UdpClient::bind(const std::string& host, int port) {
    auto sock = newSocket(pf::SocketKind::Datagram);
    setTimeout(std::nullopt);
    try {
        checkPort(port, "bind");
        if (!pf::bindTo(sock->fd(), resolveIPv4(host), port)) throwLastError("bind");
    } catch (const SocketError& e) {
        throw ConnectFailed(e.what());
    } catch (const ResolveError& e) {
        throw ConnectFailed(e.what());
    }
    return true;
}

void UdpClient::sendBcstPacket(std::span<const std::uint8_t> bytes) {
    const std::optional<std::string> name = pf::hostName();
    if (!name) throwLastError("gethostname");
    std::vector<std::uint32_t> ips;  // one per record, duplicates kept: each record sends once
    const int rc = pf::resolveIPv4All(*name, ips);
    if (rc != 0) throw ResolveError(rc, pf::resolverErrorText(rc));
    for (const std::uint32_t ip : ips) {
        ScopedSocket sock{pf::openSocket(pf::SocketKind::Datagram)};
        if (sock.s == pf::kInvalidSocket) throwLastError("socket");
        if (!pf::setBroadcast(sock.s)) throwLastError("setsockopt");
        if (!pf::bindTo(sock.s, ip, 0)) throwLastError("bind");
        if (pf::sendTo(sock.s, bytes.data(), bytes.size(), 0xFFFFFFFFu, wire::UDP_SEND_PORT) < 0) throwLastError("sendto");
    }
}

}  // namespace torvik::transport
