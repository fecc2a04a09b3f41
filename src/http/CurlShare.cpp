// The process-wide libcurl share and its locks, made again in a forked child.
#include "http/CurlShare.h"

#include "zoth/platform/Win32Thread.h"

#include <atomic>
#include <thread>

namespace ZOTH::http {

namespace {

// A lock for the share's short sections (a lookup in the connection pool, the DNS cache or the TLS
// session cache, a dozen per transfer): one atomic exchange when free, which costs a fraction of a
// mutex's call; a waiter spins briefly, then yields its time slice so the holder can finish.
class SpinLock {
public:
    void lock() {
        for (int spins = 0; m_held.exchange(true, std::memory_order_acquire); ++spins) {
            while (m_held.load(std::memory_order_relaxed)) {
                if (++spins > 64) std::this_thread::yield();
            }
        }
    }
    void unlock() { m_held.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_held{false};
};

struct Share {
    CURLSH* handle = nullptr;
    unsigned int generation = 0;         // the fork generation it was made in
    SpinLock locks[CURL_LOCK_DATA_LAST]; // one per kind of data, as libcurl asks
};

// libcurl calls these two in pairs around each use of one kind of shared data, so the lock cannot
// be a scope guard here: it is held from one callback to the other.
void LockData(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<Share*>(user)->locks[data].lock();
}

void UnlockData(CURL*, curl_lock_data data, void* user) {
    static_cast<Share*>(user)->locks[data].unlock();
}

Share* MakeShare(unsigned int generation) {
    auto* share = new Share;
    share->generation = generation;
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

// The share of this process. Deliberately never deleted: the process's last transfers may run
// beside static destructors, and one inherited from a parent holds the parent's sockets, which a
// cleanup would close (a TLS one with a shutdown message the parent's stream would then carry).
std::atomic<Share*> g_share{nullptr};

} // namespace

CURLSH* ProcessShare() {
    const unsigned int generation = GetForkGeneration();
    Share* share = g_share.load(std::memory_order_acquire);
    while (share == nullptr || share->generation != generation) {
        Share* made = MakeShare(generation);
        if (g_share.compare_exchange_strong(share, made, std::memory_order_acq_rel)) return made->handle;
        // Another thread installed one first: ours was never used. `share` now holds theirs.
        if (made->handle != nullptr) curl_share_cleanup(made->handle);
        delete made;
    }
    return share->handle;
}

} // namespace ZOTH::http
