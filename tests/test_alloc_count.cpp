// The counting global operator new behind kvtest::allocationCount(), and a
// check that it sees allocations. Deallocation is the plain free().
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include <gtest/gtest.h>

#include "alloc_count.h"

namespace {
std::atomic<size_t> g_allocations{0};

void* allocate(size_t size, size_t alignment) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (size == 0) size = 1;
    void* p = nullptr;
    if (alignment <= alignof(std::max_align_t)) {
        p = std::malloc(size);
    } else {
        size = (size + alignment - 1) / alignment * alignment;
        p = std::aligned_alloc(alignment, size);
    }
    return p;
}
}  // namespace

size_t kvtest::allocationCount() { return g_allocations.load(std::memory_order_relaxed); }

void* operator new(size_t size) {
    if (void* p = allocate(size, 0)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    if (void* p = allocate(size, 0)) return p;
    throw std::bad_alloc();
}
void* operator new(size_t size, std::align_val_t a) {
    if (void* p = allocate(size, size_t(a))) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size, std::align_val_t a) {
    if (void* p = allocate(size, size_t(a))) return p;
    throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { std::free(p); }

TEST(AllocCount, CountsEveryOperatorNew) {
    const size_t before = kvtest::allocationCount();
    auto a = std::make_unique<int>(1);
    auto b = std::make_unique<int[]>(3);
    EXPECT_EQ(kvtest::allocationCount() - before, 2u);
}
