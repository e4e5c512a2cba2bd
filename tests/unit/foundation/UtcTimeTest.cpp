#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "Exceptions.h"
#include "UtcTime.h"

namespace {

time_t Utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_wday = 5;  // ignored
    return mktime_utc(&t);
}

}  // namespace

TEST(UtcTime, ConvertsBrokenDownTimeIn32BitArithmetic) {
    EXPECT_EQ(Utc(1970, 1, 1), 0);
    EXPECT_EQ(Utc(2000, 3, 1), 951868800);
    EXPECT_EQ(Utc(2024, 2, 29, 23, 59, 59), 1709251199);
    EXPECT_EQ(Utc(2038, 1, 19, 3, 14, 7), 2147483647);
    EXPECT_EQ(Utc(2038, 1, 19, 3, 14, 8), -2147483647 - 1);  // wraps as a 32-bit time_t
    EXPECT_EQ(Utc(2040, 1, 1), -2085978496);
    EXPECT_EQ(Utc(1969, 1, 1), 0);                                     // years before 1970 add nothing
    EXPECT_EQ(Utc(1970, 1, 1, 25, 61, 70), 25 * 3600 + 61 * 60 + 70);  // not normalised
    EXPECT_EQ(Utc(2001, 13, 1), Utc(2002, 1, 1));
    EXPECT_THROW(Utc(2001, 14, 1), ArgumentException);  // past the table of months

    for (time_t when = 0; when < 2000000000; when += 86400 * 37 + 3607) {
        struct tm t;
        gmtime_r(&when, &t);
        ASSERT_EQ(mktime_utc(&t), when);
    }
    EXPECT_FALSE(is_leap_year(1900));
    EXPECT_TRUE(is_leap_year(2000));
    EXPECT_TRUE(is_leap_year(2024));
    EXPECT_FALSE(is_leap_year(2023));
    EXPECT_EQ(leap_seconds(2016), 0);
}

TEST(UtcTime, FormatsTheCurrentTime) {
    const time_t before = time(nullptr);
    EXPECT_GE(std::stoll(utc_time("%s")), before);
    EXPECT_EQ(utc_time(std::string(127, 'x')), std::string(127, 'x'));
    EXPECT_EQ(utc_time(std::string(128, 'x')), "");  // does not fit in 128 bytes
}
