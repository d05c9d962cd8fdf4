// Same calls, two builds: each operation of both backends on 1920x1080
// frames through the public interface only, so that the program compiles
// against any earlier commit and the two libraries can be compared on one
// machine (scripts/bench-ab). Prints "name<TAB>seconds per call" (best of
// runs of repeated calls), or, with a negative budget under callgrind, dumps
// the instructions of `runs` calls per operation (exact, unlike a clock).
//   kv_bench_ab [budget_s=0.05] [runs=5] [name filter]
#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>
#include <valgrind/callgrind.h>
#include "../bench_frames.h"
#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
using namespace kv;
using kvbench::bestSecondsPerCall;
using kvbench::noiseFrame;
struct Op { std::string name; std::function<void()> call; };
int main(int argc, char** argv) {
    double budget = argc > 1 ? atof(argv[1]) : 0.05; int runs = argc > 2 ? atoi(argv[2]) : 5;
    CvBackendBase base; CvBackendSimd fast;
    Size size(1920, 1080);
    const Frame bgr = noiseFrame(FRAME_BGR_8, size, 1), nv12 = noiseFrame(FRAME_NV12, size, 1), gray = noiseFrame(FRAME_GRAY_8, size, 1),
                yuyv = noiseFrame(FRAME_YUYV, size, 1), i420 = noiseFrame(FRAME_I420, size, 1);
    Frame out_i420(FRAME_I420, size), out_bgr(FRAME_BGR_8, size), out_nv12(FRAME_NV12, size), out_gray(FRAME_GRAY_8, size);
    Frame s640(FRAME_BGR_8, Size(640, 360)), s700(FRAME_BGR_8, Size(700, 500)), up(FRAME_BGR_8, Size(2880, 1620));
    Frame g1280(FRAME_GRAY_8, Size(1280, 720)), b1280(FRAME_BGR_8, Size(1280, 720)), i1280(FRAME_I420, Size(1280, 720));
    Frame g2880(FRAME_GRAY_8, Size(2880, 1620)), i2880(FRAME_I420, Size(2880, 1620)), y2880(FRAME_YUYV, Size(2880, 1620));
    Frame g224(FRAME_GRAY_8, Size(224, 224)), b224(FRAME_BGR_8, Size(224, 224)), n640(FRAME_NV12, Size(640, 360));
    Frame f32(FRAME_FLOAT_32_C3, size), conv(FRAME_I420, Size(640, 360)), turned, warped(FRAME_BGR_8, size);
    Frame f224(FRAME_FLOAT_32_C3, Size(224, 224)), f640(FRAME_FLOAT_32_C3, Size(640, 360)),
        fwarped(FRAME_FLOAT_32_C3, size);
    float m[2][3]; getRotationMatrix2D(15.f, Point(960.f, 540.f), m, 1.f);
    std::vector<uint16_t> halves(size_t(1920) * 1080); std::vector<float> floats(halves.size());
    Tensor t1f(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{1, 3, 224, 224}, TensorSize(), TENSOR_ORDER_RGB));
    Tensor t1u(TensorLayout(TENSOR_UINT_8, TENSOR_NCHW, TensorSize{1, 3, 224, 224}, TensorSize(), TENSOR_ORDER_RGB));
    Tensor t32(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{32, 3, 224, 224}, TensorSize(), TENSOR_ORDER_RGB));
    std::vector<Rect> rois, whole{Rect(0, 0, 1920, 1080)};
    for (int i = 0; i < 32; ++i) rois.push_back(Rect(37 * i, 20 * i, 400 + 11 * i, 300 + 7 * i));
    auto meth = [](ICvBackend& b, int v) { b.setIntProperty(ICvBackend::kPropertyResizeMethod, v); };
    std::vector<Op> ops;
    for (int k = 0; k < 2; ++k) {
        ICvBackend& b = k ? static_cast<ICvBackend&>(fast) : static_cast<ICvBackend&>(base);
        const std::string w = k ? "fast " : "base ";
        const int NN = k ? int(ResizeNearestNeighbour) : int(KV_SCALE_NEAREST);
        const int BL = k ? int(ResizeBilinear) : int(KV_SCALE_BILINEAR);
        const int AR = k ? int(ResizeArea) : int(KV_SCALE_AREA);
        ops.push_back({w + "colorCvt BGR->I420", [&] { b.colorCvt(bgr, out_i420, Rect()); }});
        ops.push_back({w + "colorCvt NV12->BGR", [&] { b.colorCvt(nv12, out_bgr, Rect()); }});
        ops.push_back({w + "colorCvt I420->BGR", [&] { b.colorCvt(i420, out_bgr, Rect()); }});
        ops.push_back({w + "colorCvt BGR->NV12", [&] { b.colorCvt(bgr, out_nv12, Rect()); }});
        ops.push_back({w + "colorCvt YUYV->BGR", [&] { b.colorCvt(yuyv, out_bgr, Rect()); }});
        ops.push_back({w + "colorCvt BGR->GRAY", [&] { b.colorCvt(bgr, out_gray, Rect()); }});
        ops.push_back({w + "colorCvt BGR->F32", [&] { b.colorCvt(bgr, f32, Rect()); }});
        ops.push_back({w + "add+mul F32", [&] { b.add(f32, -0.5f, Rect()); b.mul(f32, 0.5f, Rect()); }});
        ops.push_back({w + "resize GRAY 224 NN", [&, NN] { meth(b, NN); b.resize(gray, g224, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 224 NN", [&, NN] { meth(b, NN); b.resize(bgr, b224, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 640 NN", [&, NN] { meth(b, NN); b.resize(bgr, s640, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 640 BL", [&, BL] { meth(b, BL); b.resize(bgr, s640, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 640 AR", [&, AR] { meth(b, AR); b.resize(bgr, s640, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 700 AR", [&, AR] { meth(b, AR); b.resize(bgr, s700, Rect(), Rect()); }});
        ops.push_back({w + "resize GRAY 1280 AR", [&, AR] { meth(b, AR); b.resize(gray, g1280, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 1280 AR", [&, AR] { meth(b, AR); b.resize(bgr, b1280, Rect(), Rect()); }});
        ops.push_back({w + "resize I420 1280 AR", [&, AR] { meth(b, AR); b.resize(i420, i1280, Rect(), Rect()); }});
        ops.push_back({w + "resize GRAY 2880 AR", [&, AR] { meth(b, AR); b.resize(gray, g2880, Rect(), Rect()); }});
        ops.push_back({w + "resize YUYV 2880 AR", [&, AR] { meth(b, AR); b.resize(yuyv, y2880, Rect(), Rect()); }});
        ops.push_back({w + "resize I420 2880 AR", [&, AR] { meth(b, AR); b.resize(i420, i2880, Rect(), Rect()); }});
        ops.push_back({w + "resize GRAY 224 AR", [&, AR] { meth(b, AR); b.resize(gray, g224, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 224 AR", [&, AR] { meth(b, AR); b.resize(bgr, b224, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 2880 NN", [&, NN] { meth(b, NN); b.resize(bgr, up, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 2880 BL", [&, BL] { meth(b, BL); b.resize(bgr, up, Rect(), Rect()); }});
        ops.push_back({w + "resize GRAY 224 BL", [&, BL] { meth(b, BL); b.resize(gray, g224, Rect(), Rect()); }});
        ops.push_back({w + "resize BGR 224 BL", [&, BL] { meth(b, BL); b.resize(bgr, b224, Rect(), Rect()); }});
        ops.push_back({w + "resize NV12 640 BL", [&, BL] { meth(b, BL); b.resize(nv12, n640, Rect(), Rect()); }});
        ops.push_back({w + "convert NV12->I420 640", [&, BL] { meth(b, BL); b.convert(nv12, conv, Rect()); }});
        ops.push_back({w + "crop+resize 1 f32", [&, BL] { meth(b, BL); crop_and_resize(b, bgr, t1f, whole, {}, -127.5f, 1 / 127.5f); }});
        ops.push_back({w + "crop+resize 1 u8", [&, BL] { meth(b, BL); crop_and_resize(b, bgr, t1u, whole, {}, 0.f, 1.f); }});
        ops.push_back({w + "crop+resize 32 f32", [&, BL] { meth(b, BL); crop_and_resize(b, bgr, t32, rois, {}, -127.5f, 1 / 127.5f); }});
        ops.push_back({w + "warp 15", [&] { b.warpAffine(bgr, warped, m, Rect(), false); }});
        ops.push_back({w + "warp 15 F32", [&] { b.warpAffine(f32, fwarped, m, Rect(), false); }});
        ops.push_back({w + "resize F32 224 BL", [&, BL] { meth(b, BL); b.resize(f32, f224, Rect(), Rect()); }});
        ops.push_back({w + "resize F32 640 BL", [&, BL] { meth(b, BL); b.resize(f32, f640, Rect(), Rect()); }});
    }
    ops.push_back({"rotate 90", [&] { rotateFrame(bgr, Rotate90, turned); }});
    ops.push_back({"rotate 180", [&] { rotateFrame(bgr, Rotate180, turned); }});
    ops.push_back({"fp16->fp32", [&] { convertFp16ToFp32(halves.data(), halves.size(), floats.data()); }});
    ops.push_back({"fp32->fp16", [&] { convertFp32ToFp16(floats.data(), floats.size(), halves.data()); }});
    const std::string filter = argc > 3 ? argv[3] : "";
    for (auto& op : ops) {
        if (!filter.empty() && op.name.find(filter) == std::string::npos) continue;
        if (budget < 0) {
            try { op.call(); op.call(); } catch (const std::exception&) { continue; }
            CALLGRIND_TOGGLE_COLLECT;
            for (int i = 0; i < runs; ++i) op.call();
            CALLGRIND_TOGGLE_COLLECT;
            CALLGRIND_DUMP_STATS_AT(op.name.c_str());
            continue;
        }
        double t = 0;
        try { t = bestSecondsPerCall(op.call, budget, runs); } catch (const std::exception& e) { t = -1; }
        std::printf("%s\t%.9f\n", op.name.c_str(), t);
        std::fflush(stdout);
    }
}
