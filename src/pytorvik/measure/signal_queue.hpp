// The queue a stream module's reader drains: records kept packed in the engine, turned into
// Python values (a list of volts, a character, a CAN frame) only when taken.
#pragma once

#include <pybind11/pybind11.h>

#include <atomic>
#include <memory>

#include "stream/record_queue.hpp"

namespace torvik::py_binding {

namespace py = pybind11;

class RecordDecoder {
public:
    virtual ~RecordDecoder() = default;
    // Appends one Python value per record of the run to `out`.
    virtual void decodeRun(const std::uint8_t* records, std::size_t count, py::list& out) const = 0;
    // What an entry that a script put into the queue itself becomes: by default the entry as it is.
    virtual py::object decodeOther(py::object item) const { return item; }
};

struct SignalQueue {
    std::shared_ptr<stream::RecordQueue> queue;
    std::shared_ptr<const RecordDecoder> decoder;
};

// Takes up to n items in one step, decoded (by `decoder` instead of the queue's own, if given).
py::list takeDecoded(const SignalQueue& q, std::size_t n, const RecordDecoder* decoder = nullptr);
// The signal queue behind a Python object, or null if it is none of ours.
const SignalQueue* signalQueueOf(py::handle obj);
py::object makeSignalQueue(std::size_t record_size, std::size_t maxsize, std::shared_ptr<const RecordDecoder> decoder);
// Decodes analog frames of `channels` channels into lists of volts.
std::shared_ptr<const RecordDecoder> aiDecoder(double ratio, std::size_t channels);
// Decodes one-byte records into ints 0 to 255.
std::shared_ptr<const RecordDecoder> byteDecoder();
// Decodes one-byte records into one-character strings, chr() of each.
std::shared_ptr<const RecordDecoder> charDecoder();

// The body of a stream worker thread: runs the engine loop without the GIL until `killed`,
// building one `warning` per record that did not fit. A payload that is no whole number of
// records ends it with ValueError (its message names `shape`); a data queue that stays empty for
// the whole wait ends it with queue.Empty.
void runWorkerThread(std::atomic<bool>& killed, py::handle gate, py::handle data_queue, const SignalQueue& signal,
                     const char* warning, const char* shape);

void bindSignalQueue(py::module_& m);

}  // namespace torvik::py_binding
