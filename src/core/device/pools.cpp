#include "device/pools.hpp"

#include <algorithm>

namespace torvik::device {

void EchoPool::put(std::uint32_t code, Bytes data) {
    std::vector<std::shared_ptr<Wakeable>> woken;
    {
        std::lock_guard lock(m_);
        auto [it, inserted] = replies_.try_emplace(code, Entry{{}, next_order_});
        if (inserted) ++next_order_;
        it->second.data = std::move(data);
        auto [first, last] = waiters_.equal_range(code);
        for (auto w = first; w != last; ++w) woken.push_back(std::move(w->second));
        waiters_.erase(first, last);
        awaited_ -= static_cast<int>(woken.size());
    }
    for (auto& w : woken) w->wake();
}

std::optional<Bytes> EchoPool::take(std::uint32_t code) {
    std::lock_guard lock(m_);
    auto it = replies_.find(code);
    if (it == replies_.end()) return std::nullopt;
    Bytes data = std::move(it->second.data);
    replies_.erase(it);
    return data;
}

std::optional<Bytes> EchoPool::get(std::uint32_t code) const {
    std::lock_guard lock(m_);
    auto it = replies_.find(code);
    if (it == replies_.end()) return std::nullopt;
    return it->second.data;
}

bool EchoPool::erase(std::uint32_t code) {
    std::lock_guard lock(m_);
    return replies_.erase(code) > 0;
}

bool EchoPool::contains(std::uint32_t code) const {
    std::lock_guard lock(m_);
    return replies_.count(code) > 0;
}

std::size_t EchoPool::size() const {
    std::lock_guard lock(m_);
    return replies_.size();
}

std::vector<std::uint32_t> EchoPool::codes() const {
    std::vector<std::pair<std::uint64_t, std::uint32_t>> order;
    {
        std::lock_guard lock(m_);
        for (const auto& [code, entry] : replies_) order.emplace_back(entry.order, code);
    }
    std::sort(order.begin(), order.end());
    std::vector<std::uint32_t> out;
    for (const auto& o : order) out.push_back(o.second);
    return out;
}

bool EchoPool::takeOrWait(std::uint32_t code, Bytes& out, const std::shared_ptr<Wakeable>& waiter) {
    std::lock_guard lock(m_);
    auto it = replies_.find(code);
    if (it != replies_.end()) {
        out = std::move(it->second.data);
        replies_.erase(it);
        return true;
    }
    waiters_.emplace(code, waiter);
    ++awaited_;
    return false;
}

void EchoPool::cancelWait(std::uint32_t code, const Wakeable* waiter) {
    std::shared_ptr<Wakeable> dropped;  // let go outside the lock
    std::lock_guard lock(m_);
    auto [first, last] = waiters_.equal_range(code);
    for (auto w = first; w != last; ++w) {
        if (w->second.get() == waiter) {
            dropped = std::move(w->second);
            waiters_.erase(w);
            --awaited_;
            break;
        }
    }
}

// Woken at most once: a filing hands each registration to one wake, and a cancelled one gets none.
void BlockingWaiter::wake() noexcept { woken_.release(); }

bool BlockingWaiter::wait(std::optional<std::chrono::nanoseconds> limit) {
    if (!limit) {
        woken_.acquire();
        return true;
    }
    return woken_.try_acquire_for(*limit);
}

std::optional<Bytes> EchoPool::takeWaiting(std::uint32_t code, std::optional<std::chrono::nanoseconds> limit,
                                           AwaitedReply* announced) {
    auto waiter = std::make_shared<BlockingWaiter>();
    Bytes out;
    const bool taken = takeOrWait(code, out, waiter);
    if (announced != nullptr) announced->release();
    if (taken) return out;
    waiter->wait(limit);
    cancelWait(code, waiter.get());
    // Woken, or filed between the end of the wait and the cancel: the reply is in the pool
    // unless another taker was quicker.
    return take(code);
}

bool StreamQueue::put(StreamItem item, std::optional<std::chrono::nanoseconds> timeout) {
    return push(std::move(item), timeout, true);
}

void StreamQueue::putData(StreamItem item) { push(std::move(item), std::nullopt, false); }

bool StreamQueue::push(StreamItem item, std::optional<std::chrono::nanoseconds> timeout, bool wake_napping) {
    bool wake;
    {
        std::unique_lock lock(m_);
        if (maxsize_ > 0 && items_.size() >= maxsize_) {
            auto room = [this] { return items_.size() < maxsize_; };
            if (!timeout)
                not_full_.wait(lock, room);
            else if (!not_full_.wait_for(lock, *timeout, room))
                return false;
        }
        items_.push_back(std::move(item));
        wake = wake_napping || !napping_;
    }
    if (wake) not_empty_.notify_one();
    return true;
}

std::optional<StreamItem> StreamQueue::getPaced(std::chrono::nanoseconds timeout, std::chrono::nanoseconds window) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    std::optional<StreamItem> out;
    {
        std::unique_lock lock(m_);
        auto any = [this] { return !items_.empty(); };
        if (items_.empty() && pacing_) {
            napping_ = true;
            not_empty_.wait_until(lock, std::min(deadline, Clock::now() + window), any);
            napping_ = false;
            pacing_ = !items_.empty();
        }
        if (!not_empty_.wait_until(lock, deadline, any)) return std::nullopt;
        out = std::move(items_.front());
        items_.pop_front();
        pacing_ = true;
    }
    if (maxsize_ > 0) not_full_.notify_one();
    return out;
}

std::optional<StreamItem> StreamQueue::get(std::optional<std::chrono::nanoseconds> timeout) {
    std::optional<StreamItem> out;
    {
        std::unique_lock lock(m_);
        auto any = [this] { return !items_.empty(); };
        if (!timeout)
            not_empty_.wait(lock, any);
        else if (!not_empty_.wait_for(lock, *timeout, any))
            return std::nullopt;
        out = std::move(items_.front());
        items_.pop_front();
    }
    if (maxsize_ > 0) not_full_.notify_one();
    return out;
}

std::vector<StreamItem> StreamQueue::takeUpTo(std::size_t n) {
    std::vector<StreamItem> out;
    {
        std::lock_guard lock(m_);
        n = std::min(n, items_.size());
        out.reserve(n);
        for (std::size_t i = 0; i < n; ++i) {
            out.push_back(std::move(items_.front()));
            items_.pop_front();
        }
    }
    if (maxsize_ > 0 && !out.empty()) not_full_.notify_all();
    return out;
}

std::size_t StreamQueue::size() const {
    std::lock_guard lock(m_);
    return items_.size();
}

bool StreamQueue::full() const {
    std::lock_guard lock(m_);
    return maxsize_ > 0 && items_.size() >= maxsize_;
}

std::shared_ptr<StreamQueue> StreamPool::at(const StreamKey& key) {
    std::lock_guard lock(m_);
    auto& q = queues_[key];
    if (!q) q = std::make_shared<StreamQueue>();
    return q;
}

void StreamPool::set(const StreamKey& key, std::shared_ptr<StreamQueue> queue) {
    std::lock_guard lock(m_);
    queues_[key] = std::move(queue);
}

bool StreamPool::erase(const StreamKey& key) {
    std::lock_guard lock(m_);
    return queues_.erase(key) > 0;
}

bool StreamPool::contains(const StreamKey& key) const {
    std::lock_guard lock(m_);
    return queues_.count(key) > 0;
}

bool StreamPool::anyBounded() const {
    std::lock_guard lock(m_);
    return std::any_of(queues_.begin(), queues_.end(), [](const auto& q) { return q.second->maxsize() > 0; });
}

std::size_t StreamPool::size() const {
    std::lock_guard lock(m_);
    return queues_.size();
}

std::vector<StreamKey> StreamPool::keys() const {
    std::lock_guard lock(m_);
    std::vector<StreamKey> out;
    for (const auto& kv : queues_) out.push_back(kv.first);
    return out;
}

bool BytesSet::add(Bytes b) {
    std::lock_guard lock(m_);
    return items_.insert(std::move(b)).second;
}

bool BytesSet::discard(const Bytes& b) {
    std::lock_guard lock(m_);
    return items_.erase(b) > 0;
}

bool BytesSet::contains(const Bytes& b) const {
    std::lock_guard lock(m_);
    return items_.count(b) > 0;
}

void BytesSet::clear() {
    std::lock_guard lock(m_);
    items_.clear();
}

std::size_t BytesSet::size() const {
    std::lock_guard lock(m_);
    return items_.size();
}

std::vector<Bytes> BytesSet::items() const {
    std::lock_guard lock(m_);
    return {items_.begin(), items_.end()};
}

std::shared_ptr<BytesSet> BcstPool::at(std::uint32_t code) {
    std::lock_guard lock(m_);
    auto& s = sets_[code];
    if (!s) s = std::make_shared<BytesSet>();
    return s;
}

bool BcstPool::erase(std::uint32_t code) {
    std::lock_guard lock(m_);
    return sets_.erase(code) > 0;
}

bool BcstPool::contains(std::uint32_t code) const {
    std::lock_guard lock(m_);
    return sets_.count(code) > 0;
}

std::size_t BcstPool::size() const {
    std::lock_guard lock(m_);
    return sets_.size();
}

std::vector<std::uint32_t> BcstPool::codes() const {
    std::lock_guard lock(m_);
    std::vector<std::uint32_t> out;
    for (const auto& kv : sets_) out.push_back(kv.first);
    return out;
}

}  // namespace torvik::device
