// The system's UTC calendar: its time_t, its struct tm and gmtime_r. No time zones and no files:
// every time is UTC in the Gregorian calendar, also before its introduction.
#pragma once

#include <cstdint>

namespace orlix {

// Seconds since 1970-01-01 00:00:00 UTC; negative before.
using time_t = std::int64_t;

struct tm {
    int tm_sec;   // 0 to 59: no leap seconds
    int tm_min;   // 0 to 59
    int tm_hour;  // 0 to 23
    int tm_mday;  // 1 to 31
    int tm_mon;   // 0 to 11
    int tm_year;  // years since 1900
    int tm_wday;  // 0 to 6, Sunday 0
    int tm_yday;  // 0 to 365
    int tm_isdst; // always 0
};

// Breaks *time down into *out and returns out; null with errno 8 when the year does not fit
// tm_year, and *out is then left alone.
tm* gmtime_r(const time_t* time, tm* out);

} // namespace orlix
