/// \file
/// The platform layer for a client written in the Win32 style: the Win32 calls the library is written
/// against (files, searches, paths, threads and events, critical sections, code pages, time, GUIDs,
/// version resources, CNG hashes, WinINet), their error codes (ERROR_*), constants (INFINITE,
/// MAX_PATH, WAIT_*, GENERIC_*, ...) and types (BOOL, LPCSTR, ...), and the layer's own calls beside
/// them. On Windows they come from the system's headers (<windows.h> and the rest); elsewhere the
/// library implements them on POSIX. "zoth/zoth.h" does not include this header: include it where
/// a program calls them.
#pragma once

#include "zoth/platform/MemoryHint.h"
#include "zoth/platform/Win32Crypt.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Format.h"
#include "zoth/platform/Win32Guid.h"
#include "zoth/platform/Win32Inet.h"
#include "zoth/platform/Win32Path.h"
#include "zoth/platform/Win32Text.h"
#include "zoth/platform/Win32Thread.h"
#include "zoth/platform/Win32Time.h"
#include "zoth/platform/Win32Types.h"
#include "zoth/platform/Win32Version.h"
#include "zoth/platform/ZothExport.h"
