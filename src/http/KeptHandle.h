// The libcurl easy handle an object keeps across its transfers: when it may serve another transfer,
// and how it is let go.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <curl/curl.h>

namespace ZOTH::http {

// Where a transfer's connections live: nowhere after it (each transfer connects anew and its
// connection closes with its handle), or in the process's shared pool.
enum class Pool { None, Shared };

// What an object knows of its kept handle beyond the pointer, which the object holds itself. A copy
// knows nothing: copies never share a handle.
class KeptHandle {
public:
    KeptHandle() = default;
    KeptHandle(const KeptHandle&) {}
    KeptHandle& operator=(const KeptHandle&) { return *this; }

    // The handle for the next transfer, with no options set: `current` reset when it may serve again
    // (made in this process, not inherited through fork, its last transfer on the pool given now, which is
    // not Pool::None), else `current` released and a new one made. Null when libcurl gave none.
    CURL* Ready(CURL* current, Pool pool);
    // Lets `handle` go: cleaned up when this process made it; one inherited through fork is only
    // forgotten, since cleaning it up could touch the parent's connections and locks.
    void Release(CURL* handle);
    // Records the pool of the transfer being prepared.
    void SetPool(Pool pool) { m_pool = pool; }
    // Whether the last Ready kept the handle (reset it) rather than made one: a kept handle still
    // holds the share of its last transfer, which was on the same pool.
    bool Kept() const { return m_kept; }

private:
    unsigned int m_generation = 0; // the fork generation the handle was made in
    Pool m_pool = Pool::None;
    bool m_kept = false;
};

} // namespace ZOTH::http
