// Where memory lives (DeviceContext), an unowned address in it (DevicePtr) and
// an owned resizable block of bytes (Buffer).
#pragma once

#include <cstddef>
#include <cstdint>

#include "kv_core/kv_core_export.h"

namespace kv {

enum DeviceKind : int32_t {
    KV_DEVICE_CPU = 0,
    KV_DEVICE_GPU = 1,
};

// A default-constructed context is the CPU context: this build only has host
// memory, and other kinds are carried as tags so callers can tell them apart.
class KV_CORE_API DeviceContext {
public:
    DeviceContext() = default;
    DeviceContext(DeviceKind kind, int32_t index, void* handle) : _kind(kind), _index(index), _handle(handle) {}

    static DeviceContext cpuContext() { return DeviceContext(); }

    DeviceKind kind() const { return _kind; }
    int32_t index() const { return _index; }
    void* handle() const { return _handle; }

    bool operator==(const DeviceContext& o) const {
        return _kind == o._kind && _index == o._index && _handle == o._handle;
    }
    bool operator!=(const DeviceContext& o) const { return !(*this == o); }

private:
    DeviceKind _kind = KV_DEVICE_CPU;
    int32_t _index = 0;
    void* _handle = nullptr;
};

class KV_CORE_API DevicePtr {
public:
    DevicePtr() = default;
    DevicePtr(void* ptr, const DeviceContext& context) : _ptr(ptr), _context(context) {}
    void* cpuData() const { return _ptr; }
    const DeviceContext& deviceContext() const { return _context; }

private:
    void* _ptr = nullptr;
    DeviceContext _context;
};

// Owned bytes, 64-byte aligned, with 64 readable bytes of slack past the end
// (row kernels may load one vector past a row's last element). Shrinking and
// regrowing within the capacity never reallocates.
class KV_CORE_API Buffer {
public:
    static constexpr size_t kAlignment = 64;
    static constexpr size_t kSlack = 64;
    // The 47-bit user address space of x86-64: no larger block can exist, so
    // resize refuses it with std::bad_alloc before asking the allocator.
    static constexpr size_t kMaxSize = size_t(1) << 47;

    Buffer() = default;
    explicit Buffer(const DeviceContext& context) : _context(context) {}
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    Buffer(Buffer&& other) noexcept;
    Buffer& operator=(Buffer&& other) noexcept;

    // Grows or shrinks to `size` bytes; with `keep` the first min(old, new)
    // bytes survive a reallocation. New bytes are not initialised. Throws
    // std::bad_alloc when the memory cannot be had (always past kMaxSize).
    void resize(size_t size, bool keep = false);
    void clear();
    void setZero();

    size_t size() const { return _size; }
    size_t capacity() const { return _capacity; }
    DevicePtr devicePtr() const { return DevicePtr(_data, _context); }
    uint8_t* data() const { return _data; }
    const DeviceContext& deviceContext() const { return _context; }

private:
    uint8_t* _data = nullptr;
    size_t _size = 0;
    size_t _capacity = 0;
    DeviceContext _context;
};

}  // namespace kv
