// Whole-file buffers straight from the system. The size of a block is kept in a header page in front
// of it, so VirtualFree can release it from its address alone.
#include "platform/FileObject.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t kHeader = 4096;
constexpr size_t kHugePage = 2u << 20;

} // namespace

LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect) {
    if (address != nullptr || size == 0 || type != (MEM_COMMIT | MEM_RESERVE) || protect != PAGE_READWRITE ||
        size > SIZE_MAX - kHeader - kHugePage) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    size_t total = kHeader + size;
    void* block = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    // Advice only: without huge pages the block works the same, with more page faults.
    if (size >= kHugePage) ::madvise(block, total, MADV_HUGEPAGE);
    *static_cast<size_t*>(block) = total;
    return static_cast<char*>(block) + kHeader;
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type) {
    if (address == nullptr || size != 0 || type != MEM_RELEASE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    char* block = static_cast<char*>(address) - kHeader;
    ::munmap(block, *reinterpret_cast<size_t*>(block));
    return TRUE;
}
