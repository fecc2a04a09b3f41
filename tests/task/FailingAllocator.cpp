// Every plain form of new and delete, on malloc and free, so that no block crosses between this
// allocator and another. Kept in a file of its own: inlined into a caller, GCC takes the free of a
// block from operator new for a mismatch.
#include "FailingAllocator.h"

#include <cstdlib>
#include <new>

namespace {

thread_local long t_failAt = 0;

void* Allocate(std::size_t size) {
    if (t_failAt == -1 || (t_failAt > 0 && --t_failAt == 0)) throw std::bad_alloc();
    if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
    throw std::bad_alloc();
}

void* AllocateOrNull(std::size_t size) noexcept {
    try {
        return Allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

} // namespace

void task_test::FailAllocations(long failAt) {
    t_failAt = failAt;
}

void* operator new(std::size_t size) {
    return Allocate(size);
}
void* operator new[](std::size_t size) {
    return Allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return AllocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return AllocateOrNull(size);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
