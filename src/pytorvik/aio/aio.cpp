#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "aio/op.hpp"
#include "bindings.hpp"
#include "blocking.hpp"
#include "exact_cast.hpp"
#include "platform/socket.hpp"

namespace torvik::py_binding::aio {

namespace {

// Python objects used on every wait, looked up once. Leaked on purpose: threads may still use
// them while the interpreter shuts down.
struct Cached {
    py::object get_running_loop;      // asyncio's three: null until asyncio() has run
    py::object running_loop_or_none;  // asyncio._get_running_loop
    py::object timeout_error;         // asyncio.TimeoutError
    py::object timed_out;            // sentinel result of a future whose time limit ran out
    py::object resolve;              // f(fut, value): set_result unless done
    py::object stop_iteration;
};
Cached* g = nullptr;

// asyncio's parts, imported on first use: asyncio takes several times as long to import as the
// whole module does, and a loop can run only after a script imported asyncio itself.
const Cached& asyncio() {
    if (!g->timeout_error) {
        py::module_ mod = py::module_::import("asyncio");
        g->get_running_loop = mod.attr("get_running_loop");
        g->running_loop_or_none = mod.attr("_get_running_loop");
        g->timeout_error = mod.attr("TimeoutError");  // last: it marks the others as set
    }
    return *g;
}

// Set while pytorvik.run drives operations on this thread: their waits block the thread (the GIL
// released) instead of suspending to an event loop.
thread_local int t_blocking = 0;

struct BlockingScope {
    BlockingScope() { ++t_blocking; }
    ~BlockingScope() { --t_blocking; }
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;
};

// awaitReply's blocking driver: the receive thread's filing wakes this thread itself.
py::object takeReplyBlocking(device::EchoPool& pool, std::uint32_t code, std::optional<double> timeout,
                             std::optional<device::AwaitedReply>& announced, const BlockingTake& take) {
    std::optional<device::Bytes> data;
    const bool got = waitReleased(
        [&](std::optional<std::chrono::nanoseconds> limit) {
            device::AwaitedReply* a = announced ? &*announced : nullptr;
            data = take ? take(code, limit, a) : pool.takeWaiting(code, limit, a);
            announced.reset();
            return data.has_value();
        },
        timeout ? std::optional<double>(std::max(*timeout, 0.0)) : std::nullopt);
    if (!got) throw TimedOut{};
    return py::bytes(reinterpret_cast<const char*>(data->data()), data->size());
}

[[noreturn]] void raiseInstance(const py::object& exc) {
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr())), exc.ptr());
    throw py::error_already_set();
}

// Cancels a loop timer when the waiting frame goes, however it goes.
struct TimerGuard {
    py::object handle;
    ~TimerGuard() {
        if (!handle) return;
        try {
            handle.attr("cancel")();
        } catch (py::error_already_set& e) {
            e.discard_as_unraisable("cancelling a timer");
        }
    }
};

class FutureWaiter;

// One per event loop: a wake signal the loop watches (the platform's: an eventfd, or on Windows a
// loopback socket). Receive threads post woken waiters and raise it without the GIL; the loop's
// reader callback completes their futures. Loops that cannot watch a descriptor (Windows'
// proactor) get call_soon_threadsafe from the waking thread instead.
class LoopWaker : public std::enable_shared_from_this<LoopWaker> {
public:
    static std::shared_ptr<LoopWaker> of(const py::object& loop);
    bool watched() const { return signal_ != nullptr; }
    void post(std::shared_ptr<FutureWaiter> w) noexcept;

private:
    void drain();
    // Watches a new wake signal on `loop`; false when the loop cannot watch one.
    bool watchOn(const py::object& loop);

    std::unique_ptr<platform::WakeSignal> signal_;
    std::mutex m_;
    std::vector<std::shared_ptr<FutureWaiter>> ready_;  // guarded by m_
};

class FutureWaiter : public device::Wakeable, public std::enable_shared_from_this<FutureWaiter> {
public:
    FutureWaiter(std::shared_ptr<LoopWaker> waker, const py::object& future)
        : waker_(std::move(waker)), future_(future.inc_ref().ptr()) {}
    ~FutureWaiter() override {
        // Detached by its frame under the GIL; a leftover reference is dropped only where safe.
        if (future_ != nullptr && Py_IsInitialized() && PyGILState_Check()) Py_DECREF(future_);
    }
    void wake() noexcept override {
        if (waker_->watched()) {
            waker_->post(shared_from_this());
            return;
        }
        if (!Py_IsInitialized() || TORVIK_FINALIZING()) return;
        PyGILState_STATE state = PyGILState_Ensure();
        if (future_ != nullptr) {
            try {
                py::handle fut(future_);
                fut.attr("get_loop")().attr("call_soon_threadsafe")(g->resolve, fut, py::none());
            } catch (py::error_already_set&) {
                // the loop is closed: nobody is left to wake
            }
        }
        PyGILState_Release(state);
    }
    void resolve() {
        if (future_ == nullptr) return;
        py::handle fut(future_);
        if (!fut.attr("done")().cast<bool>()) fut.attr("set_result")(py::none());
    }
    void detach() {
        if (PyObject* f = std::exchange(future_, nullptr)) Py_DECREF(f);
    }

private:
    std::shared_ptr<LoopWaker> waker_;
    PyObject* future_;  // strong reference, touched with the GIL only; null once detached
};

std::shared_ptr<LoopWaker> LoopWaker::of(const py::object& loop) {
    struct Entry {
        std::shared_ptr<LoopWaker> waker;
        py::object weakref;  // its callback drops the entry when the loop goes
    };
    static auto* registry = new std::unordered_map<PyObject*, Entry>();
    auto it = registry->find(loop.ptr());
    if (it != registry->end()) return it->second.waker;

    auto waker = std::make_shared<LoopWaker>();
    PyObject* key = loop.ptr();
    py::object weakref;
    try {
        weakref = py::reinterpret_steal<py::object>(PyWeakref_NewRef(
            loop.ptr(), py::cpp_function([key](py::handle) { registry->erase(key); }).ptr()));
        if (!weakref) throw py::error_already_set();
        waker->watchOn(loop);
    } catch (py::error_already_set&) {
        // No weak reference to the loop: wake through call_soon_threadsafe and keep nothing.
        return waker;
    }
    registry->emplace(key, Entry{waker, std::move(weakref)});
    return waker;
}

bool LoopWaker::watchOn(const py::object& loop) {
    auto signal = std::make_unique<platform::WakeSignal>();
    if (!signal->valid()) return false;
    std::weak_ptr<LoopWaker> weak = shared_from_this();
    try {
        loop.attr("add_reader")(signal->handle(), py::cpp_function([weak] {
                                    if (auto w = weak.lock()) w->drain();
                                }));
    } catch (py::error_already_set&) {
        return false;  // this loop cannot watch descriptors
    }
    signal_ = std::move(signal);
    return true;
}

void LoopWaker::post(std::shared_ptr<FutureWaiter> w) noexcept {
    bool first;
    {
        std::lock_guard lock(m_);
        first = ready_.empty();
        ready_.push_back(std::move(w));
    }
    if (first) signal_->raise();
}

void LoopWaker::drain() {
    signal_->drain();
    std::vector<std::shared_ptr<FutureWaiter>> ready;
    {
        std::lock_guard lock(m_);
        ready.swap(ready_);
    }
    for (auto& w : ready) w->resolve();
}

// Keeps a waiter registered with the pool for as long as the frame waits, and no longer.
struct WaitGuard {
    std::shared_ptr<device::EchoPool> pool;
    std::uint32_t code;
    std::shared_ptr<FutureWaiter> waiter;
    ~WaitGuard() {
        pool->cancelWait(code, waiter.get());
        waiter->detach();
    }
};

[[noreturn]] void stopIteration(const py::object& value) {
    py::object exc = g->stop_iteration(value);
    PyErr_SetObject(g->stop_iteration.ptr(), exc.ptr());
    throw py::error_already_set();
}

py::object normaliseException(py::handle typ, py::handle val, py::handle tb) {
    py::object exc;
    if (PyExceptionInstance_Check(typ.ptr())) {
        if (!val.is_none()) throw py::type_error("instance exception may not have a separate value");
        exc = py::reinterpret_borrow<py::object>(typ);
    } else if (PyExceptionClass_Check(typ.ptr())) {
        const int is_instance = PyObject_IsInstance(val.ptr(), typ.ptr());
        if (is_instance < 0) throw py::error_already_set();
        if (is_instance == 1)
            exc = py::reinterpret_borrow<py::object>(val);
        else if (val.is_none())
            exc = typ();
        else if (PyTuple_Check(val.ptr()))
            exc = py::reinterpret_borrow<py::object>(typ)(*py::reinterpret_borrow<py::tuple>(val));
        else
            exc = typ(val);
    } else {
        throw py::type_error("exceptions must be classes or instances deriving from BaseException, not " +
                             std::string(py::str(py::type::handle_of(typ).attr("__name__"))));
    }
    if (!tb.is_none()) PyException_SetTraceback(exc.ptr(), tb.ptr());
    return exc;
}

}  // namespace

void Yield::await_resume() {
    op->yielded = py::object();
    if (op->thrown) raiseInstance(std::exchange(op->thrown, py::object()));
}

py::object runningLoop() { return asyncio().get_running_loop(); }

void raiseLoopTimeout() { raiseInstance(asyncio().timeout_error()); }

Co<> sleep(double seconds) {
    if (t_blocking > 0) {
        auto nap = [](std::optional<std::chrono::nanoseconds> limit) {
            std::this_thread::sleep_for(*limit);  // always given: the wait has a time limit
            return false;
        };
        if (seconds > 0) waitReleased(nap, seconds);
        co_return py::none();
    }
    if (!(seconds > 0)) {
        co_await Yield{py::none()};
        co_return py::none();
    }
    py::object loop = runningLoop();
    py::object fut = loop.attr("create_future")();
    TimerGuard timer{loop.attr("call_later")(seconds, g->resolve, fut, py::none())};
    co_await Yield{fut};
    co_return py::none();
}

bool blocking() { return t_blocking > 0; }

Co<> awaitReply(std::shared_ptr<device::EchoPool> pool, std::uint32_t code, std::optional<double> timeout,
                std::optional<device::AwaitedReply> announced, BlockingTake take) {
    if (t_blocking > 0) co_return takeReplyBlocking(*pool, code, timeout, announced, take);
    py::object loop;
    double deadline = 0;
    for (;;) {
        if (auto data = pool->take(code)) co_return py::bytes(reinterpret_cast<const char*>(data->data()), data->size());
        if (!loop) {
            loop = runningLoop();
            if (timeout) deadline = loop.attr("time")().cast<double>() + *timeout;
        }
        double remaining = timeout ? deadline - loop.attr("time")().cast<double>() : 0;
        if (timeout && remaining <= 0) throw TimedOut{};

        py::object fut = loop.attr("create_future")();
        auto waiter = std::make_shared<FutureWaiter>(LoopWaker::of(loop), fut);
        device::Bytes data;
        const bool taken = pool->takeOrWait(code, data, waiter);
        announced.reset();  // the waiter (if any) stands for the reply now
        if (taken) {
            waiter->detach();
            co_return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
        }
        WaitGuard registered{pool, code, waiter};
        TimerGuard timer;
        if (timeout) timer.handle = loop.attr("call_later")(remaining, g->resolve, fut, g->timed_out);
        co_await Yield{fut};
        if (fut.attr("done")().cast<bool>() && fut.attr("result")().is(g->timed_out)) throw TimedOut{};
        // Woken by a filing: take it on the next round (another waiter may have been quicker).
    }
}

py::object currentLoop() {
    if (!g->timeout_error) {
        // Without asyncio imported no loop runs: asking must not import it.
        PyObject* loaded = PyImport_GetModule(py::str("asyncio").ptr());
        if (loaded == nullptr) {
            if (PyErr_Occurred()) throw py::error_already_set();
            return py::none();
        }
        Py_DECREF(loaded);
    }
    PyObject* loop = PyObject_CallObject(asyncio().running_loop_or_none.ptr(), nullptr);
    if (loop == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(loop);
}

Co<> awaitCompletion(const py::object& loop, const std::function<void(Finished)>& start) {
    struct State {
        std::atomic<bool> done{false};
        std::exception_ptr error;
    };
    py::object fut = loop.attr("create_future")();
    auto waiter = std::make_shared<FutureWaiter>(LoopWaker::of(loop), fut);
    auto state = std::make_shared<State>();
    struct Detach {
        std::shared_ptr<FutureWaiter> waiter;
        ~Detach() { waiter->detach(); }
    } detach{waiter};
    start([state, waiter](std::exception_ptr error) {
        state->error = std::move(error);
        state->done.store(true);
        waiter->wake();
    });
    // Only the end of the work resolves the future; a cancellation comes out of the Yield.
    if (!state->done.load()) co_await Yield{fut};
    if (state->error) std::rethrow_exception(state->error);
    co_return py::none();
}

namespace {

// One step of an awaitable's iterator, sending None or throwing `thrown` in: what it yields, or
// nothing when it finished, with its value in `result`.
std::optional<py::object> stepIterator(const py::object& it, py::object thrown, py::object& result) {
    try {
        return thrown ? it.attr("throw")(thrown) : it.attr("send")(py::none());
    } catch (py::error_already_set& e) {
        if (!e.matches(PyExc_StopIteration)) throw;
        result = e.value().attr("value");
        return std::nullopt;
    }
}

// Drives an awaitable's iterator on this thread: our operations inside it block until done, and
// a bare yield (asyncio.sleep(0)) just goes on; anything else needs an event loop.
py::object driveBlocking(const py::object& it) {
    py::object thrown, result;
    while (auto yielded = stepIterator(it, std::exchange(thrown, py::object()), result)) {
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        if (!yielded->is_none())
            thrown = py::reinterpret_borrow<py::object>(PyExc_RuntimeError)(
                "pytorvik.run() cannot wait for " + std::string(py::repr(*yielded)) +
                ": without an event loop only this library's operations can be awaited");
    }
    return result;
}

}  // namespace

Co<> awaitObject(py::object awaitable) {
    if (py::isinstance<AsyncOp>(awaitable)) {
        if (Co<> body = py::cast<AsyncOp&>(awaitable).takeBody()) co_return co_await body;
    }
    py::object it = awaitable.attr("__await__")();
    if (t_blocking > 0) co_return driveBlocking(it);
    py::object thrown, result;
    while (auto yielded = stepIterator(it, std::exchange(thrown, py::object()), result)) {
        try {
            co_await Yield{*yielded};
        } catch (py::error_already_set& e) {
            thrown = e.value();  // handed to the inner awaitable on the next round
        }
    }
    co_return result;
}

std::pair<bool, py::object> AsyncOp::outcome() {
    if (body_.done()) {
        Co<> finished = std::move(body_);
        return {true, finished.result()};
    }
    py::object y = std::exchange(state_.yielded, py::object());
    if (!y) throw std::logic_error("operation suspended without a future");
    if (!y.is_none()) y.attr("_asyncio_future_blocking") = true;
    return {false, std::move(y)};
}

py::object AsyncOp::advance() {
    auto [done, value] = outcome();
    if (done) stopIteration(value);
    return value;
}

std::pair<bool, py::object> AsyncOp::step(py::handle value) {
    if (!body_) throw std::runtime_error("cannot reuse already awaited coroutine");
    if (!started_) {
        if (!value.is_none()) throw py::type_error("can't send non-None value to a just-started coroutine");
        started_ = true;
        body_.handle().promise().op = &state_;
        body_.handle().resume();
    } else {
        state_.leaf.resume();
    }
    return outcome();
}

py::object AsyncOp::send(py::handle value) {
    auto [done, result] = step(value);
    if (done) stopIteration(result);
    return result;
}

py::object AsyncOp::throwIn(py::handle typ, py::handle val, py::handle tb) {
    py::object exc = normaliseException(typ, val, tb);
    if (!body_ || !started_) {
        body_.reset();
        started_ = true;
        raiseInstance(exc);
    }
    state_.thrown = std::move(exc);
    state_.leaf.resume();
    return advance();
}

void AsyncOp::close() {
    body_.reset();
    started_ = true;
}

AsyncOp::~AsyncOp() {
    if (started_ || !body_) return;
    // Never started: warn as an unawaited coroutine does. Only where Python can take a warning.
    if (!Py_IsInitialized() || TORVIK_FINALIZING() || !PyGILState_Check()) return;
    py::error_scope pending;  // an exception being raised meanwhile stays as it is
    const std::string msg = "coroutine '" + std::string(name_) + "' was never awaited";
    if (PyErr_WarnEx(PyExc_RuntimeWarning, msg.c_str(), 1) < 0) {
        PyObject* what = PyUnicode_FromString(name_);
        PyErr_WriteUnraisable(what);
        Py_XDECREF(what);
    }
}

py::object run(const py::object& operation) {
    AsyncOp* mine = exactly<AsyncOp>(operation);
    const bool ours = mine != nullptr || py::isinstance<AsyncOp>(operation);
    if (!ours && !PyCoro_CheckExact(operation.ptr()))
        throw py::type_error("pytorvik.run() needs an operation of this library (what an _async method returns) or a "
                             "coroutine, not " + std::string(py::str(py::type::handle_of(operation).attr("__name__"))));
    if (!currentLoop().is_none()) {
        PyErr_SetString(PyExc_RuntimeError, "pytorvik.run() cannot be called from a running event loop");
        throw py::error_already_set();
    }
    BlockingScope blocking;
    // One of ours that has not started runs as it is; anything else as awaiting it would.
    Co<> body;
    if (ours) body = (mine != nullptr ? *mine : py::cast<AsyncOp&>(operation)).takeBody();
    if (!body) body = awaitObject(operation);
    OpState state;
    body.handle().promise().op = &state;
    body.handle().resume();
    // No wait of a blocking driver suspends the body: it has run to its end.
    if (!body.done()) throw std::logic_error("pytorvik.run(): an operation suspended without an event loop");
    return body.result();
}

py::object makeOp(Co<> body, const char* name) { return py::cast(AsyncOp(std::move(body), name)); }

#if PY_VERSION_HEX >= 0x030A0000  // the slot exists from Python 3.10 on
namespace {

// The send slot that asyncio's tasks and `await` use (PyIter_Send): an operation that finishes
// hands back its result directly instead of raising StopIteration through a method call.
PySendResult sendSlot(PyObject* self, PyObject* value, PyObject** result) {
    try {
        auto [done, out] = py::cast<AsyncOp&>(py::handle(self)).step(py::handle(value));
        *result = out.release().ptr();
        return done ? PYGEN_RETURN : PYGEN_NEXT;
    } catch (py::error_already_set& e) {
        e.restore();
    } catch (...) {
        py::detail::try_translate_exceptions();
    }
    *result = nullptr;
    return PYGEN_ERROR;
}

}  // namespace
#endif

void bindAio(py::module_& m) {
    g = new Cached();
    g->timed_out = py::module_::import("builtins").attr("object")();
    g->stop_iteration = py::reinterpret_borrow<py::object>(PyExc_StopIteration);
    g->resolve = py::cpp_function([](py::handle fut, py::handle value) {
        if (!fut.attr("done")().cast<bool>()) fut.attr("set_result")(value);
    });

    py::class_<AsyncOp>(m, "Operation", "An awaitable operation on a unit (a coroutine to asyncio).")
        .def("__await__", [](py::object self) { return self; })
        .def("__next__", [](AsyncOp& op) { return op.send(py::none()); })
        .def("send", &AsyncOp::send, py::arg("value"))
        .def("throw", &AsyncOp::throwIn, py::arg("typ"), py::arg("val") = py::none(), py::arg("tb") = py::none())
        .def("close", &AsyncOp::close)
        .def("__repr__", [](const AsyncOp& op) { return "<operation " + std::string(op.name()) + ">"; });
#if PY_VERSION_HEX >= 0x030A0000
    auto* type = reinterpret_cast<PyTypeObject*>(m.attr("Operation").ptr());
    if (type->tp_as_async != nullptr) type->tp_as_async->am_send = &sendSlot;
#endif
    // collections.abc's classes live in _collections_abc, which every interpreter has loaded at
    // start; the collections package itself would cost the import a few milliseconds.
    py::module_::import("_collections_abc").attr("Coroutine").attr("register")(m.attr("Operation"));

    m.def("run", &run, py::arg("operation"), py::pos_only());  // its text: docs/device.cpp
}

}  // namespace torvik::py_binding::aio
