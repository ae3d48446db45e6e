// libFuzzer target: the engine's frame splitter against the literal model of the framing
// algorithm, and the engine's byte conversions, on whatever bytes the fuzzer makes.
//
// The input is a script: each step is one control byte and its operand bytes. A step appends a
// chunk (0-5), moves the search start as a script may (6), or replaces the stream (7); after each
// step both splitters split and must agree on packets, the bytes left and the search start.
// Every 8-byte window of the input also goes through each big-endian unpack and pack, which must
// give the same bytes back, and through the analog rounding, which must be stable.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "reference_splitter.hpp"
#include "stream/ai_decoder.hpp"
#include "wire/bytes.hpp"
#include "wire/splitter.hpp"

namespace {

using torvik::testing::ReferenceSplitter;
using torvik::wire::FrameSplitter;
namespace w = torvik::wire;

void require(bool ok) {
    if (!ok) std::abort();  // libFuzzer keeps the input that got here
}

template <typename T>
void roundTrip(const std::uint8_t* p) {
    auto back = w::packBE<T>(w::unpackBE<T>(p));
    require(std::memcmp(back.data(), p, sizeof(T)) == 0);
}

void conversions(const std::uint8_t* p) {
    roundTrip<std::uint16_t>(p);
    roundTrip<std::int16_t>(p);
    roundTrip<std::uint32_t>(p);
    roundTrip<std::int32_t>(p);
    roundTrip<std::uint64_t>(p);
    roundTrip<std::int64_t>(p);
    roundTrip<float>(p);
    roundTrip<double>(p);
    const double x = w::unpackBE<double>(p);
    if (std::isfinite(x) && std::fabs(x) < 1e12) {
        const double r = torvik::stream::round4(x);
        require(torvik::stream::round4(r) == r);
        require(std::fabs(r - x) <= 0.00005 + 1e-12 * std::fabs(x));
    }
    static const auto table = torvik::stream::voltTable(0.000152587890625);
    const std::int16_t count = torvik::stream::VoltTable::countAt(p);
    require((*table)[count] == torvik::stream::round4(count * 0.000152587890625));
}

void compare(FrameSplitter& s, ReferenceSplitter& r) {
    auto got = s.split();
    auto want = r.split();
    require(got == want);
    auto left = s.stream();
    require(left.size() == r.stream.size());
    require(left.empty() || std::memcmp(left.data(), r.stream.data(), left.size()) == 0);
    require(s.lastIndex() == r.last_index);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (std::size_t i = 0; i + 8 <= size; i += 8) conversions(data + i);
    FrameSplitter s;
    ReferenceSplitter r;
    std::size_t pos = 0;
    while (pos < size) {
        const std::uint8_t op = data[pos++];
        std::size_t n = 0;
        if (pos < size) {
            n = data[pos++];
            n = std::min(n, size - pos);
        }
        const std::uint8_t* chunk = data + pos;
        switch (op % 8) {
            case 6: {  // a script moving the search start (it may point anywhere)
                const long long li = static_cast<long long>(n) - 2;
                s.setLastIndex(li);
                r.last_index = li;
                break;
            }
            case 7:  // a script replacing the unconsumed bytes
                s.setStream({chunk, n});
                r.stream.assign(reinterpret_cast<const char*>(chunk), n);
                pos += n;
                break;
            default:
                s.append({chunk, n});
                r.stream.append(reinterpret_cast<const char*>(chunk), n);
                pos += n;
        }
        compare(s, r);
    }
    return 0;
}
