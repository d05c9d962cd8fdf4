// Sample loads and stores at any byte address. Rows of caller frames keep the
// caller's base address and pitch, so a 16- or 32-bit sample in them need not
// be aligned to its size; reading it through a typed pointer would be
// undefined. One memcpy of a sample compiles to a plain load or store.
#pragma once

#include <cstddef>
#include <cstring>

namespace kv {
namespace impl {

// Sample i of the row at p.
template <typename T>
inline T loadSample(const T* p, std::ptrdiff_t i) {
    T v;
    std::memcpy(&v, p + i, sizeof v);
    return v;
}

// Writes `value` converted to T as sample i of the row at p.
template <typename T, typename V>
inline void storeSample(T* p, std::ptrdiff_t i, V value) {
    const T t = T(value);
    std::memcpy(p + i, &t, sizeof t);
}

}  // namespace impl
}  // namespace kv
