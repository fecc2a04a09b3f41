// A client's own header of the kind that meets the library's in real programs: Win32-style names
// defined its own way, with other values and spellings than Windows has. The library's public headers
// must build after it (and before it) with -Wall -Wextra -Werror, leaving every definition here as
// it stands.
#pragma once

#define TRUE (1 == 1)
#define FALSE (1 == 0)
#define ERROR_SUCCESS 1000
#define INFINITE (-1)
#define MAX_PATH 260
#define ERROR_FILE_NOT_FOUND 9002
#define WAIT_TIMEOUT 77
#define GENERIC_READ 0x1
typedef unsigned char BOOL; // not Win32's int
typedef long LONG;          // 64 bits here, not Win32's 32

// Values the library also offers, copied from <windows.h> as they are spelled there: the same
// definition twice is no redefinition, in either order.
#define OPEN_EXISTING 3
#define CREATE_ALWAYS 2
