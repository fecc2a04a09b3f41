/// \file
/// GUID creation. On Windows CoCreateGuid comes from <objbase.h>; elsewhere the platform layer makes a
/// random (version 4) GUID from the system's random source.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <windows.h>
#include <objbase.h>
#else

#ifndef E_INVALIDARG
#define E_INVALIDARG ((HRESULT)0x80070057)
#endif

/// Fills *guid with 122 random bits, version 4 and the RFC 4122 variant. S_OK on success,
/// E_INVALIDARG for a null pointer, E_FAIL when the random source fails (the record is then untouched).
ZOTH_API HRESULT CoCreateGuid(GUID* guid);

#endif // _WIN32
