// CvBackendSimd against CvBackendBase on the same inputs: every colour pair
// and every resize both support, as a check that both use the same
// conventions (BT.601 limited range with the module's integer formulas,
// centre-aligned sampling). The largest difference per case is printed and
// recorded.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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
    // Largest allowed difference: 0 where both run the same integer formulas
    // (YUV to BGR / RGB, channel moves); 2 for BGR to gray and to YUV, where
    // the fast backend rounds (libyuv's and its own 14-bit gray weights) and
    // the generic one truncates; 1 for float to byte (round against truncate).
    int tol;
};

// The pairs of the fast backend's table that the generic converter serves too.
const ColorCase kColorCases[] = {
    {FRAME_GRAY_8, FRAME_BGR_8, true, 0},         {FRAME_RGB_8, FRAME_RGB_8_PLANAR, true, 0},
    {FRAME_RGB_8, FRAME_BGR_8, true, 0},          {FRAME_RGB_8, FRAME_FLOAT_32_C3_PLANAR, true, 0},
    {FRAME_RGB_8_PLANAR, FRAME_RGB_8, true, 0},   {FRAME_BGR_8, FRAME_GRAY_8, true, 2},
    {FRAME_BGR_8, FRAME_RGB_8, true, 0},          {FRAME_BGR_8, FRAME_BGR_8_PLANAR, true, 0},
    {FRAME_BGR_8, FRAME_I420, true, 2},           {FRAME_BGR_8, FRAME_NV12, true, 2},
    {FRAME_BGR_8, FRAME_NV21, false, 2},          {FRAME_BGR_8, FRAME_NV16, false, 2},
    {FRAME_BGR_8, FRAME_YUV444_PLANAR, true, 2},  {FRAME_BGR_8, FRAME_YUV444, true, 2},
    {FRAME_BGR_8, FRAME_FLOAT_32_C3, true, 0},    {FRAME_BGR_8, FRAME_FLOAT_32_C3_PLANAR, true, 0},
    {FRAME_BGR_8_PLANAR, FRAME_BGR_8, true, 0},   {FRAME_I420, FRAME_GRAY_8, false, 0},
    {FRAME_I420, FRAME_BGR_8, false, 0},          {FRAME_I420, FRAME_NV12, false, 0},
    {FRAME_NV12, FRAME_GRAY_8, false, 0},         {FRAME_NV12, FRAME_BGR_8, false, 0},
    {FRAME_NV12, FRAME_I420, false, 0},           {FRAME_NV12, FRAME_NV21, false, 0},
    {FRAME_NV21, FRAME_GRAY_8, false, 0},         {FRAME_NV21, FRAME_BGR_8, false, 0},
    {FRAME_NV21, FRAME_I420, false, 0},           {FRAME_NV21, FRAME_NV12, false, 0},
    {FRAME_NV16, FRAME_GRAY_8, false, 0},         {FRAME_NV16, FRAME_BGR_8, false, 0},
    {FRAME_NV16, FRAME_YV16, false, 0},           {FRAME_YUV444, FRAME_YUV444_PLANAR, true, 0},
    {FRAME_YUV444, FRAME_GRAY_8, true, 0},        {FRAME_YUV444, FRAME_BGR_8, true, 0},
    {FRAME_YUV444_PLANAR, FRAME_GRAY_8, true, 0}, {FRAME_YUV444_PLANAR, FRAME_BGR_8, true, 0},
    {FRAME_YUV444_PLANAR, FRAME_YUV444, true, 0}, {FRAME_FLOAT_32_C3, FRAME_BGR_8, true, 1},
};

// Frame in `to` with bytes 0 and 2 of every pixel of `bgr` swapped.
Frame swapped(const Frame& bgr, FrameFormat to) {
    Frame out(to, bgr.size());
    for (int y = 0; y < bgr.size().height; ++y)
        for (int x = 0; x < bgr.size().width; ++x)
            for (int c = 0; c < 3; ++c) out.rowCpuData(0, y)[3 * x + c] = bgr.rowCpuData(0, y)[3 * x + 2 - c];
    return out;
}

// Natural-looking content for the resize comparisons: per component k a ramp
// in x and y, a gentle wave along x and a +-1 texture along x, so that
// neighbouring samples differ by a few levels at most. Odd components run
// their ramp from the right, so swapped channels or planes show. Nothing but
// the ramp varies along y: luma rises by 3 levels per row, the chroma planes
// of 4:2:0 formats (components 3 and 4) by kChromaRowStep per chroma row, so
// a vertical sampling offset of d rows costs exactly d times that.
constexpr int kChromaRowStep = 4;

void fillSmooth(Frame& f) {
    const FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p) {
        const FramePlane& pl = l.plane[p];
        const bool chroma = p > 0;
        for (int y = 0; y < pl.size.height; ++y)
            for (int x = 0; x < pl.size.width; ++x)
                for (uint32_t c = 0; c < pl.channels; ++c) {
                    const int k = chroma ? int(p + c) + 2 : int(c);
                    const double xx = k % 2 ? pl.size.width - 1 - x : x;
                    const double base = chroma ? 30 + 30 * (k - 3) : 10 + 5 * k;
                    const double v = base + 0.5 * xx + (chroma ? kChromaRowStep : 3.0) * y +
                                     10 * std::sin(xx / 7.0 + k) + ((x * 5 + k) % 3 - 1);
                    f.rowCpuData(p, y)[x * pl.channels + c] = uint8_t(std::clamp(std::lround(v), 0L, 255L));
                }
    }
}

// Largest difference per plane.
std::vector<int> planeDifferences(const Frame& a, const Frame& b) {
    const FrameLayout& l = a.layout();
    std::vector<int> worst(l.planes, 0);
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            const uint8_t* ra = a.rowCpuData(p, y);
            const uint8_t* rb = b.rowCpuData(p, y);
            for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i) worst[p] = std::max(worst[p], std::abs(ra[i] - rb[i]));
        }
    return worst;
}

// Largest distance, in source chroma rows, between where the two backends
// sample the 4:2:0 chroma rows when scaling height `from` to `to` (both even).
// Generic: the chroma row of the luma row it samples for the upper output
// row of each pair, i.e. for nearest the chroma row of source luma row
// floor((2 r + 0.5) * from / to), for bilinear the chroma row of luma row
// floor(p) blended towards the next one by the fraction of p, p = (2 r + 0.5)
// * from / to - 0.5. Fast: each chroma plane on its own, centre-aligned.
double chromaRowOffset(int method, int from, int to) {
    double worst = 0;
    const int chroma_from = from / 2, chroma_to = to / 2;
    for (int r = 0; r < chroma_to; ++r) {
        double generic, fast;
        if (method == ResizeNearestNeighbour) {
            const int step = (from << 16) / to, chroma_step = (chroma_from << 16) / chroma_to;
            generic = double(((2 * r) * step + step / 2) >> 16) / 2;
            generic = std::floor(generic);
            fast = double((r * chroma_step + chroma_step / 2) >> 16);
        } else {
            const double p = std::max(0.0, (2 * r + 0.5) * from / to - 0.5);
            generic = std::min(std::floor(std::floor(p) / 2) + (p - std::floor(p)), double(chroma_from - 1));
            fast = std::clamp((r + 0.5) * chroma_from / chroma_to - 0.5, 0.0, double(chroma_from - 1));
        }
        worst = std::max(worst, std::fabs(generic - fast));
    }
    return worst;
}

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
        EXPECT_LE(worst, c.tol) << name;
    }
}

TEST(CvBackendAgreement, YuvToRgbIsTheGenericBgrSwapped) {
    // The generic converter has no YUV to RGB; the fast backend's must be its
    // BGR with the channels swapped, byte for byte.
    CvBackendBase base;
    CvBackendSimd simd;
    for (FrameFormat f : {FRAME_I420, FRAME_NV12, FRAME_NV21, FRAME_NV16})
        for (Size size : {Size(64, 36), Size(70, 2), Size(2, 2)}) {
            Frame src(f, size);
            kvtest::fillRandom(src, uint32_t(size.width + f));
            Frame bgr(FRAME_BGR_8, size), rgb(FRAME_RGB_8, size);
            base.colorCvt(src, bgr, Rect());
            simd.colorCvt(src, rgb, Rect());
            EXPECT_TRUE(kvtest::framesEqual(swapped(bgr, FRAME_RGB_8), rgb)) << toString(f);
        }
}

// Both backends on smooth content. Expected agreement:
// - luma and interleaved planes: exact for nearest (both sample at
//   floor((i + 0.5) * src / dst)); within 2 for bilinear and area reductions
//   (the generic scalers truncate, OpenCV rounds);
// - 4:2:0 chroma, area reductions: within 2, both average chroma areas;
// - 4:2:0 chroma, nearest and bilinear: the generic scalers take the chroma
//   rows of the luma row they sample for the upper row of each output pair,
//   half an output row above the pair's centre and, for bilinear, with the
//   luma fraction between chroma rows two luma rows apart; the fast backend
//   samples each chroma plane at its own centre. The vertical positions thus
//   differ by up to chromaRowOffset() chroma rows (about a quarter of the
//   reduction factor plus up to one row), the horizontal ones not at all, so
//   the bound is that offset times kChromaRowStep plus 2. A swapped or wrong
//   chroma plane, or a row shift beyond the offset, still exceeds it;
// - area enlargement: the generic area scaler spreads each source pixel over
//   the output pixels it covers, which is not OpenCV's INTER_AREA
//   enlargement (a bilinear variant); only reported.
TEST(CvBackendAgreement, Resize) {
    const FrameFormat formats[] = {FRAME_GRAY_8, FRAME_BGR_8, FRAME_C4_8, FRAME_I420, FRAME_NV12};
    const Size from(96, 54);
    const Size targets[] = {Size(32, 18), Size(64, 36), Size(48, 27), Size(24, 14), Size(288, 162), Size(130, 70)};
    const char* names[] = {"nearest", "bilinear", "area"};
    for (int method : {ResizeNearestNeighbour, ResizeBilinear, ResizeArea})
        for (FrameFormat f : formats)
            for (Size to : targets) {
                const bool yuv420 = f == FRAME_I420 || f == FRAME_NV12;
                if (yuv420 && (to.width % 2 || to.height % 2)) continue;
                Frame src(f, from);
                fillSmooth(src);
                Frame a(f, to), b(f, to);
                CvBackendBase base;
                CvBackendSimd simd;
                base.setIntProperty(1, method);
                simd.setIntProperty(1, method);
                base.resize(src, a, Rect(), Rect());
                simd.resize(src, b, Rect(), Rect());
                const std::vector<int> d = planeDifferences(a, b);
                const int chroma = yuv420 ? std::max(d[1], d.size() > 2 ? d[2] : 0) : 0;
                const bool enlarges = to.width > from.width || to.height > from.height;
                const bool asserted = !(method == ResizeArea && enlarges);
                const int luma_bound = method == ResizeNearestNeighbour ? 0 : 2;
                const double offset =
                    yuv420 && method != ResizeArea ? chromaRowOffset(method, from.height, to.height) : 0;
                const int chroma_bound = int(std::ceil(kChromaRowStep * offset)) + 2;
                char name[96];
                std::snprintf(name, sizeof name, "%s %dx%d->%dx%d %s", toString(f), from.width, from.height,
                              to.width, to.height, names[method]);
                std::printf("agreement resize %-44s max difference luma %d chroma %d", name, d[0], chroma);
                if (!asserted)
                    std::printf(" (not asserted)\n");
                else if (yuv420)
                    std::printf(" (bounds %d, %d)\n", luma_bound, chroma_bound);
                else
                    std::printf(" (bound %d)\n", luma_bound);
                RecordProperty(name, std::to_string(std::max(d[0], chroma)));
                if (!asserted) continue;
                EXPECT_LE(d[0], luma_bound) << name;
                if (yuv420) {
                    EXPECT_LE(chroma, chroma_bound) << name << " offset " << offset;
                }
            }
}

