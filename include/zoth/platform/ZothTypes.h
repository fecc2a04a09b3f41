/// \file
/// The Win32 types and constants that the classes' declarations use, and nothing else: HANDLE,
/// DWORD, WORD, __int64, SYSTEMTIME, FILETIME, WIN32_FIND_DATAA, CRITICAL_SECTION, and the values
/// of the documented arguments (CREATE_NEW .. TRUNCATE_EXISTING, CSIDL_*). On Windows they come from
/// <windows.h>. Elsewhere this header defines them with the Win32 sizes and values; each macro only
/// where the client has not defined it already, so a client's own definition wins. The Win32 calls,
/// error codes and other constants of the platform layer come with "zoth/win32.h".
#pragma once

#if defined(_MSVC_LANG) && _MSVC_LANG > __cplusplus
#if _MSVC_LANG < 202002L
#error "ZOTH Common needs C++20: compile with /std:c++20 or later"
#endif
#elif __cplusplus < 202002L
#error "ZOTH Common needs C++20: compile with -std=c++20 or later (g++ 12 defaults to C++17)"
#endif

#include "zoth/platform/ZothExport.h"

#if defined(_WIN32)
#include <winsock2.h> // before <windows.h>, as libcurl's headers expect
#include <windows.h>
#else
#include <climits>
#include <cstdint>

#ifndef __int64
#define __int64 long long // a macro, not a typedef, so that `unsigned __int64` works as on Windows
#endif

typedef void* HANDLE;
typedef unsigned short WORD;
typedef uint32_t DWORD; // 32 bits, as on Windows, where `unsigned long` is 32 bits

// How CFileHepler::WriteDataToFile opens its file. These and the CSIDL_ values below are spelled as
// <windows.h> spells them, so a client header that copies its definitions may come before or after.
#ifndef CREATE_NEW
#define CREATE_NEW 1
#endif
#ifndef CREATE_ALWAYS
#define CREATE_ALWAYS 2
#endif
#ifndef OPEN_EXISTING
#define OPEN_EXISTING 3
#endif
#ifndef OPEN_ALWAYS
#define OPEN_ALWAYS 4
#endif
#ifndef TRUNCATE_EXISTING
#define TRUNCATE_EXISTING 5
#endif

// Shell special folders (CSIDL_), for CPathHelper::GetSpecialFolderDirW.
#ifndef CSIDL_DESKTOP
#define CSIDL_DESKTOP 0x0000
#endif
#ifndef CSIDL_PERSONAL
#define CSIDL_PERSONAL 0x0005
#endif
#ifndef CSIDL_MYDOCUMENTS
#define CSIDL_MYDOCUMENTS CSIDL_PERSONAL
#endif
#ifndef CSIDL_DESKTOPDIRECTORY
#define CSIDL_DESKTOPDIRECTORY 0x0010
#endif
#ifndef CSIDL_APPDATA
#define CSIDL_APPDATA 0x001a
#endif
#ifndef CSIDL_LOCAL_APPDATA
#define CSIDL_LOCAL_APPDATA 0x001c
#endif
#ifndef CSIDL_PROFILE
#define CSIDL_PROFILE 0x0028
#endif

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME;

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME;

typedef struct _WIN32_FIND_DATAA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    char cFileName[PATH_MAX]; // MAX_PATH of "zoth/win32.h"
    char cAlternateFileName[14];
} WIN32_FIND_DATAA;

/// A critical section: the layer keeps its lock behind Impl (see Win32Thread.h).
typedef struct _RTL_CRITICAL_SECTION {
    void* Impl;
} CRITICAL_SECTION;

#endif // _WIN32
