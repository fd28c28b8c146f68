#include "AllocationWatch.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<const void*> gWatched{nullptr};
std::atomic<int64_t> gFrees{0};

void noteFree(void* pointer) noexcept {
    if (pointer != nullptr && pointer == gWatched.load(std::memory_order_acquire))
        gFrees.fetch_add(1, std::memory_order_acq_rel);
}

void* allocate(std::size_t size) {
    if (size == 0) size = 1;
    if (void* pointer = std::malloc(size)) return pointer;
    throw std::bad_alloc();
}
}  // namespace

namespace ZOR::test {
void watchFrees(const void* address) {
    gFrees.store(0, std::memory_order_release);
    gWatched.store(address, std::memory_order_release);
}
int64_t watchedFrees() { return gFrees.load(std::memory_order_acquire); }
}  // namespace ZOR::test

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void operator delete(void* pointer) noexcept {
    noteFree(pointer);
    std::free(pointer);
}
void operator delete[](void* pointer) noexcept {
    noteFree(pointer);
    std::free(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
    noteFree(pointer);
    std::free(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
    noteFree(pointer);
    std::free(pointer);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept {
    noteFree(pointer);
    std::free(pointer);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept {
    noteFree(pointer);
    std::free(pointer);
}
