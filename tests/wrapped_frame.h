// Frames over caller memory for tests that must see every stray access: each
// plane is its own exact-size allocation (a read past the last row's end
// trips AddressSanitizer) and rows are followed by padding bytes whose values
// are known, so a write outside a row shows up as changed padding.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "kv_core/kv_frame.h"

namespace kvtest {

struct WrappedFrame {
    std::vector<std::vector<uint8_t>> memory;
    kv::Frame frame;
    uint8_t sentinel = 0;
};

// `pad` bytes between rows. seed != 0 fills rows and padding with random
// bytes; seed 0 fills everything with `sentinel`.
inline WrappedFrame wrappedFrame(kv::FrameFormat format, kv::Size size, size_t pad, uint32_t seed,
                                 uint8_t sentinel = 0xA5) {
    WrappedFrame w;
    w.sentinel = sentinel;
    const kv::FrameLayout l(format, size, 1);
    void* planes[4] = {};
    size_t steps[4] = {};
    w.memory.resize(l.planes);
    std::mt19937 rng(seed);
    for (uint32_t p = 0; p < l.planes; ++p) {
        steps[p] = size_t(l.plane[p].row_bytes) + pad;
        w.memory[p].resize(steps[p] * size_t(l.plane[p].size.height - 1) + size_t(l.plane[p].row_bytes));
        for (auto& b : w.memory[p]) b = seed ? uint8_t(rng()) : sentinel;
        planes[p] = w.memory[p].data();
    }
    w.frame = kv::Frame::wrap(format, size, planes, steps);
    return w;
}

// True when every byte outside the rows still holds the sentinel.
inline bool paddingIntact(const WrappedFrame& w) {
    const kv::FrameLayout& l = w.frame.layout();
    for (uint32_t p = 0; p < l.planes; ++p) {
        const size_t step = size_t(l.plane[p].step), row = size_t(l.plane[p].row_bytes);
        for (size_t i = 0; i < w.memory[p].size(); ++i)
            if (i % step >= row && w.memory[p][i] != w.sentinel) return false;
    }
    return true;
}

// A sample of `bytes` bytes (1, 2 or 4) at element index i of a row.
inline uint64_t sampleAt(const uint8_t* row, int bytes, int i) {
    uint64_t v = 0;
    for (int k = 0; k < bytes; ++k) v |= uint64_t(row[size_t(i) * size_t(bytes) + size_t(k)]) << (8 * k);
    return v;
}
inline void setSample(uint8_t* row, int bytes, int i, uint64_t v) {
    for (int k = 0; k < bytes; ++k) row[size_t(i) * size_t(bytes) + size_t(k)] = uint8_t(v >> (8 * k));
}

}  // namespace kvtest
