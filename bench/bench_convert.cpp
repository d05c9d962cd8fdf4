// Format conversion at 1920x1080, single thread: FormatConverter drained into
// a frame (kv: vector kernels, kv_scalar: scalar kernels) beside OpenCV's
// cvtColor / convertTo and libyuv on the same frames. The kernels' results
// follow their own fixed formulas; only the speed is compared here.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_impl_cpu.h"

namespace {

using namespace kv;

const Size kSize(1920, 1080);

Frame randomFrame(FrameFormat format) {
    Frame f(format, kSize);
    std::mt19937 rng(42);
    const FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            uint8_t* row = f.rowCpuData(p, y);
            for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i) row[i] = uint8_t(rng());
        }
    return f;
}

struct Inputs {
    Frame bgr = randomFrame(FRAME_BGR_8);
    Frame i420 = randomFrame(FRAME_I420);
    Frame nv12 = randomFrame(FRAME_NV12);
    Inputs() { cv::setNumThreads(1); }
};

Inputs& inputs() {
    static Inputs in;
    return in;
}

// A whole frame seen by OpenCV: contiguous planes, so 4:2:0 is one tall Mat.
cv::Mat matOf(Frame& f, int type, int rows_scale_num = 1, int rows_scale_den = 1) {
    return cv::Mat(kSize.height * rows_scale_num / rows_scale_den, f.layout().plane[0].row_bytes /
                                                                       (CV_ELEM_SIZE(type)),
                   type, f.planeCpuData(0), f.layout().plane[0].step);
}

void runKv(benchmark::State& state, const Frame& src, FrameFormat dst_format, impl::Isa isa) {
    impl::setMaxIsaForTesting(isa);
    FormatConverter converter;
    Frame dst(dst_format, kSize);
    for (auto _ : state) {
        converter.reuse(src, dst_format);
        produceFrame(converter, dst);
        benchmark::DoNotOptimize(dst.planeCpuData(0));
    }
    impl::setMaxIsaForTesting(impl::Isa::kAvx512);
}

void registerKv(const char* name, const Frame& (*src)(), FrameFormat dst_format) {
    benchmark::RegisterBenchmark((std::string(name) + "/kv").c_str(), [=](benchmark::State& s) {
        runKv(s, src(), dst_format, impl::Isa::kAvx2);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string(name) + "/kv_scalar").c_str(), [=](benchmark::State& s) {
        runKv(s, src(), dst_format, impl::Isa::kScalar);
    })->Unit(benchmark::kMillisecond);
}

template <typename F>
void registerOther(const std::string& name, F body) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& s) {
        for (auto _ : s) body();
    })->Unit(benchmark::kMillisecond);
}

const Frame& bgrFrame() { return inputs().bgr; }
const Frame& i420Frame() { return inputs().i420; }
const Frame& nv12Frame() { return inputs().nv12; }

int registerAll() {
    const int w = kSize.width, h = kSize.height;
    static Frame gray(FRAME_GRAY_8, kSize), i420(FRAME_I420, kSize), bgr(FRAME_BGR_8, kSize),
        fbgr(FRAME_FLOAT_32_C3, kSize);

    // BGR -> gray
    const char* c1 = "Convert/BGR_to_GRAY_1920x1080";
    registerKv(c1, bgrFrame, FRAME_GRAY_8);
    registerOther(std::string(c1) + "/opencv", [] {
        cv::Mat dst = matOf(gray, CV_8UC1);
        cv::cvtColor(matOf(inputs().bgr, CV_8UC3), dst, cv::COLOR_BGR2GRAY);
    });
    registerOther(std::string(c1) + "/libyuv", [w, h] {
        Frame& s = inputs().bgr;
        libyuv::RGB24ToJ400(s.planeCpuData(0), int(s.layout().plane[0].step), gray.planeCpuData(0),
                            int(gray.layout().plane[0].step), w, h);
    });

    // BGR -> I420
    const char* c2 = "Convert/BGR_to_I420_1920x1080";
    registerKv(c2, bgrFrame, FRAME_I420);
    registerOther(std::string(c2) + "/opencv", [] {
        cv::Mat dst = matOf(i420, CV_8UC1, 3, 2);
        cv::cvtColor(matOf(inputs().bgr, CV_8UC3), dst, cv::COLOR_BGR2YUV_I420);
    });
    registerOther(std::string(c2) + "/libyuv", [w, h] {
        Frame& s = inputs().bgr;
        const FrameLayout& l = i420.layout();
        libyuv::RGB24ToI420(s.planeCpuData(0), int(s.layout().plane[0].step), i420.planeCpuData(0),
                            int(l.plane[0].step), i420.planeCpuData(1), int(l.plane[1].step), i420.planeCpuData(2),
                            int(l.plane[2].step), w, h);
    });

    // BGR -> NV12 (the 4:2:0 kernel with interleaved chroma; no direct
    // counterpart in OpenCV or libyuv, so kv only)
    registerKv("Convert/BGR_to_NV12_1920x1080", bgrFrame, FRAME_NV12);

    // I420 -> BGR
    const char* c3 = "Convert/I420_to_BGR_1920x1080";
    registerKv(c3, i420Frame, FRAME_BGR_8);
    registerOther(std::string(c3) + "/opencv", [] {
        cv::Mat dst = matOf(bgr, CV_8UC3);
        cv::cvtColor(matOf(inputs().i420, CV_8UC1, 3, 2), dst, cv::COLOR_YUV2BGR_I420);
    });
    registerOther(std::string(c3) + "/libyuv", [w, h] {
        Frame& s = inputs().i420;
        const FrameLayout& l = s.layout();
        libyuv::I420ToRGB24(s.planeCpuData(0), int(l.plane[0].step), s.planeCpuData(1), int(l.plane[1].step),
                            s.planeCpuData(2), int(l.plane[2].step), bgr.planeCpuData(0),
                            int(bgr.layout().plane[0].step), w, h);
    });

    // NV12 -> BGR
    const char* c4 = "Convert/NV12_to_BGR_1920x1080";
    registerKv(c4, nv12Frame, FRAME_BGR_8);
    registerOther(std::string(c4) + "/opencv", [] {
        cv::Mat dst = matOf(bgr, CV_8UC3);
        cv::cvtColor(matOf(inputs().nv12, CV_8UC1, 3, 2), dst, cv::COLOR_YUV2BGR_NV12);
    });
    registerOther(std::string(c4) + "/libyuv", [w, h] {
        Frame& s = inputs().nv12;
        const FrameLayout& l = s.layout();
        libyuv::NV12ToRGB24(s.planeCpuData(0), int(l.plane[0].step), s.planeCpuData(1), int(l.plane[1].step),
                            bgr.planeCpuData(0), int(bgr.layout().plane[0].step), w, h);
    });

    // BGR -> FRAME_FLOAT_32_C3 (values unchanged, 0..255)
    const char* c5 = "Convert/BGR_to_FLOAT_32_C3_1920x1080";
    registerKv(c5, bgrFrame, FRAME_FLOAT_32_C3);
    registerOther(std::string(c5) + "/opencv", [] {
        cv::Mat dst = matOf(fbgr, CV_32FC3);
        matOf(inputs().bgr, CV_8UC3).convertTo(dst, CV_32FC3);
    });
    registerOther(std::string(c5) + "/libyuv", [h] {
        Frame& s = inputs().bgr;
        for (int y = 0; y < h; ++y)
            libyuv::ByteToFloat(s.rowCpuData(0, y), reinterpret_cast<float*>(fbgr.rowCpuData(0, y)), 1.0f,
                                int(s.layout().plane[0].row_bytes));
    });
    return 0;
}

const int registered = registerAll();

}  // namespace
