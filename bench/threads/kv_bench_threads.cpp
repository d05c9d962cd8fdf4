// Thread scaling: each operation of both backends on 1920x1080 and 3840x2160
// BGR and NV12 frames, timed at 1, 2, 4, ... threads up to the hardware count
// (kv::setNumThreads), with the speed-up over one thread; and crop_and_resize
// of 32 regions into a 32x3x224x224 float tensor. Each figure is the best of
// several timed runs of repeated calls, so that a busy machine's preemptions
// do not decide the ratio. Run by scripts/bench-threads.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "../bench_frames.h"
#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_threads.h"

using namespace kv;

namespace {

using kvbench::bestSecondsPerCall;
using kvbench::noiseFrame;

struct Op {
    std::string name;
    std::function<void()> call;
};

}  // namespace

int main(int argc, char** argv) {
    double budget = 0.2;
    int runs = 3;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--quick")) budget = 0.05, runs = 2;
        if (!std::strcmp(argv[i], "--help")) {
            std::puts("usage: kv_bench_threads [--quick]");
            return 0;
        }
    }
    const int hardware = int(std::max(1u, std::thread::hardware_concurrency()));
    std::vector<int> counts;
    for (int n = 1; n < hardware; n *= 2) counts.push_back(n);
    counts.push_back(hardware);

    CvBackendBase base;
    CvBackendSimd fast;
    std::printf("kv_bench_threads: time per call at each thread count and the speed-up over one thread\n");
    std::printf("(best of %d runs of %.2f s; %d hardware threads)\n\n", runs, budget, hardware);
    std::printf("%-46s", "operation");
    for (int n : counts) std::printf(" %9d thr", n);
    for (size_t i = 1; i < counts.size(); ++i) std::printf("  x%-2d speed-up", counts[i]);
    std::printf("\n");

    for (Size size : {Size(1920, 1080), Size(3840, 2160)}) {
        const std::string tag = std::to_string(size.width) + "x" + std::to_string(size.height);
        const Frame bgr = noiseFrame(FRAME_BGR_8, size, 1);
        const Frame nv12 = noiseFrame(FRAME_NV12, size, 2);
        const Size small(size.width / 3, size.height / 3), up(size.width * 3 / 2, size.height * 3 / 2);
        Frame out_i420(FRAME_I420, size), out_bgr(FRAME_BGR_8, size), out_nv12(FRAME_NV12, size);
        Frame out_small(FRAME_BGR_8, small), out_up(FRAME_BGR_8, up), out_nv12_small(FRAME_NV12, small);
        Frame out_f32(FRAME_FLOAT_32_C3, size), out_conv(FRAME_I420, small), turned, warped(FRAME_BGR_8, size);
        float matrix[2][3];
        getRotationMatrix2D(15.f, Point(size.width / 2.f, size.height / 2.f), matrix, 1.f);
        std::vector<uint16_t> halves(size_t(size.width) * size_t(size.height));
        std::vector<float> floats(halves.size());
        auto method = [](ICvBackend& b, int m) { b.setIntProperty(ICvBackend::kPropertyResizeMethod, m); };
        std::vector<Op> ops;
        for (int k = 0; k < 2; ++k) {
            ICvBackend& b = k ? static_cast<ICvBackend&>(fast) : static_cast<ICvBackend&>(base);
            const std::string who = k ? "fast " : "base ";
            const int bilinear = k ? int(ResizeBilinear) : int(KV_SCALE_BILINEAR);
            const int area = k ? int(ResizeArea) : int(KV_SCALE_AREA);
            ops.push_back({who + "colorCvt BGR -> I420", [&] { b.colorCvt(bgr, out_i420, Rect()); }});
            ops.push_back({who + "colorCvt NV12 -> BGR", [&] { b.colorCvt(nv12, out_bgr, Rect()); }});
            ops.push_back({who + "colorCvt BGR -> NV12", [&] { b.colorCvt(bgr, out_nv12, Rect()); }});
            ops.push_back({who + "resize BGR 1/3 bilinear", [&, bilinear] {
                               method(b, bilinear);
                               b.resize(bgr, out_small, Rect(), Rect());
                           }});
            ops.push_back({who + "resize BGR 1/3 area", [&, area] {
                               method(b, area);
                               b.resize(bgr, out_small, Rect(), Rect());
                           }});
            ops.push_back({who + "resize BGR x1.5 bilinear", [&, bilinear] {
                               method(b, bilinear);
                               b.resize(bgr, out_up, Rect(), Rect());
                           }});
            ops.push_back({who + "resize NV12 1/3 bilinear", [&, bilinear] {
                               method(b, bilinear);
                               b.resize(nv12, out_nv12_small, Rect(), Rect());
                           }});
            ops.push_back({who + "convert NV12 -> I420 1/3", [&, bilinear] {
                               method(b, bilinear);
                               b.convert(nv12, out_conv, Rect());
                           }});
            ops.push_back({who + "colorCvt BGR -> float", [&] { b.colorCvt(bgr, out_f32, Rect()); }});
            ops.push_back({who + "add + mul float BGR", [&] {
                               b.add(out_f32, -0.5f, Rect());
                               b.mul(out_f32, 0.5f, Rect());
                           }});
        }
        ops.push_back({"fast warpAffine BGR 15 deg", [&] { fast.warpAffine(bgr, warped, matrix, Rect(), false); }});
        ops.push_back({"rotateFrame BGR 90", [&] { rotateFrame(bgr, Rotate90, turned); }});
        ops.push_back({"convertFp16ToFp32", [&] { convertFp16ToFp32(halves.data(), halves.size(), floats.data()); }});
        for (const Op& op : ops) {
            std::printf("%-46s", (op.name + " " + tag).c_str());
            std::fflush(stdout);
            std::vector<double> t;
            for (int n : counts) {
                setNumThreads(n);
                t.push_back(bestSecondsPerCall(op.call, budget, runs));
                std::printf(" %9.3f ms", t.back() * 1e3);
                std::fflush(stdout);
            }
            for (size_t i = 1; i < t.size(); ++i) std::printf("  %11.2fx", t[0] / t[i]);
            std::printf("\n");
        }
    }

    // 32 regions of a 1080p frame into one float batch tensor.
    const Frame bgr = noiseFrame(FRAME_BGR_8, Size(1920, 1080), 1);
    std::vector<Rect> rois;
    for (int i = 0; i < 32; ++i) rois.push_back(Rect(37 * i, 20 * i, 400 + 11 * i, 300 + 7 * i));
    Tensor batch(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{32, 3, 224, 224}, TensorSize(),
                              TENSOR_ORDER_RGB));
    for (int k = 0; k < 2; ++k) {
        ICvBackend& b = k ? static_cast<ICvBackend&>(fast) : static_cast<ICvBackend&>(base);
        std::printf("%-46s", k ? "fast crop_and_resize 32 -> 32x3x224x224 f32" : "base crop_and_resize 32 -> 32x3x224x224 f32");
        std::vector<double> t;
        for (int n : counts) {
            setNumThreads(n);
            t.push_back(bestSecondsPerCall([&] { crop_and_resize(b, bgr, batch, rois, {}, -127.5f, 1 / 127.5f); }, budget,
                                       runs));
            std::printf(" %9.3f ms", t.back() * 1e3);
            std::fflush(stdout);
        }
        for (size_t i = 1; i < t.size(); ++i) std::printf("  %11.2fx", t[0] / t[i]);
        std::printf("\n");
    }
    setNumThreads(1);
    return 0;
}
