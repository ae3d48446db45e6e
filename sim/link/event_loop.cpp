#include "link/event_loop.hpp"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace sim {

namespace {
[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }
}  // namespace

EventLoop::EventLoop() {
    epfd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epfd_ < 0) fail("epoll_create1");
    timerfd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timerfd_ < 0) fail("timerfd_create");
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = 0;
    if (epoll_ctl(epfd_, EPOLL_CTL_ADD, timerfd_, &ev) < 0) fail("epoll_ctl");
}

EventLoop::~EventLoop() {
    if (timerfd_ >= 0) close(timerfd_);
    if (epfd_ >= 0) close(epfd_);
}

void EventLoop::watch(int fd, std::uint32_t events, FdHandler handler) {
    const std::uint64_t token = next_token_++;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = token;
    if (epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) < 0) fail("epoll_ctl add");
    watches_[fd] = Watch{token, std::make_shared<FdHandler>(std::move(handler))};
    tokens_[token] = fd;
}

void EventLoop::modify(int fd, std::uint32_t events) {
    auto it = watches_.find(fd);
    if (it == watches_.end()) return;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = it->second.token;
    if (epoll_ctl(epfd_, EPOLL_CTL_MOD, fd, &ev) < 0) fail("epoll_ctl mod");
}

void EventLoop::unwatch(int fd) {
    auto it = watches_.find(fd);
    if (it == watches_.end()) return;
    epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr);
    tokens_.erase(it->second.token);
    watches_.erase(it);
}

EventLoop::TimerId EventLoop::at(Clock::time_point when, std::function<void()> fn) {
    const TimerId id = next_timer_++;
    const bool earliest = timers_.empty() || when < timers_.begin()->first.first;
    timers_.emplace(std::make_pair(when, id), std::move(fn));
    timer_due_[id] = when;
    if (earliest) rearmTimer();
    return id;
}

void EventLoop::cancel(TimerId id) {
    auto it = timer_due_.find(id);
    if (it == timer_due_.end()) return;
    timers_.erase({it->second, id});
    timer_due_.erase(it);
    rearmTimer();
}

void RoundTimer::schedule(Clock::time_point when) {
    if (id_) {
        if (due_ <= when) return;
        loop_.cancel(id_);
    }
    due_ = when;
    id_ = loop_.at(when, [this] {
        id_ = 0;
        round_();
    });
}

void EventLoop::rearmTimer() {
    itimerspec when{};  // all zero disarms
    if (!timers_.empty()) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(timers_.begin()->first.first.time_since_epoch()).count();
        if (ns <= 0) ns = 1;  // zero would disarm
        when.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
        when.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
    }
    // steady_clock is CLOCK_MONOTONIC on Linux, so its time points are absolute timerfd times.
    if (timerfd_settime(timerfd_, TFD_TIMER_ABSTIME, &when, nullptr) < 0) fail("timerfd_settime");
}

void EventLoop::fireTimers() {
    std::uint64_t expirations;
    while (read(timerfd_, &expirations, sizeof expirations) > 0) {
    }
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto node = timers_.extract(timers_.begin());
        timer_due_.erase(node.key().second);
        node.mapped()();
    }
    rearmTimer();
}

int EventLoop::run() {
    running_ = true;
    epoll_event events[64];
    while (running_) {
        int n = epoll_wait(epfd_, events, 64, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("epoll_wait");
        }
        for (int i = 0; i < n && running_; ++i) {
            const std::uint64_t token = events[i].data.u64;
            if (token == 0) {
                fireTimers();
                continue;
            }
            auto t = tokens_.find(token);
            if (t == tokens_.end()) continue;  // unwatched earlier in this round
            auto handler = watches_.at(t->second).handler;  // keeps it alive through an unwatch
            (*handler)(events[i].events);
        }
        while (!deferred_.empty()) {
            auto work = std::move(deferred_);
            deferred_.clear();
            for (auto& fn : work) fn();
        }
    }
    return exit_code_;
}

void EventLoop::stop(int code) {
    exit_code_ = code;
    running_ = false;
}

}  // namespace sim
