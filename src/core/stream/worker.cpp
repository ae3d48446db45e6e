#include "stream/worker.hpp"

namespace torvik::stream {

WorkerResult runStreamWorker(const std::atomic<bool>& killed, device::Gate& gate, device::StreamQueue& data,
                             RecordQueue& signal, std::chrono::nanoseconds wait, const WorkerHooks& hooks) {
    for (;;) {
        if (killed.load()) return {WorkerEnd::Killed};
        gate.pass();
        auto item = data.getPaced(wait, kPaceWindow);
        if (!item) return {WorkerEnd::TimedOut};
        if (item->kind == device::StreamItem::Kind::Token) continue;
        device::Bytes payload = item->kind == device::StreamItem::Kind::Bytes ? std::move(item->bytes) : hooks.foreign_bytes(*item);
        if (payload.size() % signal.recordSize() != 0) return {WorkerEnd::BadLength, payload.size()};
        if (std::size_t lost = signal.putRecords(payload); lost > 0) hooks.dropped(lost);
    }
}

}  // namespace torvik::stream
