#include "firmware/clock.hpp"

#include <cstdio>

namespace sim {

namespace chr = std::chrono;

bool isValid(const DateTime& t) {
    const chr::year_month_day date{chr::year{t.year}, chr::month{static_cast<unsigned>(t.month)},
                                   chr::day{static_cast<unsigned>(t.day)}};
    return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31 && date.ok() && t.hour >= 0 && t.hour < 24 &&
           t.minute >= 0 && t.minute < 60 && t.second >= 0 && t.second < 60;
}

std::string toText(const DateTime& t) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute, t.second);
    return buf;
}

bool fromText(const std::string& text, DateTime* t) {
    DateTime v;
    int used = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &v.year, &v.month, &v.day, &v.hour, &v.minute, &v.second,
                    &used) != 6 ||
        static_cast<std::size_t>(used) != text.size() || !isValid(v))
        return false;
    *t = v;
    return true;
}

UnitClock::UnitClock(Now now) : now_(std::move(now)) { set(kStart); }

bool UnitClock::set(const DateTime& t, bool running) {
    if (!isValid(t)) return false;
    const chr::year_month_day date{chr::year{t.year}, chr::month{static_cast<unsigned>(t.month)},
                                   chr::day{static_cast<unsigned>(t.day)}};
    base_ = chr::sys_days{date} + chr::hours{t.hour} + chr::minutes{t.minute} + chr::seconds{t.second};
    set_at_ = now_();
    running_ = running;
    return true;
}

DateTime UnitClock::read() const {
    chr::sys_seconds at = base_;
    if (running_) at += chr::duration_cast<chr::seconds>(now_() - set_at_);
    const auto days = chr::floor<chr::days>(at);
    const chr::year_month_day date{days};
    const chr::hh_mm_ss<chr::seconds> tod{at - days};
    return DateTime{static_cast<int>(date.year()),
                    static_cast<int>(static_cast<unsigned>(date.month())),
                    static_cast<int>(static_cast<unsigned>(date.day())),
                    static_cast<int>(tod.hours().count()),
                    static_cast<int>(tod.minutes().count()),
                    static_cast<int>(tod.seconds().count())};
}

}  // namespace sim
