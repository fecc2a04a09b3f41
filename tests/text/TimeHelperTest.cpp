#include "zoth/text/CTimeHelper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <cstdio>
#include <string>
#include <thread>

using ZOTH::CTimeHelper;

namespace {

_SYSTEMTIME Make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    _SYSTEMTIME st = {};
    st.wYear = static_cast<WORD>(y);
    st.wMonth = static_cast<WORD>(mo);
    st.wDay = static_cast<WORD>(d);
    st.wHour = static_cast<WORD>(h);
    st.wMinute = static_cast<WORD>(mi);
    st.wSecond = static_cast<WORD>(s);
    st.wMilliseconds = static_cast<WORD>(ms);
    return st;
}

constexpr __int64 kDay = 864000000000LL;

} // namespace

TEST(TextTimeHelper, CompareTimespanFormatDaysBoundaries) {
    const __int64 base = CTimeHelper::SystemTimeToInt64(Make(2024, 3, 1));
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base, base), 10u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base + 1, base), 0u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base + kDay - 1, base), 0u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base + kDay, base), 1u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base + 2 * kDay - 1, base), 1u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base + 11 * kDay, base), 11u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base - 1, base), 10u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(base - 400 * kDay, base), 10u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(0, LLONG_MAX), 10u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(LLONG_MAX, 0),
              static_cast<unsigned __int64>(LLONG_MAX / kDay));
    // Dates across a leap day: 2024-02-28 to 2024-03-01 is two days.
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(CTimeHelper::SystemTimeToInt64(Make(2024, 3, 1)),
                                                     CTimeHelper::SystemTimeToInt64(Make(2024, 2, 28))),
              2u);
    EXPECT_EQ(CTimeHelper::CompareTimespanFormatDays(CTimeHelper::SystemTimeToInt64(Make(2023, 3, 1)),
                                                     CTimeHelper::SystemTimeToInt64(Make(2023, 2, 28))),
              1u);
}

TEST(TextTimeHelper, TicksAndRecords) {
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(Make(1601, 1, 1)), 0);
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(Make(1970, 1, 1)), 116444736000000000LL);
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(Make(1970, 1, 2, 0, 0, 0, 1)),
              116444736000000000LL + kDay + 10000);

    _SYSTEMTIME in = Make(2020, 2, 29, 23, 59, 58, 999);
    _SYSTEMTIME out = CTimeHelper::Int64ToSystemTime(CTimeHelper::SystemTimeToInt64(in));
    EXPECT_EQ(out.wYear, 2020);
    EXPECT_EQ(out.wMonth, 2);
    EXPECT_EQ(out.wDay, 29);
    EXPECT_EQ(out.wHour, 23);
    EXPECT_EQ(out.wMinute, 59);
    EXPECT_EQ(out.wSecond, 58);
    EXPECT_EQ(out.wMilliseconds, 999);
    EXPECT_EQ(out.wDayOfWeek, 6) << "a Saturday, filled in by the conversion";

    // Rejected input gives 0 or a zeroed record, never stack leftovers.
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(Make(2021, 2, 29)), 0);
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(Make(2021, 13, 1)), 0);
    EXPECT_EQ(CTimeHelper::SystemTimeToInt64(Make(2021, 4, 31)), 0);
    for (__int64 bad : {-1LL, LLONG_MIN, -kDay}) {
        _SYSTEMTIME z = CTimeHelper::Int64ToSystemTime(bad);
        EXPECT_EQ(z.wYear + z.wMonth + z.wDay + z.wDayOfWeek + z.wHour + z.wMinute + z.wSecond +
                      z.wMilliseconds,
                  0);
        EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(bad), "0-0-0 0:0:0");
    }
}

TEST(TextTimeHelper, TextFormats) {
    const __int64 t = CTimeHelper::SystemTimeToInt64(Make(2020, 2, 3, 4, 5, 6, 700));
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(t), "2020-2-3 4:5:6");
    EXPECT_EQ(
        CTimeHelper::GetCurrentTimeStamp(CTimeHelper::SystemTimeToInt64(Make(1999, 12, 31, 23, 59, 59))),
        "1999-12-31 23:59:59");
    EXPECT_EQ(CTimeHelper::GetCurrentTimeStamp(0), "1601-1-1 0:0:0");
    EXPECT_EQ(
        CTimeHelper::GetCurrentTimeStamp(CTimeHelper::SystemTimeToInt64(Make(9999, 12, 31, 23, 59, 59, 999))),
        "9999-12-31 23:59:59");

    // The date and date-time of the clock, read between two readings of the record so that a change
    // of day during the test is tolerated.
    for (int attempt = 0; attempt < 3; ++attempt) {
        _SYSTEMTIME before = CTimeHelper::GetLocalSystemTime();
        std::string date = CTimeHelper::GetCurrentDate();
        std::string dateTime = CTimeHelper::GetCurrentDateTime();
        _SYSTEMTIME after = CTimeHelper::GetLocalSystemTime();
        if (before.wDay != after.wDay || before.wMinute != after.wMinute) continue;
        char expectDate[32];
        std::snprintf(expectDate, sizeof expectDate, "%d-%02d-%02d", before.wYear, before.wMonth,
                      before.wDay);
        EXPECT_EQ(date, expectDate);
        // Six unpadded fields: reading them back and writing them unpadded gives the same text.
        int f[6] = {};
        ASSERT_EQ(
            std::sscanf(dateTime.c_str(), "%d-%d-%d %d:%d:%d", &f[0], &f[1], &f[2], &f[3], &f[4], &f[5]), 6)
            << dateTime;
        char rebuilt[64];
        std::snprintf(rebuilt, sizeof rebuilt, "%d-%d-%d %d:%d:%d", f[0], f[1], f[2], f[3], f[4], f[5]);
        EXPECT_EQ(dateTime, rebuilt);
        char expectPrefix[48];
        std::snprintf(expectPrefix, sizeof expectPrefix, "%d-%d-%d %d:%d:", before.wYear, before.wMonth,
                      before.wDay, before.wHour, before.wMinute);
        EXPECT_EQ(dateTime.rfind(expectPrefix, 0), 0u) << dateTime << " vs " << expectPrefix;
        break;
    }
}

TEST(TextTimeHelper, UnixMillisecondsClock) {
    __int64 first = CTimeHelper::GetCurrentTimeStamp();
    auto systemMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    EXPECT_EQ(std::to_string(first).size(), 13u);
    EXPECT_NEAR(static_cast<double>(first), static_cast<double>(systemMs), 5000.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    __int64 second = CTimeHelper::GetCurrentTimeStamp();
    EXPECT_GE(second - first, 1050);
    EXPECT_LT(second - first, 20000) << "milliseconds, not ticks or microseconds";

    // The local record and the UTC stamp differ by the zone's offset.
    const char* old = std::getenv("TZ");
    std::string saved = old ? old : "";
    setenv("TZ", "XYZ-2", 1);
    tzset();
    __int64 localTicks = CTimeHelper::SystemTimeToInt64(CTimeHelper::GetLocalSystemTime());
    __int64 utcMs = CTimeHelper::GetCurrentTimeStamp();
    if (old)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    __int64 localMs = (localTicks - 116444736000000000LL) / 10000;
    EXPECT_NEAR(static_cast<double>(localMs - utcMs), 2 * 3600 * 1000.0, 5000.0);

    CTimeHelper a, b;
    EXPECT_EQ(&(a = b), &a);
}
