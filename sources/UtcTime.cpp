#include "UtcTime.h"

#include <cstdint>

#include "Exceptions.h"

namespace {

const uint32_t kSecondsPerDay = 86400;
const uint32_t kSecondsPerYear = 365 * kSecondsPerDay;
const int kDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// Leap years in the calendar years 1 .. year (year >= 0).
int64_t LeapYearsUpTo(int64_t year) {
    return year / 4 - year / 100 + year / 400;
}

}  // namespace

bool is_leap_year(int year) {
    if (year % 400 == 0) return true;
    if (year % 100 == 0) return false;
    return year % 4 == 0;
}

int leap_seconds(int /*year*/) {
    return 0;
}

time_t mktime_utc(struct tm* t) {
    // All sums are kept modulo 2^32 in unsigned arithmetic and read back as signed 32-bit at the
    // end, which is what the 32-bit signed sum gives without overflowing in C++.
    uint32_t seconds = 0;

    // Whole years 1970 .. 1900 + tm_year - 1, counted in closed form rather than year by year so
    // that absurd years stay cheap. leap_seconds() is 0 for every year, so it adds nothing.
    const int64_t lastYear = int64_t{1900} + t->tm_year - 1;
    if (lastYear >= 1970) {
        const int64_t years = lastYear - 1969;
        const int64_t leapYears = LeapYearsUpTo(lastYear) - LeapYearsUpTo(1969);
        seconds += static_cast<uint32_t>(years) * kSecondsPerYear;
        seconds += static_cast<uint32_t>(leapYears) * kSecondsPerDay;
    }

    if (t->tm_mon > 12) {
        throw ArgumentException("mktime_utc: month " + std::to_string(t->tm_mon) + " is out of range");
    }
    const int64_t year = int64_t{1900} + t->tm_year;
    const bool leap = year % 400 == 0 || (year % 100 != 0 && year % 4 == 0);
    for (int m = 0; m < t->tm_mon; ++m) {
        const int days = kDaysInMonth[m] + ((m == 1 && leap) ? 1 : 0);
        seconds += static_cast<uint32_t>(days) * kSecondsPerDay;
    }

    seconds += static_cast<uint32_t>(int64_t{t->tm_mday} - 1) * kSecondsPerDay;
    seconds += static_cast<uint32_t>(t->tm_hour) * 3600u;
    seconds += static_cast<uint32_t>(t->tm_min) * 60u;
    seconds += static_cast<uint32_t>(t->tm_sec);
    return static_cast<time_t>(static_cast<int32_t>(seconds));
}

std::string utc_time(const std::string& format) {
    const time_t now = time(nullptr);
    struct tm broken;
    if (gmtime_r(&now, &broken) == nullptr) {
        throw InternalErrorException("Failed to obtain UTC time");
    }
    char buffer[128];
    const size_t written = strftime(buffer, sizeof buffer, format.c_str(), &broken);
    return std::string(buffer, written);
}
