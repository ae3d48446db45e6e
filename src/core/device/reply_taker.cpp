#include "device/reply_taker.hpp"

#include <algorithm>
#include <atomic>
#include <memory>

#include "platform/socket.hpp"

namespace torvik::device {

namespace {

// Waits for a filing and, at the same time, for the socket to become readable. A filing raises
// the thread's signal only while the thread sleeps: one that comes while it reads costs nothing.
class WatchingWaiter final : public Wakeable {
public:
    explicit WatchingWaiter(std::shared_ptr<platform::WakeSignal> signal) : signal_(std::move(signal)) {}

    void wake() noexcept override {
        if (state_.exchange(kWoken) == kAsleep) signal_->raise();
    }
    bool woken() const { return state_.load() == kWoken; }

    enum class Outcome { Woken, Readable, Nothing };
    // Sleeps until woken, `sock` (if any) is readable, or `seconds` (nullopt: no limit) passed.
    Outcome sleep(const transport::SocketHandle* sock, std::optional<double> seconds) {
        int awake = kAwake;
        if (!state_.compare_exchange_strong(awake, kAsleep)) return Outcome::Woken;
        platform::WaitResult r;
        if (sock != nullptr)
            r = platform::waitReadable(sock->fd(), *signal_, seconds, false);
        else
            r = platform::waitRaised(*signal_, seconds) ? platform::WaitResult::Cancelled : platform::WaitResult::TimedOut;
        // A raise meant for an earlier wait of this thread may come late: it wakes a later wait
        // once, for nothing, which then goes on.
        if (r == platform::WaitResult::Cancelled) signal_->drain();
        if (state_.exchange(kAwake) == kWoken) {
            state_.store(kWoken);  // woken once and for good
            return Outcome::Woken;
        }
        return r == platform::WaitResult::Readable ? Outcome::Readable : Outcome::Nothing;
    }

private:
    static constexpr int kAwake = 0, kAsleep = 1, kWoken = 2;
    std::atomic<int> state_{kAwake};
    std::shared_ptr<platform::WakeSignal> signal_;
};

// One signal per thread, kept for its later waits; null when the system gave none.
std::shared_ptr<platform::WakeSignal> threadSignal() {
    thread_local std::shared_ptr<platform::WakeSignal> signal = [] {
        auto s = std::make_shared<platform::WakeSignal>();
        return s->valid() ? s : nullptr;
    }();
    return signal;
}

using Taker = transport::NetworkClient::Taker;
constexpr std::chrono::milliseconds kNap{1};

}  // namespace

std::optional<Bytes> takeReading(DataPools& pools, std::uint32_t code, std::optional<std::chrono::nanoseconds> limit,
                                 AwaitedReply* announced, transport::NetworkClient::Taker& taker, const Gate& gate) {
    auto signal = threadSignal();
    if (!taker.socket() || !signal || gate.locked() || pools.strm->anyBounded()) {
        taker.leave();
        return pools.echo->takeWaiting(code, limit, announced);
    }
    EchoPool& pool = *pools.echo;
    auto waiter = std::make_shared<WatchingWaiter>(std::move(signal));
    Bytes out;
    const bool taken = pool.takeOrWait(code, out, waiter);
    if (announced != nullptr) announced->release();
    if (taken) return out;

    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    const auto file = [&pools](wire::Packet& p) { putToDataPool(pools, p.cmd, std::move(p.data)); };
    for (bool first = true;; first = false) {
        std::optional<double> left;
        if (limit) {
            left = std::chrono::duration<double>(*limit - (clock::now() - start)).count();
            if (*left <= 0) break;
        }
        // Nothing is read while a script holds the receive thread, nor while a queue with a bound
        // could make the filing wait: that wait would keep no time limit (the receive thread's does).
        // The first round was looked at above.
        if (!first && (gate.locked() || pools.strm->anyBounded())) taker.leave();
        // Waiting inside the read saves a wait before it, on every reply. A time limit closer
        // than the reads' bound is waited out below instead, to the point.
        if ((!left || *left > std::chrono::duration<double>(transport::SocketHandle::kReadTick).count()) &&
            taker.readWaiting(file) == Taker::Read::Done) {
            if (waiter->woken()) break;
            continue;
        }
        const auto outcome = waiter->sleep(taker.socket().get(), left);
        if (outcome == WatchingWaiter::Outcome::Woken) break;
        if (outcome == WatchingWaiter::Outcome::Readable && taker.readAndFile(file) == Taker::Read::Watch) {
            // The socket stays readable until the other reader has read: wait for its filing, a
            // moment at most.
            const double nap = std::chrono::duration<double>(kNap).count();
            if (waiter->sleep(nullptr, left ? std::min(*left, nap) : nap) == WatchingWaiter::Outcome::Woken) break;
        }
        if (waiter->woken()) break;
    }
    pool.cancelWait(code, waiter.get());
    return pool.take(code);
}

}  // namespace torvik::device
