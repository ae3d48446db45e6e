// A bounded FIFO queue of fixed-size records (AI frames, UART bytes, CAN frames) kept packed,
// with room for the odd item of another kind that a script puts in.
//
// Records that arrive together share one block, so a queued record costs its own bytes plus a
// small share of its block. Every step is atomic under a short lock; waits release it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "device/pools.hpp"

namespace torvik::stream {

class RecordQueue {
public:
    // One item as it comes out: a record's bytes, or a foreign item (token or script object).
    struct Item {
        std::vector<std::uint8_t> record;
        std::optional<device::StreamItem> other;
    };

    RecordQueue(std::size_t record_size, std::size_t maxsize) : record_size_(record_size), maxsize_(maxsize) {}

    std::size_t recordSize() const { return record_size_; }
    std::size_t maxsize() const { return maxsize_; }
    std::size_t size() const;
    bool full() const;

    // Puts the whole records of `bytes` in order without waiting; returns how many did not fit
    // (the newest ones, dropped).
    std::size_t putRecords(std::span<const std::uint8_t> bytes);
    // Puts one item of another kind; waits as a bounded queue's put does. False when it could not.
    bool putOther(device::StreamItem item, std::optional<std::chrono::nanoseconds> timeout);
    // Takes the oldest item, waiting up to `timeout` (nullopt: for ever); nullopt when none came.
    std::optional<Item> get(std::optional<std::chrono::nanoseconds> timeout);

    // Takes up to n items at once, without waiting, handing runs of records to `records`
    // (pointer, count) and other items to `other`, in queue order.
    template <typename OnRecords, typename OnOther>
    std::size_t take(std::size_t n, OnRecords&& records, OnOther&& other);

private:
    struct Block {
        std::vector<std::uint8_t> bytes;  // packed records, the first `head` of them taken
        std::size_t head = 0;
        std::optional<device::StreamItem> other;  // set for a block that is one other item
        std::size_t count(std::size_t rs) const { return other ? 1 : bytes.size() / rs - head; }
    };
    static constexpr std::size_t kBlockBytes = 64 * 1024;

    std::size_t popFront(std::size_t n, std::vector<Block>& out);

    const std::size_t record_size_;
    const std::size_t maxsize_;
    mutable std::mutex m_;
    std::condition_variable not_empty_, not_full_;
    std::deque<Block> blocks_;  // guarded by m_
    std::size_t size_ = 0;      // items, guarded by m_
};

template <typename OnRecords, typename OnOther>
std::size_t RecordQueue::take(std::size_t n, OnRecords&& records, OnOther&& other) {
    std::vector<Block> taken;
    std::size_t count;
    {
        std::lock_guard lock(m_);
        count = popFront(n, taken);
    }
    if (count > 0) not_full_.notify_all();
    for (auto& b : taken) {
        if (b.other)
            other(std::move(*b.other));
        else
            records(b.bytes.data() + b.head * record_size_, b.bytes.size() / record_size_ - b.head);
    }
    return count;
}

}  // namespace torvik::stream
