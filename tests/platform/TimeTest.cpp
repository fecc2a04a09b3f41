// Calendar records and file-time ticks against the standard library's civil-day arithmetic, and the
// local clock and local file times under several zones.
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Time.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <random>
#include <string>
#include <tuple>

namespace {

using namespace std::chrono;

using zoth_test::FromTicks;
using zoth_test::Ticks;

SYSTEMTIME Make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    return SYSTEMTIME{WORD(y), WORD(mo), 0, WORD(d), WORD(h), WORD(mi), WORD(s), WORD(ms)};
}

// Every field in one line, so one comparison shows the whole record.
std::string Text(const SYSTEMTIME& st) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%d-%02d-%02d %02d:%02d:%02d.%03d w%d", st.wYear, st.wMonth, st.wDay,
                  st.wHour, st.wMinute, st.wSecond, st.wMilliseconds, st.wDayOfWeek);
    return buffer;
}

const uint64_t kUnixEpoch = zoth_test::kUnixEpochTicks, kDay = 86400 * zoth_test::kTicksPerSecond;

} // namespace

TEST(PlatformTime, CalendarRoundTripAgainstOracle) {
    auto check = [](int y, int mo, int d, int h, int mi, int s, int ms) {
        SYSTEMTIME st = Make(y, mo, d, h, mi, s, ms), back = {};
        st.wDayOfWeek = 6; // ignored on input
        sys_days day = sys_days(year(y) / mo / d);
        uint64_t expected = (day - sys_days(year(1601) / 1 / 1)).count() * kDay +
                            ((h * 60 + mi) * 60 + s) * 10000000ull + ms * 10000ull;
        FILETIME ft = {};
        ASSERT_TRUE(SystemTimeToFileTime(&st, &ft)) << Text(st);
        ASSERT_EQ(Ticks(ft), expected) << Text(st);
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &back));
        st.wDayOfWeek = static_cast<WORD>(weekday(day).c_encoding());
        EXPECT_EQ(Text(back), Text(st));
    };
    std::mt19937 rng(20240229);
    for (int i = 0; i < 20000; ++i) {
        int y = 1601 + static_cast<int>(rng() % (9999 - 1601 + 1));
        int mo = 1 + static_cast<int>(rng() % 12);
        unsigned last = unsigned(year_month_day_last(year(y), month_day_last(month(mo))).day());
        check(y, mo, 1 + static_cast<int>(rng() % last), rng() % 24, rng() % 60, rng() % 60, rng() % 1000);
    }
    for (int y : {1604, 1704, 1896, 1904, 2000, 2024, 2400, 9996}) // leap days under the century rules
        check(y, 2, 29, 12, 0, 0, 0);
    check(1601, 1, 1, 0, 0, 0, 0);
    check(1601, 12, 31, 23, 59, 59, 999);
    check(30827, 12, 31, 23, 59, 59, 999);

    // Fixed points that do not rest on the oracle: the Unix epoch and the largest count accepted.
    SYSTEMTIME st = Make(1970, 1, 1);
    FILETIME ft = {};
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(Ticks(ft), kUnixEpoch);
    ft = FromTicks(0x7FFFFFFFFFFFFFFFull);
    ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
    EXPECT_EQ(Text(st), "30828-09-14 02:48:05.477 w4");
    // The last tick of a day goes back as its last millisecond, on the same day.
    for (uint64_t day = 0; day < 3000000; day += 997) {
        ft = FromTicks(day * kDay + kDay - 1);
        FILETIME again = {};
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        ASSERT_TRUE(SystemTimeToFileTime(&st, &again));
        EXPECT_EQ(Ticks(again), day * kDay + kDay - 10000) << "day " << day;
    }
}

TEST(PlatformTime, RejectsInvalidRecordsAndCountsLeavingOutputUntouched) {
    const SYSTEMTIME bad[] = {
        Make(1600, 12, 31),      Make(30828, 1, 1),          Make(2020, 0, 1),
        Make(2020, 13, 1),       Make(2020, 1, 0),           Make(2020, 4, 31),
        Make(2020, 6, 31),       Make(2021, 2, 29),          Make(1900, 2, 29),
        Make(2100, 2, 29),       Make(2020, 1, 32),          Make(2020, 1, 1, 24),
        Make(2020, 1, 1, 0, 60), Make(2020, 1, 1, 0, 0, 60), Make(2020, 1, 1, 0, 0, 0, 1000),
        Make(0, 0, 0),
    };
    for (const SYSTEMTIME& st : bad) {
        FILETIME ft = FromTicks(0x0ABCDEF012345678ull);
        EXPECT_FAILS_WITH(SystemTimeToFileTime(&st, &ft), FALSE, ERROR_INVALID_PARAMETER);
        EXPECT_EQ(Ticks(ft), 0x0ABCDEF012345678ull) << Text(st);
    }
    for (uint64_t ticks : {0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull}) {
        FILETIME in = FromTicks(ticks);
        SYSTEMTIME out = Make(1999, 9, 9);
        EXPECT_FAILS_WITH(FileTimeToSystemTime(&in, &out), FALSE, ERROR_INVALID_PARAMETER);
        EXPECT_EQ(out.wYear, 1999);
    }
    SYSTEMTIME ok = Make(2020, 2, 29, 23, 59, 59, 999);
    FILETIME ft = {};
    EXPECT_TRUE(SystemTimeToFileTime(&ok, &ft));
    EXPECT_FAILS_WITH(SystemTimeToFileTime(nullptr, &ft), FALSE, ERROR_INVALID_PARAMETER);
    EXPECT_FAILS_WITH(FileTimeToSystemTime(&ft, nullptr), FALSE, ERROR_INVALID_PARAMETER);
}

// _ftime64 gives Unix seconds and the standard offset west of UTC; GetLocalTime differs from UTC by
// the offset in force, daylight saving included.
TEST(PlatformTime, LocalClockFollowsZone) {
    const std::tuple<const char*, short, short, double> zones[] = {
        {"UTC0", 0, 0, 0.0},
        {"XYZ-3", -180, 0, 180.0},
        {"ABC+5:30", 330, 0, -330.0},
        {"EST5EDT,0/0,J365/25", 300, 1, -240.0}, // daylight saving all year round
    };
    for (auto [zone, timezone, dstflag, localMinusUtcMinutes] : zones) {
        zoth_test::EnvScope scope("TZ", zone);
        struct __timeb64 tb = {};
        _ftime64(&tb);
        SYSTEMTIME local = {};
        GetLocalTime(&local);
        FILETIME ft = {};
        ASSERT_TRUE(SystemTimeToFileTime(&local, &ft)) << zone;
        int64_t utc = tb.time * 10000000LL + tb.millitm * 10000LL + static_cast<int64_t>(kUnixEpoch);
        EXPECT_NEAR((static_cast<int64_t>(Ticks(ft)) - utc) / 600000000.0, localMinusUtcMinutes, 1.0) << zone;
        EXPECT_EQ(tb.timezone, timezone) << zone;
        EXPECT_EQ(tb.dstflag, dstflag) << zone;
        EXPECT_LT(tb.millitm, 1000);
        EXPECT_NEAR(static_cast<double>(tb.time), static_cast<double>(std::time(nullptr)), 2.0)
            << "Unix seconds";
    }
    GetLocalTime(nullptr); // ignored, no crash
    _ftime64(nullptr);
}

// FileTimeToLocalFileTime applies the zone's offset of the present moment to every time, as Windows
// does: a file written in the other season than today's shows today's offset, not its own.
TEST(PlatformTime, LocalFileTimeUsesTheOffsetOfThePresentMoment) {
    zoth_test::TempDir dir;
    const std::string path = dir / "f";
    std::ofstream(path) << "x";
    for (const char* zone : {"CET-1CEST,M3.5.0,M10.5.0/3", "AEST-10AEDT,M10.1.0,M4.1.0/3", "UTC0"}) {
        zoth_test::EnvScope scope("TZ", zone);
        time_t now = std::time(nullptr);
        tm today = {};
        localtime_r(&now, &today);
        // A time in the other season than today's (for a zone with summer time), within the past year.
        time_t other = now;
        tm then = today;
        for (int month = 1; month <= 12 && then.tm_gmtoff == today.tm_gmtoff; ++month) {
            other = now - month * 30 * 86400;
            localtime_r(&other, &then);
        }
        if (std::string(zone) != "UTC0") {
            ASSERT_NE(then.tm_gmtoff, today.tm_gmtoff) << zone;
        }
        const timespec times[2] = {{other, 0}, {other, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

        HANDLE file =
            CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        FILETIME written = {}, local = {};
        ASSERT_TRUE(GetFileTime(file, nullptr, nullptr, &written));
        CloseHandle(file);
        const uint64_t utc = kUnixEpoch + static_cast<uint64_t>(other) * zoth_test::kTicksPerSecond;
        ASSERT_EQ(Ticks(written), utc) << zone;
        ASSERT_TRUE(FileTimeToLocalFileTime(&written, &local)) << zone;
        EXPECT_EQ(static_cast<int64_t>(Ticks(local) - utc),
                  static_cast<int64_t>(today.tm_gmtoff) * static_cast<int64_t>(zoth_test::kTicksPerSecond))
            << zone;
    }
    FILETIME huge{0, 0xFFFFFFFFu}, local = {};
    EXPECT_FALSE(FileTimeToLocalFileTime(nullptr, &local));
    EXPECT_FALSE(FileTimeToLocalFileTime(&huge, &local));
}
