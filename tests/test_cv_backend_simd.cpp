// CvBackendSimd: every supported colour pair against a per-pixel oracle (float
// BT.601 formulas, exact channel moves), at even and odd sizes, from regions
// and into wrapped destinations whose row padding must stay untouched; the
// resize, warp and arithmetic semantics; every assertion with its text and
// line; and the adapter's own kernels, AVX2 against reference, bit for bit.
// Exact agreement with the generic backend on the YUV pairs is in
// test_backend_agreement.cpp, the bilinear byte planes in
// test_cv_backend_simd_resize.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_fast_kernels.h"
#include "test_util.h"
#include "wrapped_frame.h"

using namespace kv;

namespace {

const char* const kSimdFile = "src/kv_cv/kv_cv_backend_simd";

// ---- Per-pixel oracle ----------------------------------------------------------

using kvtest::isYuv;
bool isFloat(FrameFormat f) { return f == FRAME_GRAY_FLOAT_32 || f == FRAME_FLOAT_32_C3 || f == FRAME_FLOAT_32_C3_PLANAR; }
bool isGray(FrameFormat f) { return f == FRAME_GRAY_8 || f == FRAME_GRAY_FLOAT_32; }
// +1: R first; -1: B first; 0: the float formats, which keep the order of the
// frame they were made from.
int rgbOrder(FrameFormat f) {
    if (f == FRAME_RGB_8 || f == FRAME_RGB_8_PLANAR) return 1;
    if (f == FRAME_BGR_8 || f == FRAME_BGR_8_PLANAR) return -1;
    return 0;
}

struct Px {
    double c[3];
};

double sampleAt(const Frame& f, int p, int x, int y, int channel) {
    const FramePlane& pl = f.layout().plane[p];
    const uint8_t* row = f.rowCpuData(size_t(p), y);
    if (pl.bits_per_channel == 32) return reinterpret_cast<const float*>(row)[x * pl.channels + channel];
    return row[x * pl.channels + channel];
}

// Channels as stored: interleaved bytes 0..2 or planes 0..2; gray repeated.
Px readRaw(const Frame& f, int x, int y) {
    const FrameLayout& l = f.layout();
    Px px{};
    for (int k = 0; k < 3; ++k)
        px.c[k] = isGray(f.format()) ? sampleAt(f, 0, x, y, 0) : l.planes == 3 ? sampleAt(f, k, x, y, 0)
                                                                                : sampleAt(f, 0, x, y, k);
    return px;
}

// (Y, U, V) of pixel (x, y), chroma from the sample that covers it.
Px readYuv(const Frame& f, int x, int y) {
    const kvtest::YuvModel m = kvtest::yuvModel(f.format());
    return {{double(kvtest::lumaAt(f, x, y)), double(kvtest::chromaAt(f, false, x / m.xs, y / m.ys)),
             double(kvtest::chromaAt(f, true, x / m.xs, y / m.ys))}};
}

// BT.601 limited range from full-range R, G, B.
Px rgbToYuv(double r, double g, double b) {
    return {{16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255, 128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255,
             128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255}};
}

Px yuvToRgb(double y, double u, double v) {
    auto clamp = [](double x) { return std::min(255.0, std::max(0.0, x)); };
    const double c = 1.164383 * (y - 16);
    return {{clamp(c + 1.596027 * (v - 128)), clamp(c - 0.391762 * (u - 128) - 0.812968 * (v - 128)),
             clamp(c + 2.017232 * (u - 128))}};
}

// R, G, B of a pixel of an RGB-like source, given the order to assume for floats.
Px rgbOf(const Frame& f, int x, int y, int order) {
    Px raw = readRaw(f, x, y);
    if (order < 0) std::swap(raw.c[0], raw.c[2]);
    return raw;
}

double toByte(double v) { return std::nearbyint(std::min(255.0, std::max(0.0, v))); }

// Largest difference between dst and what the pair should give; `planes`
// checks the chroma of subsampled YUV destinations against the mean of the
// pixels each sample covers.
double oracleError(const Frame& src, const Frame& dst) {
    const FrameFormat sf = src.format(), df = dst.format();
    const int w = dst.size().width, h = dst.size().height;
    double worst = 0;
    auto note = [&](double e) { worst = std::max(worst, std::fabs(e)); };
    const int so = rgbOrder(sf) ? rgbOrder(sf) : rgbOrder(df), dord = rgbOrder(df) ? rgbOrder(df) : rgbOrder(sf);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (!isYuv(sf) && !isYuv(df)) {
                if (df == FRAME_GRAY_8) {  // from BGR
                    const Px s = rgbOf(src, x, y, -1);
                    note(sampleAt(dst, 0, x, y, 0) - (0.299 * s.c[0] + 0.587 * s.c[1] + 0.114 * s.c[2]));
                    continue;
                }
                Px s = readRaw(src, x, y);
                if (so != dord) std::swap(s.c[0], s.c[2]);
                const Px d = readRaw(dst, x, y);
                for (int k = 0; k < (df == FRAME_GRAY_FLOAT_32 ? 1 : 3); ++k)
                    note(d.c[k] - (isFloat(sf) && !isFloat(df) ? toByte(s.c[k]) : s.c[k]));
            } else if (!isYuv(sf)) {  // BGR to YUV: luma per pixel here, chroma below
                const Px s = rgbOf(src, x, y, -1);
                note(readYuv(dst, x, y).c[0] - rgbToYuv(s.c[0], s.c[1], s.c[2]).c[0]);
            } else if (df == FRAME_GRAY_8) {
                note(sampleAt(dst, 0, x, y, 0) - readYuv(src, x, y).c[0]);
            } else if (isYuv(df)) {
                const Px s = readYuv(src, x, y), d = readYuv(dst, x, y);
                for (int k = 0; k < 3; ++k) note(d.c[k] - s.c[k]);
            } else {
                const Px s = readYuv(src, x, y);
                const Px e = yuvToRgb(s.c[0], s.c[1], s.c[2]);
                const Px d = rgbOf(dst, x, y, rgbOrder(df));
                for (int k = 0; k < 3; ++k) note(d.c[k] - e.c[k]);
            }
        }
    if (!isYuv(sf) && isYuv(df)) {
        // Chroma of each destination sample against the mean over its block.
        const int bx = (df == FRAME_YUV444 || df == FRAME_YUV444_PLANAR) ? 1 : 2;
        const int by = (df == FRAME_I420 || df == FRAME_NV12 || df == FRAME_NV21) ? 2 : 1;
        for (int y = 0; y < h; y += by)
            for (int x = 0; x < w; x += bx) {
                double u = 0, v = 0;
                int n = 0;
                for (int yy = y; yy < std::min(h, y + by); ++yy)
                    for (int xx = x; xx < std::min(w, x + bx); ++xx, ++n) {
                        const Px s = rgbOf(src, xx, yy, -1);
                        const Px e = rgbToYuv(s.c[0], s.c[1], s.c[2]);
                        u += e.c[1];
                        v += e.c[2];
                    }
                const Px d = readYuv(dst, x, y);
                note(d.c[1] - u / n);
                note(d.c[2] - v / n);
            }
    }
    return worst;
}

struct Pair {
    FrameFormat src, dst;
    bool odd_ok;   // odd region sizes allowed
    double tol;    // largest allowed difference from the oracle
};

// Every supported pair. Tolerances: exact for channel moves, copies and
// byte/float; 0.5 + rounding for gray; YUV within the fixed-point error of
// the integer BT.601 coefficients.
const Pair kPairs[] = {
    {FRAME_GRAY_8, FRAME_BGR_8, true, 0},                    {FRAME_GRAY_8, FRAME_GRAY_FLOAT_32, true, 0},
    {FRAME_RGB_8, FRAME_RGB_8_PLANAR, true, 0},              {FRAME_RGB_8, FRAME_BGR_8, true, 0},
    {FRAME_RGB_8, FRAME_FLOAT_32_C3, true, 0},               {FRAME_RGB_8, FRAME_FLOAT_32_C3_PLANAR, true, 0},
    {FRAME_RGB_8_PLANAR, FRAME_RGB_8, true, 0},              {FRAME_RGB_8_PLANAR, FRAME_FLOAT_32_C3, true, 0},
    {FRAME_RGB_8_PLANAR, FRAME_FLOAT_32_C3_PLANAR, true, 0}, {FRAME_BGR_8, FRAME_GRAY_8, true, 0.51},
    {FRAME_BGR_8, FRAME_RGB_8, true, 0},                     {FRAME_BGR_8, FRAME_BGR_8_PLANAR, true, 0},
    {FRAME_BGR_8, FRAME_I420, true, 1.5},                    {FRAME_BGR_8, FRAME_NV12, true, 1.5},
    {FRAME_BGR_8, FRAME_NV21, false, 1.5},                   {FRAME_BGR_8, FRAME_NV16, false, 1.5},
    {FRAME_BGR_8, FRAME_YUV444_PLANAR, true, 1.5},           {FRAME_BGR_8, FRAME_YUV444, true, 1.5},
    {FRAME_BGR_8, FRAME_FLOAT_32_C3, true, 0},               {FRAME_BGR_8, FRAME_FLOAT_32_C3_PLANAR, true, 0},
    {FRAME_BGR_8_PLANAR, FRAME_BGR_8, true, 0},              {FRAME_BGR_8_PLANAR, FRAME_FLOAT_32_C3, true, 0},
    {FRAME_BGR_8_PLANAR, FRAME_FLOAT_32_C3_PLANAR, true, 0}, {FRAME_I420, FRAME_GRAY_8, false, 0},
    {FRAME_I420, FRAME_RGB_8, false, 3},                     {FRAME_I420, FRAME_BGR_8, false, 3},
    {FRAME_I420, FRAME_NV12, false, 0},                      {FRAME_NV12, FRAME_GRAY_8, false, 0},
    {FRAME_NV12, FRAME_RGB_8, false, 3},                     {FRAME_NV12, FRAME_BGR_8, false, 3},
    {FRAME_NV12, FRAME_I420, false, 0},                      {FRAME_NV12, FRAME_NV21, false, 0},
    {FRAME_NV21, FRAME_GRAY_8, false, 0},                    {FRAME_NV21, FRAME_RGB_8, false, 3},
    {FRAME_NV21, FRAME_BGR_8, false, 3},                     {FRAME_NV21, FRAME_I420, false, 0},
    {FRAME_NV21, FRAME_NV12, false, 0},                      {FRAME_NV16, FRAME_GRAY_8, false, 0},
    {FRAME_NV16, FRAME_RGB_8, false, 3},                     {FRAME_NV16, FRAME_BGR_8, false, 3},
    {FRAME_NV16, FRAME_YV16, false, 0},                      {FRAME_YUV444, FRAME_YUV444_PLANAR, true, 0},
    {FRAME_YUV444, FRAME_GRAY_8, true, 0},                   {FRAME_YUV444, FRAME_BGR_8, true, 3},
    {FRAME_YUV444_PLANAR, FRAME_GRAY_8, true, 0},            {FRAME_YUV444_PLANAR, FRAME_BGR_8, true, 3},
    {FRAME_YUV444_PLANAR, FRAME_YUV444, true, 0},            {FRAME_FLOAT_32_C3, FRAME_RGB_8, true, 0},
    {FRAME_FLOAT_32_C3, FRAME_BGR_8, true, 0},               {FRAME_FLOAT_32_C3, FRAME_RGB_8_PLANAR, true, 0},
    {FRAME_FLOAT_32_C3, FRAME_BGR_8_PLANAR, true, 0},        {FRAME_FLOAT_32_C3_PLANAR, FRAME_RGB_8_PLANAR, true, 0},
    {FRAME_FLOAT_32_C3_PLANAR, FRAME_BGR_8_PLANAR, true, 0}, {FRAME_FLOAT_32_C3_PLANAR, FRAME_RGB_8, true, 0},
    {FRAME_FLOAT_32_C3_PLANAR, FRAME_BGR_8, true, 0},
};

// Float sources get exact halves and out-of-range values too, so rounding and
// clamping are exercised.
void fillSource(Frame& f, uint32_t seed) {
    kvtest::fillRandom(f, seed);
    if (!isFloat(f.format())) return;
    std::mt19937 rng(seed);
    const FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            float* row = reinterpret_cast<float*>(f.rowCpuData(p, y));
            for (uint64_t i = 0; i < l.plane[p].row_bytes / 4; ++i)
                row[i] = float(int(rng() % 640) - 160) / 2.f;  // -80 .. 239.5 with halves
            if (y % 3 == 0) row[0] = 300.f;
        }
}

std::string pairName(const Pair& p, Size s) {
    return std::string(toString(p.src)) + " -> " + toString(p.dst) + " " + std::to_string(s.width) + "x" +
           std::to_string(s.height);
}

}  // namespace

// ---- Colour conversion ------------------------------------------------------------

TEST(CvBackendSimdColor, EveryPairMatchesTheOracleFromRegionsIntoPaddedFrames) {
    const Size even_sizes[] = {{8, 6}, {36, 18}};
    const Size odd_sizes[] = {{5, 3}, {1, 1}, {35, 17}, {2, 3}, {3, 2}};
    for (const Pair& pair : kPairs) {
        std::vector<Size> sizes(std::begin(even_sizes), std::end(even_sizes));
        if (pair.odd_ok) sizes.insert(sizes.end(), std::begin(odd_sizes), std::end(odd_sizes));
        double worst = 0;
        for (const Size size : sizes) {
            SCOPED_TRACE(pairName(pair, size));
            // The source is a region at an even offset of a larger frame.
            Frame big(pair.src, Size(size.width + 6, size.height + 4));
            fillSource(big, uint32_t(size.width * 131 + pair.src * 7 + pair.dst));
            const Rect roi(4, 2, size.width, size.height);
            Frame first;  // the scalar result: every other run must give its bytes
            for (impl::Isa isa : kvtest::availableIsas()) {
                kvtest::IsaCap cap(isa);
                // Rows and padding prefilled with 0x00, then 0xff: every row
                // byte is written, no padding byte.
                for (uint8_t fill : {0x00, 0xff}) {
                    auto dst = kvtest::wrappedFrame(pair.dst, size, 12, 0, fill);
                    CvBackendSimd().colorCvt(big, dst.frame, roi);
                    SCOPED_TRACE(std::string(impl::isaName(isa)) + " fill " + std::to_string(fill));
                    EXPECT_TRUE(kvtest::paddingIntact(dst));
                    if (!first.initialized())
                        dst.frame.copyTo(first);
                    else
                        EXPECT_TRUE(kvtest::framesEqual(first, dst.frame));
                }
            }
            const double err = oracleError(getRegion(big, roi), first);
            worst = std::max(worst, err);
            EXPECT_LE(err, pair.tol);
        }
        RecordProperty(pairName(pair, Size()), std::to_string(worst));
    }
}

TEST(CvBackendSimdColor, ContinuousFramesConvertAsOneRun) {
    // Wrapped with no row padding (exact allocations: AddressSanitizer sees any
    // access past them): the per-element conversions take the whole-plane
    // path; the result must match the padded path.
    const FrameFormat cases[][2] = {{FRAME_BGR_8, FRAME_FLOAT_32_C3},        {FRAME_FLOAT_32_C3, FRAME_RGB_8},
                                    {FRAME_GRAY_8, FRAME_GRAY_FLOAT_32},     {FRAME_RGB_8_PLANAR, FRAME_FLOAT_32_C3_PLANAR},
                                    {FRAME_FLOAT_32_C3_PLANAR, FRAME_BGR_8_PLANAR}};
    for (const auto& c : cases) {
        const Size size(13, 5);
        auto src = kvtest::wrappedFrame(c[0], size, 0, 0);
        fillSource(src.frame, 7);
        auto dst = kvtest::wrappedFrame(c[1], size, 0, 0);
        Frame padded(c[1], size);
        CvBackendSimd backend;
        backend.colorCvt(src.frame, dst.frame, Rect());
        backend.colorCvt(src.frame, padded, Rect());
        EXPECT_TRUE(kvtest::framesEqual(dst.frame, padded)) << toString(c[0]) << " -> " << toString(c[1]);
    }
}

TEST(CvBackendSimdColor, KnownValues) {
    CvBackendSimd backend;
    // Black and white into BT.601 limited range (the way back is checked
    // exactly against the generic backend and the kernels' known values).
    Frame bgr(FRAME_BGR_8, Size(2, 2));
    bgr.setZero();
    std::memset(bgr.rowCpuData(0, 1), 255, 6);
    Frame i420(FRAME_I420, Size(2, 2));
    backend.colorCvt(bgr, i420, Rect());
    EXPECT_EQ(i420.rowCpuData(0, 0)[0], 16);
    EXPECT_EQ(i420.rowCpuData(0, 1)[0], 235);
    EXPECT_EQ(i420.rowCpuData(1, 0)[0], 128);
    EXPECT_EQ(i420.rowCpuData(2, 0)[0], 128);

    // Gray of white is 255 and of pure red 76 (0.299 * 255 = 76.2).
    Frame gray(FRAME_GRAY_8, Size(2, 2));
    bgr.rowCpuData(0, 0)[2] = 255;
    backend.colorCvt(bgr, gray, Rect());
    EXPECT_EQ(gray.rowCpuData(0, 0)[0], 76);
    EXPECT_EQ(gray.rowCpuData(0, 1)[0], 255);

    // 255 becomes 255.0; 300.0 becomes 255, -3 becomes 0, halves go to even.
    Frame f(FRAME_FLOAT_32_C3, Size(2, 1));
    backend.colorCvt(bgr, f, Rect(0, 1, 2, 1));
    EXPECT_EQ(reinterpret_cast<const float*>(f.rowCpuData(0, 0))[0], 255.f);
    const float values[6] = {300.f, -3.f, 2.5f, 3.5f, 254.5f, std::nanf("")};
    std::memcpy(f.rowCpuData(0, 0), values, sizeof(values));
    Frame bytes(FRAME_BGR_8, Size(2, 1));
    backend.colorCvt(f, bytes, Rect());
    const uint8_t expected[6] = {255, 0, 2, 4, 254, 0};
    EXPECT_EQ(0, std::memcmp(bytes.rowCpuData(0, 0), expected, 6));
}

TEST(CvBackendSimdColor, OddBgrTo420WritesEveryLumaAndChromaSample) {
    // 5x3: 15 Y values and 3x2 chroma samples, the last column and row
    // through the 4:4:4 strip. A flat colour gives the same chroma everywhere.
    Frame bgr(FRAME_BGR_8, Size(5, 3));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) {
            uint8_t* p = bgr.rowCpuData(0, y) + 3 * x;
            p[0] = 40; p[1] = 90; p[2] = 200;
        }
    for (FrameFormat f : {FRAME_I420, FRAME_NV12}) {
        Frame out(f, Size(5, 3));
        out.setZero();
        CvBackendSimd().colorCvt(bgr, out, Rect());
        const Px first = readYuv(out, 0, 0);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const Px p = readYuv(out, x, y);
                for (int k = 0; k < 3; ++k) EXPECT_EQ(p.c[k], first.c[k]) << toString(f) << " " << x << "," << y;
            }
    }
}

TEST(CvBackendSimdColor, EqualFormatsCopyTheRegion) {
    Frame src = kvtest::randomFrame(FRAME_NV12, Size(10, 8), 3);
    Frame dst(FRAME_NV12, Size(4, 4));
    CvBackendSimd().colorCvt(src, dst, Rect(2, 4, 4, 4));
    EXPECT_TRUE(kvtest::framesEqual(getRegion(src, Rect(2, 4, 4, 4)), dst));
}

TEST(CvBackendSimdColor, UnsupportedPairsThrow) {
    std::set<std::pair<int, int>> supported;
    for (const Pair& p : kPairs) supported.insert({p.src, p.dst});
    CvBackendSimd backend;
    int checked = 0;
    for (int s = 1; s <= 26; ++s)
        for (int d = 1; d <= 26; ++d) {
            if (s == d || supported.count({s, d}) || (s >= 21 && s <= 23) || (d >= 21 && d <= 23)) continue;
            Frame src(FrameFormat(s), Size(4, 2)), dst(FrameFormat(d), Size(4, 2));
            src.setZero();
            const std::string msg = std::string("colorCvt: Unsupported conversion ") + toString(FrameFormat(s)) +
                                    " -> " + toString(FrameFormat(d)) + ".";
            EXPECT_KV_THROW_AT(backend.colorCvt(src, dst, Rect()), 8, msg, "kv::CvBackendSimd::colorCvt", kSimdFile,
                               1389);
            ++checked;
        }
    EXPECT_GT(checked, 400);
}

TEST(CvBackendSimd, AssertionsCarryTextFunctionAndLine) {
    CvBackendSimd b;
    Frame none, bgr(FRAME_BGR_8, Size(4, 4)), gray(FRAME_GRAY_8, Size(4, 4));
    Frame g16(FRAME_GRAY_16, Size(4, 4)), g16b(FRAME_GRAY_16, Size(2, 2));
    bgr.setZero();
    gray.setZero();
    std::vector<uint8_t> mem(64);
    const DeviceContext gpu_context(KV_DEVICE_GPU, 0, nullptr);
    Frame gpu = Frame::wrap(FRAME_GRAY_8, Size(4, 4), mem.data(), 4, gpu_context);
    Frame gpu_f32 = Frame::wrap(FRAME_FLOAT_32, Size(4, 4), mem.data(), 16, gpu_context);
    const std::string both = "Assertion failed: src.initialized() && dst.initialized()";
    const std::string same = "Assertion failed: src.initialized() && src.format() == dst.format()";
    const std::string cpu = "Assertion failed: src.deviceContext() == DeviceContext::cpuContext() && "
                            "src.deviceContext() == dst.deviceContext()";
    const std::string method =
        "Assertion failed: value == ResizeBilinear || value == ResizeArea || value == ResizeNearestNeighbour";
    const float singular[2][3] = {{1, 2, 3}, {2, 4, 5}};
    const struct {
        std::function<void()> call;
        int status;
        std::string message;
        const char* function;
        int line;
    } cases[] = {
        {[&] { b.colorCvt(Frame(), gray, Rect()); }, 2, both, "colorCvt", 329},
        {[&] { b.colorCvt(bgr, none, Rect()); }, 2, both, "colorCvt", 329},
        {[&] { b.colorCvt(bgr, gpu, Rect()); }, 2, cpu, "colorCvt", 332},
        {[&] { b.colorCvt(bgr, gray, Rect(0, 0, 2, 4)); }, 2, "Assertion failed: src_region.size() == dst.size()",
         "colorCvt", 339},
        {[&] { b.resize(Frame(), gray, Rect(), Rect()); }, 2, same, "resize", 1395},
        {[&] { b.resize(bgr, gray, Rect(), Rect()); }, 2, same, "resize", 1395},
        {[&] { b.resize(gray, gpu, Rect(), Rect()); }, 2, cpu, "resize", 1398},
        {[&] { b.resize(g16, g16b, Rect(), Rect()); }, 2,
         "Assertion failed: bits_per_channel == 8 || bits_per_channel == 32", "resize", 1401},
        {[&] { b.convert(gray, none, Rect()); }, 2, both, "convert", 1499},
        {[&] { b.convert(gpu, gray, Rect()); }, 2, cpu, "convert", 1502},
        {[&] { b.add(gray, 1.f, Rect()); }, 8, "add: Unsupported src format FRAME_GRAY_8.", "add", 1581},
        {[&] { b.mul(gray, 1.f, Rect()); }, 8, "mul: Unsupported src format FRAME_GRAY_8.", "mul", 1645},
        {[&] { b.add(none, 1.f, Rect()); }, 2, "Assertion failed: src_dst.initialized()", "add", 1528},
        {[&] { b.add(gpu_f32, 1.f, Rect()); }, 2,
         "Assertion failed: src_dst.deviceContext() == DeviceContext::cpuContext()", "add", 1529},
        {[&] { b.warpAffine(gray, gray, singular, Rect(), false); }, 8, "warpAffine: Can't create context.",
         "warpAffine", 1747},
        {[&] { b.warpAffine(gray, gray, singular, Rect(), true); }, 8, "warpAffine: Can't create context.",
         "warpAffine", 1747},
        {[&] { b.warpAffine(gray, bgr, singular, Rect(), false); }, 2, same, "warpAffine", 1653},
        {[&] { b.warpAffine(gray, gpu, singular, Rect(), false); }, 2, cpu, "warpAffine", 1656},
        {[&] { b.setIntProperty(1, 3); }, 2, method, "setIntProperty", 1770},
        {[&] { b.setIntProperty(2, -1); }, 2, method, "setIntProperty", 1776},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        EXPECT_KV_THROW_AT(cases[i].call(), cases[i].status, cases[i].message,
                           std::string("kv::CvBackendSimd::") + cases[i].function, kSimdFile, cases[i].line);
    }
    // mul shares add's checks but reports its own lines.
    EXPECT_KV_THROW(b.mul(none, 1.f, Rect()), 2, "Assertion failed: src_dst.initialized()");
    EXPECT_KV_THROW(b.mul(gpu_f32, 1.f, Rect()), 2,
                    "Assertion failed: src_dst.deviceContext() == DeviceContext::cpuContext()");
    // Odd regions where the chroma is subsampled on either side.
    const char* even = "Assertion failed: src_region.width() % 2 == 0 && src_region.height() % 2 == 0";
    const struct {
        FrameFormat src, dst;
        int line;
    } odd[] = {{FRAME_BGR_8, FRAME_NV21, 530}, {FRAME_BGR_8, FRAME_NV16, 563}, {FRAME_I420, FRAME_BGR_8, 845},
               {FRAME_NV12, FRAME_GRAY_8, 910}, {FRAME_NV21, FRAME_I420, 1032}, {FRAME_NV16, FRAME_YV16, 1138},
               {FRAME_I420, FRAME_YV12, 845}};
    for (const auto& c : odd)
        for (Size size : {Size(5, 3), Size(4, 3)}) {
            Frame s(c.src, size), d(c.dst, size);
            s.setZero();
            EXPECT_KV_THROW_AT(b.colorCvt(s, d, Rect()), 2, even, "kv::CvBackendSimd::colorCvt", kSimdFile, c.line);
        }
}

// ---- Resize ---------------------------------------------------------------------

namespace {

Frame ramp(FrameFormat f, Size size) {
    Frame fr(f, size);
    const FrameLayout& l = fr.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y)
            for (int x = 0; x < l.plane[p].size.width * l.plane[p].channels; ++x) {
                const int v = (x / l.plane[p].channels) * 10 + y * 3 + int(p) * 7 + x % l.plane[p].channels;
                if (l.plane[p].bits_per_channel == 32)
                    reinterpret_cast<float*>(fr.rowCpuData(p, y))[x] = float(v);
                else
                    fr.rowCpuData(p, y)[x] = uint8_t(v);
            }
    return fr;
}

}  // namespace

TEST(CvBackendSimdResize, MethodsSampleCentreAligned) {
    // 8x8 -> 4x4. Nearest takes the pixel under each destination centre
    // (odd source indices), bilinear and area average each 2x2 block.
    for (FrameFormat f : {FRAME_GRAY_8, FRAME_BGR_8, FRAME_FLOAT_32_C3, FRAME_BGR_8_PLANAR, FRAME_C4_8}) {
        const Frame src = ramp(f, Size(8, 8));
        const int ch = src.layout().plane[0].channels;
        for (int method : {ResizeNearestNeighbour, ResizeBilinear, ResizeArea}) {
            CvBackendSimd b;
            b.setIntProperty(1, method);
            Frame dst(f, Size(4, 4));
            b.resize(src, dst, Rect(), Rect());
            for (int y = 0; y < 4; ++y)
                for (int x = 0; x < 4; ++x)
                    for (int c = 0; c < ch; ++c) {
                        const double got = sampleAt(dst, 0, x, y, c);
                        const double expect =
                            method == ResizeNearestNeighbour
                                ? sampleAt(src, 0, 2 * x + 1, 2 * y + 1, c)
                                : (sampleAt(src, 0, 2 * x, 2 * y, c) + sampleAt(src, 0, 2 * x + 1, 2 * y, c) +
                                   sampleAt(src, 0, 2 * x, 2 * y + 1, c) + sampleAt(src, 0, 2 * x + 1, 2 * y + 1, c)) /
                                      4;
                        EXPECT_NEAR(got, expect, 0.51) << toString(f) << " method " << method << " " << x << "," << y;
                    }
        }
    }
}

TEST(CvBackendSimdResize, OnePixelHighOrWideDestinationsUseNearest) {
    const Frame src = ramp(FRAME_GRAY_8, Size(4, 4));
    CvBackendSimd b;
    ASSERT_TRUE(b.setIntProperty(1, ResizeArea));
    Frame row(FRAME_GRAY_8, Size(4, 1)), col(FRAME_GRAY_8, Size(1, 4));
    b.resize(src, row, Rect(), Rect());
    b.resize(src, col, Rect(), Rect());
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(row.rowCpuData(0, 0)[i], src.rowCpuData(0, 2)[i]);  // centre of 4 rows: row 2
        EXPECT_EQ(col.rowCpuData(0, i)[0], src.rowCpuData(0, i)[2]);
    }
}

TEST(CvBackendSimdResize, EveryPlaneAndRegions) {
    // Flat planes stay flat with every method, odd sizes included; only the
    // destination region is written.
    Frame src(FRAME_I420, Size(12, 10)), dst(FRAME_I420, Size(24, 20)), want(FRAME_I420, Size(24, 20));
    const auto flat = [](Frame f) {  // a view: fills the frame it was made from
        for (int p = 0; p < 3; ++p)
            for (int y = 0; y < f.layout().plane[p].size.height; ++y)
                std::memset(f.rowCpuData(p, y), 50 + 60 * p, size_t(f.layout().plane[p].size.width));
    };
    flat(src);
    for (int method : {0, 1, 2})
        for (Size to : {Size(7, 5), Size(20, 14), Size(3, 9)}) {
            const Rect dst_roi(2, 4, to.width, to.height);
            dst.setZero();
            want.setZero();
            flat(getRegion(want, dst_roi));
            CvBackendSimd b;
            b.setIntProperty(1, method);
            b.resize(src, dst, Rect(0, 0, 12, 10), dst_roi);
            EXPECT_TRUE(kvtest::framesEqual(dst, want)) << "method " << method << " to " << to.width << "x" << to.height;
        }
}

// ---- Convert --------------------------------------------------------------------

TEST(CvBackendSimdConvert, ScalesFirstThenConverts) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(20, 12), 11);
    CvBackendSimd b, ref;
    // Same size, other format: conversion only.
    Frame gray(FRAME_GRAY_8, Size(8, 6)), gray_ref(FRAME_GRAY_8, Size(8, 6));
    b.convert(src, gray, Rect(2, 2, 8, 6));
    ref.colorCvt(src, gray_ref, Rect(2, 2, 8, 6));
    EXPECT_TRUE(kvtest::framesEqual(gray, gray_ref));
    // Same format, other size: resize only.
    Frame small(FRAME_BGR_8, Size(7, 5)), small_ref(FRAME_BGR_8, Size(7, 5));
    b.convert(src, small, Rect());
    ref.resize(src, small_ref, Rect(), Rect());
    EXPECT_TRUE(kvtest::framesEqual(small, small_ref));
    // Both: resize in the source format, then convert (odd size through the strips).
    Frame i420(FRAME_I420, Size(7, 5)), i420_ref(FRAME_I420, Size(7, 5));
    b.convert(src, i420, Rect(0, 0, 16, 10));
    Frame scaled(FRAME_BGR_8, Size(7, 5));
    ref.resize(src, scaled, Rect(0, 0, 16, 10), Rect());
    ref.colorCvt(scaled, i420_ref, Rect());
    EXPECT_TRUE(kvtest::framesEqual(i420, i420_ref));
}

// ---- Arithmetic -----------------------------------------------------------------

TEST(CvBackendSimdArithmetic, AddAndMulTouchOnlyTheRegion) {
    for (FrameFormat f : {FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR})
        for (bool multiply : {false, true})
            for (size_t pad : {size_t(0), size_t(8)})
                for (Rect roi : {Rect(), Rect(3, 1, 9, 4), Rect(0, 0, 17, 0)}) {
                    auto w = kvtest::wrappedFrame(f, Size(17, 6), pad, 0);
                    fillSource(w.frame, 5);
                    Frame before(f, Size(17, 6));
                    w.frame.copyTo(before);
                    CvBackendSimd b;
                    multiply ? b.mul(w.frame, 1.5f, roi) : b.add(w.frame, -2.25f, roi);
                    EXPECT_TRUE(kvtest::paddingIntact(w));
                    const Rect area = roi.empty() ? Rect(0, 0, 17, 6) : roi;
                    const FrameLayout& l = w.frame.layout();
                    for (uint32_t p = 0; p < l.planes; ++p)
                        for (int y = 0; y < 6; ++y)
                            for (int x = 0; x < 17 * l.plane[p].channels; ++x) {
                                const float was = reinterpret_cast<const float*>(before.rowCpuData(p, y))[x];
                                const float now = reinterpret_cast<const float*>(w.frame.rowCpuData(p, y))[x];
                                const int px = x / l.plane[p].channels;
                                const bool in = px >= area.x && px < area.x + area.width && y >= area.y &&
                                                y < area.y + area.height;
                                const float expect = !in ? was : multiply ? was * 1.5f : was + -2.25f;
                                EXPECT_EQ(now, expect) << toString(f) << " " << x << "," << y;
                            }
                }
}

// ---- Warp -----------------------------------------------------------------------

TEST(CvBackendSimdWarp, TranslationIdentityAndInverse) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(9, 7), 21);
    for (int method : {0, 1, 2}) {
        CvBackendSimd b;
        b.setIntProperty(2, method);
        const float identity[2][3] = {{1, 0, 0}, {0, 1, 0}};
        Frame same(FRAME_BGR_8, Size(9, 7));
        b.warpAffine(src, same, identity, Rect(), true);
        EXPECT_TRUE(kvtest::framesEqual(src, same));
        // Forward map (x, y) -> (x + 2, y + 1); outside the source is zero.
        const float shift[2][3] = {{1, 0, 2}, {0, 1, 1}};
        const float back[2][3] = {{1, 0, -2}, {0, 1, -1}};
        Frame moved(FRAME_BGR_8, Size(9, 7)), moved_inv(FRAME_BGR_8, Size(9, 7));
        b.warpAffine(src, moved, shift, Rect(), false);
        b.warpAffine(src, moved_inv, back, Rect(), true);
        EXPECT_TRUE(kvtest::framesEqual(moved, moved_inv));
        for (int y = 0; y < 7; ++y)
            for (int x = 0; x < 9 * 3; ++x) {
                const int sx = x / 3 - 2, sy = y - 1;
                const int expect = sx >= 0 && sy >= 0 ? src.rowCpuData(0, sy)[sx * 3 + x % 3] : 0;
                EXPECT_EQ(moved.rowCpuData(0, y)[x], expect) << method << " " << x << "," << y;
            }
    }
}

TEST(CvBackendSimdWarp, RegionAndPlanes) {
    // The source region's origin is the matrix's origin; every plane is warped.
    const Frame src = kvtest::randomFrame(FRAME_NV12, Size(12, 8), 4);
    const float identity[2][3] = {{1, 0, 0}, {0, 1, 0}};
    Frame dst(FRAME_NV12, Size(6, 4));
    CvBackendSimd().warpAffine(src, dst, identity, Rect(4, 2, 6, 4), false);
    EXPECT_TRUE(kvtest::framesEqual(getRegion(src, Rect(4, 2, 6, 4)), dst));
}

// ---- Properties -----------------------------------------------------------------

TEST(CvBackendSimdProperties, ValuesCopiesAndDevice) {
    CvBackendSimd b;
    EXPECT_EQ(b.getIntProperty(1), ResizeBilinear);
    EXPECT_EQ(b.getIntProperty(2), ResizeBilinear);
    EXPECT_EQ(b.getIntProperty(3), -1);
    EXPECT_TRUE(b.setIntProperty(1, ResizeArea));
    EXPECT_TRUE(b.setIntProperty(2, ResizeNearestNeighbour));
    EXPECT_FALSE(b.setIntProperty(3, 0));
    EXPECT_THROW(b.setIntProperty(1, 3), Exception);
    EXPECT_EQ(b.getIntProperty(1), ResizeArea);  // unchanged by the failure
    CvBackendSimd copy(b), assigned;
    assigned = b;
    EXPECT_EQ(copy.getIntProperty(2), ResizeNearestNeighbour);
    EXPECT_EQ(assigned.getIntProperty(1), ResizeArea);
    b.setDeviceContext(DeviceContext(KV_DEVICE_GPU, 3, nullptr));
    EXPECT_TRUE(b.getDeviceContext() == DeviceContext::cpuContext());
}

// ---- Adapter kernels: every vector set against the reference ------------------------

namespace {

// The kernel sets of the vector instruction sets this processor runs.
std::vector<const impl::FastKernels*> vectorKernelSets() {
    std::vector<const impl::FastKernels*> sets;
    for (impl::Isa isa : kvtest::availableIsas())
        if (isa != impl::Isa::kScalar) sets.push_back(&impl::fastKernels(isa));
    return sets;
}

}  // namespace

class FastKernelTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (vectors.empty()) GTEST_SKIP() << "no AVX2";
    }
    const impl::FastKernels& ref = impl::fastKernels(impl::Isa::kScalar);
    const std::vector<const impl::FastKernels*> vectors = vectorKernelSets();
};

namespace {

std::vector<int> kernelWidths() {
    std::vector<int> w;
    for (int i = 1; i <= 67; ++i) w.push_back(i);
    w.push_back(1920);
    w.push_back(1921);
    return w;
}

// The two kernel sets' outputs, rows of `step` bytes of which `row_bytes` are
// written: equal bit for bit, and the sentinel 0xcd past every row untouched.
::testing::AssertionResult sameRows(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, size_t step,
                                    size_t row_bytes) {
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i]) return ::testing::AssertionFailure() << "first difference at byte " << i;
        if (i % step >= row_bytes && b[i] != 0xcd) return ::testing::AssertionFailure() << "wrote past the row at " << i;
    }
    return ::testing::AssertionSuccess();
}

// Runs `run(kernels, src, dst)` for the reference and each vector set on a
// random source offset by one byte, into destinations with sentinels past
// `dst_bytes`.
template <typename Run>
void compareRows(const impl::FastKernels& ref, const std::vector<const impl::FastKernels*>& vectors,
                 size_t src_bytes, size_t dst_bytes, Run run, const std::string& what) {
    std::mt19937 rng(uint32_t(src_bytes * 31 + dst_bytes));
    std::vector<uint8_t> src(src_bytes + 1);
    for (auto& b : src) b = uint8_t(rng());
    std::vector<uint8_t> a(dst_bytes + 40, 0xcd);
    run(ref, src.data() + 1, a.data());
    for (size_t k = 0; k < vectors.size(); ++k) {
        std::vector<uint8_t> b(dst_bytes + 40, 0xcd);
        run(*vectors[k], src.data() + 1, b.data());
        ASSERT_TRUE(sameRows(a, b, a.size(), dst_bytes)) << what << " vector set " << k;
    }
}

}  // namespace

TEST_F(FastKernelTest, GrayRowsMatchReference) {
    for (int w : kernelWidths()) {
        compareRows(ref, vectors, size_t(w) * 3, size_t(w), [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            k.bgrToGrayRow(s, d, w);
        }, "bgrToGray " + std::to_string(w));
        compareRows(ref, vectors, size_t(w), size_t(w) * 3, [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            k.grayToBgrRow(s, d, w);
        }, "grayToBgr " + std::to_string(w));
    }
    // Worst case for the 14-bit sum: all 255 must stay 255.
    const std::vector<uint8_t> white(96 * 3, 255);
    for (const impl::FastKernels* avx : vectors) {
        std::vector<uint8_t> g(96);
        avx->bgrToGrayRow(white.data(), g.data(), 96);
        EXPECT_EQ(g[0], 255);
        EXPECT_EQ(g[95], 255);
    }
}

TEST_F(FastKernelTest, ByteMovesMatchReference) {
    for (int w : kernelWidths()) {
        const size_t n = size_t(w);
        compareRows(ref, vectors, 3 * n, 3 * n, [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            k.split3(s, d, d + n, d + 2 * n, w);
        }, "split3 " + std::to_string(w));
        compareRows(ref, vectors, 3 * n, 3 * n, [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            k.merge3(s, s + n, s + 2 * n, d, w);
        }, "merge3 " + std::to_string(w));
        compareRows(ref, vectors, 3 * n, 3 * n, [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            k.swap3(s, d, w);
        }, "swap3 " + std::to_string(w));
        // Float planes one byte off alignment.
        compareRows(ref, vectors, 3 * n, 12 * n + 1, [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            k.bytesToPlanarFloat3(s, d + 1, d + 1 + 4 * n, d + 1 + 8 * n, w);
        }, "bytesToPlanarFloat3 " + std::to_string(w));
    }
}

TEST_F(FastKernelTest, ByteFloatRowsMatchReference) {
    for (int n : kernelWidths()) {
        compareRows(ref, vectors, size_t(n), size_t(n) * 4, [&](const impl::FastKernels& k, const uint8_t* s, uint8_t* d) {
            float tmp[2000];
            k.u8ToF32Row(s, tmp, size_t(n));
            std::memcpy(d, tmp, size_t(n) * 4);
        }, "u8ToF32 " + std::to_string(n));
        // Floats from -100 to 400 in quarter steps, plus specials.
        std::vector<float> src(static_cast<size_t>(n));
        std::mt19937 rng(static_cast<uint32_t>(n));
        for (auto& f : src) f = float(int(rng() % 2000) - 400) / 4.f;
        if (n > 3) {
            src[0] = std::nanf("");
            src[1] = -std::numeric_limits<float>::infinity();
            src[2] = std::numeric_limits<float>::infinity();
            src[3] = 254.5f;
        }
        std::vector<uint8_t> a(size_t(n) + 40, 0xcd);
        ref.f32ToU8Row(src.data(), a.data(), size_t(n));
        for (const impl::FastKernels* avx : vectors) {
            std::vector<uint8_t> b(size_t(n) + 40, 0xcd);
            avx->f32ToU8Row(src.data(), b.data(), size_t(n));
            ASSERT_TRUE(sameRows(a, b, a.size(), size_t(n))) << "f32ToU8 " << n;
        }
    }
}

TEST_F(FastKernelTest, HalfFloatAllCodesMatchReferenceAndRoundTrip) {
    std::vector<uint16_t> codes(65536);
    for (size_t i = 0; i < codes.size(); ++i) codes[i] = uint16_t(i);
    std::vector<float> fa(codes.size()), fb(codes.size());
    ref.halfToFloatRow(codes.data(), fa.data(), codes.size());
    std::vector<uint16_t> ha(codes.size()), hb(codes.size());
    ref.floatToHalfRow(fa.data(), ha.data(), codes.size());
    for (const impl::FastKernels* avx : vectors) {
        avx->halfToFloatRow(codes.data(), fb.data(), codes.size());
        EXPECT_EQ(0, std::memcmp(fa.data(), fb.data(), fa.size() * 4));
        avx->floatToHalfRow(fa.data(), hb.data(), codes.size());
        EXPECT_EQ(ha, hb);
    }
    for (size_t i = 0; i < codes.size(); ++i) {
        const bool nan = (i & 0x7c00) == 0x7c00 && (i & 0x3ff);
        // Every value survives the round trip; NaNs come back quiet.
        EXPECT_EQ(ha[i], nan ? uint16_t(i | 0x200) : uint16_t(i)) << std::hex << i;
    }
    // Arbitrary float bit patterns (every rounding case) and every tail length.
    std::mt19937 rng(9);
    std::vector<float> any(1 << 16);
    for (auto& f : any) {
        const uint32_t bits = rng();
        std::memcpy(&f, &bits, 4);
    }
    ref.floatToHalfRow(any.data(), ha.data(), any.size());
    for (const impl::FastKernels* avx : vectors) {
        avx->floatToHalfRow(any.data(), hb.data(), any.size());
        EXPECT_EQ(ha, hb);
        for (int n = 1; n <= 67; ++n) {
            std::vector<uint16_t> a(size_t(n) + 8, 0xcdcd), b(size_t(n) + 8, 0xcdcd);
            ref.floatToHalfRow(any.data() + 1, a.data(), size_t(n));
            avx->floatToHalfRow(any.data() + 1, b.data(), size_t(n));
            EXPECT_EQ(a, b);
            EXPECT_EQ(b[size_t(n)], 0xcdcd);
        }
    }
}

// Half to float over every count up to 67, 1920 and 1921 and counts long enough to stream
// (16 MB of floats), at destination offsets across 64 bytes:
// the head, bulk and tail split must give the reference's bits and touch
// nothing past the count.
TEST_F(FastKernelTest, HalfToFloatEveryCountAndAlignment) {
    std::vector<int> counts;
    for (int n = 0; n <= 67; ++n) counts.push_back(n);
    counts.push_back(1920);
    counts.push_back(1921);
    counts.push_back(1 << 22);
    counts.push_back((1 << 22) + 37);
    std::mt19937 rng(3);
    std::vector<uint16_t> src((1 << 22) + 64);
    for (auto& h : src) h = uint16_t(rng());
    for (int n : counts)
        for (int offset : {0, 1, 5, 15}) {
            if (n > 1921 && offset % 5 != 0) continue;  // long counts: one aligned and one unaligned start
            std::vector<float> a(size_t(n) + 32, -7.f);
            ref.halfToFloatRow(src.data() + 1, a.data() + offset, size_t(n));
            for (const impl::FastKernels* avx : vectors) {
                std::vector<float> b(size_t(n) + 32, -7.f);
                avx->halfToFloatRow(src.data() + 1, b.data() + offset, size_t(n));
                ASSERT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * 4)) << "count " << n << " offset " << offset;
            }
        }
}

TEST_F(FastKernelTest, Rotate3MatchesReference) {
    std::vector<int> widths;
    for (int w = 1; w <= 67; w += (w < 20 ? 1 : 7)) widths.push_back(w);
    widths.push_back(1921);
    for (int code : {1, 2, 3})
        for (int w : widths)
            for (int h : {1, 2, 7, 8, 9, 16, 17, 33, 48}) {
                const int dw = code == 2 ? w : h, dh = code == 2 ? h : w;
                const size_t ss = size_t(w) * 3 + 5, ds = size_t(dw) * 3 + 7;
                std::vector<uint8_t> src(ss * size_t(h) + 1);
                std::mt19937 rng(uint32_t(w * 100 + h));
                for (auto& b : src) b = uint8_t(rng());
                std::vector<uint8_t> a(ds * size_t(dh), 0xcd);
                ref.rotate3(src.data() + 1, ss, w, h, code, a.data(), ds);
                for (const impl::FastKernels* avx : vectors) {
                    std::vector<uint8_t> b(ds * size_t(dh), 0xcd);
                    avx->rotate3(src.data() + 1, ss, w, h, code, b.data(), ds);
                    ASSERT_TRUE(sameRows(a, b, ds, size_t(dw) * 3)) << "code " << code << " " << w << "x" << h;
                }
            }
}

TEST_F(FastKernelTest, YuvToRgbRowsMatchReference) {
    // Each layout with exact-size rows (so the sanitizer sees any read past
    // them) and both channel orders; chroma pairs in both byte orders.
    struct Kernel {
        const char* name;
        impl::YuvToRgbRowFn impl::FastKernels::*fn;
        int layout;  // 0 half planes, 1 pairs, 2 full planes
    };
    const Kernel kernels[] = {
        {"half bgr", &impl::FastKernels::yuvHalfToBgrRow, 0},   {"half rgb", &impl::FastKernels::yuvHalfToRgbRow, 0},
        {"pairs bgr", &impl::FastKernels::yuvPairsToBgrRow, 1}, {"pairs rgb", &impl::FastKernels::yuvPairsToRgbRow, 1},
        {"full bgr", &impl::FastKernels::yuvFullToBgrRow, 2},   {"full rgb", &impl::FastKernels::yuvFullToRgbRow, 2},
    };
    for (const Kernel& k : kernels)
        for (int w : kernelWidths())
            for (bool swapped : {false, true}) {
                if (swapped && k.layout != 1) continue;
                std::mt19937 rng(uint32_t(w * 7 + k.layout));
                const size_t half = size_t(w + 1) / 2;
                const size_t chroma = k.layout == 2 ? size_t(w) : half;
                std::vector<uint8_t> y(static_cast<size_t>(w)), u(chroma), v(chroma), pairs(2 * half);
                for (auto* plane : {&y, &u, &v, &pairs})
                    for (auto& b : *plane) b = uint8_t(rng());
                const uint8_t* pu = k.layout == 1 ? pairs.data() + (swapped ? 1 : 0) : u.data();
                const uint8_t* pv = k.layout == 1 ? pairs.data() + (swapped ? 0 : 1) : v.data();
                std::vector<uint8_t> a(size_t(w) * 3 + 40, 0xcd);
                (ref.*k.fn)(y.data(), pu, pv, a.data(), w);
                for (const impl::FastKernels* avx : vectors) {
                    std::vector<uint8_t> b(size_t(w) * 3 + 40, 0xcd);
                    (avx->*k.fn)(y.data(), pu, pv, b.data(), w);
                    ASSERT_TRUE(sameRows(a, b, a.size(), size_t(w) * 3))
                        << k.name << " width " << w << (swapped ? " v first" : "");
                }
            }
    // The extremes of every input, where the 16-bit split of the vector code is tightest.
    std::vector<uint8_t> y(64), u(64), v(64);
    for (int combo = 0; combo < 27; ++combo) {
        const uint8_t levels[3] = {0, 128, 255};
        for (int i = 0; i < 64; ++i) {
            y[size_t(i)] = i % 2 ? levels[combo % 3] : uint8_t(i * 4);
            u[size_t(i)] = levels[(combo / 3) % 3];
            v[size_t(i)] = levels[combo / 9];
        }
        std::vector<uint8_t> a(192), b(192);
        ref.yuvFullToRgbRow(y.data(), u.data(), v.data(), a.data(), 64);
        for (const impl::FastKernels* avx : vectors) {
            avx->yuvFullToRgbRow(y.data(), u.data(), v.data(), b.data(), 64);
            ASSERT_EQ(a, b) << combo;
        }
    }
}

const int kBoxFactors[][2] = {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {2, 3}, {5, 1}, {1, 4}, {4, 2}, {7, 7}, {17, 16}};

// Output widths 1..67 (every fifth for wide blocks) and, for blocks up to 4
// wide, full-HD sources: 1920 / f and one more.
std::vector<int> boxWidths(int fx) {
    std::vector<int> v;
    for (int w = 1; w <= 67; w += (fx > 4 ? 5 : 1)) v.push_back(w);
    if (fx <= 4) v.insert(v.end(), {1920 / fx, 1920 / fx + 1});
    return v;
}

TEST_F(FastKernelTest, AreaBoxMatchesReference) {
    // Every channel count and a spread of factors (17 x 16 exceeds the vector
    // kernel's 16-bit sums and takes the reference path inside it); sources
    // of exact size with a padded pitch, destinations with sentinels.
    for (int channels = 1; channels <= 4; ++channels)
        for (const auto& f : kBoxFactors)
            for (int w : boxWidths(f[0]))
                for (int h : {1, 2, 3}) {
                    const int fx = f[0], fy = f[1];
                    const size_t src_step = size_t(w * fx * channels) + 3, dst_step = size_t(w * channels) + 5;
                    std::vector<uint8_t> src(src_step * size_t(h * fy - 1) + size_t(w * fx * channels));
                    std::mt19937 rng(uint32_t(w * 131 + fx * 7 + fy + channels * 1000));
                    for (auto& b : src) b = uint8_t(rng());
                    std::vector<uint8_t> a(dst_step * size_t(h), 0xcd), b(dst_step * size_t(h), 0xcd);
                    ref.areaBox(src.data(), src_step, a.data(), dst_step, w, h, channels, fx, fy);
                    vectors.back()->areaBox(src.data(), src_step, b.data(), dst_step, w, h, channels, fx, fy);
                    ASSERT_TRUE(sameRows(a, b, dst_step, size_t(w * channels)))
                        << channels << " channels " << fx << "x" << fy << " width " << w << " height " << h;
                }
}

TEST(FastKernelReference, AreaBoxRoundsAsOpenCv) {
    // The adapter's integer-factor area path against OpenCV's INTER_AREA on
    // the same planes: bit for bit, for every channel count and factor,
    // including 1920 wide rows (several strips).
    for (int channels = 1; channels <= 4; ++channels)
        for (const auto& f : kBoxFactors)
            for (int w : {1, 7, 64, 129, 1920 / f[0]}) {
                const int fx = f[0], fy = f[1], h = 5;
                const int sw = w * fx, sh = h * fy;
                const size_t src_step = size_t(sw * channels) + 1, dst_step = size_t(w * channels);
                std::vector<uint8_t> src(src_step * size_t(sh));
                std::mt19937 rng(uint32_t(w + fx * 10 + fy * 100 + channels));
                for (auto& b : src) b = uint8_t(rng());
                // Ties of the float path (sum a multiple of half the area) are frequent in flat areas.
                for (size_t i = 0; i < src.size() / 2; ++i) src[i] = uint8_t(i % 7 == 0 ? 1 : 0);
                std::vector<uint8_t> a(dst_step * size_t(h)), b(dst_step * size_t(h));
                impl::fast::resizePlane(src.data(), src_step, sw, sh, a.data(), dst_step, w, h, channels, false,
                                        impl::fast::Interpolation::kArea);
                impl::fast::resizePlaneWithLibrary(src.data(), src_step, sw, sh, b.data(), dst_step, w, h, channels,
                                                   false, impl::fast::Interpolation::kArea);
                ASSERT_EQ(a, b) << channels << " channels " << fx << "x" << fy << " width " << w;
            }
    // Known roundings: 2 x 2 rounds half up; 4 x 4 rounds the mean half to even.
    const impl::FastKernels& ref = impl::fastKernels(impl::Isa::kScalar);
    const uint8_t two[4] = {0, 1, 1, 0};  // mean 0.5
    uint8_t out = 0;
    ref.areaBox(two, 2, &out, 1, 1, 1, 1, 2, 2);
    EXPECT_EQ(out, 1);
    uint8_t four[16] = {};
    four[0] = 8;  // mean 0.5 -> 0
    ref.areaBox(four, 4, &out, 1, 1, 1, 1, 4, 4);
    EXPECT_EQ(out, 0);
    four[0] = 24;  // mean 1.5 -> 2
    ref.areaBox(four, 4, &out, 1, 1, 1, 1, 4, 4);
    EXPECT_EQ(out, 2);
}

TEST(FastKernelReference, YuvToRgbKnownValues) {
    // Y 16 and 235 / 236 with neutral chroma give black, 254 and 255; the RGB
    // kernels write the same triple in the other order.
    const impl::FastKernels& ref = impl::fastKernels(impl::Isa::kScalar);
    const uint8_t y[4] = {16, 235, 236, 81}, u[4] = {128, 128, 128, 90}, v[4] = {128, 128, 128, 240};
    uint8_t bgr[12], rgb[12];
    ref.yuvFullToBgrRow(y, u, v, bgr, 4);
    ref.yuvFullToRgbRow(y, u, v, rgb, 4);
    // Last pixel: C = 65 * 297 = 19305; B = (-38 * 516 + C) / 256 = -1.2 -> 0;
    // G = (C - 9000 - 49680 + 39296) / 256 = -0.3 -> 0; R = (112 * 408 + C) / 256 = 253.9 -> 253.
    const uint8_t expected[12] = {0, 0, 0, 254, 254, 254, 255, 255, 255, 0, 0, 253};
    EXPECT_EQ(0, std::memcmp(bgr, expected, 12));
    for (int i = 0; i < 4; ++i)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(rgb[3 * i + c], bgr[3 * i + 2 - c]) << i;
}

TEST(FastKernelReference, HalfFloatKnownValues) {
    const impl::FastKernels& ref = impl::fastKernels(impl::Isa::kScalar);
    const float in[] = {1.f, -2.f, 65504.f, 65519.f, 65520.f, 5.9604645e-8f, 2.9802322e-8f, 8.9406967e-8f,
                        1.f + 1.f / 2048, 1.f + 3.f / 2048, 0.f, -0.f};
    const uint16_t out[] = {0x3c00, 0xc000, 0x7bff, 0x7bff, 0x7c00, 0x0001, 0x0000, 0x0002, 0x3c00, 0x3c02, 0, 0x8000};
    uint16_t got[12];
    ref.floatToHalfRow(in, got, 12);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(got[i], out[i]) << i;
}
