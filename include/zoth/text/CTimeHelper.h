// CTimeHelper: the local clock, file-time ticks, date text and spans in days.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <string>

namespace ZOTH {

/// The local clock, conversion between _SYSTEMTIME and file-time ticks (100 ns since 1601-01-01,
/// no zone applied), date text, and spans in days. Static operations only, no state: any number of
/// threads may call them at once. A record or tick count that a conversion rejects gives 0 or a
/// zeroed record.
class ZOTH_API CTimeHelper {
public:
    /// Nothing to set up: the class has no state.
    CTimeHelper();
    ~CTimeHelper();
    /// Nothing to assign: the class has no state.
    CTimeHelper& operator=(const CTimeHelper& other);

    /// The local date and time, wDayOfWeek 0 = Sunday.
    static _SYSTEMTIME GetLocalSystemTime();
    /// The record as file-time ticks; 0 for a record the conversion rejects (a field out of range).
    static __int64 SystemTimeToInt64(const _SYSTEMTIME& systemTime);
    /// The ticks as a record, wDayOfWeek filled in; a zeroed record for a negative count.
    static _SYSTEMTIME Int64ToSystemTime(const __int64& ticks);
    /// The ticks as "%d-%d-%d %d:%d:%d" text, no field padded. Does not read the clock.
    static std::string GetCurrentTimeStamp(const __int64& ticks);
    /// Milliseconds since 1970-01-01 UTC, from the system clock.
    static __int64 GetCurrentTimeStamp();
    /// Today's local date, "%d-%02d-%02d".
    static std::string GetCurrentDate();
    /// The local date and time, "%d-%d-%d %d:%d:%d".
    static std::string GetCurrentDateTime();
    /// Whole days of first - second (both ticks), truncated; 10 when first is not later than second.
    static unsigned __int64 CompareTimespanFormatDays(__int64 first, __int64 second);
};

} // namespace ZOTH
