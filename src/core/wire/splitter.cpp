#include "wire/splitter.hpp"

#include <cstring>

#include "wire/bytes.hpp"
#include "wire/commands.hpp"

namespace torvik::wire {

namespace {
constexpr std::uint8_t kStx = CMD_STX_2;
constexpr std::uint8_t kCr = CMD_CR_2;
constexpr std::uint8_t kLf = CMD_LF_2;
constexpr std::size_t kCmdIndex = CMD_INDEX_2;
// A length field is read as signed 16 bits, so no start byte lies further back than this.
constexpr std::size_t kMaxReach = 3 + 32767;
// Dropped bytes are erased from the front of the buffer once they are this many and half of it.
constexpr std::size_t kCompactAt = 64 * 1024;
}  // namespace

void FrameSplitter::append(std::span<const std::uint8_t> bytes) {
    if (head_ == buf_.size()) {
        buf_.clear();
        head_ = 0;
    }
    buf_.insert(buf_.end(), bytes.begin(), bytes.end());
}

void FrameSplitter::setStream(std::span<const std::uint8_t> bytes) {
    buf_.assign(bytes.begin(), bytes.end());
    head_ = 0;
    scanned_ = 0;
}

void FrameSplitter::setLastIndex(long long index) {
    last_index_ = index;
    scanned_ = 0;
}

long long FrameSplitter::findTerminator(std::size_t from) const {
    const std::uint8_t* base = buf_.data() + head_;
    const std::size_t n = buf_.size() - head_;
    while (from + 1 < n) {
        const void* hit = std::memchr(base + from, kCr, n - 1 - from);
        if (hit == nullptr) return -1;
        std::size_t i = static_cast<const std::uint8_t*>(hit) - base;
        if (base[i + 1] == kLf) return static_cast<long long>(i);
        from = i + 1;
    }
    return -1;
}

namespace {

// The last `byte` in [first, last), or null (what GNU's memrchr does; not every C library has it).
// A frame's start lies close before its terminator, so the walk is short.
const std::uint8_t* lastOf(const std::uint8_t* first, const std::uint8_t* last, std::uint8_t byte) {
    while (last != first)
        if (*--last == byte) return last;
    return nullptr;
}

}  // namespace

long long FrameSplitter::findStart(std::size_t crlf) const {
    const std::uint8_t* base = buf_.data() + head_;
    const std::size_t lowest = crlf > kMaxReach ? crlf - kMaxReach : 0;
    std::size_t end = crlf;  // candidates lie in [lowest, end)
    while (end > lowest) {
        const std::uint8_t* hit = lastOf(base + lowest, base + end, kStx);
        if (hit == nullptr) return -1;
        std::size_t s = static_cast<std::size_t>(hit - base);
        // Both length bytes exist: the terminator's two bytes stand behind s.
        long long nominal = unpackBE<std::int16_t>(base + s + 1);
        if (nominal == static_cast<long long>(crlf - s) - 3) return static_cast<long long>(s);
        end = s;
    }
    return -1;
}

void FrameSplitter::consume(std::size_t count) {
    head_ += count;
    if (head_ == buf_.size()) {
        buf_.clear();
        head_ = 0;
    } else if (head_ >= kCompactAt && head_ * 2 >= buf_.size()) {
        buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
}

std::vector<Packet> FrameSplitter::split() {
    std::vector<Packet> out;
    splitInto(out);
    return out;
}

void FrameSplitter::splitInto(std::vector<Packet>& out) {
    for (;;) {
        const std::size_t n = buf_.size() - head_;
        if (n < 1) return;
        // The search start follows the rules of a byte-string find: negative counts from the end.
        long long start = last_index_;
        if (start < 0) start = std::max<long long>(start + static_cast<long long>(n), 0);
        if (start > static_cast<long long>(n)) return;
        std::size_t from = std::max<std::size_t>(static_cast<std::size_t>(start), scanned_);
        long long crlf = findTerminator(from);
        if (crlf < 0) {
            // Nothing before the last byte can start a terminator; it may still be a 0x0D.
            if (start == last_index_) scanned_ = std::max(from, n - 1);
            return;
        }
        long long stx = findStart(static_cast<std::size_t>(crlf));
        if (stx < 0) {
            last_index_ = crlf + 1;
            scanned_ = static_cast<std::size_t>(last_index_);
            continue;
        }
        const std::uint8_t* base = buf_.data() + head_;
        const std::size_t c = static_cast<std::size_t>(crlf);
        const std::size_t cmd_index = static_cast<std::size_t>(stx) + kCmdIndex;
        Packet packet;
        std::size_t data_from;
        if (base[cmd_index] > 48) {
            packet.cmd = base[cmd_index];
            data_from = cmd_index + 1;
        } else {
            // cmd_index + 1 is at most c + 1, the 0x0A, so both bytes exist.
            packet.cmd = unpackBE<std::uint16_t>(base + cmd_index);
            data_from = cmd_index + 2;
        }
        if (data_from < c) packet.data.assign(base + data_from, base + c);
        out.push_back(std::move(packet));
        consume(c + 2);
        last_index_ = 0;
        scanned_ = 0;
    }
}

}  // namespace torvik::wire
