// The Python face of an operation: a coroutine-like object around a Co<> body, and the waits
// an operation can suspend on.
#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "aio/coro.hpp"
#include "device/pools.hpp"

namespace torvik::py_binding::aio {

// What `op_async(...)` returns: awaitable, and a coroutine to asyncio (send, throw, close). The
// body starts at the first send, so argument checks raise there.
class AsyncOp {
public:
    AsyncOp(Co<> body, const char* name) : body_(std::move(body)), name_(name) {}
    AsyncOp(AsyncOp&&) = default;
    // One that never started warns as a never-awaited coroutine does.
    ~AsyncOp();
    py::object send(py::handle value);
    py::object throwIn(py::handle typ, py::handle val, py::handle tb);
    void close();
    const char* name() const { return name_; }
    // The body of an operation that has not started, for awaiting it inline; empty otherwise.
    Co<> takeBody() {
        if (started_) return Co<>();
        started_ = true;
        return std::move(body_);
    }

    // One step of the body as asyncio's send does it, without StopIteration: (true, its result)
    // when it finished, else (false, the future it now waits on).
    std::pair<bool, py::object> step(py::handle value);

private:
    py::object advance();
    std::pair<bool, py::object> outcome();
    Co<> body_;
    OpState state_;
    bool started_ = false;
    const char* name_;
};

// Wraps a body as an operation object.
py::object makeOp(Co<> body, const char* name);

// Awaits any awaitable from inside a body: one of our operations runs inline, anything else is
// driven through its __await__ iterator, its futures handed on to the task.
Co<> awaitObject(py::object awaitable);

// Waits until the echo pool holds a reply of `code` and takes it (bytes). With a time limit,
// throws TimedOut when it runs out; a limit of 0 or less fails at once unless the reply is
// already there. Woken by the filing itself: no polling. `announced` (if any) is let go once the
// wait is registered or the reply taken.
//
// Under pytorvik.run the wait blocks the thread instead, in `take` when given (an operation
// that knows where its reply comes from reads it there itself), else in the pool's own wait.
using BlockingTake = std::function<std::optional<device::Bytes>(
    std::uint32_t code, std::optional<std::chrono::nanoseconds> limit, device::AwaitedReply* announced)>;
Co<> awaitReply(std::shared_ptr<device::EchoPool> pool, std::uint32_t code, std::optional<double> timeout,
                std::optional<device::AwaitedReply> announced = std::nullopt, BlockingTake take = {});
// Whether operations on this thread block (pytorvik.run drives them) instead of suspending.
bool blocking();

// Starts work that ends on another thread and waits for its end without holding up the loop:
// `start` gets the function to call at the end (from any thread, once), with the work's error or
// null; the error is thrown here. The running loop of this thread is `loop`.
using Finished = std::function<void(std::exception_ptr)>;
Co<> awaitCompletion(const py::object& loop, const std::function<void(Finished)>& start);

// The running loop of this thread, or None.
py::object currentLoop();

// Raises the event loop's own time-out error, with no text.
[[noreturn]] void raiseLoopTimeout();

void bindAio(py::module_& m);

}  // namespace torvik::py_binding::aio
