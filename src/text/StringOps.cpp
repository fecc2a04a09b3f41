// STRING_UTIL's general string operations: splitting, replacing, formatting, trimming, case,
// numbers and GUID text. Narrow strings are plain bytes here; nothing knows about UTF-8.
#include "zoth/text/STRING_UTIL.h"
#include "zoth/platform/Win32Format.h"
#include "zoth/platform/Win32Guid.h"

#include "text/Bits.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

// Splitting scans narrow text 16 bytes at a time where SSE2 is there (every x86-64).
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define ZOTH_SPLIT_SSE2 1
#else
#define ZOTH_SPLIT_SSE2 0
#endif

namespace ZOTH {

STRING_UTIL& STRING_UTIL::operator=(const STRING_UTIL&) {
    return *this;
}

STRING_UTIL& STRING_UTIL::operator=(STRING_UTIL&&) noexcept {
    return *this;
}

namespace {

// Hands each position of `separator` in [begin, end) to `at`, in order. Narrow text is scanned in
// windows of 64 bytes where SSE2 is there, one bit mask per window (few branches to mispredict);
// the rest, and wide text, goes through char_traits::find.
template <typename Char, typename At>
void ForEachSeparator(const Char* begin, const Char* end, Char separator, At at) {
#if ZOTH_SPLIT_SSE2
    if constexpr (sizeof(Char) == 1) {
        const __m128i wanted = _mm_set1_epi8(static_cast<char>(separator));
        for (; end - begin >= 64; begin += 64) {
            uint64_t hits = 0;
            for (int block = 0; block < 4; ++block) {
                __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(begin + 16 * block));
                uint64_t mask = static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, wanted)));
                hits |= mask << (16 * block);
            }
            for (; hits != 0; hits &= hits - 1)
                at(begin + std::countr_zero(hits));
        }
    }
#endif
    for (;;) {
        const Char* hit = std::char_traits<Char>::find(begin, static_cast<size_t>(end - begin), separator);
        if (hit == nullptr) return;
        at(hit);
        begin = hit + 1;
    }
}

// How often `separator` stands in [begin, end).
template <typename Char> size_t CountSeparators(const Char* begin, const Char* end, Char separator) {
    size_t count = 0;
#if ZOTH_SPLIT_SSE2
    if constexpr (sizeof(Char) == 1) {
        const __m128i wanted = _mm_set1_epi8(static_cast<char>(separator));
        for (; end - begin >= 16; begin += 16) {
            __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(begin));
            count +=
                text::BitsOf16(static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, wanted))));
        }
    }
#endif
    return count + static_cast<size_t>(std::count(begin, end, separator));
}

// One splitting walk for every character and container type: each separator closes a piece, and
// the end of the text closes the last one, so a trailing separator leaves an empty last piece.
// `add` takes a piece as [begin, end) and builds it in place.
template <typename Str, typename Add>
void Split(const Str& text, typename Str::value_type separator, int keepEmpty, Add add) {
    using Char = typename Str::value_type;
    const Char* start = text.data();
    const Char* const end = start + text.size();
    ForEachSeparator(start, end, separator, [&](const Char* hit) {
        if (keepEmpty != 0 || hit != start) add(start, hit);
        start = hit + 1;
    });
    if (keepEmpty != 0 || end != start) add(start, end);
}

// With empty pieces kept, makes room in `pieces` for exactly the pieces `text` gives, so they are
// built in place once and never moved by a reallocation; growth stays geometric for callers that
// append again and again. Without them the count is only a bound (",,,," gives nothing), so the
// vector grows as usual rather than reserve for pieces that never come.
template <typename Str>
void ReserveForPieces(const Str& text, typename Str::value_type separator, int keepEmpty,
                      std::vector<Str>& pieces) {
    if (keepEmpty == 0) return;
    size_t most = CountSeparators(text.data(), text.data() + text.size(), separator) + 1;
    if (pieces.capacity() - pieces.size() < most)
        pieces.reserve(std::max(pieces.size() + most, 2 * pieces.capacity()));
}

// Replaces each occurrence once, from `position` on, never searching inserted text. One pass into a
// new string: each search goes on just past the previous occurrence in the original text.
template <typename Str>
Str& ReplaceDistinctFrom(Str& text, const Str& oldValue, const Str& newValue,
                         typename Str::size_type position) {
    if (oldValue.empty()) return text;
    position = text.find(oldValue, position);
    if (position == Str::npos) return text;
    Str result;
    result.reserve(text.size());
    typename Str::size_type copied = 0;
    for (; position != Str::npos; position = text.find(oldValue, copied)) {
        result.append(text, copied, position - copied).append(newValue);
        copied = position + oldValue.size();
    }
    result.append(text, copied, Str::npos);
    text.swap(result);
    return text;
}

// KMP failure links of `pattern`: fail[k] is the longest proper border of its first k units.
template <typename Str> std::vector<size_t> FailureLinks(const Str& pattern) {
    std::vector<size_t> fail(pattern.size() + 1, 0);
    for (size_t k = 1, border = 0; k < pattern.size(); ++k) {
        while (border > 0 && pattern[k] != pattern[border])
            border = fail[border];
        if (pattern[k] == pattern[border]) ++border;
        fail[k + 1] = border;
    }
    return fail;
}

// Replaces until no occurrence is left, searching from `start` each time, so text made by one
// replacement is searched too. An empty old value, or a new value holding the old one, would never
// end; those get one pass of distinct replacement from `start` instead. Rules that keep recreating
// the old value through the text around it (old "ab", new "bbaa") still never end: the caller's limit.
//
// The same replacements as searching the whole text again after each one, in time linear in the
// units read: the result grows unit by unit with the matcher's state after each unit kept beside
// it, so the earliest occurrence is seen as its last unit arrives. A replacement takes the occurrence
// back off the result and puts the new value in front of the unread text, where it is read again
// with the units before it: that finds every occurrence a replacement makes.
template <typename Str>
Str& ReplaceRepeated(Str& text, const Str& oldValue, const Str& newValue, unsigned int start) {
    if (oldValue == newValue || oldValue.empty()) return text;
    if (newValue.find(oldValue) != Str::npos) return ReplaceDistinctFrom(text, oldValue, newValue, start);
    if (text.find(oldValue, start) == Str::npos) return text; // also when `start` is past the end
    const size_t m = oldValue.size();
    const std::vector<size_t> fail = FailureLinks(oldValue);
    Str result(text, 0, start);
    result.reserve(text.size());
    std::vector<size_t> states; // matcher state after each unit of `result` from `start` on
    states.reserve(text.size() - start);
    Str pending; // units of new values still to read, the next one last
    size_t next = start;
    for (;;) {
        typename Str::value_type unit;
        if (!pending.empty()) {
            unit = pending.back();
            pending.pop_back();
        } else if (next < text.size()) {
            unit = text[next++];
        } else {
            break;
        }
        size_t state = states.empty() ? 0 : states.back();
        while (state > 0 && oldValue[state] != unit)
            state = fail[state];
        if (oldValue[state] == unit) ++state;
        if (state == m) { // the occurrence ends with this unit: it never enters the result
            result.resize(result.size() - (m - 1));
            states.resize(states.size() - (m - 1));
            pending.append(newValue.rbegin(), newValue.rend());
            continue;
        }
        result.push_back(unit);
        states.push_back(state);
    }
    text.swap(result);
    return text;
}

// The formatting of StdFormatA / StdFormatW: one measuring pass over a copy of the arguments, then
// one pass straight into the result's own storage (its terminator slot takes the final NUL).
template <typename Char, typename Measure, typename Print>
std::basic_string<Char> FormatV(const Char* format, va_list args, Measure measure, Print print) {
    va_list copy;
    va_copy(copy, args);
    int length = measure(format, copy);
    va_end(copy);
    std::basic_string<Char> result;
    if (length < 0) return result;
    try {
        result.resize(static_cast<size_t>(length));
    } catch (const std::bad_alloc&) {
        return std::basic_string<Char>();
    }
    if (print(result.data(), result.size() + 1, format, args) < 0) return std::basic_string<Char>();
    result.resize(std::char_traits<Char>::length(result.c_str()));
    return result;
}

} // namespace

void STRING_UTIL::SplitStringA(const std::string& text, char separator, std::vector<std::string>& pieces,
                               int keepEmpty) {
    ReserveForPieces(text, separator, keepEmpty, pieces);
    Split(text, separator, keepEmpty,
          [&](const char* begin, const char* end) { pieces.emplace_back(begin, end); });
}

void STRING_UTIL::SplitStringA(const std::string& text, char separator, std::set<std::string>& pieces,
                               int keepEmpty) {
    Split(text, separator, keepEmpty,
          [&](const char* begin, const char* end) { pieces.emplace(begin, end); });
}

void STRING_UTIL::SplitStringW(const std::wstring& text, wchar_t separator, std::vector<std::wstring>& pieces,
                               int keepEmpty) {
    ReserveForPieces(text, separator, keepEmpty, pieces);
    Split(text, separator, keepEmpty,
          [&](const wchar_t* begin, const wchar_t* end) { pieces.emplace_back(begin, end); });
}

std::string& STRING_UTIL::ReplaceAll(std::string& text, std::string oldValue, std::string newValue,
                                     unsigned int start) {
    return ReplaceRepeated(text, oldValue, newValue, start);
}

std::wstring& STRING_UTIL::ReplaceAll(std::wstring& text, std::wstring& oldValue, std::wstring& newValue,
                                      unsigned int start) {
    return ReplaceRepeated<std::wstring>(text, oldValue, newValue, start);
}

std::string& STRING_UTIL::ReplaceAllDistinct(std::string& text, const std::string& oldValue,
                                             const std::string& newValue) {
    return ReplaceDistinctFrom(text, oldValue, newValue, 0);
}

std::wstring& STRING_UTIL::ReplaceAllDistinct(std::wstring& text, const std::wstring& oldValue,
                                              const std::wstring& newValue) {
    return ReplaceDistinctFrom(text, oldValue, newValue, 0);
}

// "" for a null format, a failed pass or a failed allocation. The text ends at its first NUL.
std::string STRING_UTIL::StdFormatA(const char* format, ...) {
    if (format == nullptr) return std::string();
    va_list args;
    va_start(args, format);
    std::string result = FormatV(
        format, args, [](const char* f, va_list a) { return std::vsnprintf(nullptr, 0, f, a); },
        [](char* out, size_t room, const char* f, va_list a) { return std::vsnprintf(out, room, f, a); });
    va_end(args);
    return result;
}

// As StdFormatA, in wide characters; %ls takes a wide string and %s a narrow one.
std::wstring STRING_UTIL::StdFormatW(const wchar_t* format, ...) {
    if (format == nullptr) return std::wstring();
    va_list args;
    va_start(args, format);
    std::wstring result = FormatV(
        format, args, [](const wchar_t* f, va_list a) { return _vscwprintf(f, a); },
        [](wchar_t* out, size_t room, const wchar_t* f, va_list a) {
#if defined(_WIN32)
            // The runtime's own printer, which reads the format as its measurer does (%s is wide);
            // mingw's std::vswprintf follows the C standard and would print another length.
            return _vsnwprintf(out, room, f, a);
#else
            return std::vswprintf(out, room, f, a);
#endif
        });
    va_end(args);
    return result;
}

// The text between the first begin mark and the next end mark found at least one character behind
// it; "" when any argument is empty or a mark is missing.
std::string STRING_UTIL::SubString(std::string text, std::string beginMark, std::string endMark) {
    if (text.empty() || beginMark.empty() || endMark.empty()) return std::string();
    size_t begin = text.find(beginMark);
    if (begin == std::string::npos) return std::string();
    size_t inner = begin + beginMark.size();
    size_t end = text.find(endMark, inner + 1);
    if (end == std::string::npos) return std::string();
    return text.substr(inner, end - inner);
}

// Drops leading and trailing 0x20 only; a text of nothing but spaces comes back whole.
std::string STRING_UTIL::Trim(std::string& text) {
    size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return text;
    size_t last = text.find_last_not_of(' ');
    return text.substr(first, last - first + 1);
}

std::string STRING_UTIL::ToUpper(std::string& text) {
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string STRING_UTIL::ToLower(std::string& text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// 32 upper-case hex digits of a fresh random GUID, no dashes or braces. The record starts zeroed, so a
// failing random source would give 32 zeros rather than stack garbage.
// The GUID's fields as "%08X%04X%04X" and its eight last bytes as "%02X" each: 32 upper-case hex
// digits, no dashes, no braces.
std::string STRING_UTIL::GetGuid() {
    static const char kHex[] = "0123456789ABCDEF";
    GUID guid = {};
    CoCreateGuid(&guid);
    unsigned char bytes[16] = {
        static_cast<unsigned char>(guid.Data1 >> 24), static_cast<unsigned char>(guid.Data1 >> 16),
        static_cast<unsigned char>(guid.Data1 >> 8),  static_cast<unsigned char>(guid.Data1),
        static_cast<unsigned char>(guid.Data2 >> 8),  static_cast<unsigned char>(guid.Data2),
        static_cast<unsigned char>(guid.Data3 >> 8),  static_cast<unsigned char>(guid.Data3),
    };
    std::memcpy(bytes + 8, guid.Data4, 8);
    std::string text(32, '0');
    for (int i = 0; i < 16; ++i) {
        text[2 * i] = kHex[bytes[i] >> 4];
        text[2 * i + 1] = kHex[bytes[i] & 0x0F];
    }
    return text;
}

std::string STRING_UTIL::Int2String(int value) {
    return StdFormatA("%d", value);
}

std::string STRING_UTIL::Int642String(__int64 value) {
    return StdFormatA("%lld", value);
}

std::string STRING_UTIL::Float2String(double value) {
    return StdFormatA("%0.2f", value);
}

// The run of digits at the end of the text, read right to left in wrapping 32-bit arithmetic; a
// trailing non-digit gives 0.
unsigned int STRING_UTIL::String2UnsignInt(std::string text) {
    unsigned int total = 0;
    unsigned int scale = 1;
    for (size_t i = text.size(); i-- > 0;) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (!std::isdigit(c)) break;
        total += static_cast<unsigned int>(c - '0') * scale;
        scale *= 10;
    }
    return total;
}

} // namespace ZOTH
