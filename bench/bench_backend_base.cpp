// The generic backend's resize-then-convert beside OpenCV's convert-then-resize.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <random>

#include "kv_cv/kv_cv_backend_base.h"

namespace {

kv::Frame nv12Frame() {
    kv::Frame f(kv::FRAME_NV12, kv::Size(1920, 1080));
    std::mt19937 rng(1);
    for (uint32_t p = 0; p < 2; ++p)
        for (int y = 0; y < f.layout().plane[p].size.height; ++y)
            for (uint64_t x = 0; x < f.layout().plane[p].rowBytes(); ++x) f.rowCpuData(p, y)[x] = uint8_t(rng());
    return f;
}

void BackendBaseConvert(benchmark::State& state) {
    cv::setNumThreads(1);
    const kv::Frame src = nv12Frame();
    kv::Frame dst(kv::FRAME_BGR_8, kv::Size(640, 360));
    kv::CvBackendBase backend;
    for (auto _ : state) {
        backend.convert(src, dst, kv::Rect());
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
}

void OpenCvConvert(benchmark::State& state) {
    cv::setNumThreads(1);
    // OpenCV's two-plane NV12 entry point, then bilinear resize.
    cv::Mat y(1080, 1920, CV_8UC1), uv(540, 960, CV_8UC2), bgr, out;
    cv::randu(y, 0, 256);
    cv::randu(uv, 0, 256);
    for (auto _ : state) {
        cv::cvtColorTwoPlane(y, uv, bgr, cv::COLOR_YUV2BGR_NV12);
        cv::resize(bgr, out, cv::Size(640, 360), 0, 0, cv::INTER_LINEAR);
        benchmark::DoNotOptimize(out.data);
    }
}

}  // namespace

BENCHMARK(BackendBaseConvert)->Name("Convert/NV12_1920x1080_to_BGR_640x360/kv_base")->Unit(benchmark::kMillisecond);
BENCHMARK(OpenCvConvert)->Name("Convert/NV12_1920x1080_to_BGR_640x360/opencv")->Unit(benchmark::kMillisecond);
