// Resize benchmarks: kv's Scaler beside cv::resize and libyuv on the same
// frames, single thread. Names are CASE/IMPL (kv, kv_scalar for the scalar
// kernels, opencv, libyuv).
#include <benchmark/benchmark.h>
#include <libyuv/scale.h>
#include <libyuv/scale_rgb.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <random>

#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_scaler.h"

namespace {

kv::Frame makeFrame(kv::FrameFormat format, kv::Size size) {
    kv::Frame f(format, size);
    std::mt19937 rng(7);
    const kv::FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            uint8_t* row = f.rowCpuData(p, y);
            for (uint64_t x = 0; x < l.plane[p].row_bytes; ++x) row[x] = uint8_t(rng());
        }
    return f;
}

int cvType(kv::FrameFormat f) { return f == kv::FRAME_BGR_8 ? CV_8UC3 : CV_8UC1; }

cv::Mat planeMat(kv::Frame& f, int p) {
    const kv::FramePlane& pl = f.layout().plane[p];
    return cv::Mat(pl.size.height, pl.size.width, p == 0 ? cvType(f.format()) : CV_8UC1, f.planeCpuData(p),
                   pl.step);
}

void runKv(benchmark::State& state, kv::FrameFormat format, kv::Size src_size, kv::Size dst_size,
           kv::ScaleMethod method, kv::impl::Isa isa) {
    kv::impl::setMaxIsaForTesting(isa);
    kv::Frame src = makeFrame(format, src_size);
    kv::Frame dst(format, dst_size);
    kv::Scaler scaler;
    for (auto _ : state) {
        scaler.reuse(src, dst_size, method);
        kv::produceFrame(scaler, dst);
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
    kv::impl::setMaxIsaForTesting(kv::impl::Isa::kAvx2);
}

void runOpenCv(benchmark::State& state, kv::FrameFormat format, kv::Size src_size, kv::Size dst_size,
               int interpolation) {
    kv::Frame src = makeFrame(format, src_size);
    kv::Frame dst(format, dst_size);
    const int planes = int(src.layout().planes);
    for (auto _ : state) {
        for (int p = 0; p < planes; ++p) {
            cv::Mat d = planeMat(dst, p);
            cv::resize(planeMat(src, p), d, d.size(), 0, 0, interpolation);
        }
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
}

void runLibyuv(benchmark::State& state, kv::FrameFormat format, kv::Size src_size, kv::Size dst_size) {
    kv::Frame src = makeFrame(format, src_size);
    kv::Frame dst(format, dst_size);
    const kv::FrameLayout& s = src.layout();
    const kv::FrameLayout& d = dst.layout();
    for (auto _ : state) {
        if (format == kv::FRAME_BGR_8) {
            libyuv::RGBScale(src.planeCpuData(0), int(s.plane[0].step), src_size.width, src_size.height,
                             dst.planeCpuData(0), int(d.plane[0].step), dst_size.width, dst_size.height,
                             libyuv::kFilterBilinear);
        } else {
            libyuv::I420Scale(src.planeCpuData(0), int(s.plane[0].step), src.planeCpuData(1), int(s.plane[1].step),
                              src.planeCpuData(2), int(s.plane[2].step), src_size.width, src_size.height,
                              dst.planeCpuData(0), int(d.plane[0].step), dst.planeCpuData(1), int(d.plane[1].step),
                              dst.planeCpuData(2), int(d.plane[2].step), dst_size.width, dst_size.height,
                              libyuv::kFilterBilinear);
        }
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
}

struct Case {
    const char* name;
    kv::FrameFormat format;
    kv::Size src, dst;
    kv::ScaleMethod method;
};

const Case kCases[] = {
    {"Resize/BGR_1920x1080_to_1280x720/bilinear", kv::FRAME_BGR_8, {1920, 1080}, {1280, 720}, kv::KV_SCALE_BILINEAR},
    {"Resize/BGR_1920x1080_to_640x360/bilinear", kv::FRAME_BGR_8, {1920, 1080}, {640, 360}, kv::KV_SCALE_BILINEAR},
    {"Resize/BGR_1920x1080_to_640x360/nearest", kv::FRAME_BGR_8, {1920, 1080}, {640, 360}, kv::KV_SCALE_NEAREST},
    {"Resize/BGR_640x360_to_1920x1080/bilinear", kv::FRAME_BGR_8, {640, 360}, {1920, 1080}, kv::KV_SCALE_BILINEAR},
    {"Resize/I420_1920x1080_to_640x360/bilinear", kv::FRAME_I420, {1920, 1080}, {640, 360}, kv::KV_SCALE_BILINEAR},
};

const int kRegistered = [] {
    cv::setNumThreads(1);
    for (const Case& c : kCases) {
        const std::string name = c.name;
        benchmark::RegisterBenchmark((name + "/kv").c_str(), [c](benchmark::State& s) {
            runKv(s, c.format, c.src, c.dst, c.method, kv::impl::Isa::kAvx2);
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((name + "/kv_scalar").c_str(), [c](benchmark::State& s) {
            runKv(s, c.format, c.src, c.dst, c.method, kv::impl::Isa::kScalar);
        })->Unit(benchmark::kMillisecond);
        const int interpolation = c.method == kv::KV_SCALE_NEAREST ? cv::INTER_NEAREST_EXACT : cv::INTER_LINEAR;
        benchmark::RegisterBenchmark((name + "/opencv").c_str(), [c, interpolation](benchmark::State& s) {
            runOpenCv(s, c.format, c.src, c.dst, interpolation);
        })->Unit(benchmark::kMillisecond);
        if (c.method == kv::KV_SCALE_BILINEAR)
            benchmark::RegisterBenchmark((name + "/libyuv").c_str(), [c](benchmark::State& s) {
                runLibyuv(s, c.format, c.src, c.dst);
            })->Unit(benchmark::kMillisecond);
    }
    return 0;
}();

}  // namespace
