// The byte-plane affine warp of the fast backend: the AVX2 row kernel against
// the scalar reference, bit for bit, over destination widths 1..67, 1 to 4
// channels, nearest and bilinear and a set of matrices; the reference against
// OpenCV's warpAffine; the inside-range search against brute force; sources
// that end at an unmapped page, so that a read past the plane faults; and
// sentinels past every destination row.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_fast_warp.h"
#include "test_util.h"

using namespace kv;

namespace {

struct Matrix {
    const char* name;
    float m[6];  // forward: source to destination
};

// Forward matrices for a source of about w x h.
std::vector<Matrix> matrices(int w, int h) {
    const float cx = w * 0.5f, cy = h * 0.5f;
    auto rotation = [&](const char* name, float degrees, float scale) {
        const float a = degrees * 3.14159265f / 180.f;
        const float c = std::cos(a) * scale, s = std::sin(a) * scale;
        return Matrix{name, {c, s, (1 - c) * cx - s * cy, -s, c, s * cx + (1 - c) * cy}};
    };
    return {
        {"identity", {1, 0, 0, 0, 1, 0}},
        {"translation", {1, 0, 2.37f, 0, 1, -1.61f}},
        {"integer_shift", {1, 0, -3, 0, 1, 2}},
        {"scale_up", {2.3f, 0, 0.4f, 0, 1.7f, -0.3f}},
        {"scale_down", {0.45f, 0, 1, 0, 0.6f, 0.5f}},
        {"shear", {1, 0.35f, -2, 0.2f, 1, 0}},
        {"mirror_x", {-1, 0, float(w - 1), 0, 1, 0}},
        {"mirror_y", {1, 0, 0, 0, -1, float(h - 1)}},
        rotation("rot30", 30, 1),
        rotation("rot_minus_70_scaled", -70, 1.3f),
        rotation("rot90", 90, 1),
        rotation("rot181_small", 181, 0.7f),
    };
}

// A source plane whose last byte is the last byte before an unmapped page
// (and which starts a page after another), rows `pad` bytes apart beyond
// their pixels; pixels and padding are random.
class GuardedPlane {
public:
    GuardedPlane(int width, int height, int channels, size_t pad, uint32_t seed)
        : width(width), height(height), channels(channels) {
        step = size_t(width) * channels + pad;
        const size_t bytes = step * size_t(height);
        _page = size_t(sysconf(_SC_PAGESIZE));
        _data_pages = (bytes + _page - 1) / _page;
        _map_size = (_data_pages + 2) * _page;
        void* map = mmap(nullptr, _map_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(map, MAP_FAILED);
        _map = static_cast<uint8_t*>(map);
        mprotect(_map, _page, PROT_NONE);
        mprotect(_map + (_data_pages + 1) * _page, _page, PROT_NONE);
        // The last row ends at its pixels: no padding after it.
        data = _map + (_data_pages + 1) * _page - (bytes - pad);
        std::mt19937 rng(seed);
        for (size_t i = 0; i < bytes - pad; ++i) data[i] = uint8_t(rng());
    }
    ~GuardedPlane() { munmap(_map, _map_size); }
    GuardedPlane(const GuardedPlane&) = delete;
    GuardedPlane& operator=(const GuardedPlane&) = delete;

    uint8_t* data;
    size_t step;
    int width, height, channels;

private:
    uint8_t* _map;
    size_t _page, _data_pages, _map_size;
};

constexpr uint8_t kSentinel = 0xa5;
constexpr size_t kDstPad = 19;

// A destination of width x height pixels with kDstPad sentinel bytes after
// every row.
struct Dst {
    Dst(int width, int height, int channels)
        : row_bytes(size_t(width) * channels), step(row_bytes + kDstPad), bytes(step * size_t(height), kSentinel) {}
    ::testing::AssertionResult sentinelsIntact() const {
        for (size_t i = 0; i < bytes.size(); ++i)
            if (i % step >= row_bytes && bytes[i] != kSentinel)
                return ::testing::AssertionFailure() << "sentinel at row " << i / step << " byte " << i % step;
        return ::testing::AssertionSuccess();
    }
    // Pixel bytes only.
    ::testing::AssertionResult samePixels(const Dst& o, int tolerance = 0) const {
        for (size_t i = 0; i < bytes.size(); ++i)
            if (i % step < row_bytes && std::abs(int(bytes[i]) - int(o.bytes[i])) > tolerance)
                return ::testing::AssertionFailure() << "row " << i / step << " byte " << i % step << ": "
                                                     << int(bytes[i]) << " vs " << int(o.bytes[i]);
        return ::testing::AssertionSuccess();
    }
    size_t row_bytes, step;
    std::vector<uint8_t> bytes;
};

void warp(const GuardedPlane& s, Dst& d, int dst_width, int dst_height, const float m[6], bool bilinear,
          impl::Isa isa) {
    impl::warpAffineBytes(s.data, s.step, s.width, s.height, d.bytes.data(), d.step, dst_width, dst_height,
                          s.channels, m, bilinear, isa);
}

std::string label(const Matrix& m, int channels, bool bilinear, int width) {
    return std::string(m.name) + " cn " + std::to_string(channels) + (bilinear ? " bilinear" : " nearest") +
           " width " + std::to_string(width);
}

}  // namespace

TEST(FastWarp, VectorMatchesReferenceAtEveryWidth) {
    if (impl::detectedIsa() < impl::Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    for (int channels = 1; channels <= 4; ++channels)
        for (const Size src_size : {Size(41, 23), Size(5, 3), Size(2, 1)}) {
            const GuardedPlane src(src_size.width, src_size.height, channels, channels == 3 ? 0 : 5,
                                   uint32_t(channels * 131 + src_size.width));
            for (const Matrix& m : matrices(src_size.width, src_size.height))
                for (bool bilinear : {false, true})
                    for (int width = 1; width <= 67; ++width) {
                        const int height = 5 + width % 3 * 2;  // odd heights
                        Dst a(width, height, channels), b(width, height, channels);
                        warp(src, a, width, height, m.m, bilinear, impl::Isa::kScalar);
                        warp(src, b, width, height, m.m, bilinear, impl::Isa::kAvx2);
                        ASSERT_TRUE(a.samePixels(b)) << label(m, channels, bilinear, width);
                        ASSERT_TRUE(b.sentinelsIntact()) << label(m, channels, bilinear, width);
                        ASSERT_TRUE(a.sentinelsIntact()) << label(m, channels, bilinear, width);
                    }
        }
}

TEST(FastWarp, MatchesOpenCv) {
    // Same bytes as cv::warpAffine, both instruction sets, every channel count.
    for (int channels = 1; channels <= 4; ++channels) {
        const GuardedPlane src(97, 61, channels, 3, uint32_t(channels));
        for (const Matrix& m : matrices(97, 61))
            for (bool bilinear : {false, true})
                for (const Size dst_size : {Size(97, 61), Size(120, 45), Size(33, 80)}) {
                    const int w = dst_size.width, h = dst_size.height;
                    Dst cv(w, h, channels);
                    ASSERT_TRUE(impl::fast::warpAffinePlaneWithLibrary(src.data, src.step, src.width, src.height,
                                                                       cv.bytes.data(), cv.step, w, h, channels,
                                                                       false, m.m, bilinear));
                    for (impl::Isa isa : {impl::Isa::kScalar, impl::Isa::kAvx2}) {
                        if (isa > impl::detectedIsa()) continue;
                        Dst ours(w, h, channels);
                        warp(src, ours, w, h, m.m, bilinear, isa);
                        EXPECT_TRUE(ours.samePixels(cv))
                            << label(m, channels, bilinear, w) << " " << impl::isaName(isa);
                    }
                }
    }
}

TEST(FastWarp, InsideRangeIsExact) {
    // The columns the vector loop takes are exactly those whose position lies
    // in the box: none outside, none missed.
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coef(-2.5f, 2.5f), shift(-80.f, 80.f);
    std::vector<int32_t> adelta(200), bdelta(200);
    for (int trial = 0; trial < 400; ++trial) {
        const double m0 = coef(rng), m3 = trial % 5 == 0 ? 0.0 : coef(rng);
        const int width = 1 + int(rng() % 200);
        for (int x = 0; x < width; ++x) {
            adelta[x] = int32_t(std::nearbyint(m0 * x * 1024));
            bdelta[x] = int32_t(std::nearbyint(m3 * x * 1024));
        }
        const impl::WarpPlane plane{nullptr, 0, 0, 0, 1, true, adelta.data(), bdelta.data(), true, 0};
        const int32_t x0 = int32_t(shift(rng) * 1024), y0 = int32_t(shift(rng) * 1024);
        const int min_sx = int(rng() % 5) - 2, min_sy = int(rng() % 5) - 2;
        const int max_sx = int(rng() % 60) - 2, max_sy = int(rng() % 60) - 2;
        int first = -1, last = -1;
        impl::warpInsideRange(plane, x0, y0, width, min_sx, max_sx, min_sy, max_sy, &first, &last);
        ASSERT_LE(first, last);
        for (int x = 0; x < width; ++x) {
            const int sx = (x0 + adelta[x]) >> 10, sy = (y0 + bdelta[x]) >> 10;
            const bool inside = sx >= min_sx && sx <= max_sx && sy >= min_sy && sy <= max_sy;
            const bool taken = x >= first && x < last;
            ASSERT_EQ(inside, taken) << "trial " << trial << " x " << x;
        }
    }
}

TEST(FastWarp, FarAwayAndDegenerateMatrices) {
    // Positions far outside (beyond 16 bits, beyond the vector range, or
    // wrapping 32 bits) give zeros, and both kernels agree.
    const float far[][6] = {
        {1, 0, 1e6f, 0, 1, 0},        {1, 0, 0, 0, 1, -4e7f},         {1e-4f, 0, -3e4f, 0, 1e-4f, 0},
        {3e5f, 0, 0, 0, 3e5f, 0},     {1, 0, 5e8f, 0, 1, 5e8f},       {1, 0, 3e9f, 0, 1, 0},
        {1e-9f, 0, 0, 0, 1e-9f, 0},   {1, 0, INFINITY, 0, 1, 0},
    };
    for (int channels = 1; channels <= 4; ++channels) {
        const GuardedPlane src(30, 20, channels, 0, 3);
        for (const auto& m : far)
            for (bool bilinear : {false, true}) {
                Dst a(40, 9, channels), b(40, 9, channels);
                warp(src, a, 40, 9, m, bilinear, impl::Isa::kScalar);
                warp(src, b, 40, 9, m, bilinear, impl::activeIsa());
                EXPECT_TRUE(a.samePixels(b)) << m[2] << " " << m[5] << " " << m[0];
                EXPECT_TRUE(b.sentinelsIntact());
            }
    }
    // A translation by 1e6 pixels leaves nothing of the source.
    const GuardedPlane src(30, 20, 3, 0, 3);
    Dst d(40, 9, 3), zero(40, 9, 3);
    std::fill(zero.bytes.begin(), zero.bytes.end(), 0);
    warp(src, d, 40, 9, far[0], true, impl::activeIsa());
    EXPECT_TRUE(d.samePixels(zero));
}

TEST(FastWarp, BackendWarpsBytePlanesAsOpenCv) {
    // Through CvBackendSimd: a BGR rotation and an NV12 scale, each plane in
    // its own pixel units, both interpolations, as OpenCV gives them.
    for (FrameFormat format : {FRAME_BGR_8, FRAME_NV12, FRAME_C4_8, FRAME_GRAY_8})
        for (int method : {0, 1}) {
            const Frame src = kvtest::randomFrame(format, Size(64, 48), 5);
            Frame dst(format, Size(70, 40));
            const float m[2][3] = {{0.8f, -0.3f, 9.5f}, {0.35f, 0.9f, -4.25f}};
            CvBackendSimd b;
            b.setIntProperty(2, method);
            b.warpAffine(src, dst, m, Rect(), false);
            const float flat[6] = {m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2]};
            for (uint32_t p = 0; p < src.layout().planes; ++p) {
                const FramePlane& sp = src.layout().plane[p];
                const FramePlane& dp = dst.layout().plane[p];
                std::vector<uint8_t> cv(dp.step * size_t(dp.size.height));
                impl::fast::warpAffinePlaneWithLibrary(src.rowCpuData(p, 0), sp.step, sp.size.width, sp.size.height,
                                                       cv.data(), dp.step, dp.size.width, dp.size.height, sp.channels,
                                                       false, flat, method != 0);
                for (int y = 0; y < dp.size.height; ++y)
                    ASSERT_EQ(0, std::memcmp(dst.rowCpuData(p, y), cv.data() + dp.step * size_t(y), dp.row_bytes))
                        << toString(format) << " method " << method << " plane " << p << " row " << y;
            }
        }
}
