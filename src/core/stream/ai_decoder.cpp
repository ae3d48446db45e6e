#include "stream/ai_decoder.hpp"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>

namespace torvik::stream {

double round4(double value) {
    if (!std::isfinite(value)) return value;
    // to_chars with a precision prints the exact binary value correctly rounded, as a decimal
    // rounding does; reading that text back gives the nearest double, as round() returns.
    char buf[400];
    auto r = std::to_chars(buf, buf + sizeof buf - 1, value, std::chars_format::fixed, 4);
    *r.ptr = '\0';
    double out = std::strtod(buf, nullptr);
    // A zero keeps the sign of the value it came from.
    return out == 0.0 ? std::copysign(0.0, value) : out;
}

VoltTable::VoltTable(double ratio) : ratio_(ratio) {
    for (int c = -32768; c <= 32767; ++c) volts_[static_cast<std::uint16_t>(c)] = round4(c * ratio);
}

std::shared_ptr<const VoltTable> voltTable(double ratio) {
    static std::mutex m;
    static std::map<double, std::weak_ptr<const VoltTable>> tables;
    std::lock_guard lock(m);
    auto& slot = tables[ratio];
    auto table = slot.lock();
    if (!table) {
        table = std::make_shared<const VoltTable>(ratio);
        slot = table;
    }
    return table;
}

}  // namespace torvik::stream
