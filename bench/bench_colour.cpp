// Colour conversion at 1920x1080, one thread: every pair each backend's
// colorCvt accepts (found by asking both backends at start-up; copies to the
// same format included), each beside a memcpy of the larger of its source and
// destination (ColourMatrix/PAIR/base, fast, memcpy), and the calls where a
// third-party library is the yardstick, beside that library on the same
// frames (ColourPeer/CASE/kv and libyuv or opencv). scripts/bench-colour
// prints the matrix as memcpy multiples, worst first, and the peer ratios.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "kv_core/kv_buffer.h"
#include "kv_core/kv_exception.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_impl_cpu.h"
#include "bench_util.h"

using namespace kv;

namespace {

const Size kFull(1920, 1080);

using kvbench::mat;
using kvbench::noiseFrame;
using kvbench::pitch;

size_t frameBytes(const Frame& f) {
    size_t n = 0;
    for (uint32_t p = 0; p < f.layout().planes; ++p)
        n += f.layout().plane[p].row_bytes * size_t(f.layout().plane[p].size.height);
    return n;
}

std::string shortName(FrameFormat f) {
    const std::string s = toString(f);
    return s.rfind("FRAME_", 0) == 0 ? s.substr(6) : s;
}

// A case that also records its fastest single call (counter best_ms): on a
// shared machine the fastest call is the one least disturbed by others.
void add(const std::string& name, std::function<void()> fn) {
    benchmark::RegisterBenchmark(name.c_str(), [fn](benchmark::State& st) {
        double best = 1e30;
        for (auto _ : st) {
            const auto t0 = std::chrono::steady_clock::now();
            fn();
            best = std::min(best, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
        }
        st.counters["best_ms"] = best;
    })->Unit(benchmark::kMillisecond);
}

bool accepts(ICvBackend& b, FrameFormat s, FrameFormat d) {
    try {
        Frame src(s, Size(4, 4)), dst(d, Size(4, 4));
        src.setZero();
        b.colorCvt(src, dst, Rect());
        return true;
    } catch (const Exception&) {
        return false;
    }
}

struct Registrar {
    Registrar() {
        cv::setNumThreads(1);
        static const FrameFormat formats[] = {
            FRAME_GRAY_8, FRAME_RGB_8,  FRAME_RGB_8_PLANAR, FRAME_BGR_8,         FRAME_BGR_8_PLANAR,
            FRAME_I420,   FRAME_YV12,   FRAME_NV12,         FRAME_NV21,          FRAME_YV16,
            FRAME_YUYV,   FRAME_UYVY,   FRAME_NV16,         FRAME_YUV444,        FRAME_YUV444_PLANAR,
            FRAME_C2_8,   FRAME_C3_8,   FRAME_C4_8,         FRAME_GRAY_16,       FRAME_GRAY_FLOAT_32,
            FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR};
        static CvBackendBase base;
        static CvBackendSimd fast;
        // One source and one destination frame per format, one memcpy pair per
        // size, shared by the cases (and created only for formats in use).
        static std::map<FrameFormat, std::shared_ptr<Frame>> sources, targets;
        struct CopyPair {
            Buffer from, to;
        };
        static std::map<size_t, std::shared_ptr<CopyPair>> copies;
        const auto frame = [](std::map<FrameFormat, std::shared_ptr<Frame>>& pool, FrameFormat f, bool noise) {
            std::shared_ptr<Frame>& p = pool[f];
            if (!p) p = std::make_shared<Frame>(noise ? noiseFrame(f, kFull, uint32_t(f)) : Frame(f, kFull));
            return p;
        };
        for (FrameFormat s : formats)
            for (FrameFormat d : formats) {
                const bool on_base = accepts(base, s, d), on_fast = accepts(fast, s, d);
                if (!on_base && !on_fast) continue;
                const std::shared_ptr<Frame> src = frame(sources, s, true), dst = frame(targets, d, false);
                const std::string name = "ColourMatrix/" + shortName(s) + "_to_" + shortName(d);
                if (on_base) add(name + "/base", [src, dst] { base.colorCvt(*src, *dst, Rect()); });
                if (on_fast) add(name + "/fast", [src, dst] { fast.colorCvt(*src, *dst, Rect()); });
                const size_t bytes = std::max(frameBytes(*src), frameBytes(*dst));
                std::shared_ptr<CopyPair>& pair = copies[bytes];
                if (!pair) {
                    pair = std::make_shared<CopyPair>();
                    for (Buffer* b : {&pair->from, &pair->to}) {
                        b->resize(bytes);
                        std::memset(b->data(), b == &pair->from, bytes);
                    }
                }
                add(name + "/memcpy", [pair, bytes] {
                    std::memcpy(pair->to.data(), pair->from.data(), bytes);
                    benchmark::ClobberMemory();
                });
            }

        // ---- the calls measured against one library ----
        static Frame bgr = noiseFrame(FRAME_BGR_8, kFull, 1);
        static Frame i420 = noiseFrame(FRAME_I420, kFull, 3);
        static Frame gray(FRAME_GRAY_8, kFull), out_i420(FRAME_I420, kFull), out_bgr(FRAME_BGR_8, kFull);
        static Frame turned(FRAME_BGR_8, Size(kFull.height, kFull.width));
        // Each kv case also capped to AVX2, to show what the AVX-512 kernels add.
        const auto both = [](const std::string& name, std::function<void()> fn) {
            add(name + "/kv", [fn] {
                impl::setMaxIsaForTesting(impl::Isa::kAvx512);
                fn();
            });
            add(name + "/kv_avx2", [fn] {
                impl::setMaxIsaForTesting(impl::Isa::kAvx2);
                fn();
                impl::setMaxIsaForTesting(impl::Isa::kAvx512);
            });
        };
        both("ColourPeer/BGR_to_GRAY", [] { fast.colorCvt(bgr, gray, Rect()); });
        add("ColourPeer/BGR_to_GRAY/libyuv", [] {
            libyuv::RGB24ToJ400(bgr.planeCpuData(0), pitch(bgr, 0), gray.planeCpuData(0), pitch(gray, 0),
                                kFull.width, kFull.height);
        });
        both("ColourPeer/BGR_to_I420", [] { fast.colorCvt(bgr, out_i420, Rect()); });
        add("ColourPeer/BGR_to_I420/libyuv", [] {
            libyuv::RGB24ToI420(bgr.planeCpuData(0), pitch(bgr, 0), out_i420.planeCpuData(0), pitch(out_i420, 0),
                                out_i420.planeCpuData(1), pitch(out_i420, 1), out_i420.planeCpuData(2),
                                pitch(out_i420, 2), kFull.width, kFull.height);
        });
        both("ColourPeer/I420_to_BGR", [] { fast.colorCvt(i420, out_bgr, Rect()); });
        add("ColourPeer/I420_to_BGR/libyuv", [] {
            libyuv::I420ToRGB24(i420.planeCpuData(0), pitch(i420, 0), i420.planeCpuData(1), pitch(i420, 1),
                                i420.planeCpuData(2), pitch(i420, 2), out_bgr.planeCpuData(0), pitch(out_bgr, 0),
                                kFull.width, kFull.height);
        });
        both("ColourPeer/Rotate90_BGR", [] { rotateFrame(bgr, Rotate90, turned); });
        add("ColourPeer/Rotate90_BGR/opencv", [] {
            cv::Mat d = mat(turned, 0, CV_8UC3);
            cv::rotate(mat(bgr, 0, CV_8UC3), d, cv::ROTATE_90_CLOCKWISE);
        });
        constexpr size_t kCount = 1920 * 1080;
        static std::vector<uint16_t> halves(kCount, 0x3c00);
        static std::vector<float> floats(kCount, 1.f);
        both("ColourPeer/HalfToFloat_2073600", [] { convertFp16ToFp32(halves.data(), kCount, floats.data()); });
        add("ColourPeer/HalfToFloat_2073600/opencv", [] {
            cv::Mat s(1, int(kCount), CV_16F, halves.data()), d(1, int(kCount), CV_32F, floats.data());
            s.convertTo(d, CV_32F);
        });
    }
} registrar;

}  // namespace
