// Local clock and calendar conversions. The calendar arithmetic counts days in the proleptic
// Gregorian calendar with 400-year eras starting on 1 March, so leap days fall at an era year's end.
#include "zoth/platform/Win32Time.h"

#include <cstdint>
#include <ctime>

namespace {

constexpr uint64_t kTicksPerMillisecond = 10000;
constexpr uint64_t kTicksPerSecond = 1000 * kTicksPerMillisecond;
constexpr uint64_t kTicksPerDay = 86400 * kTicksPerSecond;

bool IsLeapYear(unsigned year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned DaysInMonth(unsigned year, unsigned month) {
    static const unsigned kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days since 0000-03-01 of a valid date.
constexpr int64_t DaysFromCivil(unsigned year, unsigned month, unsigned day) {
    if (month <= 2) --year;
    unsigned era = year / 400;
    unsigned yearOfEra = year - era * 400;
    unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return static_cast<int64_t>(era) * 146097 + dayOfEra;
}

constexpr int64_t kDaysFrom0000To1601 = DaysFromCivil(1601, 1, 1);
constexpr uint64_t kTicks1601To1970 =
    static_cast<uint64_t>(DaysFromCivil(1970, 1, 1) - kDaysFrom0000To1601) * kTicksPerDay;
static_assert(kTicks1601To1970 == 116444736000000000ull);

// The date `days` after 0000-03-01 (days >= 0).
void CivilFromDays(int64_t days, unsigned& year, unsigned& month, unsigned& day) {
    unsigned era = static_cast<unsigned>(days / 146097);
    unsigned dayOfEra = static_cast<unsigned>(days - static_cast<int64_t>(era) * 146097);
    unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
    month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
    year = era * 400 + yearOfEra + (month <= 2 ? 1 : 0);
}

// Splits a tick count into the record's fields; 1601-01-01 was a Monday.
void FillSystemTime(uint64_t ticks, SYSTEMTIME& st) {
    uint64_t days = ticks / kTicksPerDay;
    uint64_t rest = ticks % kTicksPerDay;
    unsigned year, month, day;
    CivilFromDays(static_cast<int64_t>(days) + kDaysFrom0000To1601, year, month, day);
    st.wYear = static_cast<WORD>(year);
    st.wMonth = static_cast<WORD>(month);
    st.wDay = static_cast<WORD>(day);
    st.wDayOfWeek = static_cast<WORD>((days + 1) % 7);
    st.wHour = static_cast<WORD>(rest / (3600 * kTicksPerSecond));
    st.wMinute = static_cast<WORD>(rest / (60 * kTicksPerSecond) % 60);
    st.wSecond = static_cast<WORD>(rest / kTicksPerSecond % 60);
    st.wMilliseconds = static_cast<WORD>(rest / kTicksPerMillisecond % 1000);
}

timespec RealTimeNow() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

} // namespace

void GetLocalTime(LPSYSTEMTIME systemTime) {
    if (systemTime == nullptr) return;
    timespec now = RealTimeNow();
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    // The local wall clock as ticks; the seconds carry the zone offset, the fraction stays as read.
    int64_t localSeconds = static_cast<int64_t>(now.tv_sec) + local.tm_gmtoff;
    uint64_t ticks = kTicks1601To1970 +
                     static_cast<uint64_t>(localSeconds * static_cast<int64_t>(kTicksPerSecond)) +
                     static_cast<uint64_t>(now.tv_nsec / 1000000) * kTicksPerMillisecond;
    FillSystemTime(ticks, *systemTime);
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime) {
    if (systemTime == nullptr || fileTime == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const SYSTEMTIME& st = *systemTime;
    if (st.wYear < 1601 || st.wYear > 30827 || st.wMonth < 1 || st.wMonth > 12 || st.wDay < 1 ||
        st.wDay > DaysInMonth(st.wYear, st.wMonth) || st.wHour > 23 || st.wMinute > 59 || st.wSecond > 59 ||
        st.wMilliseconds > 999) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    uint64_t days = static_cast<uint64_t>(DaysFromCivil(st.wYear, st.wMonth, st.wDay) - kDaysFrom0000To1601);
    uint64_t seconds = days * 86400 + st.wHour * 3600u + st.wMinute * 60u + st.wSecond;
    uint64_t ticks = seconds * kTicksPerSecond + st.wMilliseconds * kTicksPerMillisecond;
    fileTime->dwLowDateTime = static_cast<DWORD>(ticks);
    fileTime->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime) {
    if (fileTime == nullptr || systemTime == nullptr || (fileTime->dwHighDateTime & 0x80000000u) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    uint64_t ticks = (static_cast<uint64_t>(fileTime->dwHighDateTime) << 32) | fileTime->dwLowDateTime;
    FillSystemTime(ticks, *systemTime);
    return TRUE;
}

void _ftime64(struct __timeb64* timeBuffer) {
    if (timeBuffer == nullptr) return;
    timespec now = RealTimeNow();
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    // tm_gmtoff includes daylight saving; the record wants the standard offset, west positive.
    long standardOffset = local.tm_gmtoff - (local.tm_isdst > 0 ? 3600 : 0);
    timeBuffer->time = static_cast<__int64>(now.tv_sec);
    timeBuffer->millitm = static_cast<unsigned short>(now.tv_nsec / 1000000);
    timeBuffer->timezone = static_cast<short>(-standardOffset / 60);
    timeBuffer->dstflag = static_cast<short>(local.tm_isdst > 0 ? 1 : 0);
}
