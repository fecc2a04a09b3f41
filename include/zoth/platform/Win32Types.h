/// \file
/// The Win32 types, constants and core calls the library is written against. On Windows they come
/// from <windows.h>; elsewhere this header defines them with the Win32 sizes and values, and the
/// platform layer (src/platform) implements the calls on POSIX. Part of "zoth/win32.h": the classes'
/// headers bring in only "zoth/platform/ZothTypes.h", the types their declarations use.
#pragma once

#include "zoth/platform/ZothTypes.h"

#if !defined(_WIN32)
#include <climits>
#include <cstdint>

typedef int BOOL;
typedef unsigned char BYTE;
typedef int32_t LONG; // 32 bits, as on Windows, where `long` is 32 bits
typedef uint32_t UINT;
typedef DWORD* LPDWORD;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef wchar_t* LPWSTR; // holds UTF-16 code units, one per wchar_t
typedef const wchar_t* LPCWSTR;
typedef int64_t LONGLONG;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#define INVALID_HANDLE_VALUE ((HANDLE)(intptr_t)-1)
#define MAX_PATH PATH_MAX
#define INFINITE 0xFFFFFFFFu

// Wait results.
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu

// Last-error values the layer reports.
#define ERROR_SUCCESS 0u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_NO_MORE_FILES 18u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_FILE_EXISTS 80u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_DIR_NOT_EMPTY 145u
#define ERROR_NO_UNICODE_TRANSLATION 1113u
#define ERROR_RESOURCE_TYPE_NOT_FOUND 1813u
#define ERROR_NOT_SUPPORTED 50u

// Code pages and conversion flags.
#define CP_ACP 0u
#define CP_UTF8 65001u
#define MB_ERR_INVALID_CHARS 0x00000008u

// File access, sharing, creation and attributes.
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_HIDDEN 0x00000002u
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_ATTRIBUTE_REPARSE_POINT 0x00000400u
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u
#define INVALID_FILE_SIZE 0xFFFFFFFFu
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu

// WinINet.
#define INTERNET_OPEN_TYPE_DIRECT 1u
#define INTERNET_DEFAULT_HTTP_PORT 80
#define INTERNET_SERVICE_HTTP 3u
#define INTERNET_FLAG_NO_CACHE_WRITE 0x04000000u
#define INTERNET_FLAG_DONT_CACHE INTERNET_FLAG_NO_CACHE_WRITE

typedef SYSTEMTIME* LPSYSTEMTIME;
typedef FILETIME* LPFILETIME;
typedef WIN32_FIND_DATAA* LPWIN32_FIND_DATAA;
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

typedef struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
} GUID;

typedef struct _SECURITY_ATTRIBUTES SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES; // never dereferenced
typedef LONG HRESULT;
#define S_OK ((HRESULT)0)
#define E_FAIL ((HRESULT)0x80004005)

/// The calling thread's last-error value; each thread has its own.
ZOTH_API DWORD GetLastError();
ZOTH_API void SetLastError(DWORD error);

/// Releases any handle of the layer: event, thread, file, search. FALSE with ERROR_INVALID_HANDLE for
/// null and INVALID_HANDLE_VALUE.
ZOTH_API BOOL CloseHandle(HANDLE handle);

/// Blocks the calling thread for at least `milliseconds`.
ZOTH_API void Sleep(DWORD milliseconds);

/// Milliseconds of a monotonic clock, cut to 32 bits, so it wraps about every 49.7 days as on Windows.
ZOTH_API DWORD GetTickCount();

#endif // _WIN32
