// The data pools of a device: where receive threads file packets and operations find them.
//
// Every single step (file, take, look) is atomic under a short lock that is never held across
// a wait or while calling out; waiting is done by registering a Wakeable that a filing wakes.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <set>
#include <utility>
#include <unordered_map>
#include <vector>

namespace torvik::device {

using Bytes = std::vector<std::uint8_t>;

// Something waiting for a filing; wake() must be quick and must not call back into the pool.
class Wakeable {
public:
    virtual ~Wakeable() = default;
    virtual void wake() noexcept = 0;
};

// A thread that blocks until a filing wakes it; woken once, for one registration.
class BlockingWaiter final : public Wakeable {
public:
    void wake() noexcept override;
    // Blocks until woken or until `limit` (nullopt: none) has passed; true when woken.
    bool wait(std::optional<std::chrono::nanoseconds> limit);

private:
    // A semaphore rather than a condition variable: a woken thread need not take a mutex back,
    // whose release would cost a system call on each round trip.
    std::binary_semaphore woken_{0};
};

class AwaitedReply;

// Latest unclaimed reply per command code.
class EchoPool {
public:
    // Files a reply, replacing an unclaimed older one, and wakes everyone waiting for its code.
    void put(std::uint32_t code, Bytes data);
    std::optional<Bytes> take(std::uint32_t code);
    std::optional<Bytes> get(std::uint32_t code) const;
    bool erase(std::uint32_t code);
    bool contains(std::uint32_t code) const;
    std::size_t size() const;
    // Codes in the order they were first filed (a replaced reply keeps its place).
    std::vector<std::uint32_t> codes() const;

    // Takes the reply of `code` into `out` if there is one; otherwise registers `waiter` to be
    // woken (once) by the next filing of that code. The two happen under one lock, so a filing
    // cannot slip between the look and the registration.
    bool takeOrWait(std::uint32_t code, Bytes& out, const std::shared_ptr<Wakeable>& waiter);
    void cancelWait(std::uint32_t code, const Wakeable* waiter);

    // Takes the reply of `code`, blocking the calling thread up to `limit` (nullopt: no limit)
    // until a filing of that code wakes it; nothing is held while it blocks. Nullopt when the
    // limit ran out or another taker was quicker. Its waiter is unregistered however it ends.
    // `announced` (if any) is let go once the waiter is registered or the reply taken.
    std::optional<Bytes> takeWaiting(std::uint32_t code, std::optional<std::chrono::nanoseconds> limit,
                                     AwaitedReply* announced = nullptr);

    // Replies that operations wait for (registered waiters) or are about to send for (an
    // AwaitedReply alive). While it is zero a receive thread may let stream data gather before
    // it wakes; a filing that wakes the waiters makes it zero again at once.
    const std::atomic<int>& awaited() const { return awaited_; }

private:
    struct Entry {
        Bytes data;
        std::uint64_t order;
    };
    mutable std::mutex m_;
    std::unordered_map<std::uint32_t, Entry> replies_;                              // guarded by m_
    std::uint64_t next_order_ = 0;                                                  // guarded by m_
    std::unordered_multimap<std::uint32_t, std::shared_ptr<Wakeable>> waiters_;     // guarded by m_
    std::atomic<int> awaited_{0};

    friend class AwaitedReply;
};

// An item of a stream queue: bytes filed by the engine, the wake-up token, or an object that a
// script put in (owned by the binding layer, opaque here).
struct ForeignObject {
    virtual ~ForeignObject() = default;
};
struct StreamItem {
    enum class Kind { Bytes, Token, Foreign } kind = Kind::Bytes;
    Bytes bytes;
    std::shared_ptr<ForeignObject> foreign;
};

// FIFO queue with an optional bound (0 = none), usable from engine threads and scripts alike.
class StreamQueue {
public:
    explicit StreamQueue(std::size_t maxsize = 0) : maxsize_(maxsize) {}
    // Puts an item; with a bound and a full queue, waits up to `timeout` (nullopt = for ever,
    // zero = not at all). False when it could not.
    bool put(StreamItem item, std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
    // Puts received data as put() without a time limit, but without waking a consumer that is
    // pacing itself (see getPaced): it comes back on its own within its window. Waking a thread
    // per packet costs the receive thread more than everything else it does for that packet.
    void putData(StreamItem item);
    // Takes the oldest item, waiting as put does; nullopt when none came.
    std::optional<StreamItem> get(std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
    // Takes the oldest item for a consumer that drains a steady stream: once it has found an item,
    // an empty queue makes it sleep for `window` while putData leaves it be, and it takes what
    // gathered meanwhile in one go. A window that gathers nothing ends the pacing: the next item
    // wakes it at once. Items put by put() always wake it. Nullopt when the queue stayed empty
    // for `timeout`.
    std::optional<StreamItem> getPaced(std::chrono::nanoseconds timeout, std::chrono::nanoseconds window);
    // Takes up to n items at once, without waiting.
    std::vector<StreamItem> takeUpTo(std::size_t n);
    std::size_t size() const;
    std::size_t maxsize() const { return maxsize_; }
    bool full() const;

private:
    bool push(StreamItem item, std::optional<std::chrono::nanoseconds> timeout, bool wake_napping);

    const std::size_t maxsize_;
    mutable std::mutex m_;
    std::condition_variable not_empty_, not_full_;
    std::deque<StreamItem> items_;  // guarded by m_
    bool pacing_ = false;           // the consumer found an item last time; guarded by m_
    bool napping_ = false;          // the consumer sleeps out its window; guarded by m_
};

// A stream queue key: a bare command code, or a (code, port) pair.
struct StreamKey {
    std::uint32_t code = 0;
    std::optional<std::int64_t> port;
    bool operator<(const StreamKey& o) const {
        return code != o.code ? code < o.code : port < o.port;
    }
    bool operator==(const StreamKey&) const = default;
};

class StreamPool {
public:
    // The queue of a key, created unbounded on first access; always the same queue for a key.
    std::shared_ptr<StreamQueue> at(const StreamKey& key);
    void set(const StreamKey& key, std::shared_ptr<StreamQueue> queue);
    bool erase(const StreamKey& key);
    bool contains(const StreamKey& key) const;
    // Whether a queue with a bound is among them (filing into it may have to wait).
    bool anyBounded() const;
    std::size_t size() const;
    std::vector<StreamKey> keys() const;

private:
    mutable std::mutex m_;
    std::map<StreamKey, std::shared_ptr<StreamQueue>> queues_;  // guarded by m_
};

// Announces a reply about to be awaited, from before its command goes out until its waiter is
// registered (or the reply taken), so that no receive thread starts batching in between.
class AwaitedReply {
public:
    explicit AwaitedReply(std::shared_ptr<EchoPool> pool) : pool_(std::move(pool)) { ++pool_->awaited_; }
    AwaitedReply(AwaitedReply&& o) noexcept : pool_(std::move(o.pool_)) {}
    AwaitedReply& operator=(AwaitedReply&&) = delete;
    ~AwaitedReply() { release(); }
    void release() {
        if (pool_) --std::exchange(pool_, nullptr)->awaited_;
    }

private:
    std::shared_ptr<EchoPool> pool_;
};

// A set of distinct answers.
class BytesSet {
public:
    bool add(Bytes b);
    bool discard(const Bytes& b);
    bool contains(const Bytes& b) const;
    void clear();
    std::size_t size() const;
    std::vector<Bytes> items() const;

private:
    mutable std::mutex m_;
    std::set<Bytes> items_;  // guarded by m_
};

class BcstPool {
public:
    // The answer set of a code, created empty on first access.
    std::shared_ptr<BytesSet> at(std::uint32_t code);
    bool erase(std::uint32_t code);
    bool contains(std::uint32_t code) const;
    std::size_t size() const;
    std::vector<std::uint32_t> codes() const;

private:
    mutable std::mutex m_;
    std::map<std::uint32_t, std::shared_ptr<BytesSet>> sets_;  // guarded by m_
};

}  // namespace torvik::device
