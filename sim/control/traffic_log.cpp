#include "control/traffic_log.hpp"

#include <cstdio>

namespace sim {

void TrafficLog::add(Channel channel, std::uint64_t link, const Frame& frame) {
    const double t = std::chrono::duration<double>(Clock::now() - epoch_).count();
    records_.push_back(LogRecord{t, channel, link, frame});
}

std::size_t TrafficLog::count(std::optional<std::uint16_t> code) const {
    if (!code) return records_.size();
    std::size_t n = 0;
    for (const auto& r : records_)
        if (r.frame.code == *code) ++n;
    return n;
}

std::size_t TrafficLog::countOn(Channel channel) const {
    std::size_t n = 0;
    for (const auto& r : records_)
        if (r.channel == channel) ++n;
    return n;
}

std::string TrafficLog::json() const {
    std::string out = "[";
    char head[128];
    for (const auto& r : records_) {
        if (out.size() > 1) out += ',';
        std::snprintf(head, sizeof head, "{\"t\":%.6f,\"conn\":\"%s\",\"link\":%llu,\"code\":%u,\"data\":\"", r.t,
                      std::string(channelName(r.channel)).c_str(), static_cast<unsigned long long>(r.link),
                      static_cast<unsigned>(r.frame.code));
        out += head;
        out += toHex(r.frame.payload);
        out += "\"}";
    }
    out += ']';
    return out;
}

}  // namespace sim
