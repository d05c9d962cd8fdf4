// Antialiased resampling (ScalerResample) of a full-HD BGR frame to 640x360
// and 700x500 with each shipped kernel, beside OpenCV's INTER_AREA,
// INTER_LINEAR, INTER_CUBIC and INTER_LANCZOS4 on the same frame. The kv cases
// reuse one scaler (tables built once), as a caller resizing a stream does;
// Pillow, the library these filters reproduce, is timed by
// bench/resample_vs_pillow.py. Single thread.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <random>
#include <string>

#include "kv_core/kv_frame.h"
#include "kv_cv/kv_scaler_resample.h"

namespace {

const int kSingleThread = [] {
    cv::setNumThreads(1);
    return 1;
}();

const kv::Frame& sourceFrame() {
    static const kv::Frame frame = [] {
        kv::Frame f(kv::FRAME_BGR_8, kv::Size(1920, 1080));
        std::mt19937 rng(11);
        for (int y = 0; y < 1080; ++y) {
            uint8_t* row = f.rowCpuData(0, y);
            for (uint64_t x = 0; x < f.layout().plane[0].row_bytes; ++x) row[x] = uint8_t(rng());
        }
        return f;
    }();
    return frame;
}

void resampleKv(benchmark::State& state, kv::ResampleFilter filter, kv::Size size) {
    const kv::Frame& src = sourceFrame();
    kv::ScalerResample scaler;
    kv::Frame dst;
    for (auto _ : state) {
        scaler.reuse(src, size, filter);
        kv::produceFrame(scaler, dst);
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
}

void resizeOpenCv(benchmark::State& state, int interpolation, kv::Size size) {
    const kv::Frame& f = sourceFrame();
    const cv::Mat src(f.size().height, f.size().width, CV_8UC3, const_cast<uint8_t*>(f.planeCpuData(0)),
                      size_t(f.layout().plane[0].step));
    cv::Mat dst;
    for (auto _ : state) {
        cv::resize(src, dst, cv::Size(size.width, size.height), 0, 0, interpolation);
        benchmark::DoNotOptimize(dst.data);
    }
}

const int kRegistered = [] {
    const kv::ResampleFilter filters[] = {kv::KV_RESAMPLE_BOX,      kv::KV_RESAMPLE_TRIANGLE, kv::KV_RESAMPLE_CUBIC,
                                          kv::KV_RESAMPLE_LANCZOS2, kv::KV_RESAMPLE_LANCZOS3, kv::KV_RESAMPLE_MITCHELL};
    const std::pair<const char*, int> opencv[] = {{"INTER_AREA", cv::INTER_AREA},
                                                  {"INTER_LINEAR", cv::INTER_LINEAR},
                                                  {"INTER_CUBIC", cv::INTER_CUBIC},
                                                  {"INTER_LANCZOS4", cv::INTER_LANCZOS4}};
    for (kv::Size size : {kv::Size(640, 360), kv::Size(700, 500)}) {
        const std::string base = "Resample/BGR_1920x1080_to_" + std::to_string(size.width) + "x" + std::to_string(size.height);
        for (kv::ResampleFilter f : filters)
            benchmark::RegisterBenchmark((base + "/" + kv::toString(f) + "/kv").c_str(), resampleKv, f, size)
                ->Unit(benchmark::kMillisecond);
        for (const auto& o : opencv)
            benchmark::RegisterBenchmark((base + "/" + o.first + "/opencv").c_str(), resizeOpenCv, o.second, size)
                ->Unit(benchmark::kMillisecond);
    }
    return 1;
}();

}  // namespace
