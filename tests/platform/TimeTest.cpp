#include "zoth/platform/Win32Time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

namespace {

using namespace std::chrono;

uint64_t Ticks(const FILETIME& ft) {
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

FILETIME FromTicks(uint64_t ticks) {
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

SYSTEMTIME Make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    SYSTEMTIME st = {};
    st.wYear = static_cast<WORD>(y);
    st.wMonth = static_cast<WORD>(mo);
    st.wDay = static_cast<WORD>(d);
    st.wHour = static_cast<WORD>(h);
    st.wMinute = static_cast<WORD>(mi);
    st.wSecond = static_cast<WORD>(s);
    st.wMilliseconds = static_cast<WORD>(ms);
    return st;
}

// An independent reckoning of the same calendar: the standard library's civil-day arithmetic.
uint64_t OracleTicks(int y, int mo, int d, int h, int mi, int s, int ms) {
    auto days = sys_days(year(y) / month(mo) / day(d)) - sys_days(year(1601) / January / 1);
    int64_t seconds = days.count() * 86400LL + h * 3600 + mi * 60 + s;
    return static_cast<uint64_t>(seconds) * 10000000ull + static_cast<uint64_t>(ms) * 10000ull;
}

int OracleWeekday(int y, int mo, int d) {
    return static_cast<int>(weekday(sys_days(year(y) / month(mo) / day(d))).c_encoding());
}

// Sets TZ for the scope of one test and restores it afterwards.
class ZoneScope {
public:
    explicit ZoneScope(const char* zone) {
        const char* old = std::getenv("TZ");
        m_had = old != nullptr;
        if (m_had) m_old = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneScope() {
        if (m_had)
            setenv("TZ", m_old.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool m_had = false;
    std::string m_old;
};

} // namespace

TEST(PlatformTime, KnownInstants) {
    FILETIME ft = {};
    SYSTEMTIME st = Make(1601, 1, 1);
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(Ticks(ft), 0u);
    st = Make(1970, 1, 1);
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(Ticks(ft), 116444736000000000ull);
    st = Make(2000, 2, 29, 12, 34, 56, 789);
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(Ticks(ft), OracleTicks(2000, 2, 29, 12, 34, 56, 789));

    SYSTEMTIME out;
    std::memset(&out, 0xFF, sizeof(out));
    FILETIME zero = FromTicks(0);
    ASSERT_TRUE(FileTimeToSystemTime(&zero, &out));
    EXPECT_EQ(out.wYear, 1601);
    EXPECT_EQ(out.wMonth, 1);
    EXPECT_EQ(out.wDay, 1);
    EXPECT_EQ(out.wDayOfWeek, 1) << "1601-01-01 was a Monday";
    EXPECT_EQ(out.wHour + out.wMinute + out.wSecond + out.wMilliseconds, 0);

    // The largest count accepted: 30828-09-14 02:48:05.477, a Thursday.
    FILETIME top = FromTicks(0x7FFFFFFFFFFFFFFFull);
    ASSERT_TRUE(FileTimeToSystemTime(&top, &out));
    EXPECT_EQ(out.wYear, 30828);
    EXPECT_EQ(out.wMonth, 9);
    EXPECT_EQ(out.wDay, 14);
    EXPECT_EQ(out.wHour, 2);
    EXPECT_EQ(out.wMinute, 48);
    EXPECT_EQ(out.wSecond, 5);
    EXPECT_EQ(out.wMilliseconds, 477);
    EXPECT_EQ(out.wDayOfWeek, 4);
}

TEST(PlatformTime, RandomDatesRoundTripAgainstCalendarOracle) {
    std::mt19937 rng(20240229);
    auto check = [](int y, int mo, int d, int h, int mi, int s, int ms) {
        SYSTEMTIME st = Make(y, mo, d, h, mi, s, ms);
        st.wDayOfWeek = 6; // ignored on input
        FILETIME ft = {};
        ASSERT_TRUE(SystemTimeToFileTime(&st, &ft)) << y << "-" << mo << "-" << d;
        ASSERT_EQ(Ticks(ft), OracleTicks(y, mo, d, h, mi, s, ms)) << y << "-" << mo << "-" << d;
        SYSTEMTIME back = {};
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &back));
        EXPECT_EQ(back.wYear, y);
        EXPECT_EQ(back.wMonth, mo);
        EXPECT_EQ(back.wDay, d);
        EXPECT_EQ(back.wHour, h);
        EXPECT_EQ(back.wMinute, mi);
        EXPECT_EQ(back.wSecond, s);
        EXPECT_EQ(back.wMilliseconds, ms);
        EXPECT_EQ(back.wDayOfWeek, OracleWeekday(y, mo, d)) << y << "-" << mo << "-" << d;
    };
    for (int i = 0; i < 20000; ++i) {
        int y = 1601 + static_cast<int>(rng() % (9999 - 1601 + 1));
        int mo = 1 + static_cast<int>(rng() % 12);
        int dim = static_cast<int>(unsigned(year_month_day_last(year(y), month_day_last(month(mo))).day()));
        int d = 1 + static_cast<int>(rng() % dim);
        check(y, mo, d, rng() % 24, rng() % 60, rng() % 60, rng() % 1000);
    }
    // Leap days, century rules and the ends of the range.
    for (int y : {1604, 1700 + 4, 1896, 1904, 2000, 2024, 2400, 9996})
        check(y, 2, 29, 12, 0, 0, 0);
    check(1601, 1, 1, 0, 0, 0, 0);
    check(1601, 12, 31, 23, 59, 59, 999);
    check(9999, 12, 31, 23, 59, 59, 999);
    check(30827, 12, 31, 23, 59, 59, 999);

    // Every day boundary over a stretch of counts stays consistent in both directions.
    for (uint64_t day = 0; day < 3000000; day += 997) {
        uint64_t ticks = day * 864000000000ull + 863999999999ull; // the last tick of that day
        FILETIME ft = FromTicks(ticks);
        SYSTEMTIME st = {};
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        FILETIME again = {};
        ASSERT_TRUE(SystemTimeToFileTime(&st, &again));
        EXPECT_EQ(Ticks(again), ticks - 9999) << "milliseconds truncate the last 9999 ticks";
    }
}

TEST(PlatformTime, RejectsInvalidRecordsAndCounts) {
    const SYSTEMTIME bad[] = {
        Make(1600, 12, 31),      Make(30828, 1, 1),          Make(2020, 0, 1),
        Make(2020, 13, 1),       Make(2020, 1, 0),           Make(2020, 4, 31),
        Make(2020, 6, 31),       Make(2021, 2, 29),          Make(1900, 2, 29),
        Make(2100, 2, 29),       Make(2020, 1, 32),          Make(2020, 1, 1, 24),
        Make(2020, 1, 1, 0, 60), Make(2020, 1, 1, 0, 0, 60), Make(2020, 1, 1, 0, 0, 0, 1000),
        Make(0, 0, 0),
    };
    for (const SYSTEMTIME& st : bad) {
        FILETIME ft = {0x12345678u, 0x0ABCDEF0u};
        SetLastError(ERROR_SUCCESS);
        EXPECT_FALSE(SystemTimeToFileTime(&st, &ft))
            << st.wYear << "-" << st.wMonth << "-" << st.wDay << " " << st.wHour << ":" << st.wMinute;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(ft.dwLowDateTime, 0x12345678u) << "output untouched on failure";
        EXPECT_EQ(ft.dwHighDateTime, 0x0ABCDEF0u);
    }
    SYSTEMTIME ok = Make(2020, 2, 29, 23, 59, 59, 999);
    FILETIME ft = {};
    EXPECT_TRUE(SystemTimeToFileTime(&ok, &ft));
    EXPECT_FALSE(SystemTimeToFileTime(nullptr, &ft));
    EXPECT_FALSE(SystemTimeToFileTime(&ok, nullptr));

    for (uint64_t ticks : {0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull, 0x8000000000000001ull}) {
        FILETIME in = FromTicks(ticks);
        SYSTEMTIME out = Make(1999, 9, 9);
        SetLastError(ERROR_SUCCESS);
        EXPECT_FALSE(FileTimeToSystemTime(&in, &out));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(out.wYear, 1999) << "output untouched on failure";
    }
    FILETIME in = FromTicks(0);
    EXPECT_FALSE(FileTimeToSystemTime(&in, nullptr));
    EXPECT_FALSE(FileTimeToSystemTime(nullptr, &ok));
}

TEST(PlatformTime, LocalClockFollowsZone) {
    const uint64_t kTicks1601To1970 = 116444736000000000ull;
    auto localMinusUtcMinutes = [&]() {
        struct __timeb64 tb = {};
        _ftime64(&tb);
        SYSTEMTIME local = {};
        GetLocalTime(&local);
        FILETIME ft = {};
        EXPECT_TRUE(SystemTimeToFileTime(&local, &ft));
        int64_t utcTicks =
            tb.time * 10000000LL + tb.millitm * 10000LL + static_cast<int64_t>(kTicks1601To1970);
        double minutes = static_cast<double>(static_cast<int64_t>(Ticks(ft)) - utcTicks) / 600000000.0;
        return minutes;
    };
    {
        ZoneScope zone("UTC0");
        struct __timeb64 tb = {};
        _ftime64(&tb);
        EXPECT_EQ(tb.timezone, 0);
        EXPECT_EQ(tb.dstflag, 0);
        EXPECT_LT(tb.millitm, 1000);
        EXPECT_GT(tb.time, 1600000000LL) << "after September 2020";
        EXPECT_NEAR(static_cast<double>(tb.time), static_cast<double>(std::time(nullptr)), 2.0)
            << "Unix seconds";
        EXPECT_NEAR(localMinusUtcMinutes(), 0.0, 1.0);
    }
    {
        ZoneScope zone("XYZ-3"); // three hours east of UTC, no daylight saving
        struct __timeb64 tb = {};
        _ftime64(&tb);
        EXPECT_EQ(tb.timezone, -180);
        EXPECT_EQ(tb.dstflag, 0);
        EXPECT_NEAR(localMinusUtcMinutes(), 180.0, 1.0);
    }
    {
        ZoneScope zone("ABC+5:30");
        EXPECT_NEAR(localMinusUtcMinutes(), -330.0, 1.0);
    }
    {
        // A zone with daylight saving all year round: standard offset 300 west, clocks one hour ahead.
        ZoneScope zone("EST5EDT,0/0,J365/25");
        struct __timeb64 tb = {};
        _ftime64(&tb);
        EXPECT_EQ(tb.timezone, 300);
        EXPECT_EQ(tb.dstflag, 1);
        EXPECT_NEAR(localMinusUtcMinutes(), -240.0, 1.0);
    }
    SYSTEMTIME st = {};
    GetLocalTime(&st);
    EXPECT_GE(st.wYear, 2020);
    EXPECT_LT(st.wDayOfWeek, 7);
    GetLocalTime(nullptr); // ignored, no crash
    _ftime64(nullptr);
}
