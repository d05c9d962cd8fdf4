// Convolutional scaler beside OpenCV, single thread: 1920x1080 BGR reduced to
// 640x360 with a tent stretched to the 3-fold reduction (antialiasing, against
// INTER_AREA) and with a Keys cubic (a = -0.75, 4 taps, against INTER_CUBIC),
// in 8-bit and 16-bit weights. Kernels are defined here: the library ships none.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <random>

#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler_convolutional.h"

namespace {

class Tent : public kv::IKernel {
public:
    explicit Tent(float stretch) : _s(stretch) {}
    void prepare() override {}
    float value(float x) const override {
        const float t = std::fabs(x) / _s;
        return t < 1.0f ? 1.0f - t : 0.0f;
    }
    float aperture() const override { return 2.0f * _s; }

private:
    float _s;
};

class Cubic : public kv::IKernel {
public:
    void prepare() override {}
    float value(float x) const override {
        const float a = -0.75f, t = std::fabs(x);
        if (t < 1.0f) return ((a + 2.0f) * t - (a + 3.0f)) * t * t + 1.0f;
        if (t < 2.0f) return ((a * t - 5.0f * a) * t + 8.0f * a) * t - 4.0f * a;
        return 0.0f;
    }
    float aperture() const override { return 4.0f; }
};

const kv::Size kSrc(1920, 1080), kDst(640, 360);

const kv::Frame& source() {
    static const kv::Frame f = [] {
        kv::Frame s(kv::FRAME_BGR_8, kSrc);
        std::mt19937 rng(1);
        for (int y = 0; y < kSrc.height; ++y) {
            uint8_t* r = s.rowCpuData(0, y);
            for (int i = 0; i < kSrc.width * 3; ++i) r[i] = uint8_t(rng());
        }
        return s;
    }();
    return f;
}

void runKv(benchmark::State& state, kv::IKernel& kernel, kv::ScalerPrecision precision) {
    kv::ScalerConvolutional scaler;
    kv::Frame dst;
    for (auto _ : state) {
        scaler.reuse(kernel, source(), kDst, precision);
        kv::produceFrame(scaler, dst);
        benchmark::DoNotOptimize(dst.rowCpuData(0, 0));
    }
}

void runOpenCv(benchmark::State& state, int interpolation) {
    cv::setNumThreads(1);
    const kv::Frame& s = source();
    const cv::Mat src(kSrc.height, kSrc.width, CV_8UC3, const_cast<uint8_t*>(s.rowCpuData(0, 0)),
                      s.layout().plane[0].step);
    cv::Mat dst(kDst.height, kDst.width, CV_8UC3);
    for (auto _ : state) {
        cv::resize(src, dst, cv::Size(kDst.width, kDst.height), 0, 0, interpolation);
        benchmark::DoNotOptimize(dst.data);
    }
}

Tent g_tent(3.0f);
Cubic g_cubic;

#define KV_CONV_CASE(name, kernel, precision, interpolation)                                                   \
    BENCHMARK_CAPTURE(runKv, name, kernel, precision)->Name("ResizeConv/BGR_1920x1080_to_640x360/" #name "/kv") \
        ->Unit(benchmark::kMillisecond);                                                                       \
    BENCHMARK_CAPTURE(runOpenCv, name, interpolation)                                                          \
        ->Name("ResizeConv/BGR_1920x1080_to_640x360/" #name "/opencv")                                         \
        ->Unit(benchmark::kMillisecond);

KV_CONV_CASE(tent_8s, g_tent, kv::KV_SCALER_FIXED_POINT_8S, cv::INTER_AREA)
KV_CONV_CASE(tent_16s, g_tent, kv::KV_SCALER_FIXED_POINT_16S, cv::INTER_AREA)
KV_CONV_CASE(cubic_8s, g_cubic, kv::KV_SCALER_FIXED_POINT_8S, cv::INTER_CUBIC)
KV_CONV_CASE(cubic_16s, g_cubic, kv::KV_SCALER_FIXED_POINT_16S, cv::INTER_CUBIC)

}  // namespace
