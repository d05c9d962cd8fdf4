// A std::allocator whose blocks start on a cache line, for kernel tables read
// with 64-byte loads (a load that straddles two lines costs two).
#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace kv {
namespace impl {

template <typename T>
struct LineAllocator {
    using value_type = T;
    static constexpr std::size_t kAlignment = 64;
    LineAllocator() = default;
    template <typename U>
    LineAllocator(const LineAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(kAlignment)));
    }
    void deallocate(T* p, std::size_t) noexcept { ::operator delete(p, std::align_val_t(kAlignment)); }
    template <typename U>
    bool operator==(const LineAllocator<U>&) const noexcept { return true; }
    template <typename U>
    bool operator!=(const LineAllocator<U>&) const noexcept { return false; }
};

template <typename T>
using LineVector = std::vector<T, LineAllocator<T>>;

}  // namespace impl
}  // namespace kv
