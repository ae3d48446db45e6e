// The unit's real-time clock: set to a date, it runs on from there with the emulator's steady
// clock, or holds still if a test asks it to.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace sim {

struct DateTime {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    bool operator==(const DateTime&) const = default;
};

// A real calendar date and a time of day.
bool isValid(const DateTime& t);
// "2024-01-01T00:00:00"
std::string toText(const DateTime& t);
bool fromText(const std::string& text, DateTime* t);

class UnitClock {
public:
    using Now = std::function<std::chrono::steady_clock::time_point()>;

    // Where the clock of a new unit starts.
    static constexpr DateTime kStart{2024, 1, 1, 0, 0, 0};

    explicit UnitClock(Now now);

    DateTime read() const;
    // False, and nothing changes, unless `t` is valid.
    bool set(const DateTime& t, bool running = true);
    bool running() const { return running_; }

private:
    Now now_;
    std::chrono::sys_seconds base_{};
    std::chrono::steady_clock::time_point set_at_{};
    bool running_ = true;
};

}  // namespace sim
