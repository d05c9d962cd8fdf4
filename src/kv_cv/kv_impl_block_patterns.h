// Kernel plans whose per-block tables repeat along a row (ratios whose
// pattern recurs) keep one copy per pattern, so the tables of a wide row stay
// in the first-level cache.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kv {
namespace impl {

// One table of a block: its bytes, and where the kept patterns of that table
// lie (pattern k at kept + k * bytes).
struct BlockTable {
    const void* table = nullptr;
    const void* kept = nullptr;
    size_t bytes = 0;
};

// The kept pattern whose tables equal a block's (one or two tables per
// pattern; `hashes` holds each kept pattern's FNV-1a hash), or, for a new
// one, hashes.size() after adding its hash: the caller then keeps its tables
// at that index.
inline size_t findBlockPattern(std::vector<uint64_t>& hashes, BlockTable a, BlockTable b = {}) {
    uint64_t h = 1469598103934665603ull;
    for (const BlockTable& t : {a, b})
        for (size_t i = 0; i < t.bytes; ++i) h = (h ^ static_cast<const uint8_t*>(t.table)[i]) * 1099511628211ull;
    auto same = [](const BlockTable& t, size_t k) {
        return t.bytes == 0 || std::memcmp(static_cast<const uint8_t*>(t.kept) + k * t.bytes, t.table, t.bytes) == 0;
    };
    for (size_t k = 0; k < hashes.size(); ++k)
        if (hashes[k] == h && same(a, k) && same(b, k)) return k;
    hashes.push_back(h);
    return hashes.size() - 1;
}

}  // namespace impl
}  // namespace kv
