// CTimeHelper: clocks, tick conversions and time text over the platform's time calls.
#include "zoth/text/CTimeHelper.h"
#include "zoth/platform/Win32Time.h"
#include "zoth/text/STRING_UTIL.h"

namespace ZOTH {

namespace {
constexpr __int64 kTicksPerDay = 864000000000LL;
}

CTimeHelper::CTimeHelper() = default;

CTimeHelper::~CTimeHelper() = default;

CTimeHelper& CTimeHelper::operator=(const CTimeHelper&) {
    return *this;
}

_SYSTEMTIME CTimeHelper::GetLocalSystemTime() {
    _SYSTEMTIME now = {};
    GetLocalTime(&now);
    return now;
}

__int64 CTimeHelper::SystemTimeToInt64(const _SYSTEMTIME& systemTime) {
    _FILETIME fileTime = {};
    if (!SystemTimeToFileTime(&systemTime, &fileTime)) return 0;
    unsigned __int64 ticks =
        (static_cast<unsigned __int64>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime;
    return static_cast<__int64>(ticks);
}

_SYSTEMTIME CTimeHelper::Int64ToSystemTime(const __int64& ticks) {
    unsigned __int64 bits = static_cast<unsigned __int64>(ticks);
    _FILETIME fileTime = {static_cast<DWORD>(bits), static_cast<DWORD>(bits >> 32)};
    _SYSTEMTIME systemTime = {};
    if (!FileTimeToSystemTime(&fileTime, &systemTime)) return _SYSTEMTIME{};
    return systemTime;
}

std::string CTimeHelper::GetCurrentTimeStamp(const __int64& ticks) {
    _SYSTEMTIME st = Int64ToSystemTime(ticks);
    return STRING_UTIL::StdFormatA("%d-%d-%d %d:%d:%d", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                                   st.wSecond);
}

__int64 CTimeHelper::GetCurrentTimeStamp() {
    struct __timeb64 now = {};
    _ftime64(&now);
    return now.time * 1000 + now.millitm;
}

std::string CTimeHelper::GetCurrentDate() {
    _SYSTEMTIME st = GetLocalSystemTime();
    return STRING_UTIL::StdFormatA("%d-%02d-%02d", st.wYear, st.wMonth, st.wDay);
}

std::string CTimeHelper::GetCurrentDateTime() {
    _SYSTEMTIME st = GetLocalSystemTime();
    return STRING_UTIL::StdFormatA("%d-%d-%d %d:%d:%d", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                                   st.wSecond);
}

unsigned __int64 CTimeHelper::CompareTimespanFormatDays(__int64 first, __int64 second) {
    // The difference wraps like the two's-complement subtraction it stands for, instead of being
    // undefined when the values lie more than 2^63 apart.
    __int64 difference =
        static_cast<__int64>(static_cast<unsigned __int64>(first) - static_cast<unsigned __int64>(second));
    if (difference <= 0) return 10;
    return static_cast<unsigned __int64>(difference / kTicksPerDay);
}

} // namespace ZOTH
