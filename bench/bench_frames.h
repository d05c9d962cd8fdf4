// Benchmark helpers that need only the library's public headers (the thread
// and A/B programs build without Google Benchmark or OpenCV): frames of
// pseudo-random samples and the best time of repeated calls.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>

#include <sched.h>

#include "kv_core/kv_frame.h"

namespace kvbench {

// Every row byte of every plane from a seeded generator (float planes: 0..255).
inline kv::Frame noiseFrame(kv::FrameFormat f, kv::Size s, uint32_t seed) {
    kv::Frame fr(f, s);
    uint32_t x = seed * 2654435761u + 1;
    const kv::FrameLayout& l = fr.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            uint8_t* row = fr.rowCpuData(p, y);
            if (l.plane[p].bits_per_channel == 32) {
                auto* fl = reinterpret_cast<float*>(row);
                for (uint64_t i = 0; i < l.plane[p].row_bytes / 4; ++i)
                    fl[i] = float((x = x * 1664525u + 1013904223u) >> 24);
            } else {
                for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i)
                    row[i] = uint8_t((x = x * 1664525u + 1013904223u) >> 24);
            }
        }
    return fr;
}

// Keeps the calling thread on the processor it runs on and returns its
// number (-1 if that fails). One-thread comparisons stay on one processor:
// the virtual processors of a shared machine can differ in speed by half.
inline int stayOnThisProcessor() {
    const int cpu = sched_getcpu();
    if (cpu < 0) return -1;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0 ? cpu : -1;
}

// Best of `runs` runs, each the mean of as many calls as fill `budget`
// seconds, after one warm-up call (tables, scratch frames, the pool): on a
// shared machine the least disturbed run.
inline double bestSecondsPerCall(const std::function<void()>& call, double budget, int runs) {
    using Clock = std::chrono::steady_clock;
    call();
    double best = 1e30;
    for (int r = 0; r < runs; ++r) {
        int calls = 0;
        const auto start = Clock::now();
        double elapsed = 0;
        do {
            call();
            ++calls;
            elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        } while (elapsed < budget);
        best = std::min(best, elapsed / calls);
    }
    return best;
}

}  // namespace kvbench
