// Large-page advice for big heap buffers.
#include "zoth/platform/MemoryHint.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

void AdviseLargeBuffer(void* data, size_t size) {
    constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
    if (data == nullptr || size < kHugePage) return;
    // Only whole huge pages inside the buffer; the heap around it is left alone.
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + size) & ~(kHugePage - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}
