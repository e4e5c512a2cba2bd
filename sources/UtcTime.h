#pragma once
// Coordinated Universal Time helpers that do not depend on the process's time zone.

#include <ctime>
#include <string>

// Seconds since 1970-01-01 00:00:00 UTC of a broken-down UTC time. Fields are not normalised
// (tm_wday, tm_yday and tm_isdst are ignored); years before 1970 add nothing. The sum is taken in
// 32-bit signed arithmetic and wraps as it does on a 32-bit time_t: the result always lies in
// [-2^31, 2^31). A month beyond 12 (which would run past the table of month lengths) is refused
// with ArgumentException.
time_t mktime_utc(struct tm* t);

// Gregorian leap-year rule.
bool is_leap_year(int year);

// Inserted leap seconds of a year: the hook for them, always 0.
int leap_seconds(int year);

// The current UTC time formatted with strftime into 128 bytes; empty when it would not fit.
// Throws InternalErrorException "Failed to obtain UTC time" when the time cannot be broken down.
std::string utc_time(const std::string& format);
