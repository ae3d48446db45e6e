// A binary semaphore without an owner: held while a worker thread is to stand still, and taken
// and given back from different threads. It guards no data.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace torvik::device {

class Gate {
public:
    explicit Gate(bool held = false) : held_(held) {}

    // Waits until the gate is free and takes it. With a time limit, false when it ran out.
    bool acquire(std::optional<std::chrono::nanoseconds> timeout = std::nullopt) {
        std::unique_lock lock(m_);
        if (!timeout) {
            cv_.wait(lock, [this] { return !held_; });
        } else if (!cv_.wait_for(lock, *timeout, [this] { return !held_; })) {
            return false;
        }
        held_ = true;
        return true;
    }
    bool tryAcquire() {
        std::lock_guard lock(m_);
        if (held_) return false;
        held_ = true;
        return true;
    }
    // Frees the gate; false (and nothing changes) when it was not held.
    bool release() {
        {
            std::lock_guard lock(m_);
            if (!held_) return false;
            held_ = false;
        }
        cv_.notify_all();  // a passing worker and a taker may wait at once
        return true;
    }
    bool locked() const {
        std::lock_guard lock(m_);
        return held_;
    }
    // The head of a worker's round: blocks while the gate is held, then leaves it as it was.
    void pass() {
        std::unique_lock lock(m_);
        cv_.wait(lock, [this] { return !held_; });
    }

private:
    mutable std::mutex m_;
    std::condition_variable cv_;
    bool held_;  // guarded by m_
};

}  // namespace torvik::device
