// CTimeHelper: ticks and records, time text, the clocks and spans in days.
#include "Portable.h"
#include "zoth/text/CTimeHelper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

using ZOTH::CTimeHelper;

namespace {

__int64 Ticks(WORD y, WORD mo, WORD d, WORD h = 0, WORD mi = 0, WORD s = 0, WORD ms = 0) {
    return CTimeHelper::SystemTimeToInt64(_SYSTEMTIME{y, mo, 0, d, h, mi, s, ms});
}

constexpr __int64 kDay = 864000000000LL;
constexpr __int64 kUnixEpoch = 116444736000000000LL;

} // namespace

TEST(TextTimeHelper, CompareTimespanFormatDaysBoundaries) {
    // Whole days, truncated; 10 whenever the first is not later than the second.
    const __int64 base = Ticks(2024, 3, 1);
    const struct {
        __int64 later;
        unsigned __int64 days;
    } cases[] = {
        {0, 10},       {-1, 10},  {-400 * kDay, 10}, {1, 0},
        {kDay - 1, 0}, {kDay, 1}, {2 * kDay - 1, 1}, {11 * kDay, 11},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base + c.later, base), c.days) << c.later;
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(0, LLONG_MAX), 10u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(LLONG_MAX, 0),
              static_cast<unsigned __int64>(LLONG_MAX / kDay));
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base, Ticks(2024, 2, 28)), 2u); // across a leap day
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(Ticks(2023, 3, 1), Ticks(2023, 2, 28)), 1u);
}

TEST(TextTimeHelper, TicksRecordsAndText) {
    EXPECT_EQ(Ticks(1601, 1, 1), 0);
    EXPECT_EQ(Ticks(1970, 1, 1), kUnixEpoch);
    EXPECT_EQ(Ticks(1970, 1, 2, 0, 0, 0, 1), kUnixEpoch + kDay + 10000);
    const __int64 leap = Ticks(2020, 2, 29, 23, 59, 58, 999);
    _SYSTEMTIME out = CTimeHelper::Int64ToSystemTime(leap);
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(out), leap); // every field back, milliseconds included
    EXPECT_EQ(out.wDayOfWeek, 6);                         // a Saturday, filled in by the conversion

    // Rejected input gives 0 or a zeroed record, never stack leftovers.
    if (!zoth_test::UnderWine()) { // Wine takes 29 February of any year
        EXPECT_EQ(Ticks(2021, 2, 29), 0);
    }
    EXPECT_EQ(Ticks(2021, 13, 1), 0);
    EXPECT_EQ(Ticks(2021, 4, 31), 0);
    for (__int64 bad : {-1LL, LLONG_MIN, -kDay}) {
        _SYSTEMTIME z = CTimeHelper::Int64ToSystemTime(bad);
        EXPECT_EQ(z.wYear + z.wMonth + z.wDay + z.wDayOfWeek + z.wHour + z.wMinute + z.wSecond +
                      z.wMilliseconds,
                  0);
        EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(bad), "0-0-0 0:0:0");
    }
    // Text without padding, whole seconds only.
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(leap), "2020-2-29 23:59:58");
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(Ticks(2020, 2, 3, 4, 5, 6, 700)), "2020-2-3 4:5:6");
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(Ticks(1999, 12, 31, 23, 59, 59)), "1999-12-31 23:59:59");
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(0), "1601-1-1 0:0:0");
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(Ticks(9999, 12, 31, 23, 59, 59, 999)), "9999-12-31 23:59:59");
}

TEST(TextTimeHelper, Clocks) {
    // Today's date (padded) and date-time (unpadded) of the local clock; a change of minute between the
    // readings is tolerated by trying again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        _SYSTEMTIME before = CTimeHelper::GetLocalSystemTime();
        std::string date = CTimeHelper::GetCurrentDate(), dateTime = CTimeHelper::GetCurrentDateTime();
        _SYSTEMTIME after = CTimeHelper::GetLocalSystemTime();
        if (before.wDay != after.wDay || before.wMinute != after.wMinute) continue;
        char expectDate[32], expectPrefix[48];
        std::snprintf(expectDate, sizeof expectDate, "%d-%02d-%02d", before.wYear, before.wMonth,
                      before.wDay);
        std::snprintf(expectPrefix, sizeof expectPrefix, "%d-%d-%d %d:%d:", before.wYear, before.wMonth,
                      before.wDay, before.wHour, before.wMinute);
        EXPECT_EQ(date, expectDate);
        ASSERT_EQ(dateTime.rfind(expectPrefix, 0), 0u) << dateTime << " vs " << expectPrefix;
        std::string seconds = dateTime.substr(std::string(expectPrefix).size());
        EXPECT_EQ(seconds, std::to_string(std::atoi(seconds.c_str()))) << dateTime; // unpadded
        break;
    }

    // Milliseconds since 1970 in UTC, whatever the zone: 13 digits, close to the system clock, while
    // the local record stands at the zone's offset (two hours ahead where the test can set the zone).
    zoth_test::ScopedTimeZone zone(2);
    __int64 localMs =
        (CTimeHelper::SystemTimeToInt64(CTimeHelper::GetLocalSystemTime()) - kUnixEpoch) / 10000;
    __int64 utcMs = CTimeHelper::GetCurrentTimeStamp();
    auto systemMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    EXPECT_EQ(std::to_string(utcMs).size(), 13u);
    EXPECT_NEAR(static_cast<double>(utcMs), static_cast<double>(systemMs), 5000.0);
    EXPECT_NEAR(static_cast<double>(localMs - utcMs), zone.OffsetMinutes() * 60 * 1000.0, 5000.0);
}
