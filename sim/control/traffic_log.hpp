// Every frame a unit received, in order, with the link it came on, so that tests can prove what
// the host sent (and that it sent nothing after a failed check).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "link/event_loop.hpp"
#include "link/frame.hpp"
#include "link/link.hpp"

namespace sim {

struct LogRecord {
    double t;  // seconds since the emulator started
    Channel channel;
    std::uint64_t link;
    Frame frame;
};

class TrafficLog {
public:
    explicit TrafficLog(Clock::time_point epoch) : epoch_(epoch) {}

    void add(Channel channel, std::uint64_t link, const Frame& frame);
    void clear() { records_.clear(); }
    std::size_t count(std::optional<std::uint16_t> code = std::nullopt) const;
    std::size_t countOn(Channel channel) const;

    // [{"t":0.001234,"conn":"cmd","link":1,"code":240,"data":"0100"}, ...]
    std::string json() const;

private:
    Clock::time_point epoch_;
    std::vector<LogRecord> records_;
};

}  // namespace sim
