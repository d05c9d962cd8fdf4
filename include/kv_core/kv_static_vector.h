// StaticVector: a vector of at most N elements kept inside the object.
#pragma once

#include <cstddef>

#include "kv_core/kv_exception.h"

namespace kv {

namespace detail {
template <typename T> struct StaticVectorName { static constexpr const char* value = "T"; };
template <> struct StaticVectorName<int> { static constexpr const char* value = "int"; };
// Throws with the function named "kv::StaticVector<T,N>::<method>".
[[noreturn]] KV_CORE_API void throwStaticVectorFull(const char* type, size_t n, const char* method);
[[noreturn]] KV_CORE_API void throwStaticVectorIndex(const char* type, size_t n, const char* method,
                                                     unsigned long long index);
}  // namespace detail

template <typename T, size_t N>
class StaticVector {
public:
    size_t size() const { return _size; }
    static constexpr size_t capacity() { return N; }
    bool empty() const { return _size == 0; }
    T& operator[](size_t i) { return _data[i]; }
    const T& operator[](size_t i) const { return _data[i]; }
    T* begin() { return _data; }
    T* end() { return _data + _size; }
    const T* begin() const { return _data; }
    const T* end() const { return _data + _size; }
    void clear() { _size = 0; }

    void pushBack(const T& value) {
        if (_size >= N) detail::throwStaticVectorFull(detail::StaticVectorName<T>::value, N, "pushBack");
        _data[_size++] = value;
    }
    void insert(size_t index, const T& value) {
        if (_size >= N) detail::throwStaticVectorFull(detail::StaticVectorName<T>::value, N, "insert");
        if (index > _size) detail::throwStaticVectorIndex(detail::StaticVectorName<T>::value, N, "insert", index);
        for (size_t i = _size; i > index; --i) _data[i] = _data[i - 1];
        _data[index] = value;
        ++_size;
    }
    void remove(size_t index) {
        if (index >= _size) detail::throwStaticVectorIndex(detail::StaticVectorName<T>::value, N, "remove", index);
        for (size_t i = index; i + 1 < _size; ++i) _data[i] = _data[i + 1];
        --_size;
    }

private:
    T _data[N] = {};
    size_t _size = 0;
};

}  // namespace kv
