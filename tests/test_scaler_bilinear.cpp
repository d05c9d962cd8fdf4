// Bilinear scalers: worked position tables, every format against a direct
// evaluation of the fixed-point formulas (frame and producer sources, vector
// and scalar kernels, odd sizes, caller memory with guarded padding), window
// behaviour, error texts, and the row kernels vector against reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler_bilinear.h"
#include "test_util.h"
#include "wrapped_frame.h"

namespace {

using kv::Frame;
using kv::FrameFormat;
using kv::Size;
using kv::impl::Isa;

using kvtest::IsaCap;

// How each format is interpolated: planes, sample bytes, samples per unit.
struct Desc {
    int planes;
    int bytes;
    int channels[3];
};

Desc desc(FrameFormat f) {
    switch (int(f)) {
        case 1: return {1, 1, {1}};
        case 2: case 4: case 11: case 14: case 17: return {1, 1, {3}};
        case 12: case 18: return {1, 1, {4}};
        case 16: return {1, 1, {2}};
        case 19: return {1, 2, {1}};
        case 20: return {1, 4, {1}};
        case 3: case 5: case 6: case 7: case 10: case 15: return {3, 1, {1, 1, 1}};
        case 8: case 9: case 13: return {2, 1, {1, 2}};
        default: return {0, 1, {0}};
    }
}

std::vector<int32_t> positions(int src, int dst) {
    const int32_t step = (src << 16) / dst;
    int32_t p = (step - 65536) / 2;
    std::vector<int32_t> t(static_cast<size_t>(dst));
    for (int i = 0; i < dst; ++i, p += step) t[size_t(i)] = std::max(p, 0);
    return t;
}

// One horizontally interpolated row of n samples.
std::vector<uint64_t> lerpRow(const uint8_t* src, int bytes, int src_units, int src_elems, int channels,
                              const std::vector<int32_t>& xs, int units, int n) {
    std::vector<uint64_t> out(static_cast<size_t>(n));
    for (int e = 0; e < n; ++e) {
        const int unit = std::min(e / channels, units - 1);
        const int c = e - unit * channels;
        const int32_t p = xs[size_t(unit)];
        const int sx = std::min(p >> 16, src_units - 1);
        const uint64_t f = uint64_t(p & 0xFFFF);
        const int l = std::min(sx * channels + c, src_elems - 1);
        const int r = sx < src_units - 1 ? std::min((sx + 1) * channels + c, src_elems - 1) : l;
        out[size_t(e)] = (kvtest::sampleAt(src, bytes, l) * (65536 - f) + kvtest::sampleAt(src, bytes, r) * f) >> 16;
    }
    return out;
}

enum Kind { kX, kY, kXY };
const char* kindName(Kind k) { return k == kX ? "X" : k == kY ? "Y" : "XY"; }

// The expected output, evaluated straight from the formulas. `window` is the
// window size the scaler uses (it decides which rows blend near the bottom).
Frame expected(Kind kind, const Frame& src, Size dst_size, int window) {
    const kv::FrameLayout& sl = src.layout();
    Frame out(sl.format, dst_size);
    const kv::FrameLayout& ol = out.layout();
    const Desc d = desc(sl.format);
    const int H = sl.size.height;
    const bool copy = (kind == kX && dst_size.width == sl.size.width) || (kind == kY && dst_size.height == H);
    const std::vector<int32_t> xs = positions(sl.size.width, dst_size.width);
    const std::vector<int32_t> ys = positions(H, dst_size.height);
    for (uint32_t q = 0; q < ol.planes; ++q) {
        const kv::FramePlane& sp = sl.plane[q];
        const kv::FramePlane& dp = ol.plane[q];
        const int bytes = q == 0 ? d.bytes : 1;
        const int smask = kv::subsamplingMask(H, sp.size.height);
        const int dmask = kv::subsamplingMask(dst_size.height, dp.size.height);
        const int n = int(dp.row_bytes) / bytes;
        for (int k = 0; k < dp.size.height; ++k) {
            uint8_t* o = out.rowCpuData(q, k);
            const int i = k * (dmask + 1);  // the output frame row that writes plane row k
            if (copy || kind == kX) {
                const uint8_t* s = src.rowCpuData(q, kind == kX ? k : i / (smask + 1));
                if (copy) {
                    std::memcpy(o, s, dp.row_bytes);
                    continue;
                }
                const auto h = lerpRow(s, bytes, sp.size.width, int(sp.row_bytes) / bytes, d.channels[q], xs,
                                       dp.size.width, n);
                for (int e = 0; e < n; ++e) kvtest::setSample(o, bytes, e, h[size_t(e)]);
                continue;
            }
            const int32_t p = ys[size_t(i)];
            const int y = p >> 16;
            const uint64_t fy = uint64_t(p & 0xFFFF);
            const int start = std::min(y, H - window);
            const int wr = y - start;
            const int yl = q == 0 ? (wr + 1 < window ? y + 1 : y) : (wr < window - 2 ? y + 2 : y);
            const uint8_t* up = src.rowCpuData(q, y / (smask + 1));
            const uint8_t* lo = src.rowCpuData(q, yl / (smask + 1));
            std::vector<uint64_t> a(static_cast<size_t>(n)), b(static_cast<size_t>(n));
            if (kind == kY) {
                for (int e = 0; e < n; ++e) {
                    a[size_t(e)] = kvtest::sampleAt(up, bytes, e);
                    b[size_t(e)] = kvtest::sampleAt(lo, bytes, e);
                }
            } else {
                const int se = int(sp.row_bytes) / bytes;
                a = lerpRow(up, bytes, sp.size.width, se, d.channels[q], xs, dp.size.width, n);
                b = lerpRow(lo, bytes, sp.size.width, se, d.channels[q], xs, dp.size.width, n);
            }
            for (int e = 0; e < n; ++e)
                kvtest::setSample(o, bytes, e, (a[size_t(e)] * (65536 - fy) + b[size_t(e)] * fy) >> 16);
        }
    }
    return out;
}

int windowFor(Kind kind, const kv::FrameLayout& l, bool frame_source) {
    if (kind == kX) return 1;
    const kv::FrameLayout out(l.format, l.size, 1);
    const int w = out.planes > 1 && out.plane[1].size.height != out.plane[0].size.height ? 4 : 2;
    return frame_source ? std::min(w, l.size.height) : w;
}

// Runs one scaler kind over a source (frame or producer) into guarded caller memory.
template <typename Source>
kvtest::WrappedFrame run(Kind kind, Source& src, FrameFormat format, Size dst_size) {
    kvtest::WrappedFrame out = kvtest::wrappedFrame(format, dst_size, 9, 0);
    if (kind == kX) {
        kv::ScalerBilinearX s;
        s.reuse(src, dst_size.width);
        kv::produceFrame(s, out.frame);
    } else if (kind == kY) {
        kv::ScalerBilinearY s;
        s.reuse(src, dst_size.height);
        kv::produceFrame(s, out.frame);
    } else {
        kv::ScalerBilinearXY s;
        s.reuse(src, dst_size);
        kv::produceFrame(s, out.frame);
    }
    return out;
}

class BilinearFormats : public ::testing::TestWithParam<int> {};

// Every format of the table, all three kinds, both sources and both kernel
// sets, over sizes that enlarge, reduce, keep one side, and reach 1 pixel.
TEST_P(BilinearFormats, MatchFormulas) {
    const FrameFormat format = FrameFormat(GetParam());
    const std::pair<Size, Size> sizes[] = {
        {{7, 5}, {12, 9}}, {{13, 11}, {5, 3}},  {{1, 1}, {4, 3}},    {{9, 7}, {1, 1}},
        {{37, 9}, {70, 17}}, {{70, 17}, {23, 9}}, {{67, 6}, {43, 13}}, {{5, 4}, {5, 7}},
    };
    for (Isa isa : {Isa::kAvx512, Isa::kAvx2, Isa::kScalar}) {
        IsaCap cap(isa);
        for (const auto& sz : sizes) {
            for (Kind kind : {kX, kY, kXY}) {
                const Size dst = kind == kX   ? Size(sz.second.width, sz.first.height)
                                 : kind == kY ? Size(sz.first.width, sz.second.height)
                                              : sz.second;
                SCOPED_TRACE(::testing::Message() << kindName(kind) << " " << sz.first.width << "x" << sz.first.height
                                                  << " -> " << dst.width << "x" << dst.height << " isa "
                                                  << kv::impl::isaName(isa));
                kvtest::WrappedFrame src = kvtest::wrappedFrame(format, sz.first, 5, 1234u + uint32_t(format));
                const Frame want = expected(kind, src.frame, dst, windowFor(kind, src.frame.layout(), true));
                kvtest::WrappedFrame got = run(kind, src.frame, format, dst);
                EXPECT_TRUE(kvtest::framesEqual(got.frame, want));
                EXPECT_TRUE(kvtest::paddingIntact(got));
                if (windowFor(kind, src.frame.layout(), false) > sz.first.height) continue;
                kv::RowCopier producer;
                producer.reuse(src.frame);
                kvtest::WrappedFrame via = run(kind, producer, format, dst);
                const Frame want_p = expected(kind, src.frame, dst, windowFor(kind, src.frame.layout(), false));
                EXPECT_TRUE(kvtest::framesEqual(via.frame, want_p));
                EXPECT_TRUE(kvtest::paddingIntact(via));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllFormats, BilinearFormats, ::testing::Range(1, 21),
                         [](const ::testing::TestParamInfo<int>& i) { return kv::toString(FrameFormat(i.param)); });

// Positions read back through FRAME_GRAY_FLOAT_32, interpolated as integers:
// a source row holding i * 65536 in column i returns each position itself
// (the last column's right neighbour is the column, so positions past it clamp).
TEST(ScalerBilinear, WorkedPositionTables) {
    struct Case {
        int src, dst;
        std::vector<uint32_t> values;
    };
    const Case cases[] = {
        {2, 4, {0, 16384, 49152, 65536}},  // positions 0, 16384, 49152, 81920
        {4, 2, {32768, 163840}},           // step 131072: x = 0.5 and 2.5
        {3, 3, {0, 65536, 131072}},
    };
    for (const Case& c : cases) {
        Frame src(kv::FRAME_GRAY_FLOAT_32, Size(c.src, 2));
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < c.src; ++x) reinterpret_cast<uint32_t*>(src.rowCpuData(0, y))[x] = uint32_t(x) << 16;
        kv::ScalerBilinearX s;
        s.reuse(src, c.dst);
        Frame out;
        kv::produceFrame(s, out);
        for (int x = 0; x < c.dst; ++x)
            EXPECT_EQ(reinterpret_cast<const uint32_t*>(out.rowCpuData(0, 1))[x], c.values[size_t(x)])
                << c.src << " -> " << c.dst << " column " << x;
    }
    // Rows the same way through a one-column source.
    Frame col(kv::FRAME_GRAY_FLOAT_32, Size(1, 4));
    for (int y = 0; y < 4; ++y) *reinterpret_cast<uint32_t*>(col.rowCpuData(0, y)) = uint32_t(y) << 16;
    kv::ScalerBilinearY sy;
    sy.reuse(col, 2);
    Frame out;
    kv::produceFrame(sy, out);
    EXPECT_EQ(*reinterpret_cast<const uint32_t*>(out.rowCpuData(0, 0)), 32768u);
    EXPECT_EQ(*reinterpret_cast<const uint32_t*>(out.rowCpuData(0, 1)), 163840u);
}

// Truncation, not rounding: 0 and 255 at a quarter give 63, not 64.
TEST(ScalerBilinear, TruncatesWithoutRounding) {
    Frame src(kv::FRAME_GRAY_8, Size(2, 1));
    src.rowCpuData(0, 0)[0] = 0;
    src.rowCpuData(0, 0)[1] = 255;
    kv::ScalerBilinearX s;
    s.reuse(src, 4);  // positions 0, 0.25, 0.75, 1.25
    Frame out;
    kv::produceFrame(s, out);
    const uint8_t* o = out.rowCpuData(0, 0);
    EXPECT_EQ(o[0], 0);
    EXPECT_EQ(o[1], 63);   // 255 * 16384 >> 16 = 63.75
    EXPECT_EQ(o[2], 191);  // 255 * 49152 >> 16 = 191.25
    EXPECT_EQ(o[3], 255);
}

// A 4:2:0 reduction through a window of four rows: luma blends rows y and
// y + 1, chroma the chroma rows of frame rows y and y + 2. With only two
// source rows the window is two rows and chroma takes the upper row alone.
TEST(ScalerBilinear, ChromaRowsOf420) {
    for (int h : {8, 2}) {
        Frame src = kvtest::randomFrame(kv::FRAME_I420, Size(6, h), 77);
        kv::ScalerBilinearXY s;
        s.reuse(src, Size(4, 3));
        Frame out;
        kv::produceFrame(s, out);
        EXPECT_TRUE(kvtest::framesEqual(out, expected(kXY, src, Size(4, 3), std::min(4, h)))) << h;
    }
    // The window of two rows: chroma output rows equal the horizontal scaling
    // of the upper chroma row, however far the luma row sits between rows.
    Frame src(kv::FRAME_I420, Size(4, 2));
    src.setZero();
    std::memset(src.rowCpuData(1, 0), 200, 2);
    kv::ScalerBilinearY s;
    s.reuse(src, 5);
    Frame out;
    kv::produceFrame(s, out);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(out.rowCpuData(1, k)[0], 200) << k;
}

// Output rows whose chroma slots are null get plane 0 only.
TEST(ScalerBilinear, NullChromaSlotsAreSkipped) {
    Frame src = kvtest::randomFrame(kv::FRAME_I420, Size(9, 7), 5);
    kv::ScalerBilinearXY s;
    s.reuse(src, Size(5, 4));
    std::vector<uint8_t> luma(5, 0xEE), u(3, 0xEE), v(3, 0xEE);
    kv::RowData row;
    row.plane[0] = luma.data();
    s.produce(row);
    EXPECT_NE(luma, std::vector<uint8_t>(5, 0xEE));
    EXPECT_EQ(u, std::vector<uint8_t>(3, 0xEE));
    EXPECT_EQ(v, std::vector<uint8_t>(3, 0xEE));
}

// Equal heights copy rows, even for a format the scaler cannot interpolate.
TEST(ScalerBilinear, EqualHeightCopiesAnyFormat) {
    Frame src = kvtest::randomFrame(kv::FRAME_FLOAT_32_C3, Size(5, 3), 9);
    kv::ScalerBilinearY s;
    s.reuse(src, 3);
    Frame out;
    kv::produceFrame(s, out);
    EXPECT_TRUE(kvtest::framesEqual(out, src));
}

TEST(ScalerBilinear, UnsupportedFormatFailsAtProduce) {
    Frame src = kvtest::randomFrame(kv::FRAME_FLOAT_32_C3, Size(5, 3), 9);
    Frame out;
    kv::ScalerBilinearX x;
    x.reuse(src, 4);
    EXPECT_KV_THROW(kv::produceFrame(x, out), 8, "Failure in ScalerBilinearX::produce(...) : unsupported frame format.");
    kv::ScalerBilinearY y;
    y.reuse(src, 4);
    EXPECT_KV_THROW(kv::produceFrame(y, out), 8, "Failure in ScalerBilinearY::produce(...) : unsupported frame format.");
    kv::ScalerBilinearXY xy;
    xy.reuse(src, Size(4, 4));
    EXPECT_KV_THROW(kv::produceFrame(xy, out), 8,
                    "Failure in ScalerBilinearXY::produce(...) : unsupported frame format.");
    try {
        kv::produceFrame(xy, out);
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.function(), "kv::ScalerBilinearXY::Impl::produce");
        EXPECT_EQ(e.file(), "src/kv_cv/kv_scaler_bilinear");
    }
}

// A one-row source: from a frame the window shrinks to one row and every
// output row repeats it; from a producer the window stays two rows, which
// the producer cannot fill.
TEST(ScalerBilinear, OneRowSource) {
    Frame src = kvtest::randomFrame(kv::FRAME_GRAY_8, Size(6, 1), 3);
    kv::ScalerBilinearY s;
    s.reuse(src, 4);
    Frame out;
    kv::produceFrame(s, out);
    for (int y = 0; y < 4; ++y) EXPECT_EQ(std::memcmp(out.rowCpuData(0, y), src.rowCpuData(0, 0), 6), 0);
    kv::RowCopier producer;
    producer.reuse(src);
    EXPECT_KV_THROW(s.reuse(producer, 4), 5, "Parameter 'window_size' is out of range.");
    kv::ScalerBilinearXY xy;
    EXPECT_KV_THROW(xy.reuse(producer, Size(3, 3)), 5, "Parameter 'window_size' is out of range.");
}

TEST(ScalerBilinear, ReuseChecks) {
    const Frame empty;
    Frame src(kv::FRAME_GRAY_8, Size(4, 4));
    kv::RowCopier none;  // a producer with an empty layout
    kv::ScalerBilinearX x;
    EXPECT_KV_THROW(x.reuse(empty, 3), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(x.reuse(src, 0), 2, "Assertion failed: 0 < dst_width");
    EXPECT_KV_THROW(x.reuse(none, 3), 2, "Assertion failed: !src_producer.layout().size.empty()");
    kv::ScalerBilinearY y;
    EXPECT_KV_THROW(y.reuse(empty, 3), 2, "Assertion failed: !src_frame.size().empty()");
    EXPECT_KV_THROW(y.reuse(src, -1), 2, "Assertion failed: 0 < dst_height");
    EXPECT_KV_THROW(y.reuse(none, 3), 2, "Assertion failed: !src_producer.layout().size.empty()");
    kv::ScalerBilinearXY xy;
    EXPECT_KV_THROW(xy.reuse(empty, Size(3, 3)), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(xy.reuse(src, Size(3, 0)), 2, "Assertion failed: !dst_size.empty()");
    EXPECT_KV_THROW(xy.reuse(none, Size(3, 3)), 2, "Assertion failed: !src_producer.layout().size.empty()");
    try {
        xy.reuse(src, Size(0, 3));
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.function(), "kv::ScalerBilinearXY::Impl::reuse");
    }
    EXPECT_FALSE(xy.initialized());
    xy.reuse(src, Size(3, 3));
    EXPECT_TRUE(xy.initialized());
    EXPECT_EQ(xy.layout().size, Size(3, 3));
}

// Reuse with the same sizes restarts at row 0 and gives the same output for a
// new source frame of the same size (tables kept, cached rows forgotten).
TEST(ScalerBilinear, ReuseRestarts) {
    Frame a = kvtest::randomFrame(kv::FRAME_BGR_8, Size(21, 13), 1);
    Frame b = kvtest::randomFrame(kv::FRAME_BGR_8, Size(21, 13), 2);
    kv::ScalerBilinearXY s;
    Frame out;
    for (const Frame* f : {&a, &b, &a}) {
        s.reuse(*f, Size(40, 30));
        kv::produceFrame(s, out);
        EXPECT_TRUE(kvtest::framesEqual(out, expected(kXY, *f, Size(40, 30), 2)));
    }
}

// ---- Row kernels: vector against reference --------------------------------

struct RowCase {
    int channels, bytes, dst_units, src_units, src_elems, n;
};

// Every channel count at widths 1..67 against several source widths (up to
// steep reductions past the block plan), and full-HD rows to common outputs,
// including rows clipped like packed 4:2:2 (fewer bytes than units).
std::vector<RowCase> rowCases(int bytes) {
    std::vector<RowCase> cases;
    const int channel_set[] = {1, 2, 3, 4};
    std::vector<std::pair<int, int>> widths;  // (output units, source units)
    for (int w = 1; w <= 67; ++w)
        for (int num : {1, 3, 4, 5, 7, 8, 11, 16, 27, 40, 63})
            widths.push_back({w, std::max(1, w * num / 4 + (num & 1))});
    for (int src : {1920, 1921})
        for (int w : {2880, 1280, 960, 700, 416, 224, 67}) widths.push_back({w, src});
    for (int c : channel_set) {
        if (bytes > 1 && c > 1) break;
        for (const auto& [w, src_units] : widths) {
            cases.push_back({c, bytes, w, src_units, src_units * c, w * c});
            if (c >= 3) {
                const int clipped = std::max(1, (src_units * c * 2) / 3);
                cases.push_back({c, bytes, w, src_units, clipped, std::max(1, (w * c * 2) / 3 + (w & 1))});
                // A row one byte longer than its units continues the last unit.
                cases.push_back({c, bytes, w, src_units, src_units * c + 1, w * c + 1});
            }
        }
    }
    return cases;
}

template <typename T, typename Kernel>
void compareLerp(int bytes, Kernel ref_kernel, Kernel vec_kernel) {
    std::mt19937 rng(11);
    int vector_plans = 0, gather_plans = 0, half_plans = 0, permute_plans = 0, window_plans = 0;
    for (const RowCase& rc : rowCases(bytes)) {
        kv::impl::LerpPlan plan;
        const auto xs = positions(rc.src_units, rc.dst_units);
        kv::impl::buildLerpPlan(plan, xs.data(), rc.dst_units, rc.src_units, rc.channels, rc.n, rc.src_elems,
                                bytes == 1);
        vector_plans += plan.chunks > 0 || plan.gather.chunks > 0 || plan.wide >= 8;
        gather_plans += plan.unit_values > 0;
        half_plans += plan.half_channels > 0;
        permute_plans += plan.perm_blocks > 0;
        window_plans += plan.win_count > 0;
        std::vector<T> src(size_t(rc.src_elems));
        for (auto& v : src) v = T(rng());
        std::vector<T> a(size_t(rc.n) + 16, T(0x5A)), b(size_t(rc.n) + 16, T(0x5A));
        ref_kernel(plan, src.data(), a.data());
        vec_kernel(plan, src.data(), b.data());
        ASSERT_EQ(a, b) << "channels " << rc.channels << " units " << rc.src_units << " -> " << rc.dst_units
                        << " src elems " << rc.src_elems << " n " << rc.n;
        for (size_t i = size_t(rc.n); i < b.size(); ++i) ASSERT_EQ(b[i], T(0x5A)) << "write past the row";
    }
    EXPECT_GT(vector_plans, 500);  // the vector path, not only the fallback
    if (bytes == 1) {
        EXPECT_GT(gather_plans, 50);  // and the unit loads of steep reductions
        EXPECT_GT(half_plans, 100);   // and the exact halvings
        EXPECT_GT(window_plans, 500); // and the AVX-512 windows
    } else {
        EXPECT_GT(permute_plans, 300);  // the permute plan, not only the gathers
    }
}

TEST(BilinearKernels, LerpRowsVectorMatchesReference) {
    if (kv::impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    compareLerp<uint8_t>(1, kv::impl::ref::lerpRow8, kv::impl::avx2::lerpRow8);
    compareLerp<uint16_t>(2, kv::impl::ref::lerpRow16, kv::impl::avx2::lerpRow16);
    compareLerp<uint32_t>(4, kv::impl::ref::lerpRow32, kv::impl::avx2::lerpRow32);
}

TEST(BilinearKernels, LerpRowsAvx512MatchesReference) {
    if (kv::impl::detectedIsa() < Isa::kAvx512) GTEST_SKIP() << "no AVX-512";
    compareLerp<uint8_t>(1, kv::impl::ref::lerpRow8, kv::impl::avx512::lerpRow8);
}

template <typename T, typename Kernel>
void compareBlend(Kernel ref_kernel, Kernel vec_kernel) {
    std::mt19937 rng(12);
    for (int n = 1; n <= 200; n += (n < 67 ? 1 : 19))
        for (uint32_t fy : {0u, 1u, 255u, 256u, 16384u, 32767u, 32768u, 40000u, 65535u}) {
            std::vector<T> a(static_cast<size_t>(n)), b(static_cast<size_t>(n));
            for (auto& v : a) v = T(rng());
            for (auto& v : b) v = T(rng());
            if (n > 2) {  // extremes
                a[0] = T(0), b[0] = T(~T(0));
                a[1] = T(~T(0)), b[1] = T(0);
            }
            std::vector<T> r(size_t(n) + 16, T(0x5A)), v(size_t(n) + 16, T(0x5A));
            ref_kernel(a.data(), b.data(), r.data(), n, fy);
            vec_kernel(a.data(), b.data(), v.data(), n, fy);
            ASSERT_EQ(r, v) << "n " << n << " fy " << fy;
            for (size_t i = size_t(n); i < v.size(); ++i) ASSERT_EQ(v[i], T(0x5A)) << "write past the row";
        }
}

TEST(BilinearKernels, BlendRowsVectorMatchesReference) {
    if (kv::impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    compareBlend<uint8_t>(kv::impl::ref::blendRow8, kv::impl::avx2::blendRow8);
    compareBlend<uint16_t>(kv::impl::ref::blendRow16, kv::impl::avx2::blendRow16);
    compareBlend<uint32_t>(kv::impl::ref::blendRow32, kv::impl::avx2::blendRow32);
}

// The reference blend is the formula itself, including its extremes.
TEST(BilinearKernels, BlendReferenceValues) {
    const uint8_t a[3] = {0, 255, 10}, b[3] = {255, 0, 20};
    uint8_t out[3];
    kv::impl::ref::blendRow8(a, b, out, 3, 65535);
    EXPECT_EQ(out[0], 254);  // 255 * 65535 >> 16
    EXPECT_EQ(out[1], 0);    // 255 * 1 >> 16
    EXPECT_EQ(out[2], 19);   // (10 * 1 + 20 * 65535) >> 16 = 19.99
    const uint32_t big_a[1] = {0xFFFFFFFFu}, big_b[1] = {0xFFFFFFFFu};
    uint32_t big_out[1];
    kv::impl::ref::blendRow32(big_a, big_b, big_out, 1, 12345);
    EXPECT_EQ(big_out[0], 0xFFFFFFFFu);  // 64-bit intermediates: no overflow
}

}  // namespace
