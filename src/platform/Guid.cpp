// CoCreateGuid from the kernel's random source, drawn in batches: one getrandom call serves many GUIDs.
#include "zoth/platform/Win32Guid.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sys/random.h>

namespace {

// Random bytes of one thread, handed out 16 at a time and never twice. A forked child starts with a
// copy of its parent's buffer; the fork count tells the child's thread to drop that copy, or parent and
// child would hand out the same GUIDs.
struct RandomBatch {
    unsigned char bytes[4096];
    size_t used = sizeof(bytes);
    unsigned int forks = 0;
};

thread_local RandomBatch t_batch;
std::atomic<unsigned int> g_forks{0};

void CountFork() {
    g_forks.fetch_add(1, std::memory_order_relaxed);
}

// Fills `size` bytes from getrandom; false when the source fails (never a weaker fallback).
bool FillRandom(unsigned char* bytes, size_t size) {
    size_t filled = 0;
    while (filled < size) {
        ssize_t got = getrandom(bytes + filled, size - filled, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        filled += static_cast<size_t>(got);
    }
    return true;
}

// The next 16 unused random bytes of this thread's batch, refilled when spent or inherited by fork.
bool TakeRandom16(unsigned char* out) {
    static const int s_forkHook = pthread_atfork(nullptr, nullptr, CountFork);
    (void)s_forkHook;
    RandomBatch& batch = t_batch;
    unsigned int forks = g_forks.load(std::memory_order_relaxed);
    if (batch.used + 16 > sizeof(batch.bytes) || batch.forks != forks) {
        if (!FillRandom(batch.bytes, sizeof(batch.bytes))) return false;
        batch.used = 0;
        batch.forks = forks;
    }
    std::memcpy(out, batch.bytes + batch.used, 16);
    batch.used += 16;
    return true;
}

} // namespace

HRESULT CoCreateGuid(GUID* guid) {
    if (guid == nullptr) return E_INVALIDARG;
    unsigned char bytes[16];
    if (!TakeRandom16(bytes)) return E_FAIL;
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
