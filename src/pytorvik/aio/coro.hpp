// C++20 coroutines that run as Python awaitables on an asyncio loop.
//
// An operation's body is a Co<> coroutine. It runs with the GIL held, on the thread of the loop
// that drives it, and suspends only through Yield, which hands an asyncio future (or None, for a
// bare reschedule) to the task. Nested Co<> are awaited inline by symmetric transfer; the task
// resumes the innermost one. An exception the task throws in (cancellation) comes out of that
// Yield. Every frame is destroyed with the GIL held, so frames may own Python objects.
#pragma once

#include <pybind11/pybind11.h>

#include <coroutine>
#include <exception>
#include <optional>
#include <utility>

namespace torvik::py_binding::aio {

namespace py = pybind11;

// The state one top-level operation shares with all coroutines of its chain.
struct OpState {
    std::coroutine_handle<> leaf;  // the innermost suspended coroutine
    py::object yielded;            // what goes to the task at this suspension
    py::object thrown;             // an exception instance thrown in by the task
};

struct PromiseBase {
    std::coroutine_handle<> continuation;
    OpState* op = nullptr;
    std::exception_ptr error;

    std::suspend_always initial_suspend() noexcept { return {}; }
    struct FinalAwaiter {
        bool await_ready() noexcept { return false; }
        template <class P>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<P> h) noexcept {
            auto c = h.promise().continuation;
            return c ? c : std::noop_coroutine();
        }
        void await_resume() noexcept {}
    };
    FinalAwaiter final_suspend() noexcept { return {}; }
    void unhandled_exception() noexcept { error = std::current_exception(); }
};

template <typename T = py::object>
class [[nodiscard]] Co {
public:
    struct promise_type : PromiseBase {
        std::optional<T> value;
        Co get_return_object() { return Co(std::coroutine_handle<promise_type>::from_promise(*this)); }
        template <class U>
        void return_value(U&& v) {
            value.emplace(std::forward<U>(v));
        }
    };

    Co() = default;
    Co(Co&& o) noexcept : h_(std::exchange(o.h_, {})) {}
    Co& operator=(Co&& o) noexcept {
        if (this != &o) {
            reset();
            h_ = std::exchange(o.h_, {});
        }
        return *this;
    }
    ~Co() { reset(); }

    void reset() {
        if (h_) std::exchange(h_, {}).destroy();
    }
    explicit operator bool() const { return static_cast<bool>(h_); }
    bool done() const { return h_.done(); }
    std::coroutine_handle<promise_type> handle() const { return h_; }

    // Awaiting runs the child at once; its result or exception comes back here.
    bool await_ready() const noexcept { return false; }
    template <class P>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<P> parent) noexcept {
        h_.promise().continuation = parent;
        h_.promise().op = parent.promise().op;
        return h_;
    }
    T await_resume() { return result(); }

    T result() {
        auto& p = h_.promise();
        if (p.error) std::rethrow_exception(p.error);
        return std::move(*p.value);
    }

private:
    explicit Co(std::coroutine_handle<promise_type> h) : h_(h) {}
    std::coroutine_handle<promise_type> h_;
};

// Suspends the operation, handing `what` to the task; raises what the task throws in.
// Not an aggregate on purpose: GCC 12 destroys a temporary aggregate awaiter's members twice in
// `co_await Yield{...}`, which released the yielded future (or None) once too often.
struct Yield {
    explicit Yield(py::object w) : what(std::move(w)) {}

    py::object what;
    OpState* op = nullptr;

    bool await_ready() const noexcept { return false; }
    template <class P>
    void await_suspend(std::coroutine_handle<P> h) noexcept {
        op = h.promise().op;
        op->leaf = h;
        op->yielded = std::move(what);
    }
    void await_resume();
};

// A time limit ran out (a C++ signal between coroutines; the public error is made by the caller).
struct TimedOut {};

// The running loop of this thread (RuntimeError without one).
py::object runningLoop();
// Sleeps like asyncio.sleep: 0 or less reschedules once.
Co<> sleep(double seconds);

}  // namespace torvik::py_binding::aio
