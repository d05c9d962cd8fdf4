// Helpers shared by the benchmark files: frames of pseudo-random samples, an
// OpenCV view of a plane, and registration of a case that runs one call.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <opencv2/core.hpp>
#include <string>

#include "bench_frames.h"
#include "kv_core/kv_frame.h"

namespace kvbench {

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
