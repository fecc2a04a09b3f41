/// \file
/// Code-page conversion calls of the platform layer: MultiByteToWideChar, WideCharToMultiByte and the
/// active ANSI code page. On Windows they come from <windows.h>; elsewhere the layer implements them,
/// UTF-8 with its own converter and every other code page through iconv.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <windows.h>
#else

#define CP_OEMCP 1u
#define CP_THREAD_ACP 3u
#define MB_PRECOMPOSED 0x00000001u
#define WC_NO_BEST_FIT_CHARS 0x00000400u
#define WC_ERR_INVALID_CHARS 0x00000080u
#define ERROR_INVALID_FLAGS 1004u

/// Converts `count` bytes of `source` (-1: up to and including its NUL) in `codePage` to UTF-16 code
/// units, one per wchar_t. Returns the units written, or with `capacity` 0 the units needed; 0 on
/// failure with the last error set: ERROR_INVALID_PARAMETER, ERROR_INVALID_FLAGS,
/// ERROR_INSUFFICIENT_BUFFER, or under MB_ERR_INVALID_CHARS ERROR_NO_UNICODE_TRANSLATION.
/// Without that flag invalid input is replaced: U+FFFD for UTF-8, '?' for other code pages.
ZOTH_API int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR source, int count, LPWSTR destination,
                                 int capacity);

/// Converts `count` UTF-16 units of `source` (-1: up to and including its NUL) to `codePage`. An
/// element above 0xFFFF is taken as one whole code point. Returns the bytes written, or with
/// `capacity` 0 the bytes needed; 0 on failure with the last error set as above. Unpaired surrogates
/// become U+FFFD in UTF-8 (failure under WC_ERR_INVALID_CHARS); characters another code page lacks
/// become `defaultChar` ('?' when null) and set *usedDefault. For UTF-8 both of those must be null.
ZOTH_API int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR source, int count, LPSTR destination,
                                 int capacity, LPCSTR defaultChar, BOOL* usedDefault);

/// The code page that CP_ACP stands for; 1252 until ZothSetAnsiCodePage changes it.
ZOTH_API UINT GetACP();

#endif // _WIN32

#if defined(_WIN32)
/// Windows fixes the ANSI code page for the system; the call only confirms it.
inline BOOL ZothSetAnsiCodePage(UINT codePage) {
    return codePage == GetACP() ? TRUE : FALSE;
}
#else
/// Makes `codePage` the process-wide ANSI code page (CP_ACP) for every thread. FALSE, with
/// ERROR_INVALID_PARAMETER and nothing changed, for a code page the system cannot convert or one
/// that is no ANSI code page (UTF-8, UTF-16, GB18030).
ZOTH_API BOOL ZothSetAnsiCodePage(UINT codePage);
#endif
