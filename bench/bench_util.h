// Helpers shared by the benchmark files: frames of pseudo-random samples, an
// OpenCV view of a plane, and registration of a case that runs one call.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <opencv2/core.hpp>
#include <string>

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

// OpenCV view of plane p.
inline cv::Mat mat(kv::Frame& f, int p, int type) {
    const kv::FramePlane& pl = f.layout().plane[p];
    return cv::Mat(pl.size.height, pl.size.width, type, f.planeCpuData(size_t(p)), pl.step);
}

inline int pitch(const kv::Frame& f, int p) { return int(f.layout().plane[p].step); }

// A case that runs `fn` once per iteration, timed in milliseconds.
inline void add(const std::string& name, std::function<void()> fn) {
    benchmark::RegisterBenchmark(name.c_str(), [fn](benchmark::State& st) {
        for (auto _ : st) fn();
    })->Unit(benchmark::kMillisecond);
}

}  // namespace kvbench
