#pragma once
// Counts heap allocations (every operator new and posix_memalign, which the aligned buffers use) made
// while a function runs. Include from exactly one source file of a test program: it replaces the
// global allocation functions of that program.

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace alloc_test {
inline std::atomic<bool> counting{false};
inline std::atomic<long> allocations{0};

// Out of line, so that the compiler does not pair an inlined operator new with free() and warn.
__attribute__((noinline)) inline void* countedMalloc(std::size_t n) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) inline void release(void* p) noexcept { std::free(p); }

template <typename F>
long AllocationsDuring(F&& f) {
    allocations = 0;
    counting = true;
    f();
    counting = false;
    return allocations.load();
}
}  // namespace alloc_test

void* operator new(std::size_t n) { return alloc_test::countedMalloc(n); }
void* operator new[](std::size_t n) { return alloc_test::countedMalloc(n); }
void operator delete(void* p) noexcept { alloc_test::release(p); }
void operator delete[](void* p) noexcept { alloc_test::release(p); }
void operator delete(void* p, std::size_t) noexcept { alloc_test::release(p); }
void operator delete[](void* p, std::size_t) noexcept { alloc_test::release(p); }
// The nothrow forms too (std::stable_sort's buffer uses them), so every pair matches under ASan.
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    try {
        return alloc_test::countedMalloc(n);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p, const std::nothrow_t&) noexcept { alloc_test::release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { alloc_test::release(p); }

extern "C" int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    using Real = int (*)(void**, std::size_t, std::size_t);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "posix_memalign"));
    if (alloc_test::counting.load(std::memory_order_relaxed))
        alloc_test::allocations.fetch_add(1, std::memory_order_relaxed);
    return real(out, alignment, size);
}
