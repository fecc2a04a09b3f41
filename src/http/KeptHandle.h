// The libcurl easy handle an object keeps across its transfers: when it may serve another transfer,
// and how it is let go.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <curl/curl.h>

namespace ZOTH::http {

// What an object knows of its kept handle beyond the pointer, which the object holds itself. A copy
// knows nothing: copies never share a handle.
class KeptHandle {
public:
    KeptHandle() = default;
    KeptHandle(const KeptHandle&) {}
    KeptHandle& operator=(const KeptHandle&) { return *this; }

    // The handle for the next transfer, with no options set: `current` reset when it may serve again
    // (made by this process, its last transfer on the shared pool, and `onShare` now), else `current`
    // released and a new one made. Null when libcurl gave none.
    CURL* Ready(CURL* current, bool onShare);
    // Lets `handle` go: cleaned up when this process made it; one inherited through fork is only
    // forgotten, since cleaning it up could touch the parent's connections and locks.
    void Release(CURL* handle);
    // Records whether the transfer being prepared draws on the shared pool.
    void SetOnShare(bool onShare) { m_bOnShare = onShare; }

private:
    DWORD m_dwProcess = 0; // the process that made the handle
    // A handle whose transfer ran off the pool holds its connection itself: it is replaced, so that
    // the connection closes with it.
    bool m_bOnShare = false;
};

} // namespace ZOTH::http
