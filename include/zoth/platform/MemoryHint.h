/// \file
/// A hint for large buffers that are filled once from start to end (a downloaded body). Windows has no
/// such call; there the hint does nothing.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <cstddef>

#if defined(_WIN32)
inline void AdviseLargeBuffer(void*, size_t) {}
#else
/// Asks for large pages on the whole pages inside [data, data + size), so that filling the buffer
/// takes one page fault per 2 MiB rather than per 4 KiB. Harmless where the system declines.
ZOTH_API void AdviseLargeBuffer(void* data, size_t size);
#endif
