// The smallest program built against an installed ZOTH Common: it links the shared library and calls
// one exported function, proving that headers, library and link flags of the package fit together.
#include "zoth/platform/Win32Types.h"

#include <cstdio>

int main() {
    const DWORD first = GetTickCount();
    Sleep(20);
    const DWORD second = GetTickCount();
    std::printf("tick count advanced by %u ms\n", static_cast<unsigned>(second - first));
    return second - first >= 10 ? 0 : 1;
}
