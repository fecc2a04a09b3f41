// The kept easy handle: reset between transfers, replaced when it may not serve again.
#include "http/KeptHandle.h"

#include "zoth/platform/Win32Thread.h"

namespace ZOTH::http {

CURL* KeptHandle::Ready(CURL* current, Pool pool) {
    const unsigned int generation = GetForkGeneration();
    if (current != nullptr && m_generation == generation && pool != Pool::None && m_pool == pool) {
        // Options, callbacks, and the last transfer's info and authentication state are cleared; the
        // share, and with it the pooled connections, DNS answers and TLS sessions, stays.
        curl_easy_reset(current);
        m_kept = true;
        return current;
    }
    Release(current);
    m_kept = false;
    CURL* handle = curl_easy_init();
    m_generation = generation;
    return handle;
}

void KeptHandle::Release(CURL* handle) {
    if (handle != nullptr && m_generation == GetForkGeneration()) curl_easy_cleanup(handle);
    m_pool = Pool::None;
}

} // namespace ZOTH::http
