// Buffer: 64-byte aligned owned bytes with readable slack past the end.
#include "kv_core/kv_buffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kv {

namespace {
// Through the aligned operator new, so allocation counting and replacement see buffers too.
uint8_t* allocateBytes(size_t bytes) {
    return static_cast<uint8_t*>(::operator new(bytes, std::align_val_t(Buffer::kAlignment)));
}
void releaseBytes(uint8_t* p) {
    if (p) ::operator delete(p, std::align_val_t(Buffer::kAlignment));
}
}  // namespace

Buffer::~Buffer() { releaseBytes(_data); }

Buffer::Buffer(Buffer&& other) noexcept
    : _data(other._data), _size(other._size), _capacity(other._capacity), _context(other._context) {
    other._data = nullptr;
    other._size = other._capacity = 0;
}

Buffer& Buffer::operator=(Buffer&& other) noexcept {
    if (this != &other) {
        releaseBytes(_data);
        _data = other._data;
        _size = other._size;
        _capacity = other._capacity;
        _context = other._context;
        other._data = nullptr;
        other._size = other._capacity = 0;
    }
    return *this;
}

void Buffer::resize(size_t size, bool keep) {
    if (size <= _capacity) {
        _size = size;
        return;
    }
    if (size > kMaxSize) throw std::bad_alloc();
    const size_t bytes = (size + kSlack + kAlignment - 1) / kAlignment * kAlignment;
    uint8_t* data = allocateBytes(bytes);
    // The slack is readable by kernels that load a vector past a row's end;
    // zero it so those loads read defined bytes.
    std::memset(data + size, 0, bytes - size);
    if (keep && _data) std::memcpy(data, _data, _size < size ? _size : size);
    releaseBytes(_data);
    _data = data;
    _size = size;
    _capacity = size;
}

void Buffer::clear() {
    releaseBytes(_data);
    _data = nullptr;
    _size = _capacity = 0;
}

void Buffer::setZero() {
    if (_data) std::memset(_data, 0, _size);
}

}  // namespace kv
