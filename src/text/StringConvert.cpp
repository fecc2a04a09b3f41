// STRING_UTIL code-page conversions: wide (UTF-16 units), UTF-8 and ANSI (CP_ACP) text. Every step
// is one platform call into a destination sized by a fixed worst case and zero-filled first; the
// platform is never asked for the size it needs.
#include "zoth/text/STRING_UTIL.h"

#include "zoth/platform/Win32Text.h"

#include <climits>
#include <cstring>
#include <cwchar>
#include <memory>

namespace ZOTH {

namespace {

// UTF-8 bytes for one wide element at worst: 3 for a UTF-16 unit; where wchar_t is wider an element
// may hold a whole code point above 0xFFFF, which takes 4.
constexpr size_t kUtf8PerElement = sizeof(wchar_t) == 2 ? 3 : 4;

// Whether `length` units of input fit the int counts of the platform calls when the destination
// takes `perUnit` units per input unit plus `extra`. Otherwise the conversion cannot be made: the
// last error is ERROR_NOT_ENOUGH_MEMORY, so an empty result of such input is never a success.
bool Fits(size_t length, size_t perUnit, size_t extra) {
    if (length <= (static_cast<size_t>(INT_MAX) - extra) / perUnit) return true;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
}

} // namespace

std::string STRING_UTIL::Unicode2Utf8(const std::wstring& text) {
    size_t n = text.size();
    if (n == 0 || !Fits(n, kUtf8PerElement, 3)) return std::string();
    std::string result(kUtf8PerElement * n + 3, '\0');
    int written = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(n), result.data(),
                                      static_cast<int>(result.size()), nullptr, nullptr);
    result.resize(static_cast<size_t>(written));
    return result;
}

std::string STRING_UTIL::Unicode2Utf8(const wchar_t* text) {
    if (text == nullptr) return std::string();
    return Unicode2Utf8(std::wstring(text));
}

bool STRING_UTIL::Unicode2Utf8(const std::wstring& text, char* buffer, DWORD* size) {
    unsigned long long n = text.size();
    if (*size < 3 * (n + 1)) return false;
    buffer[0] = '\0';
    if (n == 0) {
        *size = 0;
        return true;
    }
    if (!Fits(n, kUtf8PerElement, 1)) return false;
    std::memset(buffer, 0, *size);
    // One byte stays free for the terminator. A whole code point in a wider wchar_t takes 4 bytes,
    // so text of such elements may not fit 3(n+1): then false, with the buffer cleared.
    int capacity = *size - 1 > INT_MAX ? INT_MAX : static_cast<int>(*size - 1);
    int written =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(n), buffer, capacity, nullptr, nullptr);
    if (written == 0) {
        buffer[0] = '\0';
        return false; // ERROR_INSUFFICIENT_BUFFER from the platform
    }
    *size = static_cast<DWORD>(written);
    buffer[written] = '\0';
    return true;
}

std::wstring STRING_UTIL::Utf82Unicode(const std::string& text) {
    size_t n = text.size();
    if (n == 0 || !Fits(n, 1, 1)) return std::wstring();
    std::wstring result(n + 1, L'\0');
    int written = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(n), result.data(),
                                      static_cast<int>(n + 1));
    result.resize(static_cast<size_t>(written));
    return result;
}

std::wstring STRING_UTIL::Utf82Unicode(const char* text) {
    if (text == nullptr || text[0] == '\0') return std::wstring();
    return Utf82Unicode(std::string(text));
}

bool STRING_UTIL::Utf82Unicode(const std::string& text, wchar_t* buffer, DWORD* size) {
    unsigned long long n = text.size();
    if (*size < n + 1) return false;
    buffer[0] = L'\0';
    if (n == 0) {
        *size = 0;
        return true;
    }
    // Only the units the conversion can reach are cleared; the rest of the caller's buffer stays.
    if (!Fits(n, 1, 1)) return false;
    std::wmemset(buffer, L'\0', n + 1);
    int written =
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(n), buffer, static_cast<int>(n + 1));
    *size = static_cast<DWORD>(written);
    buffer[written] = L'\0';
    return true;
}

std::string STRING_UTIL::Asci2Utf8(const std::string& text) {
    size_t n = text.size();
    if (n == 0 || !Fits(n, 3, 3)) return std::string();
    std::wstring wide(n + 1, L'\0');
    int units = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(n), wide.data(),
                                    static_cast<int>(n + 1));
    if (units == 0) return std::string();
    // Sized from the byte count n, which bounds the units of step one.
    std::string result(3 * (n + 1), '\0');
    int written = WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, result.data(),
                                      static_cast<int>(result.size()), nullptr, nullptr);
    result.resize(static_cast<size_t>(written));
    return result;
}

std::string STRING_UTIL::Utf82Asci(const std::string& text) {
    size_t n = text.size();
    if (n == 0 || !Fits(n, 2, 2)) return std::string();
    std::wstring wide(n + 1, L'\0');
    int units = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(n), wide.data(),
                                    static_cast<int>(n + 1));
    if (units == 0) return std::string();
    std::string result(2 * n + 2, '\0');
    int written = WideCharToMultiByte(CP_ACP, 0, wide.data(), units, result.data(),
                                      static_cast<int>(result.size()), nullptr, nullptr);
    result.resize(static_cast<size_t>(written));
    return result;
}

std::string STRING_UTIL::Unicode2Asci(const std::wstring& text) {
    size_t n = text.size();
    if (n == 0 || !Fits(n, 2, 2)) return std::string();
    std::string result(2 * n + 2, '\0');
    // Count -1: the conversion ends at the first NUL and writes it.
    int written = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, result.data(),
                                      static_cast<int>(result.size()), nullptr, nullptr);
    if (written == 0) return std::string();
    result.resize(std::strlen(result.c_str()));
    return result;
}

std::wstring STRING_UTIL::Asci2Unicode(const std::string& text) {
    size_t n = text.size();
    if (n == 0 || !Fits(n, 1, 1)) return std::wstring();
    std::wstring result(n + 1, L'\0');
    // Count n+1 takes the terminator along.
    int written = MultiByteToWideChar(CP_ACP, 0, text.c_str(), static_cast<int>(n + 1), result.data(),
                                      static_cast<int>(n + 1));
    if (written == 0) return std::wstring();
    result.resize(std::wcslen(result.c_str()));
    return result;
}

bool STRING_UTIL::IsvalidAsci(const std::string& text) {
    size_t n = text.size();
    if (n == 0) return true;
    if (!Fits(n, 1, 1)) return true; // no conversion was possible: not an invalid-input failure
    int units;
    {
        std::unique_ptr<wchar_t[]> temporary(new wchar_t[n + 1]());
        units = MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(n),
                                    temporary.get(), static_cast<int>(n + 1));
    } // freed before the last error is read; freeing leaves it alone
    if (units != 0) return true;
    return GetLastError() != ERROR_NO_UNICODE_TRANSLATION;
}

} // namespace ZOTH
