// CoCreateGuid from the kernel's random source.
#include "zoth/platform/Win32Guid.h"

#include <cerrno>
#include <cstring>
#include <sys/random.h>

HRESULT CoCreateGuid(GUID* guid) {
    if (guid == nullptr) return E_INVALIDARG;
    unsigned char bytes[16];
    size_t filled = 0;
    while (filled < sizeof(bytes)) {
        ssize_t got = getrandom(bytes + filled, sizeof(bytes) - filled, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            return E_FAIL;
        }
        filled += static_cast<size_t>(got);
    }
    GUID g;
    std::memcpy(&g.Data1, bytes, 4);
    std::memcpy(&g.Data2, bytes + 4, 2);
    std::memcpy(&g.Data3, bytes + 6, 2);
    std::memcpy(g.Data4, bytes + 8, 8);
    g.Data3 = static_cast<uint16_t>((g.Data3 & 0x0FFF) | 0x4000);  // version 4: random
    g.Data4[0] = static_cast<uint8_t>((g.Data4[0] & 0x3F) | 0x80); // variant 10xx
    *guid = g;
    return S_OK;
}
