// Conversion kernels behind MultiByteToWideChar and WideCharToMultiByte. Each takes a source of n
// units and a destination of `capacity` units; a capacity of 0 only counts. The result is the
// count written (or needed), or one of the negative codes below. Nothing is written at or beyond
// `capacity`.
#pragma once

#include "zoth/platform/Win32Text.h"

#include <cstddef>

namespace ZOTH::platform {

constexpr long long kInvalidInput = -1;   // invalid input under the strict flag
constexpr long long kBufferTooSmall = -2; // the destination cannot hold the result
constexpr long long kNoCodePage = -3;     // the system cannot convert this code page

// UTF-8 to UTF-16. Ill-formed input becomes U+FFFD, one for each maximal subpart, or fails when
// `strict`.
long long Utf8ToUtf16(const char* source, size_t count, wchar_t* destination, size_t capacity, bool strict);

// UTF-16 (or whole code points above 0xFFFF) to UTF-8. Unpaired surrogates and elements beyond
// U+10FFFF become U+FFFD, or fail when `strict`.
long long Utf16ToUtf8(const wchar_t* source, size_t count, char* destination, size_t capacity, bool strict);

// A code page known to iconv to UTF-16; invalid input becomes '?' or fails when `strict`.
long long CodePageToUtf16(UINT codePage, const char* source, size_t count, wchar_t* destination,
                          size_t capacity, bool strict);

// UTF-16 to a code page known to iconv; what it lacks becomes `defaultChar` and sets *usedDefault.
long long Utf16ToCodePage(UINT codePage, const wchar_t* source, size_t count, char* destination,
                          size_t capacity, const char* defaultChar, BOOL* usedDefault);

} // namespace ZOTH::platform
