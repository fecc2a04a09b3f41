/// \file
/// The runtime's measuring formatters: the length a printf-style text would have, without its
/// terminator. On Windows they come from <stdio.h>; elsewhere the platform layer provides them.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <cstdarg>

#if defined(_WIN32)
#include <stdio.h>
#include <wchar.h>
#else

/// The number of characters `format` with `args` produces, or -1 on an encoding or format failure.
/// `args` is consumed as by vprintf; pass a copy if the list is to be walked again.
ZOTH_API int _vscprintf(const char* format, va_list args);
ZOTH_API int _vscwprintf(const wchar_t* format, va_list args);

#endif // _WIN32
