// The body of a stream worker (AI, UART, CAN): pass the gate, take a raw payload from the data
// queue, cut it into records and queue them for the reader; a full signal queue drops the
// newest records and each dropped record is reported. The None token only wakes the worker.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>

#include "device/gate.hpp"
#include "device/pools.hpp"
#include "stream/record_queue.hpp"

namespace torvik::stream {

// While a stream flows, the worker wakes once a window and takes what gathered, instead of once
// a packet; the first packet after a pause still wakes it at once.
inline constexpr std::chrono::milliseconds kPaceWindow{10};

struct WorkerHooks {
    // Bytes of an item a script put into the data queue (may throw: the worker then ends).
    std::function<device::Bytes(const device::StreamItem&)> foreign_bytes;
    // Called after each payload with the number of records that did not fit (0 is not reported).
    std::function<void(std::size_t)> dropped;
};

enum class WorkerEnd {
    Killed,      // the kill flag was seen at the head of a round
    TimedOut,    // the data queue stayed empty for the whole wait
    BadLength,   // a payload was no whole number of records; `bad_length` tells its size
};

struct WorkerResult {
    WorkerEnd end;
    std::size_t bad_length = 0;
};

WorkerResult runStreamWorker(const std::atomic<bool>& killed, device::Gate& gate, device::StreamQueue& data,
                             RecordQueue& signal, std::chrono::nanoseconds wait, const WorkerHooks& hooks);

}  // namespace torvik::stream
