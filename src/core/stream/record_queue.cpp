#include "stream/record_queue.hpp"

#include <algorithm>

namespace torvik::stream {

std::size_t RecordQueue::size() const {
    std::lock_guard lock(m_);
    return size_;
}

bool RecordQueue::full() const {
    std::lock_guard lock(m_);
    return maxsize_ > 0 && size_ >= maxsize_;
}

std::size_t RecordQueue::putRecords(std::span<const std::uint8_t> bytes) {
    const std::size_t offered = bytes.size() / record_size_;
    std::size_t fit;
    {
        std::lock_guard lock(m_);
        fit = maxsize_ > 0 ? std::min(offered, maxsize_ - std::min(size_, maxsize_)) : offered;
        std::size_t left = fit * record_size_;
        const std::uint8_t* p = bytes.data();
        while (left > 0) {
            if (blocks_.empty() || blocks_.back().other || blocks_.back().bytes.size() + record_size_ > kBlockBytes) {
                blocks_.emplace_back();
                blocks_.back().bytes.reserve(std::min(kBlockBytes, left));
            }
            auto& b = blocks_.back().bytes;
            std::size_t room = kBlockBytes > b.size() ? (kBlockBytes - b.size()) / record_size_ : 0;
            std::size_t n = std::min(left, std::max<std::size_t>(room, 1) * record_size_);
            b.insert(b.end(), p, p + n);
            p += n;
            left -= n;
        }
        size_ += fit;
    }
    if (fit > 0) not_empty_.notify_all();
    return offered - fit;
}

bool RecordQueue::putOther(device::StreamItem item, std::optional<std::chrono::nanoseconds> timeout) {
    {
        std::unique_lock lock(m_);
        auto room = [this] { return maxsize_ == 0 || size_ < maxsize_; };
        if (!timeout)
            not_full_.wait(lock, room);
        else if (!not_full_.wait_for(lock, *timeout, room))
            return false;
        Block b;
        b.other = std::move(item);
        blocks_.push_back(std::move(b));
        ++size_;
    }
    not_empty_.notify_all();
    return true;
}

std::optional<RecordQueue::Item> RecordQueue::get(std::optional<std::chrono::nanoseconds> timeout) {
    std::vector<Block> taken;
    {
        std::unique_lock lock(m_);
        auto any = [this] { return size_ > 0; };
        if (!timeout)
            not_empty_.wait(lock, any);
        else if (!not_empty_.wait_for(lock, *timeout, any))
            return std::nullopt;
        popFront(1, taken);
    }
    not_full_.notify_all();
    Item item;
    Block& b = taken.front();
    if (b.other)
        item.other = std::move(b.other);
    else
        item.record.assign(b.bytes.begin() + static_cast<std::ptrdiff_t>(b.head * record_size_), b.bytes.end());
    return item;
}

// Moves the first n items out as blocks (a partly taken block yields a copy of its part).
std::size_t RecordQueue::popFront(std::size_t n, std::vector<Block>& out) {
    std::size_t taken = 0;
    while (taken < n && !blocks_.empty()) {
        Block& front = blocks_.front();
        std::size_t count = front.count(record_size_);
        if (count <= n - taken) {
            out.push_back(std::move(front));
            blocks_.pop_front();
            taken += count;
            continue;
        }
        std::size_t k = n - taken;
        Block part;
        auto from = front.bytes.begin() + static_cast<std::ptrdiff_t>(front.head * record_size_);
        part.bytes.assign(from, from + static_cast<std::ptrdiff_t>(k * record_size_));
        front.head += k;
        out.push_back(std::move(part));
        taken += k;
    }
    size_ -= taken;
    return taken;
}

}  // namespace torvik::stream
