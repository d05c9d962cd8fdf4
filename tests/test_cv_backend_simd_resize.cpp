// CvBackendSimd's bilinear resize of byte planes, which runs the bilinear
// scalers' row kernels per plane with each plane's own sizes: every plane kind
// of 1 to 4 channels (4:2:0, NV12 and 4:2:2 chroma included) against an exact
// integer oracle of the 16.16 formulas and against OpenCV's INTER_LINEAR
// within 2, from source regions into regions of padded caller memory, with
// the vector and the scalar kernels; the 1-pixel nearest rule; the per-object
// table cache (reuse with other sizes and contents, copies, no steady-state
// allocation); and the 4 x 4 three-channel area kernel against its reference
// and OpenCV.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "alloc_count.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_fast_kernels.h"
#include "test_util.h"
#include "wrapped_frame.h"

using namespace kv;

namespace {

namespace fast = impl::fast;

// 16.16 centre-aligned positions, clamped at 0.
std::vector<int64_t> positions(int src, int dst) {
    const int64_t step = (int64_t(src) << 16) / dst;
    std::vector<int64_t> t(static_cast<size_t>(dst));
    for (int i = 0; i < dst; ++i) t[size_t(i)] = std::max<int64_t>(0, (step - 65536) / 2 + i * step);
    return t;
}

// The bilinear plane as the formulas define it: horizontal, then vertical,
// each (a * (65536 - f) + b * f) >> 16; neighbours past the edge are the
// edge sample.
std::vector<uint8_t> bilinearOracle(const uint8_t* src, size_t step, int sw, int sh, int dw, int dh, int ch) {
    const auto xs = positions(sw, dw), ys = positions(sh, dh);
    std::vector<uint8_t> out(size_t(dw) * size_t(dh) * size_t(ch));
    for (int y = 0; y < dh; ++y) {
        const int sy = int(ys[size_t(y)] >> 16), sy1 = std::min(sy + 1, sh - 1);
        const int64_t fy = ys[size_t(y)] & 0xFFFF;
        for (int x = 0; x < dw; ++x) {
            const int sx = int(xs[size_t(x)] >> 16), sx1 = sx < sw - 1 ? sx + 1 : sx;
            const int64_t fx = xs[size_t(x)] & 0xFFFF;
            for (int c = 0; c < ch; ++c) {
                const auto h = [&](int r) {
                    const uint8_t* row = src + size_t(r) * step;
                    return (row[sx * ch + c] * (65536 - fx) + row[sx1 * ch + c] * fx) >> 16;
                };
                out[(size_t(y) * size_t(dw) + size_t(x)) * size_t(ch) + size_t(c)] =
                    uint8_t((h(sy) * (65536 - fy) + h(sy1) * fy) >> 16);
            }
        }
    }
    return out;
}

// A plane of `f` as (pointer, step, width, height, channels).
struct PlaneView {
    uint8_t* data;
    size_t step;
    int width, height, channels;
};

PlaneView view(Frame& f, int p) {
    const FramePlane& pl = f.layout().plane[p];
    return {f.planeCpuData(size_t(p)), pl.step, pl.size.width, pl.size.height, int(pl.channels)};
}

const FrameFormat kByteFormats[] = {FRAME_GRAY_8, FRAME_C2_8,  FRAME_BGR_8, FRAME_C4_8,          FRAME_I420,
                                    FRAME_NV12,   FRAME_NV21,  FRAME_YV16,  FRAME_BGR_8_PLANAR, FRAME_NV16};

struct SizePair {
    Size from, to;
};

// Reductions (gentle, 1/3 and past the vector kernel's reach), enlargements,
// one axis only, equal sizes, odd sizes, a one-pixel source, wide rows.
const SizePair kPairs[] = {
    {{37, 23}, {12, 9}},  {{12, 9}, {37, 23}},   {{40, 30}, {40, 17}}, {{40, 30}, {23, 30}}, {{21, 15}, {21, 15}},
    {{5, 3}, {2, 2}},     {{2, 2}, {6, 5}},      {{1, 1}, {6, 5}},     {{162, 6}, {54, 4}},  {{100, 8}, {13, 3}},
    {{30, 4}, {97, 7}},   {{1921, 3}, {640, 2}},
};

// Source frame of the pair's size plus a margin, and the region resized.
constexpr int kMargin = 2;

}  // namespace

TEST(CvBackendSimdBilinear, EveryBytePlaneMatchesTheFormulasAndOpenCv) {
    for (impl::Isa isa : kvtest::availableIsas()) {
        kvtest::IsaCap cap(isa);
        for (FrameFormat f : kByteFormats)
            for (const SizePair& sp : kPairs)
                for (bool with_roi : {false, true}) {
                    const std::string what = std::string(toString(f)) + " " + std::to_string(sp.from.width) + "x" +
                                             std::to_string(sp.from.height) + " -> " + std::to_string(sp.to.width) +
                                             "x" + std::to_string(sp.to.height) + (with_roi ? " roi" : "") +
                                             (isa == impl::Isa::kAvx2 ? " avx2" : " scalar");
                    const int m = with_roi ? kMargin : 0;
                    auto src = kvtest::wrappedFrame(f, Size(sp.from.width + 2 * m, sp.from.height + 2 * m), 3,
                                                    uint32_t(sp.from.width * 7 + int(f)));
                    auto dst = kvtest::wrappedFrame(f, Size(sp.to.width + 2 * m, sp.to.height + m), 5, 0);
                    const Rect src_roi = with_roi ? Rect(m, m, sp.from.width, sp.from.height) : Rect();
                    const Rect dst_roi = with_roi ? Rect(m, m, sp.to.width, sp.to.height) : Rect();
                    const std::vector<std::vector<uint8_t>> before = dst.memory;
                    CvBackendSimd b;  // bilinear by default
                    b.resize(src.frame, dst.frame, src_roi, dst_roi);
                    Frame s = with_roi ? getRegion(src.frame, src_roi) : src.frame;
                    Frame d = with_roi ? getRegion(dst.frame, dst_roi) : dst.frame;
                    for (uint32_t p = 0; p < s.layout().planes; ++p) {
                        const PlaneView sv = view(s, int(p)), dv = view(d, int(p));
                        const auto expect =
                            bilinearOracle(sv.data, sv.step, sv.width, sv.height, dv.width, dv.height, sv.channels);
                        std::vector<uint8_t> cv(expect.size());
                        fast::resizePlaneWithLibrary(sv.data, sv.step, sv.width, sv.height, cv.data(),
                                                     size_t(dv.width * dv.channels), dv.width, dv.height, sv.channels,
                                                     false, fast::Interpolation::kBilinear);
                        // Every byte of the plane's memory: inside the region the
                        // oracle's value, outside it unchanged.
                        const std::vector<uint8_t>& mem = dst.memory[p];
                        const size_t origin = size_t(dv.data - mem.data());
                        const size_t row_bytes = size_t(dv.width * dv.channels);
                        for (size_t i = 0; i < mem.size(); ++i) {
                            const bool inside = i >= origin && (i - origin) % dv.step < row_bytes &&
                                                (i - origin) / dv.step < size_t(dv.height);
                            if (!inside) {
                                ASSERT_EQ(mem[i], before[p][i]) << what << " plane " << p << " byte " << i;
                                continue;
                            }
                            const size_t k = (i - origin) / dv.step * row_bytes + (i - origin) % dv.step;
                            ASSERT_EQ(mem[i], expect[k]) << what << " plane " << p << " sample " << k;
                            ASSERT_LE(std::abs(int(mem[i]) - int(cv[k])), 2) << what << " plane " << p << " sample "
                                                                              << k;
                        }
                    }
                }
    }
}

TEST(CvBackendSimdBilinear, OnePixelWideOrHighDestinationsSampleNearest) {
    // The region decides: a 7 x 1 I420 region has 4 x 1 chroma, a 1 x 6 BGR
    // region one column; every plane takes the nearest path's bytes.
    for (FrameFormat f : {FRAME_I420, FRAME_BGR_8, FRAME_NV12})
        for (Size to : {Size(7, 1), Size(1, 6), Size(1, 1)}) {
            const Frame src = kvtest::randomFrame(f, Size(20, 14), 5);
            Frame dst(f, Size(10, 8));
            dst.setZero();
            CvBackendSimd b;
            b.resize(src, dst, Rect(), Rect(2, 2, to.width, to.height));
            Frame s = src;
            Frame d = getRegion(dst, Rect(2, 2, to.width, to.height));
            for (uint32_t p = 0; p < s.layout().planes; ++p) {
                const PlaneView sv = view(s, int(p)), dv = view(d, int(p));
                std::vector<uint8_t> expect(size_t(dv.width * dv.channels * dv.height));
                fast::resizePlaneWithLibrary(sv.data, sv.step, sv.width, sv.height, expect.data(),
                                             size_t(dv.width * dv.channels), dv.width, dv.height, sv.channels, false,
                                             fast::Interpolation::kNearest);
                for (int y = 0; y < dv.height; ++y)
                    ASSERT_EQ(0, std::memcmp(dv.data + size_t(y) * dv.step,
                                             expect.data() + size_t(y * dv.width * dv.channels),
                                             size_t(dv.width * dv.channels)))
                        << toString(f) << " " << to.width << "x" << to.height << " plane " << p << " row " << y;
            }
        }
}

TEST(CvBackendSimdBilinear, TablesAreAPerObjectCache) {
    const Size big(64, 48), small(24, 18);
    const Frame a = kvtest::randomFrame(FRAME_I420, big, 1), a2 = kvtest::randomFrame(FRAME_I420, big, 2);
    const Frame c = kvtest::randomFrame(FRAME_I420, Size(30, 20), 3);
    const auto fresh = [&](const Frame& src, Size to) {
        Frame out(FRAME_I420, to);
        CvBackendSimd().resize(src, out, Rect(), Rect());
        return out;
    };
    // One object through other sizes and other contents of the same size:
    // no stale table or row survives.
    CvBackendSimd b;
    Frame out(FRAME_I420, small), other(FRAME_I420, Size(50, 40));
    b.resize(a, out, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(out, fresh(a, small)));
    b.resize(a2, out, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(out, fresh(a2, small)));
    b.resize(c, other, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(other, fresh(c, Size(50, 40))));
    b.resize(a, out, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(out, fresh(a, small)));
    // Two-row sources: the rows a call ends on are the rows the next starts with.
    const Frame t1 = kvtest::randomFrame(FRAME_I420, Size(6, 2), 4), t2 = kvtest::randomFrame(FRAME_I420, Size(6, 2), 5);
    Frame tall(FRAME_I420, Size(9, 5));
    b.resize(t1, tall, Rect(), Rect());
    b.resize(t2, tall, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(tall, fresh(t2, Size(9, 5))));
    // Copies and assignments resize alike, each with its own tables.
    CvBackendSimd copy(b);
    CvBackendSimd assigned;
    assigned = b;
    Frame o1(FRAME_I420, small), o2(FRAME_I420, small);
    copy.resize(a2, o1, Rect(), Rect());
    assigned.resize(a2, o2, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(o1, fresh(a2, small)));
    EXPECT_TRUE(kvtest::framesEqual(o2, fresh(a2, small)));
    // Steady state: a repeated resize (whole frames or regions) allocates nothing.
    b.resize(a, out, Rect(2, 2, 40, 30), Rect());
    const size_t before = kvtest::allocationCount();
    b.resize(a2, out, Rect(2, 2, 40, 30), Rect());
    b.resize(a, out, Rect(2, 2, 40, 30), Rect());
    EXPECT_EQ(kvtest::allocationCount(), before);
}

TEST(CvBackendSimdBilinear, ResizePlaneWithoutACacheGivesTheSameBytes) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(33, 17), 9);
    Frame viaBackend(FRAME_BGR_8, Size(50, 11));
    CvBackendSimd().resize(src, viaBackend, Rect(), Rect());
    std::vector<uint8_t> direct(size_t(50 * 3 * 11));
    fast::resizePlane(src.planeCpuData(0), src.layout().plane[0].step, 33, 17, direct.data(), 150, 50, 11, 3, false,
                      fast::Interpolation::kBilinear);
    for (int y = 0; y < 11; ++y)
        ASSERT_EQ(0, std::memcmp(viaBackend.rowCpuData(0, y), direct.data() + y * 150, 150)) << "row " << y;
}

// ---- 4 x 4 area kernel for 3-byte pixels ------------------------------------------

TEST(FastAreaBox4x4C3, VectorMatchesReferenceAcrossStrips) {
    if (impl::detectedIsa() < impl::Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    const impl::FastKernels& ref = impl::fastKernels(impl::Isa::kScalar);
    const impl::FastKernels& avx = impl::fastKernels(impl::Isa::kAvx2);
    // Widths around the four-pixel step and the 512-pixel strip; odd heights.
    std::vector<int> widths;
    for (int w = 1; w <= 67; ++w) widths.push_back(w);
    for (int w : {511, 512, 513, 515, 1024, 1029}) widths.push_back(w);
    for (int w : widths)
        for (int h : {1, 3}) {
            const size_t src_step = size_t(w * 12) + 7, dst_step = size_t(w * 3) + 5;
            std::vector<uint8_t> src(src_step * size_t(4 * h - 1) + size_t(w * 12));
            std::mt19937 rng(uint32_t(w * 3 + h));
            for (auto& v : src) v = uint8_t(rng());
            // Sums at the rounding ties (8 mod 16) in the first rows.
            for (size_t i = 0; i < std::min(src.size(), src_step * 4); ++i) src[i] = uint8_t(i % 16 == 0 ? 8 : 0);
            std::vector<uint8_t> a(dst_step * size_t(h), 0xcd), b(dst_step * size_t(h), 0xcd);
            ref.areaBox(src.data(), src_step, a.data(), dst_step, w, h, 3, 4, 4);
            avx.areaBox(src.data(), src_step, b.data(), dst_step, w, h, 3, 4, 4);
            ASSERT_EQ(a, b) << "width " << w << " height " << h;
            for (int y = 0; y < h; ++y)
                for (size_t i = size_t(w * 3); i < dst_step; ++i) ASSERT_EQ(b[size_t(y) * dst_step + i], 0xcd);
        }
}

TEST(FastAreaBox4x4C3, MatchesOpenCvInterArea) {
    for (int w : {1, 5, 480, 517}) {
        const int h = 3, sw = 4 * w, sh = 4 * h;
        const size_t src_step = size_t(sw * 3) + 1, dst_step = size_t(w * 3);
        std::vector<uint8_t> src(src_step * size_t(sh));
        std::mt19937 rng{uint32_t(w)};
        for (auto& v : src) v = uint8_t(rng());
        for (size_t i = 0; i < src.size() / 2; ++i) src[i] = uint8_t(i % 5 == 0 ? 8 : 0);
        std::vector<uint8_t> a(dst_step * size_t(h)), b(dst_step * size_t(h));
        fast::resizePlane(src.data(), src_step, sw, sh, a.data(), dst_step, w, h, 3, false, fast::Interpolation::kArea);
        fast::resizePlaneWithLibrary(src.data(), src_step, sw, sh, b.data(), dst_step, w, h, 3, false,
                                     fast::Interpolation::kArea);
        ASSERT_EQ(a, b) << "width " << w;
    }
}

// ---- nearest: the byte gather against the plain loop ----------------------------------

TEST(FastNearestGather, MatchesThePlainLoopForEveryPixelSize) {
    std::vector<std::pair<Size, Size>> cases;
    for (int w = 1; w <= 67; ++w) cases.push_back({Size(w * 3 / 2 + 1, 5), Size(w, 7)});
    for (int w = 1; w <= 67; ++w) cases.push_back({Size(w, 3), Size(w * 2 + 1, 4)});
    for (int sw : {1920, 1921})
        for (Size to : {Size(2880, 9), Size(1280, 5), Size(224, 4), Size(1921, 3), Size(67, 6)})
            cases.push_back({Size(sw, 6), to});
    for (impl::Isa isa : kvtest::availableIsas()) {
        kvtest::IsaCap cap(isa);
        for (int channels = 1; channels <= 4; ++channels)
            for (bool is_float : {false, true})
                for (const auto& [from, to] : cases) {
                    const size_t pixel = size_t(channels) * (is_float ? 4 : 1);
                    const size_t src_step = size_t(from.width) * pixel + 4, dst_step = size_t(to.width) * pixel + 4;
                    std::vector<uint8_t> src(src_step * size_t(from.height));
                    std::mt19937 rng(uint32_t(from.width * 5 + to.width + channels));
                    for (auto& v : src) v = uint8_t(rng());
                    std::vector<uint8_t> a(dst_step * size_t(to.height), 0xA5), b(a);
                    fast::PlaneResizeCache cache;
                    fast::resizePlane(src.data(), src_step, from.width, from.height, a.data(), dst_step, to.width,
                                      to.height, channels, is_float, fast::Interpolation::kNearest, &cache);
                    fast::resizePlaneWithLibrary(src.data(), src_step, from.width, from.height, b.data(), dst_step,
                                                 to.width, to.height, channels, is_float,
                                                 fast::Interpolation::kNearest);
                    ASSERT_EQ(a, b) << impl::isaName(isa) << " " << channels << (is_float ? " floats " : " bytes ")
                                    << from.width << "x" << from.height << " -> " << to.width << "x" << to.height;
                }
    }
}
