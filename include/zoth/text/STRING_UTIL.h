// STRING_UTIL: the library's text toolbox.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace ZOTH {

/// The library's text toolbox: code-page conversion, MD5 and hex, Base64, URL text and general
/// string operations. Static operations only, no state: any number of threads may call them at
/// once, as long as no two work on the same string or container. Narrow strings are plain bytes
/// except where an operation names its code page; results come back by value, failures as "".
class ZOTH_API STRING_UTIL {
public:
    /// Nothing to assign: the class has no state.
    STRING_UTIL& operator=(const STRING_UTIL& other);
    /// Nothing to move: the class has no state.
    STRING_UTIL& operator=(STRING_UTIL&& other) noexcept;

    /** @name Code-page conversion
     *  "Asci" is the ANSI code page (CP_ACP), not 7-bit ASCII; wide text is UTF-16 code units. Every
     *  string form gives an empty result for empty input and when the platform call fails, which
     *  cannot be told from an empty conversion. The platform calls count in int, so an input is
     *  converted while its worst-case result fits INT_MAX units: up to INT_MAX - 1 units of input
     *  to wide text, about INT_MAX / 3 (UTF-8 from ANSI, wide to UTF-8; / 4 where wchar_t is 32-bit)
     *  or INT_MAX / 2 (to ANSI). A longer input gives "" (or false) with ERROR_NOT_ENOUGH_MEMORY. */
    //@{
    /// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
    static std::string Unicode2Utf8(const std::wstring& text);
    /// As Unicode2Utf8(const std::wstring&), up to the terminator; null gives "".
    static std::string Unicode2Utf8(const wchar_t* text);
    /// UTF-16 to UTF-8 into the caller's buffer, which needs *size >= 3(n+1) bytes for n units, else
    /// false with nothing touched. On true *size is the byte count written, without the terminator.
    /// Where wchar_t is 32-bit an element above U+FFFF takes 4 bytes; text that then does not fit
    /// gives false (ERROR_INSUFFICIENT_BUFFER) with the buffer cleared, never a cut conversion.
    static bool Unicode2Utf8(const std::wstring& text, char* buffer, DWORD* size);
    /// UTF-8 to UTF-16; invalid bytes become U+FFFD.
    static std::wstring Utf82Unicode(const std::string& text);
    /// As Utf82Unicode(const std::string&), up to the terminator; null gives L"".
    static std::wstring Utf82Unicode(const char* text);
    /// UTF-8 to UTF-16 into the caller's buffer, which needs *size >= n+1 units for n bytes, else
    /// false with nothing touched. On true *size is the unit count written, without the terminator.
    static bool Utf82Unicode(const std::string& text, wchar_t* buffer, DWORD* size);
    /// ANSI to UTF-8.
    static std::string Asci2Utf8(const std::string& text);
    /// UTF-8 to ANSI; characters the code page lacks become '?'.
    static std::string Utf82Asci(const std::string& text);
    /// UTF-16 to ANSI, stopping at the first NUL; characters the code page lacks become '?'.
    static std::string Unicode2Asci(const std::wstring& text);
    /// ANSI to UTF-16, stopping at the first NUL.
    static std::wstring Asci2Unicode(const std::string& text);
    /// False only when the text is invalid in the ANSI code page (ERROR_NO_UNICODE_TRANSLATION);
    /// true for empty text and for any other failure.
    static bool IsvalidAsci(const std::string& text);
    //@}

    /** @name MD5 (RFC 1321) and hex
     *  The caller owns every buffer; a digest needs 16 bytes. */
    //@{
    /// Writes the 16-byte MD5 digest of `length` bytes at `data` into `digest`.
    static void Buffer2Md5(unsigned char* data, unsigned int length, unsigned char* const digest);
    /// The first four digest bytes as a little-endian integer (the final state word A).
    static unsigned int Buffer2Md5(unsigned char* data, unsigned int length);
    /// The digest of the bytes before the terminator of `text` into `digest`.
    static void String2Md5(const char* text, unsigned char* const digest);
    /// The digest of all size() bytes of `text`, NULs included, into `digest`.
    static void String2Md5(const std::string& text, unsigned char* const digest);
    /// Two lower-case hex digits per byte; "" for null data or zero length.
    static std::string Hex2String(unsigned char* data, unsigned int length);
    //@}

    /** @name Base64 (RFC 4648 alphabet, padded, no line breaks) */
    //@{
    /// The bytes as Base64 text; "" for empty input.
    static std::string Base64Encode(const std::string& bytes);
    /// The bytes of Base64 text, read up to its first NUL; "" for empty or invalid input.
    static std::string Base64Decode(const std::string& text);
    //@}

    /** @name URL text
     *  Plain operations on bytes: nothing is validated, and only the http and https heads are known. */
    //@{
    /// Letters, digits and - _ . ~ pass; a space becomes "+"; every other byte becomes "%XX" (upper
    /// case).
    static std::string UrlEncode(const std::string& text);
    /// "+" gives a space and each "%" with the next two positions gives one byte; a digit that is no
    /// hex digit, or lies past the end, counts as 0. Never fails.
    static std::string UrlDecode(const std::string& text);
    /// The host part: the URL without its "http://" or "https://" head, cut at its first "/".
    static std::string Url2Domain(const std::string& url);
    /// The host part with "https://" in front when the URL holds "https", else "http://".
    static std::string Url2DomainHasHttpType(const std::string& url);
    /// The URL without its head: every "https://" when it holds "https", else every "http://".
    static std::string UrlDeleteHttpHead(const std::string& url);
    /// The query's pairs (behind the first "?", or the whole text without one), split on "&" then
    /// "="; a piece without exactly one "=" is skipped, the first of equal keys stands, nothing is
    /// unescaped.
    static std::map<std::string, std::string> Url2Params(std::string url);
    //@}

    /** @name General string operations
     *  Narrow strings are plain bytes here; nothing knows about UTF-8. */
    //@{
    /// Splits at each `separator`, appending the pieces to what `pieces` holds. Empty pieces (also
    /// the one a trailing separator leaves) are kept only when `keepEmpty` is non-zero.
    static void SplitStringA(const std::string& text, char separator, std::vector<std::string>& pieces,
                             int keepEmpty);
    /// As the vector form, inserting the pieces into the set.
    static void SplitStringA(const std::string& text, char separator, std::set<std::string>& pieces,
                             int keepEmpty);
    /// As the narrow vector form, for wide text.
    static void SplitStringW(const std::wstring& text, wchar_t separator, std::vector<std::wstring>& pieces,
                             int keepEmpty);
    /// Replaces in place until no occurrence is left, searching from `start` each time, and returns
    /// `text`. An empty old value leaves the text alone; a new value holding the old one is replaced
    /// once per occurrence, as ReplaceAllDistinct does.
    static std::string& ReplaceAll(std::string& text, std::string oldValue, std::string newValue,
                                   unsigned int start = 0);
    /// As the narrow form, for wide text.
    static std::wstring& ReplaceAll(std::wstring& text, std::wstring& oldValue, std::wstring& newValue,
                                    unsigned int start = 0);
    /// Replaces each occurrence once, in place, never searching what it inserted, and returns `text`.
    /// An empty old value leaves the text alone.
    static std::string& ReplaceAllDistinct(std::string& text, const std::string& oldValue,
                                           const std::string& newValue);
    /// As the narrow form, for wide text.
    static std::wstring& ReplaceAllDistinct(std::wstring& text, const std::wstring& oldValue,
                                            const std::wstring& newValue);
    /// printf-style formatting into a new string; "" for a null format or a failed pass. The text
    /// ends at its first NUL.
    static std::string StdFormatA(const char* format, ...) ZOTH_PRINTF_FORMAT(1, 2);
    /// As StdFormatA, in wide characters: %ls takes a wide string and %s a narrow one.
    static std::wstring StdFormatW(const wchar_t* format, ...);
    /// The text between the first `beginMark` and the next `endMark` found at least one character
    /// behind it; "" when any argument is empty or a mark is missing.
    static std::string SubString(std::string text, std::string beginMark, std::string endMark);
    /// The text without leading and trailing spaces (0x20 only); the argument is not changed. A text
    /// of nothing but spaces comes back whole.
    static std::string Trim(std::string& text);
    /// Upper-cases the argument in place (ASCII letters) and returns a copy of it.
    static std::string ToUpper(std::string& text);
    /// Lower-cases the argument in place (ASCII letters) and returns a copy of it.
    static std::string ToLower(std::string& text);
    /// 32 upper-case hex digits of a fresh random (version 4) GUID, no dashes or braces.
    static std::string GetGuid();
    /// The value in decimal.
    static std::string Int2String(int value);
    /// The value in decimal.
    static std::string Int642String(__int64 value);
    /// The value with two decimals ("%0.2f").
    static std::string Float2String(double value);
    /// The run of digits at the end of the text as a number, in wrapping 32-bit arithmetic; 0 when
    /// the text does not end in a digit.
    static unsigned int String2UnsignInt(std::string text);
    //@}
};

} // namespace ZOTH
