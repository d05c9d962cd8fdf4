// CvBackendSimd against CvBackendBase on the same inputs: every colour pair
// and every resize both support must agree within 2 per sample, which holds
// only if both use the same conventions (BT.601 limited range, centre-aligned
// sampling). The largest difference per case is printed and recorded.
// Compiled only once the generic backend is part of the tree.
#if __has_include("kv_cv/kv_cv_backend_base.h")

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "test_util.h"

using namespace kv;

namespace {

// Largest per-sample difference over the row samples of every plane.
double maxDifference(const Frame& a, const Frame& b) {
    double worst = 0;
    const FrameLayout& l = a.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            const uint8_t* ra = a.rowCpuData(p, y);
            const uint8_t* rb = b.rowCpuData(p, y);
            if (l.plane[p].bits_per_channel == 32) {
                const auto* fa = reinterpret_cast<const float*>(ra);
                const auto* fb = reinterpret_cast<const float*>(rb);
                for (uint64_t i = 0; i < l.plane[p].row_bytes / 4; ++i)
                    worst = std::max(worst, double(std::abs(fa[i] - fb[i])));
            } else {
                for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i) worst = std::max(worst, double(std::abs(ra[i] - rb[i])));
            }
        }
    return worst;
}

// Float sources stay inside 0..255 so that the generic backend's truncation
// and the fast backend's rounding differ by at most one.
void fillInRange(Frame& f, uint32_t seed) {
    kvtest::fillRandom(f, seed);
    const FrameLayout& l = f.layout();
    if (l.plane[0].bits_per_channel != 32) return;
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            auto* row = reinterpret_cast<float*>(f.rowCpuData(p, y));
            for (uint64_t i = 0; i < l.plane[p].row_bytes / 4; ++i) row[i] = std::min(row[i], 255.f);
        }
}

struct ColorCase {
    FrameFormat src, dst;
    bool odd_ok;
};

// The pairs of the fast backend's table that the generic converter serves too.
const ColorCase kColorCases[] = {
    {FRAME_GRAY_8, FRAME_BGR_8, true},         {FRAME_RGB_8, FRAME_RGB_8_PLANAR, true},
    {FRAME_RGB_8, FRAME_BGR_8, true},          {FRAME_RGB_8, FRAME_FLOAT_32_C3_PLANAR, true},
    {FRAME_RGB_8_PLANAR, FRAME_RGB_8, true},   {FRAME_BGR_8, FRAME_GRAY_8, true},
    {FRAME_BGR_8, FRAME_RGB_8, true},          {FRAME_BGR_8, FRAME_BGR_8_PLANAR, true},
    {FRAME_BGR_8, FRAME_I420, true},           {FRAME_BGR_8, FRAME_NV12, true},
    {FRAME_BGR_8, FRAME_NV21, false},          {FRAME_BGR_8, FRAME_NV16, false},
    {FRAME_BGR_8, FRAME_YUV444_PLANAR, true},  {FRAME_BGR_8, FRAME_YUV444, true},
    {FRAME_BGR_8, FRAME_FLOAT_32_C3, true},    {FRAME_BGR_8, FRAME_FLOAT_32_C3_PLANAR, true},
    {FRAME_BGR_8_PLANAR, FRAME_BGR_8, true},   {FRAME_I420, FRAME_GRAY_8, false},
    {FRAME_I420, FRAME_BGR_8, false},          {FRAME_I420, FRAME_NV12, false},
    {FRAME_NV12, FRAME_GRAY_8, false},         {FRAME_NV12, FRAME_BGR_8, false},
    {FRAME_NV12, FRAME_I420, false},           {FRAME_NV12, FRAME_NV21, false},
    {FRAME_NV21, FRAME_GRAY_8, false},         {FRAME_NV21, FRAME_BGR_8, false},
    {FRAME_NV21, FRAME_I420, false},           {FRAME_NV21, FRAME_NV12, false},
    {FRAME_NV16, FRAME_GRAY_8, false},         {FRAME_NV16, FRAME_BGR_8, false},
    {FRAME_NV16, FRAME_YV16, false},           {FRAME_YUV444, FRAME_YUV444_PLANAR, true},
    {FRAME_YUV444, FRAME_GRAY_8, true},        {FRAME_YUV444, FRAME_BGR_8, true},
    {FRAME_YUV444_PLANAR, FRAME_GRAY_8, true}, {FRAME_YUV444_PLANAR, FRAME_BGR_8, true},
    {FRAME_YUV444_PLANAR, FRAME_YUV444, true}, {FRAME_FLOAT_32_C3, FRAME_BGR_8, true},
};

}  // namespace

TEST(CvBackendAgreement, ColourPairs) {
    CvBackendBase base;
    CvBackendSimd simd;
    for (const ColorCase& c : kColorCases) {
        double worst = 0;
        for (Size size : {Size(64, 36), Size(35, 17), Size(1, 1)}) {
            if (!c.odd_ok && (size.width % 2 || size.height % 2)) continue;
            Frame src(c.src, size);
            fillInRange(src, uint32_t(size.width * 7 + c.src * 31 + c.dst));
            Frame a(c.dst, size), b(c.dst, size);
            base.colorCvt(src, a, Rect());
            simd.colorCvt(src, b, Rect());
            worst = std::max(worst, maxDifference(a, b));
        }
        const std::string name = std::string(toString(c.src)) + " -> " + toString(c.dst);
        std::printf("agreement colour %-50s max difference %g\n", name.c_str(), worst);
        RecordProperty(name, std::to_string(worst));
        EXPECT_LE(worst, 2) << name;
    }
}

TEST(CvBackendAgreement, Resize) {
    const FrameFormat formats[] = {FRAME_GRAY_8, FRAME_BGR_8, FRAME_C4_8, FRAME_I420, FRAME_NV12};
    const Size from(96, 54);
    const Size targets[] = {Size(32, 18), Size(64, 36), Size(48, 27), Size(288, 162), Size(130, 70)};
    for (int method : {ResizeNearestNeighbour, ResizeBilinear, ResizeArea})
        for (FrameFormat f : formats) {
            double worst = 0;
            int compared = 0;
            for (Size to : targets) {
                if ((f == FRAME_I420 || f == FRAME_NV12) && (to.width % 2 || to.height % 2)) continue;
                Frame src(f, from);
                kvtest::fillRandom(src, uint32_t(to.width + method + f));
                Frame a(f, to), b(f, to);
                CvBackendBase base;
                CvBackendSimd simd;
                base.setIntProperty(1, method);
                simd.setIntProperty(1, method);
                try {
                    base.resize(src, a, Rect(), Rect());
                } catch (const Exception& e) {
                    if (e.status() == KV_STATUS_NOT_SUPPORTED) continue;  // e.g. area enlargement
                    throw;
                }
                simd.resize(src, b, Rect(), Rect());
                worst = std::max(worst, maxDifference(a, b));
                ++compared;
            }
            const std::string name = std::string(toString(f)) + " method " + std::to_string(method);
            std::printf("agreement resize %-40s max difference %g over %d sizes\n", name.c_str(), worst, compared);
            RecordProperty(name, std::to_string(worst));
            EXPECT_LE(worst, 2) << name;
        }
}

#endif  // __has_include("kv_cv/kv_cv_backend_base.h")
