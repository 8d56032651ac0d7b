// gmtime_r: the broken-down UTC time of any time_t whose year fits an int. Pure arithmetic.
#include "runtime/time.h"

#include <climits>

#include "runtime/errno.h"

namespace orlix {

namespace {

constexpr int ERROR_OVERFLOW = 8;
constexpr std::int64_t SECONDS_PER_DAY = 86400;
constexpr std::int64_t DAYS_PER_ERA = 146097; // the Gregorian calendar repeats every 400 years
constexpr std::int64_t DAYS_FROM_MARCH_0000 = 719468; // from 0000-03-01 to 1970-01-01

// Days before each month's first in a common year.
constexpr int DAYS_BEFORE_MONTH[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

// Division and remainder rounded towards minus infinity, for a positive divisor; neither
// overflows, also at the ends of the range.
std::int64_t floor_div(std::int64_t a, std::int64_t b) { return a / b - (a % b < 0); }

std::int64_t floor_mod(std::int64_t a, std::int64_t b)
{
    const std::int64_t rest = a % b;
    return rest < 0 ? rest + b : rest;
}

bool is_leap(std::int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

struct Date {
    std::int64_t year;
    int month; // 1 to 12
    int day;   // 1 to 31
};

// The date of a day counted from 1970-01-01. Years are counted from March inside an era of 400
// years, so that the leap day falls at the end of such a year and every month but February has a
// fixed place: the months from March on follow a 153-day pattern of five months.
Date date_of_day(std::int64_t days)
{
    const std::int64_t shifted = days + DAYS_FROM_MARCH_0000;
    const std::int64_t era = floor_div(shifted, DAYS_PER_ERA);
    const std::int64_t day_of_era = shifted - era * DAYS_PER_ERA; // 0 to 146096
    const std::int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365; // 0 to 399
    const std::int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const std::int64_t month_from_march = (5 * day_of_year + 2) / 153; // 0 to 11
    Date date;
    date.day = static_cast<int>(day_of_year - (153 * month_from_march + 2) / 5 + 1);
    date.month = static_cast<int>(month_from_march < 10 ? month_from_march + 3 : month_from_march - 9);
    date.year = era * 400 + year_of_era + (date.month <= 2);
    return date;
}

} // namespace

tm* gmtime_r(const time_t* time, tm* out)
{
    const std::int64_t days = floor_div(*time, SECONDS_PER_DAY);
    const std::int64_t second_of_day = floor_mod(*time, SECONDS_PER_DAY);
    const Date date = date_of_day(days);
    if (date.year - 1900 < INT_MIN || date.year - 1900 > INT_MAX) {
        errno = ERROR_OVERFLOW;
        return nullptr;
    }
    out->tm_sec = static_cast<int>(second_of_day % 60);
    out->tm_min = static_cast<int>(second_of_day / 60 % 60);
    out->tm_hour = static_cast<int>(second_of_day / 3600);
    out->tm_mday = date.day;
    out->tm_mon = date.month - 1;
    out->tm_year = static_cast<int>(date.year - 1900);
    out->tm_wday = static_cast<int>(floor_mod(days + 4, 7)); // 1970-01-01 was a Thursday
    out->tm_yday = DAYS_BEFORE_MONTH[date.month - 1] + date.day - 1 + (date.month > 2 && is_leap(date.year));
    out->tm_isdst = 0;
    return out;
}

} // namespace orlix
