// The fast backend's area resize where OpenCV computes it in its own ways:
// reductions at ratios that are not whole numbers (kv_impl_fast_area) and
// sizes with an enlarging axis (kv_impl_fast_area_up). OpenCV's tables on
// worked numbers, the AVX2 row kernels against the scalar references bit for
// bit over odd and full-HD widths and every channel count, and whole planes,
// bytes and floats (signed zeros, infinities and NaNs included), against
// cv::resize itself over many sizes, directly and through CvBackendSimd.
#include <gtest/gtest.h>

#include <algorithm>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "alloc_count.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_fast_area.h"
#include "kv_cv/kv_impl_fast_area_up.h"
#include "test_util.h"

using namespace kv;

namespace {

namespace fast = impl::fast;
using impl::Isa;

struct Plane {
    int width, height, channels;
    bool bytes;
    size_t step;
    std::vector<uint8_t> data;
};

// Random plane with a padded pitch; float planes hold values in 0..255 with
// every `special`-th value replaced by a signed zero, a negative, a huge value
// or (with `nonfinite`) an infinity or a NaN.
Plane randomPlane(int w, int h, int channels, bool bytes, uint32_t seed, bool nonfinite = false) {
    Plane p{w, h, channels, bytes, size_t(w * channels) * (bytes ? 1 : 4) + 12, {}};
    p.data.resize(p.step * size_t(h));
    std::mt19937 rng(seed);
    for (int y = 0; y < h; ++y) {
        uint8_t* row = p.data.data() + size_t(y) * p.step;
        for (int i = 0; i < w * channels; ++i) {
            if (bytes) {
                row[i] = uint8_t(rng());
                continue;
            }
            float v = float(rng() % 25600) / 100.f;
            switch (rng() % 23) {
                case 0: v = -0.f; break;
                case 1: v = -v; break;
                case 2: v = 3e37f; break;
                case 3: if (nonfinite) v = std::numeric_limits<float>::infinity(); break;
                case 4: if (nonfinite) v = std::numeric_limits<float>::quiet_NaN(); break;
                default: break;
            }
            std::memcpy(row + size_t(i) * 4, &v, 4);
        }
    }
    return p;
}

// Compares the rows' bytes (float bit patterns included).
::testing::AssertionResult sameRows(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, size_t step,
                                    size_t row_bytes, int rows) {
    for (int y = 0; y < rows; ++y)
        for (size_t i = 0; i < row_bytes; ++i)
            if (a[size_t(y) * step + i] != b[size_t(y) * step + i])
                return ::testing::AssertionFailure() << "row " << y << " byte " << i << ": " << int(a[size_t(y) * step + i])
                                                     << " vs " << int(b[size_t(y) * step + i]);
    return ::testing::AssertionSuccess();
}

std::vector<uint8_t> resized(const Plane& p, int dw, int dh, bool library, fast::PlaneResizeCache* cache = nullptr) {
    const size_t step = size_t(dw * p.channels) * (p.bytes ? 1 : 4) + (p.bytes ? 5 : 8);
    std::vector<uint8_t> out(step * size_t(dh), 0xA5);
    if (library)
        fast::resizePlaneWithLibrary(p.data.data(), p.step, p.width, p.height, out.data(), step, dw, dh, p.channels,
                                     !p.bytes, fast::Interpolation::kArea);
    else
        fast::resizePlane(p.data.data(), p.step, p.width, p.height, out.data(), step, dw, dh, p.channels, !p.bytes,
                          fast::Interpolation::kArea, cache);
    return out;
}

}  // namespace

TEST(CvAreaTable, FollowsOpenCvsCells) {
    // 5 -> 2: cells [0, 2.5) and [2.5, 5), weights 1/2.5 and the half pixel 0.5/2.5.
    std::vector<impl::CvAreaTap> t;
    impl::buildCvAreaTable(5, 2, t);
    ASSERT_EQ(t.size(), 6u);
    const impl::CvAreaTap want[] = {{0, 0, 0.4f}, {0, 1, 0.4f}, {0, 2, 0.2f}, {1, 2, 0.2f}, {1, 3, 0.4f}, {1, 4, 0.4f}};
    for (size_t i = 0; i < t.size(); ++i) {
        EXPECT_EQ(t[i].dst, want[i].dst) << i;
        EXPECT_EQ(t[i].src, want[i].src) << i;
        EXPECT_EQ(t[i].alpha, want[i].alpha) << i;
    }
    // Which ratios OpenCV decimates: both axes reduce, not both by whole numbers.
    EXPECT_TRUE(impl::cvAreaDecimates(1920, 1080, 1280, 720));
    EXPECT_TRUE(impl::cvAreaDecimates(1920, 1080, 960, 1000));
    EXPECT_FALSE(impl::cvAreaDecimates(1920, 1080, 960, 1080));
    EXPECT_TRUE(impl::cvAreaDecimates(1921, 1080, 960, 540));
    EXPECT_FALSE(impl::cvAreaDecimates(1920, 1080, 640, 360));
    EXPECT_FALSE(impl::cvAreaDecimates(1920, 1080, 2880, 720));
    EXPECT_FALSE(impl::cvAreaDecimates(100, 100, 100, 100));
}

struct KernelCase {
    int src, dst;
};

TEST(CvAreaKernels, VectorMatchesReference) {
    if (impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    std::vector<KernelCase> cases;
    for (int d = 1; d <= 67; ++d)
        for (int s : {d + 1, d * 3 / 2 + 1, d * 2 + 1, d * 11 / 4 + 1, d * 5 - 2, d * 9 + 4}) cases.push_back({s, d});
    for (int s : {1920, 1921})
        for (int d : {1280, 700, 416, 224, 33, 1919}) cases.push_back({s, d});
    int window_blocks = 0, two_load_blocks = 0, quad_blocks = 0, wide_one = 0, wide_two = 0, wide_split = 0;
    int float_groups[3] = {0, 0, 0};  // float permute plans of 1, 2 and 4 groups
    const bool avx512 = impl::detectedIsa() >= Isa::kAvx512;
    for (int channels = 1; channels <= 4; ++channels)
        for (bool bytes : {true, false})
            for (const KernelCase& c : cases) {
                const Plane src = randomPlane(c.src, 7, channels, bytes, uint32_t(c.src * 31 + c.dst + channels), true);
                impl::CvAreaPlan plan;
                impl::buildCvAreaPlan(plan, c.src, 7, c.dst, 3, channels, bytes);
                if (!bytes && plan.row.win_loads) {
                    const int ok = int(std::count(plan.row.win_ok.begin(), plan.row.win_ok.end(), 1));
                    window_blocks += ok;
                    if (plan.row.win_loads == 2) two_load_blocks += ok;
                    if (plan.row.taps <= 4) quad_blocks += ok;
                }
                const size_t step = size_t(c.dst * channels) * (bytes ? 1 : 4) + 3;
                std::vector<uint8_t> a(step * 3, 0xA5), b(step * 3, 0xA5);
                impl::LineVector<float> rows(size_t(plan.stride) * size_t(plan.ring));
                std::vector<const float*> pointers(size_t(plan.max_rows));
                impl::cvAreaResize(plan, src.data.data(), src.step, a.data(), step, rows.data(), pointers.data(),
                                   Isa::kScalar);
                impl::cvAreaResize(plan, src.data.data(), src.step, b.data(), step, rows.data(), pointers.data(),
                                   Isa::kAvx2);
                ASSERT_EQ(a, b) << channels << " channels " << (bytes ? "bytes " : "floats ") << c.src << " -> "
                                << c.dst;
                if (!avx512) continue;
                if (bytes && plan.row.wide_blocks)
                    ++(plan.row.wide_tables == 3 ? wide_split : plan.row.wide_tables == 2 ? wide_two : wide_one);
                if (!bytes && plan.row.fperm_blocks) ++float_groups[plan.row.fperm_groups / 2];
                std::vector<uint8_t> w(step * 3, 0xA5);
                impl::cvAreaResize(plan, src.data.data(), src.step, w.data(), step, rows.data(), pointers.data(),
                                   Isa::kAvx512);
                ASSERT_EQ(a, w) << "AVX-512, " << channels << " channels " << (bytes ? "bytes " : "floats ") << c.src
                                << " -> " << c.dst;
            }
    // Byte rows take the 16-value permutes, of one window, of two, and split in halves.
    if (avx512) {
        EXPECT_GT(wide_one, 50);
        EXPECT_GT(wide_two, 50);
        EXPECT_GT(wide_split, 30);
        // Float rows permute in one group, two and four.
        for (int n : float_groups) EXPECT_GT(n, 30);
    }
    // Float rows of one channel load windows (of 4, 8 and 16 samples), not only gathers.
    EXPECT_GT(window_blocks, 500);
    EXPECT_GT(two_load_blocks, 50);
    EXPECT_GT(quad_blocks, 50);
}

// Sizes that OpenCV decimates: full HD to common outputs, odd sizes, one axis
// only, single rows and columns, ratios just above 1.
const std::pair<Size, Size> kPlaneCases[] = {
    {{1920, 1080}, {1280, 720}}, {{1920, 1080}, {700, 500}}, {{1920, 1080}, {416, 416}}, {{1920, 1080}, {224, 224}},
    {{1921, 1081}, {640, 360}},  {{960, 540}, {640, 360}},   {{37, 23}, {12, 9}},        {{37, 23}, {37, 9}},
    {{37, 23}, {12, 23}},        {{5, 3}, {2, 2}},           {{100, 1}, {33, 1}},        {{1, 100}, {1, 33}},
    {{67, 67}, {66, 65}},        {{131, 7}, {43, 5}},        {{300, 200}, {7, 3}},       {{2000, 11}, {3, 2}},
};

TEST(CvAreaPlanes, MatchOpenCvBitForBit) {
    for (Isa isa : kvtest::availableIsas()) {
        kvtest::IsaCap cap(isa);
        for (int channels = 1; channels <= 4; ++channels)
            for (bool bytes : {true, false})
                for (const auto& [from, to] : kPlaneCases) {
                    // Full HD planes once per kind: they take a while in OpenCV.
                    if (from.width > 1000 && (channels == 2 || isa == Isa::kScalar)) continue;
                    ASSERT_TRUE(impl::cvAreaDecimates(from.width, from.height, to.width, to.height));
                    const Plane src = randomPlane(from.width, from.height, channels, bytes,
                                                  uint32_t(from.width + to.height * 7 + channels), true);
                    fast::PlaneResizeCache cache;
                    const auto ours = resized(src, to.width, to.height, false, &cache);
                    const auto cv = resized(src, to.width, to.height, true);
                    const size_t step = ours.size() / size_t(to.height);
                    ASSERT_TRUE(sameRows(ours, cv, step, size_t(to.width * channels) * (bytes ? 1 : 4), to.height))
                        << impl::isaName(isa) << " " << channels << " channels " << (bytes ? "bytes " : "floats ")
                        << from.width << "x" << from.height << " -> " << to.width << "x" << to.height;
                    // Bytes past the rows stay untouched.
                    for (int y = 0; y < to.height; ++y)
                        for (size_t i = size_t(to.width * channels) * (bytes ? 1 : 4); i < step; ++i)
                            ASSERT_EQ(ours[size_t(y) * step + i], 0xA5);
                }
    }
}

TEST(CvAreaPlanes, BackendAreaMatchesOpenCvPerPlaneAndAllocatesNothingOnceWarm) {
    for (FrameFormat f : {FRAME_GRAY_8, FRAME_BGR_8, FRAME_I420, FRAME_NV12, FRAME_YV16, FRAME_UYVY, FRAME_C4_8,
                          FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR}) {
        const Frame src = kvtest::randomFrame(f, Size(150, 94), uint32_t(f));
        Frame dst(f, Size(64, 38));
        CvBackendSimd b;
        b.setIntProperty(ICvBackend::kPropertyResizeMethod, ResizeArea);
        for (Size to : {Size(64, 38), Size(226, 142), Size(64, 140)}) {  // reduced, enlarged, both
            dst.reuse(f, to, DeviceContext::cpuContext());
            b.resize(src, dst, Rect(), Rect());
            for (uint32_t p = 0; p < src.layout().planes; ++p) {
                const FramePlane& sp = src.layout().plane[p];
                const FramePlane& dp = dst.layout().plane[p];
                const size_t row = size_t(dp.row_bytes);
                std::vector<uint8_t> want(row * size_t(dp.size.height));
                // Packed 4:2:2 rows are resized as pixel pairs of 4 bytes.
                const bool pairs = f == FRAME_UYVY;
                fast::resizePlaneWithLibrary(src.planeCpuData(p), sp.step,
                                             pairs ? int(sp.row_bytes / 4) : sp.size.width, sp.size.height,
                                             want.data(), row, pairs ? int(row / 4) : dp.size.width,
                                             dp.size.height, pairs ? 4 : sp.channels, sp.bits_per_channel == 32,
                                             fast::Interpolation::kArea);
                for (int y = 0; y < dp.size.height; ++y)
                    ASSERT_EQ(0, std::memcmp(dst.rowCpuData(p, y), want.data() + size_t(y) * row, row))
                        << toString(f) << " " << to.width << "x" << to.height << " plane " << p << " row " << y;
            }
        }
        // Sizes that alternate rebuild the tables each time, in the memory they
        // have. (Reductions of float planes past 2 in width are OpenCV's own
        // call, which allocates inside; these stay within 2.)
        dst.reuse(f, Size(80, 50), DeviceContext::cpuContext());
        Frame other(f, Size(100, 61));
        b.resize(src, other, Rect(), Rect());
        b.resize(src, dst, Rect(), Rect());
        const size_t before = kvtest::allocationCount();
        b.resize(src, other, Rect(), Rect());
        b.resize(src, dst, Rect(), Rect());
        EXPECT_EQ(kvtest::allocationCount(), before) << toString(f);
    }
}

// ---- enlarging axes: OpenCV's linear emulation --------------------------------------

TEST(CvAreaUpKernels, VectorMatchesReference) {
    if (impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    std::vector<KernelCase> cases;
    for (int d = 1; d <= 67; ++d)
        for (int s : {std::max(1, d / 2), std::max(1, d * 2 / 3), d - 1 > 0 ? d - 1 : 1, std::max(1, d / 5)})
            cases.push_back({s, d});
    for (int s : {1920, 1921}) cases.push_back({s, 2880}), cases.push_back({s, 1923});
    // Widths that reduce (the rows enlarge): sixteen values span more than 64 bytes from 2 channels.
    cases.push_back({200, 67}), cases.push_back({130, 40});
    for (int channels = 1; channels <= 4; ++channels)
        for (const KernelCase& c : cases) {
            const Plane src = randomPlane(c.src, 5, channels, true, uint32_t(c.src * 13 + c.dst + channels));
            impl::CvLinearPlan plan;
            impl::buildCvLinearPlan(plan, c.src, 5, c.dst, 9, channels);
            const size_t step = size_t(c.dst * channels) + 3;
            std::vector<uint8_t> a(step * 9, 0xA5);
            impl::LineVector<int16_t> rows(size_t(plan.stride) * 2);
            impl::cvLinearResize(plan, src.data.data(), src.step, a.data(), step, rows.data(), Isa::kScalar);
            for (Isa isa : kvtest::availableIsas()) {
                if (isa == Isa::kScalar) continue;
                std::vector<uint8_t> b(step * 9, 0xA5);
                impl::cvLinearResize(plan, src.data.data(), src.step, b.data(), step, rows.data(), isa);
                ASSERT_EQ(a, b) << impl::isaName(isa) << " " << channels << " channels " << c.src << " -> " << c.dst;
            }
        }
}

// Enlargements, one axis enlarging and the other reducing or equal, odd sizes,
// one-pixel sources.
const std::pair<Size, Size> kUpCases[] = {
    {{1920, 1080}, {2880, 1620}}, {{1921, 1081}, {2881, 1620}}, {{640, 480}, {1920, 1080}}, {{37, 23}, {80, 50}},
    {{37, 23}, {80, 11}},         {{37, 23}, {12, 50}},         {{37, 23}, {37, 50}},       {{5, 3}, {7, 4}},
    {{1, 1}, {6, 5}},             {{2, 2}, {3, 9}},             {{100, 1}, {151, 2}},       {{3, 100}, {7, 301}},
};

TEST(CvAreaUpPlanes, MatchOpenCvBitForBit) {
    for (Isa isa : kvtest::availableIsas()) {
        kvtest::IsaCap cap(isa);
        for (int channels = 1; channels <= 4; ++channels)
            for (bool bytes : {true, false})  // floats: OpenCV's own call
                for (const auto& [from, to] : kUpCases) {
                    if (from.width > 1000 && (channels == 2 || isa == Isa::kScalar || !bytes)) continue;
                    ASSERT_TRUE(impl::cvAreaEnlarges(from.width, from.height, to.width, to.height));
                    const Plane src = randomPlane(from.width, from.height, channels, bytes,
                                                  uint32_t(from.width + to.height * 5 + channels), true);
                    fast::PlaneResizeCache cache;
                    const auto ours = resized(src, to.width, to.height, false, &cache);
                    const auto cv = resized(src, to.width, to.height, true);
                    const size_t step = ours.size() / size_t(to.height);
                    ASSERT_TRUE(sameRows(ours, cv, step, size_t(to.width * channels) * (bytes ? 1 : 4), to.height))
                        << impl::isaName(isa) << " " << channels << " channels " << (bytes ? "bytes " : "floats ")
                        << from.width << "x" << from.height << " -> " << to.width << "x" << to.height;
                }
    }
}
