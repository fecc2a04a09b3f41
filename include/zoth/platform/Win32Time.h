/// \file
/// Clock reading and conversion between calendar records and file-time ticks (100 ns units since
/// 1601-01-01, proleptic Gregorian). On Windows they come from <windows.h> and <sys/timeb.h>; elsewhere
/// the platform layer implements them.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <windows.h>
#include <sys/timeb.h>
#else

/// The runtime's clock record: seconds since 1970-01-01 UTC, their milliseconds, the standard-time
/// offset in minutes west of UTC, and whether daylight saving time is in effect.
struct __timeb64 {
    __int64 time;
    unsigned short millitm;
    short timezone;
    short dstflag;
};

/// The current local date and time, wDayOfWeek 0 = Sunday. A null pointer is ignored.
ZOTH_API void GetLocalTime(LPSYSTEMTIME systemTime);

/// Field-by-field conversion, no zone applied. FALSE with ERROR_INVALID_PARAMETER for a null pointer or
/// a field out of range (year 1601-30827, month 1-12, day within its month, hour < 24, minute < 60,
/// second < 60, ms < 1000); wDayOfWeek is ignored. *fileTime is written only on success.
ZOTH_API BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime);

/// The reverse, filling wDayOfWeek too. FALSE with ERROR_INVALID_PARAMETER for a null pointer or a tick
/// count of 0x8000000000000000 or more; *systemTime is written only on success.
ZOTH_API BOOL FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime);

/// Reads the clock into *timeBuffer. A null pointer is ignored.
ZOTH_API void _ftime64(struct __timeb64* timeBuffer);

#endif // _WIN32
