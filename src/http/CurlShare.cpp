// The process-wide libcurl share and its locks.
#include "http/CurlShare.h"

#include <mutex>

namespace ZOTH::http {

namespace {

struct Share {
    CURLSH* handle = nullptr;
    std::mutex locks[CURL_LOCK_DATA_LAST]; // one per kind of data, as libcurl asks
};

// libcurl calls these two in pairs around each use of one kind of shared data, so the lock cannot
// be a scope guard here: it is held from one callback to the other.
void LockData(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<Share*>(user)->locks[data].lock();
}

void UnlockData(CURL*, curl_lock_data data, void* user) {
    static_cast<Share*>(user)->locks[data].unlock();
}

Share* MakeShare() {
    // Deliberately never deleted: the process's last transfers may run beside static destructors.
    auto* share = new Share;
    CURLSH* handle = curl_share_init();
    if (handle == nullptr) return share;
    const bool ready =
        curl_share_setopt(handle, CURLSHOPT_LOCKFUNC, &LockData) == CURLSHE_OK &&
        curl_share_setopt(handle, CURLSHOPT_UNLOCKFUNC, &UnlockData) == CURLSHE_OK &&
        curl_share_setopt(handle, CURLSHOPT_USERDATA, static_cast<void*>(share)) == CURLSHE_OK &&
        curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT) == CURLSHE_OK &&
        curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS) == CURLSHE_OK &&
        curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) == CURLSHE_OK;
    // A share that is not fully set up is never used: a half-locked one would not be safe.
    if (ready)
        share->handle = handle;
    else
        curl_share_cleanup(handle);
    return share;
}

} // namespace

CURLSH* ProcessShare() {
    static Share* const share = MakeShare(); // made once, even when threads race to the first call
    return share->handle;
}

} // namespace ZOTH::http
