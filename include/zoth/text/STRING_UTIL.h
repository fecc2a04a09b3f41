// STRING_UTIL: the library's text toolbox. Static operations only: code-page conversion, MD5 and
// hex, Base64, URL text, and general string operations. No state; every operation may run on any
// number of threads at once, as long as no two work on the same string or container.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace ZOTH {

class ZOTH_API STRING_UTIL {
public:
    STRING_UTIL& operator=(const STRING_UTIL& other);
    STRING_UTIL& operator=(STRING_UTIL&& other) noexcept;

    // ---- Code-page conversion. "Asci" is the ANSI code page (CP_ACP), not 7-bit ASCII. ----
    // Every string form gives an empty result for empty input and when the platform call fails.
    static std::string Unicode2Utf8(const std::wstring& text);
    static std::string Unicode2Utf8(const wchar_t* text); // null gives ""
    // Into the caller's buffer: needs *size >= 3(n+1) bytes, else false with nothing touched.
    // On true *size is the byte count written, without the terminator.
    static bool Unicode2Utf8(const std::wstring& text, char* buffer, DWORD* size);
    static std::wstring Utf82Unicode(const std::string& text);
    static std::wstring Utf82Unicode(const char* text); // null gives L""
    // Into the caller's buffer: needs *size >= n+1 units, else false with nothing touched.
    static bool Utf82Unicode(const std::string& text, wchar_t* buffer, DWORD* size);
    static std::string Asci2Utf8(const std::string& text);
    static std::string Utf82Asci(const std::string& text);
    static std::string Unicode2Asci(const std::wstring& text); // stops at the first NUL
    static std::wstring Asci2Unicode(const std::string& text); // stops at the first NUL
    // False only when the text is invalid in the ANSI code page (ERROR_NO_UNICODE_TRANSLATION).
    static bool IsvalidAsci(const std::string& text);

    // ---- MD5 (RFC 1321) and hex. ----
    static void Buffer2Md5(unsigned char* data, unsigned int length, unsigned char* const digest);
    // The first four digest bytes as a little-endian integer (the final state word A).
    static unsigned int Buffer2Md5(unsigned char* data, unsigned int length);
    static void String2Md5(const char* text, unsigned char* const digest);        // bytes before the NUL
    static void String2Md5(const std::string& text, unsigned char* const digest); // all size() bytes
    // Two lower-case hex digits per byte; "" for null data or zero length.
    static std::string Hex2String(unsigned char* data, unsigned int length);

    // ---- Base64 (RFC 4648 alphabet, no line breaks). ----
    static std::string Base64Encode(const std::string& bytes);
    // Reads up to the first NUL; "" for empty or invalid input.
    static std::string Base64Decode(const std::string& text);

    // ---- URL text. ----
    static std::string UrlEncode(const std::string& text);
    static std::string UrlDecode(const std::string& text);
    static std::string Url2Domain(const std::string& url);
    static std::string Url2DomainHasHttpType(const std::string& url);
    static std::string UrlDeleteHttpHead(const std::string& url);
    static std::map<std::string, std::string> Url2Params(std::string url);

    // ---- General string operations. ----
    // Pieces are appended to (inserted into) what the container already holds.
    static void SplitStringA(const std::string& text, char separator, std::vector<std::string>& pieces,
                             int keepEmpty);
    static void SplitStringA(const std::string& text, char separator, std::set<std::string>& pieces,
                             int keepEmpty);
    static void SplitStringW(const std::wstring& text, wchar_t separator, std::vector<std::wstring>& pieces,
                             int keepEmpty);
    // Replaces until no occurrence is left, searching from `start` each time.
    static std::string& ReplaceAll(std::string& text, std::string oldValue, std::string newValue,
                                   unsigned int start = 0);
    static std::wstring& ReplaceAll(std::wstring& text, std::wstring& oldValue, std::wstring& newValue,
                                    unsigned int start = 0);
    // Replaces each occurrence once, never searching what it inserted.
    static std::string& ReplaceAllDistinct(std::string& text, const std::string& oldValue,
                                           const std::string& newValue);
    static std::wstring& ReplaceAllDistinct(std::wstring& text, const std::wstring& oldValue,
                                            const std::wstring& newValue);
    static std::string StdFormatA(const char* format, ...) ZOTH_PRINTF_FORMAT(1, 2);
    static std::wstring StdFormatW(const wchar_t* format, ...);
    static std::string SubString(std::string text, std::string beginMark, std::string endMark);
    static std::string Trim(std::string& text);    // spaces (0x20) only; the argument is not changed
    static std::string ToUpper(std::string& text); // changes the argument and returns a copy
    static std::string ToLower(std::string& text);
    static std::string GetGuid(); // 32 upper-case hex digits
    static std::string Int2String(int value);
    static std::string Int642String(__int64 value);
    static std::string Float2String(double value);          // two decimals
    static unsigned int String2UnsignInt(std::string text); // the digits at the end of the text
};

} // namespace ZOTH
