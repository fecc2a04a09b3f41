// The fork count behind GetForkGeneration: a child's handler raises it at every fork. The handler
// is registered while the library loads, before any thread of the program can fork.
#include "zoth/platform/Win32Thread.h"

#include <atomic>
#include <pthread.h>

namespace {

std::atomic<unsigned int> g_generation{0};

void CountFork() {
    g_generation.fetch_add(1, std::memory_order_relaxed);
}

const int g_registered = pthread_atfork(nullptr, nullptr, CountFork);

} // namespace

unsigned int GetForkGeneration() {
    (void)g_registered;
    return g_generation.load(std::memory_order_relaxed);
}
