// Area scalers: the weight table's worked numbers, error texts, whole frames of
// every format against a direct evaluation of the combination rule (frame,
// producer and wrapped sources, scalar and AVX2 kernels), the row kernels
// against their scalar references, and allocation-free steady state.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "alloc_count.h"
#include "frame_compare.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler.h"
#include "kv_cv/kv_scaler_area.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_scale_area.h"
#include "kv_cv/kv_impl_unaligned.h"
#include "test_util.h"
#include "wrapped_frame.h"

namespace {

using kv::impl::AreaTableEntry;
using kv::impl::Isa;

// Channels per processed unit and bytes per sample, as the area scalers see a format.
struct Unit {
    int channels[3];
    int sample_bytes;
};

Unit unitOf(kv::FrameFormat f) {
    switch (f) {
        case kv::FRAME_BGR_8: case kv::FRAME_YUYV: case kv::FRAME_YUV444: case kv::FRAME_C3_8: return {{3}, 1};
        case kv::FRAME_UYVY: case kv::FRAME_C4_8: return {{4}, 1};
        case kv::FRAME_C2_8: return {{2}, 1};
        case kv::FRAME_GRAY_16: return {{1}, 2};
        case kv::FRAME_GRAY_FLOAT_32: return {{1}, 4};
        case kv::FRAME_NV12: case kv::FRAME_NV21: case kv::FRAME_NV16: return {{1, 2}, 1};
        default: return {{1, 1, 1}, 1};
    }
}

const kv::FrameFormat kFormats[] = {
    kv::FRAME_GRAY_8, kv::FRAME_BGR_8,  kv::FRAME_YUYV, kv::FRAME_YUV444, kv::FRAME_C3_8,
    kv::FRAME_UYVY,   kv::FRAME_C4_8,   kv::FRAME_C2_8, kv::FRAME_GRAY_16, kv::FRAME_GRAY_FLOAT_32,
    kv::FRAME_BGR_8_PLANAR, kv::FRAME_YV16, kv::FRAME_YUV444_PLANAR, kv::FRAME_I420, kv::FRAME_YV12,
    kv::FRAME_NV12, kv::FRAME_NV21, kv::FRAME_NV16,
};

// Sample e of a row, 0 at or past the row's samples.
uint64_t sample(const kv::Frame& f, int p, int row, int64_t e, int sample_bytes) {
    if (e >= int64_t(f.layout().plane[p].row_bytes / uint64_t(sample_bytes))) return 0;
    return kvtest::sampleAt(f.rowCpuData(size_t(p), row), sample_bytes, int(e));
}

void store(kv::Frame& f, int p, int row, int64_t e, int sample_bytes, uint64_t v) {
    kvtest::setSample(f.rowCpuData(size_t(p), row), sample_bytes, int(e), v);
}

// Weights of source indices first.. for output i of the table (the combination rule).
std::vector<std::pair<int, uint64_t>> taps(const std::vector<AreaTableEntry>& t, int i, uint32_t wm, bool reduce) {
    std::vector<std::pair<int, uint64_t>> out;
    out.push_back({t[i].first, t[i].weight});
    if (reduce) {
        for (int k = t[i].first + 1; k < t[i + 1].first; ++k) out.push_back({k, wm});
        if (t[i + 1].weight != wm) out.push_back({t[i + 1].first, wm - t[i + 1].weight});
    } else if (t[i].weight != wm) {
        out.push_back({t[i].first + 1, wm - t[i].weight});
    }
    return out;
}

// ScalerAreaX over a whole frame, straight from the rule.
kv::Frame expectX(const kv::Frame& src, int dst_width, int shift) {
    std::vector<AreaTableEntry> t;
    const uint32_t wm = kv::impl::buildAreaTable(src.size().width, dst_width, shift, t);
    kv::Frame out(src.format(), kv::Size(dst_width, src.size().height));
    const Unit u = unitOf(src.format());
    const kv::FrameLayout& l = out.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            const int C = u.channels[p];
            const int64_t len = int64_t(l.plane[p].row_bytes) / u.sample_bytes;
            for (int64_t o = 0; o < len; ++o) {
                uint64_t v = 0;
                if (dst_width == src.size().width) {
                    v = sample(src, int(p), y, o, u.sample_bytes);
                } else if (o < int64_t(l.plane[p].size.width) * C) {
                    uint64_t acc = 0;
                    for (auto [k, w] : taps(t, int(o / C), wm, dst_width < src.size().width))
                        acc += sample(src, int(p), y, int64_t(k) * C + o % C, u.sample_bytes) * w;
                    v = acc >> shift;
                }
                store(out, int(p), y, o, u.sample_bytes, v);
            }
        }
    return out;
}

// ScalerAreaY over a whole frame: plane rows come from frame rows as the row
// window hands them out; chroma of a subsampled output uses table row current / 2.
kv::Frame expectY(const kv::Frame& src, int dst_height, int shift) {
    const int H = src.size().height;
    std::vector<AreaTableEntry> t;
    const uint32_t wm = kv::impl::buildAreaTable(H, dst_height, shift, t);
    kv::Frame out(src.format(), kv::Size(src.size().width, dst_height));
    const Unit u = unitOf(src.format());
    const kv::FrameLayout& l = out.layout();
    const bool sub = l.planes >= 2 && l.plane[1].size.height != l.plane[0].size.height;
    const int n = kv::impl::areaRowsNeeded(H, dst_height, t, uint16_t(wm));
    for (uint32_t p = 0; p < l.planes; ++p) {
        const int src_mask = kv::subsamplingMask(H, src.layout().plane[p].size.height);
        const int out_mask = kv::subsamplingMask(dst_height, l.plane[p].size.height);
        const int stride = sub && p > 0 ? 2 : 1;
        for (int j = 0; j < l.plane[p].size.height; ++j) {
            const int current = j * (out_mask + 1);
            const int trow = stride == 2 ? current / 2 : current;
            const int64_t len = int64_t(l.plane[p].row_bytes) / u.sample_bytes;
            for (int64_t e = 0; e < len; ++e) {
                uint64_t acc = 0;
                for (auto [k, w] : taps(t, trow, wm, dst_height < H)) {
                    if (k - t[trow].first >= n) continue;
                    const int frame_row = t[trow].first * stride + (k - t[trow].first) * stride;
                    if (frame_row >= H) continue;
                    acc += sample(src, int(p), frame_row / (src_mask + 1), e, u.sample_bytes) * w;
                }
                store(out, int(p), j, e, u.sample_bytes, acc >> shift);
            }
        }
    }
    return out;
}

// scaleAreaXY over a whole frame in 16.16.
kv::Frame expectXY(const kv::Frame& src, kv::Size dst) {
    const kv::FrameLayout& sl = src.layout();
    kv::Frame out(src.format(), dst);
    const kv::FrameLayout& l = out.layout();
    const Unit u = unitOf(src.format());
    const int64_t xs = (int64_t(sl.size.width) << 16) / dst.width;
    const int64_t ys = (int64_t(sl.size.height) << 16) / dst.height;
    const kv::FrameFormat f = src.format();
    const bool c420 = f == kv::FRAME_I420 || f == kv::FRAME_YV12 || f == kv::FRAME_NV12 || f == kv::FRAME_NV21;
    const int64_t cys = c420 ? (int64_t(sl.plane[1].size.height) << 16) / l.plane[1].size.height : 0;
    const int r = (ys & 65535) ? int(ys >> 16) + 2 : int(ys >> 16);
    for (uint32_t p = 0; p < l.planes; ++p) {
        const bool chroma = c420 && p > 0;
        const int64_t step = chroma ? cys : ys;
        const int C = u.channels[p];
        for (int j = 0; j < l.plane[p].size.height; ++j) {
            const int64_t y0 = j * step;
            const int64_t first = y0 >> 16, last = (y0 + step) >> 16;
            const int64_t len = int64_t(l.plane[p].row_bytes) / u.sample_bytes;
            for (int64_t o = 0; o < len; ++o) {
                if (o >= int64_t(l.plane[p].size.width) * C) {
                    store(out, int(p), j, o, u.sample_bytes, 0);
                    continue;
                }
                const int64_t x0 = (o / C) * xs, x1 = x0 + xs, c = o % C;
                uint64_t sum = 0;
                for (int k = 0; k < r; ++k) {
                    const int64_t row = first + k;
                    const uint64_t w = k == 0 ? 65536 - (y0 & 65535) : row < last ? 65536 : row == last ? (y0 + step) & 65535 : 0;
                    if (!w || row >= sl.plane[p].size.height) continue;
                    auto at = [&](int64_t kk) { return sample(src, int(p), int(row), kk * C + c, u.sample_bytes); };
                    uint64_t h = at(x0 >> 16);
                    if (x0 & 65535) h = ((65536 - (x0 & 65535)) * h) >> 16;
                    if (x1 & 65535) h += (uint64_t(x1 & 65535) * at(x1 >> 16)) >> 16;
                    for (int64_t kk = (x0 >> 16) + 1; kk < (x1 >> 16); ++kk) h += at(kk);
                    sum += (w * h) >> 16;
                }
                store(out, int(p), j, o, u.sample_bytes, (sum << 32) / uint64_t(xs * step));
            }
        }
    }
    return out;
}

// A copy of `f` in caller memory with rows exactly row_bytes long and nothing
// after the last row, so a read past any row's bytes reaches the next row or
// leaves the allocation (which AddressSanitizer reports).
kvtest::WrappedFrame wrappedCopy(const kv::Frame& f) {
    kvtest::WrappedFrame w = kvtest::wrappedFrame(f.format(), f.size(), 0, 0);
    f.copyTo(w.frame);
    return w;
}

using kvtest::IsaCap;

// ---- tables -------------------------------------------------------------------

TEST(AreaTable, WorkedNumbers) {
    struct Case {
        int src, dst, shift;
        uint16_t weight_max;
        std::vector<std::pair<int, int>> entries;  // including the sentinel
        int rows;
    };
    const Case cases[] = {
        {4, 2, 15, 16384, {{0, 16384}, {2, 16384}, {4, 16384}}, 2},
        {5, 2, 15, 13107, {{0, 13107}, {2, 6553}, {5, 13107}}, 4},
        {4, 2, 7, 64, {{0, 64}, {2, 64}, {4, 64}}, 2},  // 8-bit precision: scaled by 128
        {2, 4, 15, 32768, {{0, 32768}, {0, 32768}, {1, 32768}, {1, 32768}, {2, 32768}}, 2},
        {3, 3, 15, 32768, {{0, 32768}, {1, 32768}, {2, 32768}, {3, 32768}}, 1},
        {9, 1, 15, 3640, {{0, 3640}, {9, 3640}}, 9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.src << " -> " << c.dst << " shift " << c.shift);
        std::vector<AreaTableEntry> t;
        EXPECT_EQ(kv::impl::buildAreaTable(c.src, c.dst, c.shift, t), c.weight_max);
        ASSERT_EQ(t.size(), c.entries.size());
        for (size_t i = 0; i < t.size(); ++i) {
            EXPECT_EQ(t[i].first, c.entries[i].first) << i;
            EXPECT_EQ(t[i].weight, c.entries[i].second) << i;
        }
        EXPECT_EQ(kv::impl::areaRowsNeeded(c.src, c.dst, t, c.weight_max), c.rows);
    }
}

TEST(AreaTable, FiveToTwoTakesAPartOfTheThirdPixel) {
    kv::Frame src(kv::FRAME_GRAY_8, kv::Size(5, 1));
    const uint8_t px[5] = {200, 100, 50, 30, 10};
    std::memcpy(src.rowCpuData(0, 0), px, 5);
    kv::ScalerAreaX x;
    x.reuse(src, 2, kv::KV_SCALER_FIXED_POINT_16S);
    kv::Frame out;
    kv::produceFrame(x, out);
    EXPECT_EQ(out.rowCpuData(0, 0)[0], (200 * 13107 + 100 * 13107 + 50 * 6554) >> 15);
    EXPECT_EQ(out.rowCpuData(0, 0)[1], (50 * 6553 + 30 * 13107 + 10 * 13107) >> 15);
}

// A reuse that changes only the precision keeps the table (weights in units of
// 32768) and applies the new shift of 7: the result is the 16-bit weights >> 7.
TEST(AreaTable, PrecisionChangeKeepsTheTable) {
    kv::Frame src(kv::FRAME_GRAY_8, kv::Size(4, 1));
    const uint8_t px[4] = {1, 0, 2, 1};
    std::memcpy(src.rowCpuData(0, 0), px, 4);
    for (Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        kv::ScalerAreaX x;
        kv::Frame out;
        x.reuse(src, 2, kv::KV_SCALER_FIXED_POINT_16S);
        kv::produceFrame(x, out);
        EXPECT_EQ(out.rowCpuData(0, 0)[0], 0);  // (1 + 0) * 16384 >> 15
        x.reuse(src, 2, kv::KV_SCALER_FIXED_POINT_8S);
        kv::produceFrame(x, out);
        EXPECT_EQ(out.rowCpuData(0, 0)[0], uint8_t((1 * 16384) >> 7));
        EXPECT_EQ(out.rowCpuData(0, 0)[1], uint8_t((3 * 16384) >> 7));
        kv::ScalerAreaX fresh;
        fresh.reuse(src, 2, kv::KV_SCALER_FIXED_POINT_8S);
        kv::produceFrame(fresh, out);
        EXPECT_EQ(out.rowCpuData(0, 0)[1], (3 * 64) >> 7);
    }
}

// ---- errors -------------------------------------------------------------------

TEST(AreaErrors, ReuseChecksInOrder) {
    const kv::Frame empty;
    const kv::Frame src = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(8, 8), 1);
    const auto bad = static_cast<kv::ScalerPrecision>(12);
    const auto p16 = kv::KV_SCALER_FIXED_POINT_16S;
    const std::string precision = "Assertion failed: precision == KV_SCALER_FIXED_POINT_8S || precision == KV_SCALER_FIXED_POINT_16S";
    kv::ScalerAreaX x, unset;
    kv::ScalerAreaY y;
    kv::scaleAreaXY xy;
    EXPECT_KV_THROW(x.reuse(empty, 0, bad), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(x.reuse(src, 0, bad), 2, "Assertion failed: 0 < dst_width");
    EXPECT_KV_THROW(x.reuse(src, 4, bad), 2, precision);
    EXPECT_KV_THROW(x.reuse(unset, 0, bad), 2, "Assertion failed: !src_producer.layout().size.empty()");
    EXPECT_KV_THROW(y.reuse(empty, 0, bad), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(y.reuse(src, -1, bad), 2, "Assertion failed: 0 < dst_height");
    EXPECT_KV_THROW(y.reuse(src, 4, bad), 2, precision);
    EXPECT_KV_THROW(y.reuse(unset, 4, p16), 2, "Assertion failed: !src_producer.layout().size.empty()");
    x.reuse(src, 4, p16);
    EXPECT_KV_THROW(y.reuse(x, 0, p16), 2, "Assertion failed: 0 < dst_height");
    EXPECT_KV_THROW(xy.reuse(empty, kv::Size(1, 1), bad), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(xy.reuse(src, kv::Size(0, 1), bad), 2, "Assertion failed: !dst_size.empty()");
    EXPECT_KV_THROW(xy.reuse(src, kv::Size(4, 4), bad), 2, precision);
    EXPECT_FALSE(xy.initialized());  // checks fail before any state changes
    const kv::Frame big = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(100, 100), 2);
    EXPECT_KV_THROW(xy.reuse(big, kv::Size(101, 50), p16), 8,
                    "Failure in scaleAreaXY::reuse(...) : the area method is implemented for down-scaling only.");
    EXPECT_KV_THROW(xy.reuse(big, kv::Size(50, 101), p16), 8,
                    "Failure in scaleAreaXY::reuse(...) : the area method is implemented for down-scaling only.");
}

// Sides the fixed-point tables cannot hold are refused at reuse, before any
// state changes (a 70000-pixel row once crashed in the taps' construction);
// the largest sides that fit still give the rule's bytes.
TEST(AreaErrors, SidesBeyondTheTablesAreRefused) {
    const auto p16 = kv::KV_SCALER_FIXED_POINT_16S;
    const auto p8 = kv::KV_SCALER_FIXED_POINT_8S;
    const kv::Frame wide = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(70000, 2), 21);
    const kv::Frame tall = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(2, 70000), 22);
    const std::string too_wide =
        "Failure in ScalerAreaX::reuse(...) : a source width of 70000 is out of range (the area scalers take at most "
        "65535).";
    const std::string too_tall =
        "Failure in ScalerAreaY::reuse(...) : a source height of 70000 is out of range (the area scalers take at most "
        "65535).";
    kv::ScalerAreaX x;
    kv::ScalerAreaY y;
    EXPECT_KV_THROW(x.reuse(wide, 7, p16), 5, too_wide);
    EXPECT_KV_THROW(y.reuse(tall, 7, p16), 5, too_tall);
    EXPECT_FALSE(x.initialized());
    EXPECT_FALSE(y.initialized());
    kv::RowCopier wide_rows, tall_rows;
    wide_rows.reuse(wide);
    tall_rows.reuse(tall);
    EXPECT_KV_THROW(x.reuse(wide_rows, 7, p8), 5, too_wide);
    EXPECT_KV_THROW(y.reuse(tall_rows, 7, p8), 5, too_tall);
    kv::Scaler scaler;
    EXPECT_KV_THROW(scaler.reuse(wide, kv::Size(7, 2), kv::KV_SCALE_AREA), 5, too_wide);
    EXPECT_KV_THROW(scaler.reuse(tall, kv::Size(2, 7), kv::KV_SCALE_AREA), 5, too_tall);
    kv::CvBackendBase backend;
    backend.setIntProperty(1, 2);  // resize method: area
    kv::Frame out(kv::FRAME_GRAY_8, kv::Size(7, 2));
    EXPECT_KV_THROW(backend.resize(wide, out, kv::Rect(), kv::Rect()), 5, too_wide);

    // The step (dst << shift) / src is signed 32-bit: enlargements of 65536 times
    // or more at 16-bit precision (of 2^24 at 8-bit) do not fit.
    const kv::Frame one = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(1, 1), 23);
    EXPECT_KV_THROW(x.reuse(one, 65536, p16), 5,
                    "Failure in ScalerAreaX::reuse(...) : enlarging a width of 1 to 65536 is out of range (at most "
                    "65535 times at this precision).");
    EXPECT_KV_THROW(y.reuse(one, 65536, p16), 5,
                    "Failure in ScalerAreaY::reuse(...) : enlarging a height of 1 to 65536 is out of range (at most "
                    "65535 times at this precision).");
    x.reuse(one, 65536, p8);
    kv::Frame got;
    kv::produceFrame(x, got);
    EXPECT_TRUE(kvtest::framesEqual(got, expectX(one, 65536, 7)));

    // The 16.16 steps of scaleAreaXY are signed 32-bit: reductions of 32768 times or more.
    kv::scaleAreaXY xy;
    const kv::Frame row = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(32768, 1), 24);
    const kv::Frame column = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(1, 32768), 25);
    EXPECT_KV_THROW(xy.reuse(row, kv::Size(1, 1), p16), 5,
                    "Failure in scaleAreaXY::reuse(...) : reducing 32768x1 to 1x1 is out of range (at most 32767 "
                    "times per axis).");
    EXPECT_KV_THROW(xy.reuse(column, kv::Size(1, 1), p16), 5,
                    "Failure in scaleAreaXY::reuse(...) : reducing 1x32768 to 1x1 is out of range (at most 32767 "
                    "times per axis).");
    EXPECT_FALSE(xy.initialized());
    const kv::Frame row_fits = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(32767, 1), 26);
    xy.reuse(row_fits, kv::Size(1, 1), p16);
    kv::produceFrame(xy, got);
    EXPECT_TRUE(kvtest::framesEqual(got, expectXY(row_fits, kv::Size(1, 1))));

    // The widest and tallest sources that fit, every ISA.
    const kv::Frame widest = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(65535, 2), 27);
    const kv::Frame tallest = kvtest::randomFrame(kv::FRAME_GRAY_8, kv::Size(3, 65535), 28);
    for (Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        for (int dst : {7, 1000, 32768, 65534}) {
            SCOPED_TRACE(testing::Message() << "to " << dst);
            kv::ScalerAreaX fx;
            fx.reuse(widest, dst, p16);
            kv::produceFrame(fx, got);
            EXPECT_TRUE(kvtest::framesEqual(got, expectX(widest, dst, 15)));
        }
        kv::ScalerAreaY fy;
        fy.reuse(tallest, 7, p16);
        kv::produceFrame(fy, got);
        EXPECT_TRUE(kvtest::framesEqual(got, expectY(tallest, 7, 15)));
    }
}

TEST(AreaErrors, UnsupportedFormatsFailInProduce) {
    for (kv::FrameFormat f : {kv::FRAME_RGB_8, kv::FRAME_RGB_8_PLANAR, kv::FRAME_FLOAT_32, kv::FRAME_FLOAT_32_C3}) {
        SCOPED_TRACE(kv::toString(f));
        const kv::Frame src = kvtest::randomFrame(f, kv::Size(8, 8), 3);
        kv::Frame out;
        kv::ScalerAreaX x;
        x.reuse(src, 4, kv::KV_SCALER_FIXED_POINT_16S);
        EXPECT_KV_THROW(kv::produceFrame(x, out), 8, "Failure in ScalerAreaX::produce(...) : unsupported frame format.");
        kv::ScalerAreaY y;
        y.reuse(src, 4, kv::KV_SCALER_FIXED_POINT_16S);
        EXPECT_KV_THROW(kv::produceFrame(y, out), 8, "Failure in ScalerAreaY::produce(...) : unsupported frame format.");
        kv::scaleAreaXY xy;
        xy.reuse(src, kv::Size(4, 4), kv::KV_SCALER_FIXED_POINT_16S);
        EXPECT_KV_THROW(kv::produceFrame(xy, out), 8, "Failure in scaleAreaXY::produce(...) : unsupported frame format.");
        // An unchanged width is a plain copy, whatever the format.
        x.reuse(src, 8, kv::KV_SCALER_FIXED_POINT_16S);
        kv::produceFrame(x, out);
        EXPECT_TRUE(kvtest::framesEqual(out, src));
    }
}

// ---- whole frames ---------------------------------------------------------------

struct SizeCase {
    kv::Size src, dst;
};

// Odd sizes, 1-pixel sources and outputs, plain boxes (2x, 4x) and enlargements.
const SizeCase kSizes[] = {
    {{7, 5}, {3, 2}},   {{5, 3}, {9, 7}},    {{1, 1}, {3, 3}},  {{9, 9}, {1, 1}},   {{13, 1}, {4, 1}},
    {{1, 13}, {1, 4}},  {{67, 9}, {33, 4}},  {{68, 8}, {17, 2}}, {{66, 6}, {33, 3}}, {{40, 11}, {67, 23}},
    {{131, 7}, {43, 5}}, {{3, 2}, {2, 1}},  {{2, 3}, {5, 1}},   {{129, 5}, {128, 5}}, {{96, 4}, {24, 4}},
};

class AreaFrames : public testing::TestWithParam<kv::FrameFormat> {};

TEST_P(AreaFrames, SeparableMatchesTheRuleOnEverySource) {
    const kv::FrameFormat f = GetParam();
    for (const SizeCase& c : kSizes) {
        const kv::Frame src = kvtest::randomFrame(f, c.src, uint32_t(c.src.width * 131 + c.dst.height));
        const kvtest::WrappedFrame wrapped = wrappedCopy(src);
        for (int shift : {15, 7}) {
            const auto precision = static_cast<kv::ScalerPrecision>(shift + 1);
            const kv::Frame ex = expectX(src, c.dst.width, shift);
            const kv::Frame ey = expectY(src, c.dst.height, shift);
            const kv::Frame exy = expectY(ex, c.dst.height, shift);
            for (Isa isa : kvtest::availableIsas()) {
                SCOPED_TRACE(testing::Message() << kv::toString(f) << " " << c.src.width << "x" << c.src.height << " -> "
                                                << c.dst.width << "x" << c.dst.height << " shift " << shift << " "
                                                << kv::impl::isaName(isa));
                IsaCap cap(isa);
                kv::ScalerAreaX x;
                kv::ScalerAreaY y;
                kv::RowCopier copier;
                kv::Frame out;
                auto expectOut = [&](kv::IRowProducer& p, const kv::Frame& want, const char* what) {
                    kv::produceFrame(p, out);
                    EXPECT_TRUE(kvtest::framesEqual(out, want)) << what;
                };
                for (const kv::Frame* s : std::initializer_list<const kv::Frame*>{&src, &wrapped.frame}) {
                    x.reuse(*s, c.dst.width, precision);
                    expectOut(x, ex, "X from frame");
                    y.reuse(*s, c.dst.height, precision);
                    expectOut(y, ey, "Y from frame");
                    copier.reuse(*s);
                    x.reuse(copier, c.dst.width, precision);
                    expectOut(x, ex, "X from producer");
                    copier.reuse(*s);
                    y.reuse(copier, c.dst.height, precision);
                    expectOut(y, ey, "Y from producer");
                    x.reuse(*s, c.dst.width, precision);
                    y.reuse(x, c.dst.height, precision);
                    expectOut(y, exy, "X then Y");
                }
            }
        }
    }
}

TEST_P(AreaFrames, TwoAxisMatchesTheRule) {
    const kv::FrameFormat f = GetParam();
    for (const SizeCase& c : kSizes) {
        // Reductions only; and 4:2:0 chroma needs three times the rows per output row.
        if (c.dst.width > c.src.width || c.dst.height > c.src.height) continue;
        const kv::Frame src = kvtest::randomFrame(f, c.src, uint32_t(c.src.height * 17 + c.dst.width));
        const int64_t ys = (int64_t(c.src.height) << 16) / c.dst.height;
        const int r = (ys & 65535) ? int(ys >> 16) + 2 : int(ys >> 16);
        const bool c420 = f == kv::FRAME_I420 || f == kv::FRAME_YV12 || f == kv::FRAME_NV12 || f == kv::FRAME_NV21;
        if ((c420 ? 3 * r : r) > c.src.height) continue;
        SCOPED_TRACE(testing::Message() << kv::toString(f) << " " << c.src.width << "x" << c.src.height << " -> "
                                        << c.dst.width << "x" << c.dst.height);
        const kvtest::WrappedFrame wrapped = wrappedCopy(src);
        const kv::Frame e = expectXY(src, c.dst);
        kv::scaleAreaXY xy;
        kv::Frame out;
        for (const kv::Frame* s : std::initializer_list<const kv::Frame*>{&src, &wrapped.frame}) {
            xy.reuse(*s, c.dst, kv::KV_SCALER_FIXED_POINT_8S);
            EXPECT_TRUE(xy.initialized());
            kv::produceFrame(xy, out);
            EXPECT_TRUE(kvtest::framesEqual(out, e));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, AreaFrames, testing::ValuesIn(kFormats),
                         [](const testing::TestParamInfo<kv::FrameFormat>& i) { return std::string(kv::toString(i.param)); });

TEST(AreaFrames, TwoAxisOnAFourTwoZeroFrameWhoseChromaStartsBelowTheLuma) {
    // 7 rows to 4: output row 2 needs luma row 3, its chroma rows start at frame row 4.
    const kv::Frame src = kvtest::randomFrame(kv::FRAME_I420, kv::Size(40, 40), 5);
    for (kv::Size dst : {kv::Size(20, 23), kv::Size(13, 7), kv::Size(40, 40)}) {
        kv::scaleAreaXY xy;
        kv::Frame out;
        xy.reuse(src, dst, kv::KV_SCALER_FIXED_POINT_16S);
        kv::produceFrame(xy, out);
        EXPECT_TRUE(kvtest::framesEqual(out, expectXY(src, dst))) << dst.width << "x" << dst.height;
    }
}

// The element past a row's last pixel carries the enlargement's small deficit
// weight; it counts as 0, so whatever lies there cannot change the output.
TEST(AreaFrames, EnlargementIgnoresWhatLiesPastTheRow) {
    for (uint8_t tail : {0, 255}) {
        kvtest::WrappedFrame w = kvtest::wrappedFrame(kv::FRAME_GRAY_8, kv::Size(24, 3), 2, 0, tail);
        kv::Frame& src = w.frame;
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 24; ++x) src.rowCpuData(0, y)[x] = uint8_t(x * 10 + y);
        for (Isa isa : kvtest::availableIsas()) {
            IsaCap cap(isa);
            kv::ScalerAreaX x;
            kv::Frame out;
            x.reuse(src, 37, kv::KV_SCALER_FIXED_POINT_16S);
            kv::produceFrame(x, out);
            EXPECT_TRUE(kvtest::framesEqual(out, expectX(src, 37, 15)));
        }
    }
}

// ---- kernels ----------------------------------------------------------------------

// (source, output) widths: every output width 1..67 against several ratios,
// then full-HD rows to the sizes models and displays use, and odd ones.
std::vector<std::pair<int, int>> horizontalCases() {
    std::vector<std::pair<int, int>> v;
    for (int dst_w = 1; dst_w <= 67; ++dst_w)
        for (int src_w : {dst_w * 2, dst_w * 4, dst_w * 3, dst_w + 1, dst_w * 2 + 1, (dst_w + 1) / 2, dst_w, 1,
                          dst_w * 3 / 2, dst_w * 9 + 4, dst_w * 17 / 3})
            if (src_w >= 1) v.push_back({src_w, dst_w});
    for (int src_w : {1920, 1921})
        for (int dst_w : {1280, 960, 640, 700, 480, 416, 224, 2880, 1921, 1919, 67, 33})
            v.push_back({src_w, dst_w});
    return v;
}

// One horizontal kernel pair over every case, channel count and precision,
// sources at odd byte addresses, samples at their extremes now and then.
template <typename T, typename Kernel>
void compareHorizontal(int sample_bytes, Kernel ref_kernel, Kernel vec_kernel) {
    std::mt19937 rng(11);
    int planned = 0, windowed = 0, wide = 0, split = 0;
    for (int channels = 1; channels <= 4; ++channels)
        for (auto [src_w, dst_w] : horizontalCases())
            for (int shift : {15, 7}) {
                std::vector<AreaTableEntry> t;
                const uint16_t wm = kv::impl::buildAreaTable(src_w, dst_w, shift, t);
                // Clip the rows by a few samples now and then, as packed 4:2:2 rows are.
                const int clip = int(rng() % 3);
                kv::impl::AreaRowX row{t.data(), channels, std::max(1, src_w * channels - clip),
                                       std::max(1, dst_w * channels - clip), wm, shift, dst_w < src_w};
                kv::impl::AreaTaps taps;
                kv::impl::buildAreaTaps(row, taps, sample_bytes);
                planned += taps.pair_blocks > 0 || taps.perm_blocks > 0;
                wide += taps.wide_blocks > 0;
                split += taps.wide_blocks > 0 && taps.wide_split;
                windowed += sample_bytes == 4 && channels == 1 && !taps.perm_blocks && taps.taps <= 16 &&
                            row.dst_len >= 8;
                std::vector<uint8_t> bytes(size_t(row.src_len) * sizeof(T) + 1);
                T* src = reinterpret_cast<T*>(bytes.data() + 1);  // not aligned to the sample size
                for (int i = 0; i < row.src_len; ++i)
                    kv::impl::storeSample(src, i, rng() % 16 == 0 ? T(~T(0)) : T(rng()));
                std::vector<T> a(size_t(row.dst_len) + 16, T(0xA5)), b(size_t(row.dst_len) + 16, T(0x5A));
                ref_kernel(src, a.data(), row, taps, 0);
                vec_kernel(src, b.data(), row, taps, 0);
                for (int i = 0; i < row.dst_len; ++i)
                    ASSERT_EQ(a[size_t(i)], b[size_t(i)]) << sizeof(T) << "-byte C" << channels << " " << src_w << "->"
                                                          << dst_w << " shift " << shift << " x " << i;
                for (size_t i = size_t(row.dst_len); i < a.size(); ++i) {
                    ASSERT_EQ(a[i], T(0xA5));
                    ASSERT_EQ(b[i], T(0x5A));
                }
            }
    EXPECT_GT(planned, 1000) << sizeof(T);  // the shuffle or permute plan, not only the fallbacks
    if (sample_bytes == 1) {
        EXPECT_GT(wide, 500);  // and the wide plan of byte rows
        EXPECT_GT(split, 200); // and its split form
    }
    if (sample_bytes == 4) {
        EXPECT_GT(windowed, 100);  // and the windows of one-channel rows
    }
}

TEST(AreaKernels, HorizontalVectorMatchesScalar) {
    if (kv::impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    compareHorizontal<uint8_t>(1, kv::impl::ref::areaRowX8, kv::impl::avx2::areaRowX8);
    if (kv::impl::detectedIsa() >= Isa::kAvx512)
        compareHorizontal<uint8_t>(1, kv::impl::ref::areaRowX8, kv::impl::avx512::areaRowX8);
    compareHorizontal<uint16_t>(2, kv::impl::ref::areaRowX16, kv::impl::avx2::areaRowX16);
    compareHorizontal<uint32_t>(4, kv::impl::ref::areaRowX32, kv::impl::avx2::areaRowX32);
}

template <typename T, typename Acc, typename Kernel>
void compareVertical(Kernel ref_kernel, Kernel vec_kernel) {
    std::mt19937 rng(12);
    std::vector<int> lengths;
    for (int len = 1; len <= 67; ++len) lengths.push_back(len);
    lengths.insert(lengths.end(), {1920, 1921});
    for (int len : lengths)
        for (int count = 1; count <= 5; ++count)
            for (int shift : {15, 7}) {
                std::vector<std::vector<uint8_t>> data(size_t(count), std::vector<uint8_t>(size_t(len) * sizeof(T) + 1));
                std::vector<const uint8_t*> rows;
                std::vector<uint32_t> weights;
                const uint32_t one = 1u << shift;
                uint32_t left = one;
                for (auto& d : data) {
                    T* row = reinterpret_cast<T*>(d.data() + 1);  // odd addresses
                    for (int i = 0; i < len; ++i) kv::impl::storeSample(row, i, rng() % 8 == 0 ? T(~T(0)) : T(rng()));
                    rows.push_back(d.data() + 1);
                    // Weights that sum to one; a lone row may carry one itself.
                    const uint32_t w = &d == &data.back() ? left : uint32_t(rng() % (left + 1));
                    weights.push_back(w);
                    left -= w;
                }
                const kv::impl::AreaRowsY r{rows.data(), weights.data(), count, len, shift};
                std::vector<Acc> acc(static_cast<size_t>(len));
                std::vector<T> a(size_t(len) + 32, T(0xA5)), b(size_t(len) + 32, T(0x5A));
                ref_kernel(r, a.data(), acc.data(), 0);
                vec_kernel(r, b.data(), acc.data(), 0);
                for (int i = 0; i < len; ++i)
                    ASSERT_EQ(a[size_t(i)], b[size_t(i)]) << sizeof(T) << "-byte " << len << " " << count << " x " << i;
                for (size_t i = size_t(len); i < a.size(); ++i) {
                    ASSERT_EQ(a[i], T(0xA5));
                    ASSERT_EQ(b[i], T(0x5A));
                }
            }
}

TEST(AreaKernels, VerticalVectorMatchesScalar) {
    if (kv::impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    compareVertical<uint8_t, uint32_t>(kv::impl::ref::areaRowsY8, kv::impl::avx2::areaRowsY8);
    if (kv::impl::detectedIsa() >= Isa::kAvx512)
        compareVertical<uint8_t, uint32_t>(kv::impl::ref::areaRowsY8, kv::impl::avx512::areaRowsY8);
    compareVertical<uint16_t, uint64_t>(kv::impl::ref::areaRowsY16, kv::impl::avx2::areaRowsY16);
    compareVertical<uint32_t, uint64_t>(kv::impl::ref::areaRowsY32, kv::impl::avx2::areaRowsY32);
}

// ---- steady state -------------------------------------------------------------------

TEST(AreaSteadyState, SecondReuseAndProduceAllocateNothing) {
    for (kv::FrameFormat f : {kv::FRAME_BGR_8, kv::FRAME_I420, kv::FRAME_GRAY_16}) {
        const kv::Frame src = kvtest::randomFrame(f, kv::Size(97, 61), 9);
        kv::ScalerAreaX x;
        kv::ScalerAreaY y;
        kv::scaleAreaXY xy;
        kv::Frame out, out_xy;
        auto run = [&] {
            x.reuse(src, 31, kv::KV_SCALER_FIXED_POINT_16S);
            y.reuse(x, 20, kv::KV_SCALER_FIXED_POINT_16S);
            kv::produceFrame(y, out);
            xy.reuse(src, kv::Size(31, 20), kv::KV_SCALER_FIXED_POINT_16S);
            kv::produceFrame(xy, out_xy);
        };
        run();
        const uint8_t* data = out.planeCpuData(0);
        const size_t before = kvtest::allocationCount();
        run();
        EXPECT_EQ(kvtest::allocationCount(), before) << kv::toString(f);
        EXPECT_EQ(out.planeCpuData(0), data);
    }
}

// Found by the row-chain fuzz target under UndefinedBehaviorSanitizer: byte
// rows through the shuffle plan offset the (empty) bias table of 16-bit rows.
// A packed 4:2:2 enlargement takes that plan; every ISA gives the same bytes.
TEST(AreaFrames, ByteRowShufflePlanOnEveryIsa) {
    using namespace kv;
    const Frame src = kvtest::randomFrame(FRAME_YUYV, Size(7, 8), 5);
    Frame first;
    for (Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        Scaler scaler;
        scaler.reuse(src, Size(99, 99), KV_SCALE_AREA);
        Frame out;
        produceFrame(scaler, out);
        if (!first.initialized())
            first = out;
        else
            EXPECT_EQ(kvtest::frameDifference(out, first), "") << impl::isaName(isa);
    }
}

}  // namespace
