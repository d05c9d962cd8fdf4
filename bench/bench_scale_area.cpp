// Area (box) reduction of a BGR frame: the ScalerAreaX -> ScalerAreaY chain
// that Scaler builds for KV_SCALE_AREA, beside OpenCV INTER_AREA and libyuv's
// box filter on the same frames. Single thread.
#include <benchmark/benchmark.h>

#include <libyuv/scale_rgb.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <random>

#include "kv_core/kv_frame.h"
#include "kv_cv/kv_scaler_area.h"

namespace {

const int kSingleThread = [] {
    cv::setNumThreads(1);
    return 1;
}();

const kv::Size kSrc(1920, 1080);
const kv::Size kDst(480, 270);

const kv::Frame& sourceFrame() {
    static const kv::Frame frame = [] {
        kv::Frame f(kv::FRAME_BGR_8, kSrc);
        std::mt19937 rng(7);
        for (int y = 0; y < kSrc.height; ++y) {
            uint8_t* row = f.rowCpuData(0, y);
            for (uint64_t x = 0; x < f.layout().plane[0].row_bytes; ++x) row[x] = uint8_t(rng());
        }
        return f;
    }();
    return frame;
}

cv::Mat asMat(const kv::Frame& f) {
    return cv::Mat(f.size().height, f.size().width, CV_8UC3, const_cast<uint8_t*>(f.planeCpuData(0)),
                   size_t(f.layout().plane[0].step));
}

void areaKv(benchmark::State& state) {
    const kv::Frame& src = sourceFrame();
    kv::ScalerAreaX x;
    kv::ScalerAreaY y;
    kv::Frame dst;
    for (auto _ : state) {
        x.reuse(src, kDst.width, kv::KV_SCALER_FIXED_POINT_16S);
        y.reuse(x, kDst.height, kv::KV_SCALER_FIXED_POINT_16S);
        kv::produceFrame(y, dst);
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
}

void areaOpenCv(benchmark::State& state) {
    const cv::Mat src = asMat(sourceFrame());
    cv::Mat dst;
    for (auto _ : state) {
        cv::resize(src, dst, cv::Size(kDst.width, kDst.height), 0, 0, cv::INTER_AREA);
        benchmark::DoNotOptimize(dst.data);
    }
}

void areaLibyuv(benchmark::State& state) {
    const kv::Frame& src = sourceFrame();
    kv::Frame dst(kv::FRAME_BGR_8, kDst);
    for (auto _ : state) {
        libyuv::RGBScale(src.planeCpuData(0), int(src.layout().plane[0].step), kSrc.width, kSrc.height,
                         dst.planeCpuData(0), int(dst.layout().plane[0].step), kDst.width, kDst.height,
                         libyuv::kFilterBox);
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
}

}  // namespace

BENCHMARK(areaKv)->Name("Resize/BGR_1920x1080_to_480x270/area/kv")->Unit(benchmark::kMillisecond);
BENCHMARK(areaOpenCv)->Name("Resize/BGR_1920x1080_to_480x270/area/opencv")->Unit(benchmark::kMillisecond);
BENCHMARK(areaLibyuv)->Name("Resize/BGR_1920x1080_to_480x270/area/libyuv")->Unit(benchmark::kMillisecond);
