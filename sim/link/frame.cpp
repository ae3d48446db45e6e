#include "link/frame.hpp"

#include <algorithm>

namespace sim {

namespace {
constexpr std::uint8_t kStx = 0x02, kCr = 0x0D, kLf = 0x0A;
constexpr std::uint8_t kAmbiguous = 0x30;  // OPEN_CAN, sent by the host as one byte
}  // namespace

Bytes encodeUnitFrame(std::uint16_t code, std::span<const std::uint8_t> payload) {
    const std::size_t width = travelsAsOneByte(code) ? 1 : 2;
    payload = payload.first(std::min(payload.size(), 0xFFFF - width));
    const std::size_t length = width + payload.size();
    Bytes out;
    out.reserve(length + 5);
    out.push_back(kStx);
    out.push_back(static_cast<std::uint8_t>(length >> 8));
    out.push_back(static_cast<std::uint8_t>(length & 0xFF));
    if (width == 2) out.push_back(static_cast<std::uint8_t>(code >> 8));
    out.push_back(static_cast<std::uint8_t>(code & 0xFF));
    out.insert(out.end(), payload.begin(), payload.end());
    out.push_back(kCr);
    out.push_back(kLf);
    return out;
}

bool hostTakesWhole(std::span<const std::uint8_t> f) {
    std::size_t from = 0;
    while (from + 1 < f.size()) {
        std::size_t c = from;
        while (c + 1 < f.size() && !(f[c] == kCr && f[c + 1] == kLf)) ++c;
        if (c + 1 >= f.size()) return false;
        const std::size_t lowest = c > 32770 ? c - 32770 : 0;
        for (std::size_t s = c; s-- > lowest;) {
            if (f[s] != kStx) continue;
            const auto length = static_cast<std::int16_t>(static_cast<std::uint16_t>((f[s + 1] << 8) | f[s + 2]));
            if (length == static_cast<long>(c) - static_cast<long>(s) - 3) return s == 0 && c + 2 == f.size();
        }
        from = c + 1;
    }
    return false;
}

RequestParser::Fit RequestParser::fitAt(std::size_t pos, Frame* frame, std::size_t* end) const {
    const std::size_t have = buf_.size() - pos;
    if (have < 3) return Fit::Incomplete;
    const std::size_t length = std::size_t{buf_[pos + 1]} << 8 | buf_[pos + 2];
    if (length == 0 || length - 1 > kMaxPayload) return Fit::None;
    if (have < 4) return Fit::Incomplete;

    const std::uint8_t first = buf_[pos + 3];
    bool incomplete = false;
    for (std::size_t width : {std::size_t{1}, std::size_t{2}}) {
        if ((width == 1 && first < kAmbiguous) || (width == 2 && first > kAmbiguous)) continue;
        const std::size_t payload = length - 1;
        const std::size_t stop = pos + 3 + width + payload + 2;
        if (stop > buf_.size()) {
            incomplete = true;
            continue;
        }
        if (buf_[stop - 2] != kCr || buf_[stop - 1] != kLf) continue;
        frame->code = width == 1 ? first : static_cast<std::uint16_t>(first << 8 | buf_[pos + 4]);
        frame->payload.assign(buf_.begin() + static_cast<std::ptrdiff_t>(pos + 3 + width),
                              buf_.begin() + static_cast<std::ptrdiff_t>(stop - 2));
        *end = stop;
        return Fit::Whole;
    }
    return incomplete ? Fit::Incomplete : Fit::None;
}

void RequestParser::discard(std::size_t from, std::size_t to) {
    junk_ += static_cast<std::size_t>(
        std::count_if(buf_.begin() + static_cast<std::ptrdiff_t>(from),
                      buf_.begin() + static_cast<std::ptrdiff_t>(to), [](std::uint8_t b) { return b != 0; }));
}

std::vector<Frame> RequestParser::feed(std::span<const std::uint8_t> bytes) {
    buf_.insert(buf_.end(), bytes.begin(), bytes.end());
    std::vector<Frame> frames;
    std::size_t pos = 0;
    while (pos < buf_.size()) {
        if (buf_[pos] != kStx) {
            discard(pos, pos + 1);
            ++pos;
            continue;
        }
        Frame frame;
        std::size_t end = 0;
        Fit fit = fitAt(pos, &frame, &end);
        if (fit == Fit::Whole) {
            frames.push_back(std::move(frame));
            pos = end;
            continue;
        }
        if (fit == Fit::None) {
            discard(pos, pos + 1);
            ++pos;
            continue;
        }
        // Incomplete: wait, unless a whole frame further on shows that this start byte was false.
        std::size_t later = pos + 1;
        for (; later < buf_.size(); ++later)
            if (buf_[later] == kStx && fitAt(later, &frame, &end) == Fit::Whole) break;
        if (later == buf_.size()) break;
        discard(pos, later);
        pos = later;
    }
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos));
    return frames;
}

}  // namespace sim
