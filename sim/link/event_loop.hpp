// The emulator's single event loop: file descriptors on epoll, timers on one timerfd, deferred
// work after each round. Everything of the emulator runs on the thread that calls run(), so no
// state needs a lock. Handlers may add or remove watches and timers, their own included.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace sim {

using Clock = std::chrono::steady_clock;

class EventLoop {
public:
    using FdHandler = std::function<void(std::uint32_t events)>;
    using TimerId = std::uint64_t;

    EventLoop();  // throws std::system_error
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Level-triggered watch of `fd` for EPOLLIN/EPOLLOUT/...; one watch per fd.
    void watch(int fd, std::uint32_t events, FdHandler handler);
    void modify(int fd, std::uint32_t events);
    // Call before closing `fd`; events of this round that are still queued for it are dropped.
    void unwatch(int fd);

    TimerId at(Clock::time_point when, std::function<void()> fn);
    TimerId after(Clock::duration delay, std::function<void()> fn) { return at(Clock::now() + delay, std::move(fn)); }
    void cancel(TimerId id);  // unknown or fired ids are ignored

    // Runs `fn` once the current round of events has been handled (for example to destroy the
    // object whose handler is running).
    void defer(std::function<void()> fn) { deferred_.push_back(std::move(fn)); }

    int run();  // until stop(); returns the code given to stop()
    void stop(int code);

private:
    struct Watch {
        std::uint64_t token;
        std::shared_ptr<FdHandler> handler;
    };
    void rearmTimer();
    void fireTimers();

    int epfd_ = -1;
    int timerfd_ = -1;
    std::unordered_map<int, Watch> watches_;         // by fd
    std::unordered_map<std::uint64_t, int> tokens_;  // live tokens, so stale events are skipped
    std::uint64_t next_token_ = 1;                   // 0 is the timerfd
    std::map<std::pair<Clock::time_point, TimerId>, std::function<void()>> timers_;
    std::unordered_map<TimerId, Clock::time_point> timer_due_;
    TimerId next_timer_ = 1;
    std::vector<std::function<void()>> deferred_;
    bool running_ = false;
    int exit_code_ = 0;
};

// A one-shot timer that runs `round` at the earliest time asked of it: a later request while one
// is pending changes nothing, an earlier one brings it forward. Cancelled when it goes.
class RoundTimer {
public:
    RoundTimer(EventLoop& loop, std::function<void()> round) : loop_(loop), round_(std::move(round)) {}
    ~RoundTimer() { loop_.cancel(id_); }
    RoundTimer(const RoundTimer&) = delete;
    RoundTimer& operator=(const RoundTimer&) = delete;
    void schedule(Clock::time_point when);

private:
    EventLoop& loop_;
    std::function<void()> round_;
    EventLoop::TimerId id_ = 0;  // 0: none pending
    Clock::time_point due_{};
};

}  // namespace sim
