/// \file
/// The Win32 version-resource calls. On Windows they come from <winver.h>; elsewhere the platform
/// layer reads the version resource of PE files (.exe, .dll) itself, trusting nothing in the file:
/// every offset and length is checked against the file before it is used. Other files (ELF
/// executables, text) have no version resource.
#pragma once

#include "zoth/platform/Win32File.h"

#if defined(_WIN32)
#include <windows.h>
#include <winver.h>
#else

#define VS_FFI_SIGNATURE 0xFEEF04BDu

typedef UINT* PUINT;

typedef struct tagVS_FIXEDFILEINFO {
    DWORD dwSignature; // VS_FFI_SIGNATURE
    DWORD dwStrucVersion;
    DWORD dwFileVersionMS; // first part in the high word, second in the low word
    DWORD dwFileVersionLS; // third part in the high word, fourth in the low word
    DWORD dwProductVersionMS;
    DWORD dwProductVersionLS;
    DWORD dwFileFlagsMask;
    DWORD dwFileFlags;
    DWORD dwFileOS;
    DWORD dwFileType;
    DWORD dwFileSubtype;
    DWORD dwFileDateMS;
    DWORD dwFileDateLS;
} VS_FIXEDFILEINFO;

/// The size of the file's version block; 0 when it has none (ERROR_RESOURCE_TYPE_NOT_FOUND), is no PE
/// image (ERROR_BAD_FORMAT) or cannot be read. `handle` (may be null) is set to 0.
ZOTH_API DWORD GetFileVersionInfoSizeA(LPCSTR name, LPDWORD handle);

/// Copies the version block into `data`. Fails with ERROR_INSUFFICIENT_BUFFER when `length` is less
/// than the size GetFileVersionInfoSizeA reports, so a block never arrives cut short.
ZOTH_API BOOL GetFileVersionInfoA(LPCSTR name, DWORD handle, DWORD length, LPVOID data);

/// Finds a value in a version block. The root block "\" (also "/") gives the VS_FIXEDFILEINFO; other
/// sub-blocks are not offered. FALSE when the block holds no valid fixed information.
ZOTH_API BOOL VerQueryValueA(LPCVOID block, LPCSTR subBlock, LPVOID* value, PUINT length);

#endif // _WIN32
