// The convolutional scaler: row kernels (AVX2 against the scalar reference,
// bit for bit, nothing written past the row), the whole scaler on every
// format it accepts, golden reductions, invariants, the reuse caches and the
// error texts.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_scale_conv_x.h"
#include "kv_cv/kv_impl_scale_conv_y.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler_convolutional.h"
#include "test_kernels.h"
#include "test_util.h"

using kv::impl::FixedPoint;
using kv::impl::Isa;
using kv::impl::ScaleData;
using kv::impl::ScaleRowXArgs;
using kvtest::BoxKernel;
using kvtest::CubicKernel;
using kvtest::LanczosKernel;
using kvtest::TentKernel;

namespace {

constexpr uint8_t kSentinel = 0xA5;

bool haveAvx2() { return kv::impl::detectedIsa() >= Isa::kAvx2; }

// Restores the full instruction set whatever the test did.
struct IsaGuard {
    ~IsaGuard() { kv::impl::setMaxIsaForTesting(Isa::kAvx2); }
};

// ---- horizontal row kernels ---------------------------------------------------

template <int CH, typename T>
kv::impl::ScaleRowXFn avx2RowX() {
    return kv::impl::avx2::scaleRowX<T, CH>;
}

template <typename T, int CH>
void compareRowX(kv::IKernel& kernel, std::mt19937& rng) {
    ScaleData<T> table;
    for (int src_w = 1; src_w <= 67; ++src_w) {
        for (int dst_w : {src_w, (src_w + 1) / 2, (src_w + 2) / 3, std::max(1, src_w / 7)}) {
            table.reuse(kernel, src_w, dst_w);
            if (!kv::impl::avx2::pairSumsFit(table)) continue;
            // Exact-size source: any read past the row trips the sanitizer.
            std::vector<uint8_t> src(size_t(src_w) * CH);
            for (auto& b : src) b = uint8_t(rng());
            ScaleRowXArgs a;
            a.src = src.data();
            a.src_width = src_w;
            a.entries = table.entries.data();
            a.weights = table.builder.buffer.data();
            a.stride = table.builder.stride;
            a.taps = table.maxAperture;
            a.dst_width = dst_w;
            const int step = kv::impl::avx2::stepTaps(CH);
            const int last = (a.taps + step - 1) / step * step - step;
            while (a.vector_end < dst_w &&
                   (kv::impl::entryStart(a.entries[a.vector_end]) + last) * CH + 16 <= src_w * CH)
                ++a.vector_end;
            const size_t bytes = size_t(dst_w) * CH;
            std::vector<uint8_t> want(bytes + 32, kSentinel), got(bytes + 32, kSentinel);
            kv::impl::ref::scaleRowX<T, uint8_t, CH>(a, want.data());
            avx2RowX<CH, T>()(a, got.data());
            for (size_t i = 0; i < bytes; ++i)
                ASSERT_EQ(int(want[i]), int(got[i]))
                    << "ch " << CH << " " << src_w << "->" << dst_w << " byte " << i;
            for (size_t i = bytes; i < want.size(); ++i) ASSERT_EQ(got[i], kSentinel) << "past the row at " << i;
        }
    }
}

template <typename T>
class ConvRowKernels : public ::testing::Test {};
using WeightTypes = ::testing::Types<signed char, short>;
TYPED_TEST_SUITE(ConvRowKernels, WeightTypes);

TYPED_TEST(ConvRowKernels, HorizontalAvx2MatchesReference) {
    if (!haveAvx2()) GTEST_SKIP() << "no AVX2";
    using T = TypeParam;
    std::mt19937 rng(7);
    TentKernel tent(1.0f), tent3(3.0f);
    CubicKernel cubic(1.0f), cubic2(2.0f);
    LanczosKernel lanczos(1.0f);
    BoxKernel box(1.0f);
    kv::IKernel* kernels[] = {&tent, &tent3, &cubic, &cubic2, &lanczos, &box};
    for (kv::IKernel* k : kernels) {
        compareRowX<T, 1>(*k, rng);
        compareRowX<T, 2>(*k, rng);
        compareRowX<T, 3>(*k, rng);
        compareRowX<T, 4>(*k, rng);
    }
}

TYPED_TEST(ConvRowKernels, VerticalAvx2MatchesReference) {
    if (!haveAvx2()) GTEST_SKIP() << "no AVX2";
    using T = TypeParam;
    std::mt19937 rng(11);
    for (int taps = 1; taps <= 9; ++taps) {
        for (int bytes = 1; bytes <= 67; ++bytes) {
            std::vector<std::vector<uint8_t>> rows(static_cast<size_t>(taps), std::vector<uint8_t>(static_cast<size_t>(bytes)));
            std::vector<const uint8_t*> ptrs;
            for (auto& r : rows) {
                for (auto& b : r) b = uint8_t(rng());
                ptrs.push_back(r.data());
            }
            // Weights over the whole range of T, sums far outside 0..255 included.
            std::vector<T> w(static_cast<size_t>(taps));
            for (auto& v : w) v = T(rng());
            std::vector<int32_t> acc(static_cast<size_t>(bytes));
            std::vector<uint8_t> want(size_t(bytes) + 32, kSentinel), got(size_t(bytes) + 32, kSentinel);
            kv::impl::ref::scaleRowY<T>(ptrs.data(), w.data(), taps, bytes, acc.data(), want.data());
            kv::impl::avx2::scaleRowY<T>(ptrs.data(), w.data(), taps, bytes, acc.data(), got.data());
            ASSERT_EQ(want, got) << "taps " << taps << " bytes " << bytes;
            for (size_t i = size_t(bytes); i < got.size(); ++i) ASSERT_EQ(got[i], kSentinel);
        }
    }
}

TYPED_TEST(ConvRowKernels, SumsTruncateTowardZeroAndClamp) {
    using T = TypeParam;
    const int one = FixedPoint<T>::kOne;
    // Sums of -(one - 1), -one - 1, one * 256 + 63, 16447 and 16447 * 256.
    struct Case {
        int v0, v1, w0, w1, want;
    };
    const Case cases[] = {
        {one - 1, 0, -1, 0, 0},         {1, 1, -one, -1, 0},  {255, 1, one, 63 + one, 255},
        {255, 1, one, 127, 255},        {7, 3, one, 0, 7},    {200, 0, one / 2, 0, 100},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> r0(40, uint8_t(c.v0)), r1(40, uint8_t(c.v1));
        const uint8_t* rows[2] = {r0.data(), r1.data()};
        const T w[2] = {T(c.w0), T(c.w1)};
        std::vector<int32_t> acc(40);
        std::vector<uint8_t> out(40);
        kv::impl::ref::scaleRowY<T>(rows, w, 2, 40, acc.data(), out.data());
        EXPECT_EQ(int(out[0]), c.want) << c.v0 << "*" << c.w0 << "+" << c.v1 << "*" << c.w1;
        if (haveAvx2()) {
            kv::impl::avx2::scaleRowY<T>(rows, w, 2, 40, acc.data(), out.data());
            EXPECT_EQ(int(out[0]), c.want);
            EXPECT_EQ(int(out[39]), c.want);
        }
    }
    // The 8-bit examples exactly: -63 gives 0, 16447 gives 256 clamped to 255.
    if (one == 64) {
        const uint8_t a = 63, b = 255, c = 1;
        const uint8_t* neg[1] = {&a};
        const uint8_t* big[2] = {&b, &c};
        const T wneg[1] = {T(-1)};
        const T wbig[2] = {T(64), T(127)};
        int32_t acc[1];
        uint8_t out = 9;
        kv::impl::ref::scaleRowY<T>(neg, wneg, 1, 1, acc, &out);
        EXPECT_EQ(acc[0], -63);
        EXPECT_EQ(out, 0);
        kv::impl::ref::scaleRowY<T>(big, wbig, 2, 1, acc, &out);
        EXPECT_EQ(acc[0], 16447);
        EXPECT_EQ(out, 255);
    }
}

// The horizontal reference clamps 16-bit samples to 0..65535 and never
// reads taps past the source row.
TEST(ConvRowKernels16, WideSamplesClampAndStayInTheRow) {
    BoxKernel box(1.0f);
    ScaleData<short> table;
    table.reuse(box, 4, 4);
    std::vector<uint16_t> src = {65535, 0, 1000, 7};
    std::vector<uint16_t> dst(4, 1);
    ScaleRowXArgs a;
    a.src = reinterpret_cast<const uint8_t*>(src.data());
    a.src_width = 4;
    a.entries = table.entries.data();
    a.weights = table.builder.buffer.data();
    a.stride = table.builder.stride;
    a.taps = table.maxAperture;
    a.dst_width = 4;
    kv::impl::ref::scaleRowX<short, uint16_t, 1>(a, reinterpret_cast<uint8_t*>(dst.data()));
    EXPECT_EQ(dst, src);
    // A table kept for a wider source: the taps past the row count as 0.
    a.src_width = 2;
    kv::impl::ref::scaleRowX<short, uint16_t, 1>(a, reinterpret_cast<uint8_t*>(dst.data()));
    EXPECT_EQ(dst, (std::vector<uint16_t>{65535, 0, 0, 0}));
}

// ---- whole scaler ---------------------------------------------------------------

// A frame over exact-size caller memory, one vector per plane, so that any
// read or write past a row is caught by the sanitizers.
struct CallerFrame {
    std::vector<std::vector<uint8_t>> planes;
    kv::Frame frame;
    size_t pad = 0;

    CallerFrame(kv::FrameFormat format, kv::Size size, size_t row_pad, uint8_t fill) : pad(row_pad) {
        const kv::FrameLayout l(format, size, 1);
        void* ptrs[4] = {};
        size_t steps[4] = {};
        for (uint32_t p = 0; p < l.planes; ++p) {
            steps[p] = l.plane[p].row_bytes + row_pad;
            planes.emplace_back(steps[p] * size_t(l.plane[p].size.height) - row_pad, fill);
            ptrs[p] = planes.back().data();
        }
        frame = kv::Frame::wrap(format, size, ptrs, steps);
    }
    // True when every byte past each row (up to the next row) still holds `fill`.
    bool padIntact(uint8_t fill) const {
        const kv::FrameLayout& l = frame.layout();
        for (uint32_t p = 0; p < l.planes; ++p)
            for (int y = 0; y + 1 < l.plane[p].size.height; ++y)
                for (size_t i = 0; i < pad; ++i)
                    if (planes[p][size_t(y) * l.plane[p].step + l.plane[p].row_bytes + i] != fill) return false;
        return true;
    }
};

void randomize(CallerFrame& f, uint32_t seed) { kvtest::fillRandom(f.frame, seed); }

void scaleInto(kv::ScalerConvolutional& s, kv::IKernel& k, const kv::Frame& src, kv::Size dst_size,
               kv::ScalerPrecision precision, kv::Frame& out) {
    s.reuse(k, src, dst_size, precision);
    kv::produceFrame(s, out);
}

const kv::FrameFormat kAccepted[] = {kv::FRAME_GRAY_8, kv::FRAME_BGR_8,  kv::FRAME_I420, kv::FRAME_YV12,
                                     kv::FRAME_NV12,   kv::FRAME_NV21,   kv::FRAME_YV16, kv::FRAME_NV16,
                                     kv::FRAME_YUV444, kv::FRAME_YUV444_PLANAR, kv::FRAME_C2_8,
                                     kv::FRAME_C3_8,   kv::FRAME_C4_8};

class ConvScaler : public ::testing::TestWithParam<kv::ScalerPrecision> {};
INSTANTIATE_TEST_SUITE_P(Precisions, ConvScaler,
                         ::testing::Values(kv::KV_SCALER_FIXED_POINT_8S, kv::KV_SCALER_FIXED_POINT_16S),
                         [](const auto& info) { return std::string(info.param == 8 ? "w8" : "w16"); });

// Scalar and AVX2 give the same frames over widths 1..67, odd heights, every
// accepted format; destination rows in caller memory are written exactly.
TEST_P(ConvScaler, VectorPathMatchesScalarOnEveryFormat) {
    if (!haveAvx2()) GTEST_SKIP() << "no AVX2";
    IsaGuard guard;
    CubicKernel cubic(1.5f);
    kv::ScalerConvolutional scalar, vector;
    for (kv::FrameFormat format : kAccepted) {
        for (int w = 1; w <= 67; ++w) {
            const kv::Size src_size(w, 9 + 2 * (w % 3));
            CallerFrame src(format, src_size, 0, 0);
            randomize(src, uint32_t(w * 31 + format));
            const kv::Size dst_size(std::max(1, (w * 2 + 2) / 3), 5);
            CallerFrame a(format, dst_size, 24, kSentinel), b(format, dst_size, 24, kSentinel);
            kv::impl::setMaxIsaForTesting(Isa::kScalar);
            scaleInto(scalar, cubic, src.frame, dst_size, GetParam(), a.frame);
            kv::impl::setMaxIsaForTesting(Isa::kAvx2);
            scaleInto(vector, cubic, src.frame, dst_size, GetParam(), b.frame);
            ASSERT_TRUE(kvtest::framesEqual(a.frame, b.frame)) << kv::toString(format) << " width " << w;
            ASSERT_TRUE(a.padIntact(kSentinel) && b.padIntact(kSentinel)) << kv::toString(format) << " width " << w;
        }
    }
}

// A box of width 1 at equal size copies the frame (filtered, not copied).
TEST_P(ConvScaler, BoxAtEqualSizeIsIdentity) {
    BoxKernel box(1.0f);
    kv::ScalerConvolutional s;
    for (kv::FrameFormat format : kAccepted) {
        const kv::Frame src = kvtest::randomFrame(format, kv::Size(37, 11), uint32_t(format));
        kv::Frame out;
        scaleInto(s, box, src, src.size(), GetParam(), out);
        EXPECT_TRUE(kvtest::framesEqual(src, out)) << kv::toString(format);
    }
}

// Weights sum to one unit, so a constant frame stays constant, borders included.
TEST_P(ConvScaler, ConstantStaysConstant) {
    TentKernel tent(2.0f);
    CubicKernel cubic(3.0f);
    LanczosKernel lanczos(1.0f);
    kv::IKernel* kernels[] = {&tent, &cubic, &lanczos};
    kv::ScalerConvolutional s;
    for (kv::IKernel* k : kernels) {
        kv::Frame src(kv::FRAME_BGR_8, kv::Size(90, 60));
        for (int y = 0; y < 60; ++y) std::memset(src.rowCpuData(0, y), 173, 270);
        kv::Frame out;
        scaleInto(s, *k, src, kv::Size(31, 20), GetParam(), out);
        for (int y = 0; y < 20; ++y)
            for (int i = 0; i < 93; ++i) ASSERT_EQ(out.rowCpuData(0, y)[i], 173) << "row " << y << " byte " << i;
    }
}

// A box of width 1 at a 4-fold reduction averages samples 4i+1 and 4i+2 of
// each axis (phase 0.5): rows as well as columns, the first row included.
TEST_P(ConvScaler, GoldenFourFoldBox) {
    BoxKernel box(1.0f);
    const int W = 40, H = 24;
    kv::Frame src(kv::FRAME_GRAY_8, kv::Size(W, H));
    auto v = [](int x, int y) { return (x * 5 + y * 11) & 0xFF; };
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) src.rowCpuData(0, y)[x] = uint8_t(v(x, y));
    kv::ScalerConvolutional s;
    for (int pass = 0; pass < 2; ++pass) {  // a second run over the same objects gives the same frame
        kv::Frame out;
        scaleInto(s, box, src, kv::Size(W / 4, H / 4), GetParam(), out);
        for (int y = 0; y < H / 4; ++y)
            for (int x = 0; x < W / 4; ++x) {
                auto h = [&](int row) { return (v(4 * x + 1, row) + v(4 * x + 2, row)) / 2; };
                ASSERT_EQ(int(out.rowCpuData(0, y)[x]), (h(4 * y + 1) + h(4 * y + 2)) / 2)
                    << "pass " << pass << " at " << x << "," << y;
            }
    }
}

// The window may jump over more rows than it holds (box of width 1 at 8-fold);
// reusing the scaler, over a frame or an upstream producer, gives the same frame.
TEST_P(ConvScaler, ReuseRepeatsTheResult) {
    BoxKernel box(1.0f);
    TentKernel tent(1.0f);
    kv::IKernel* kernels[] = {&box, &tent};
    for (kv::IKernel* k : kernels) {
        const kv::Frame src = kvtest::randomFrame(kv::FRAME_I420, kv::Size(64, 64), 5);
        kv::ScalerConvolutional s;
        kv::Frame first, again, chained;
        scaleInto(s, *k, src, kv::Size(8, 8), GetParam(), first);
        scaleInto(s, *k, src, kv::Size(8, 8), GetParam(), again);
        EXPECT_TRUE(kvtest::framesEqual(first, again));
        kv::RowCopier copier;
        for (int pass = 0; pass < 2; ++pass) {
            copier.reuse(src);
            s.reuse(*k, copier, kv::Size(8, 8), GetParam());
            kv::produceFrame(s, chained);
            EXPECT_TRUE(kvtest::framesEqual(first, chained)) << "producer pass " << pass;
        }
    }
}

TEST(ConvScalerCaches, KeysLeaveTheSourceWidthOut) {
    TentKernel tent(2.0f), other(2.0f);
    const kv::Frame wide = kvtest::randomFrame(kv::FRAME_BGR_8, kv::Size(100, 40), 1);
    const kv::Frame narrow = kvtest::randomFrame(kv::FRAME_BGR_8, kv::Size(60, 40), 2);
    kv::impl::ScaleX<short> x;
    x.reuse(tent, wide, 30);
    const auto* entries = x.scaleData(0).entries.data();
    // Same kernel object, format and destination width: the tables stay those of the wide source.
    x.reuse(tent, narrow, 30);
    EXPECT_EQ(x.scaleData(0).srcSize, 100);
    EXPECT_EQ(x.scaleData(0).entries.data(), entries);
    kv::Frame out;
    kv::produceFrame(x, out);  // stays inside the narrow rows
    EXPECT_EQ(out.size(), kv::Size(30, 40));
    // Another kernel object or destination width rebuilds.
    x.reuse(other, narrow, 30);
    EXPECT_EQ(x.scaleData(0).srcSize, 60);
    x.reuse(other, wide, 25);
    EXPECT_EQ(x.scaleData(0).srcSize, 100);

    // The vertical cache keeps the output width of its first set-up.
    kv::impl::ScaleX<short> xa, xb;
    kv::impl::ScaleY<short> y;
    xa.reuse(tent, wide, 50);
    y.reuse(tent, xa, 20);
    EXPECT_EQ(y.layout().size, kv::Size(50, 20));
    xb.reuse(tent, wide, 40);
    y.reuse(tent, xb, 20);
    EXPECT_EQ(y.layout().size, kv::Size(50, 20));
    kv::Frame vout;
    kv::produceFrame(y, vout);  // bytes past the 40-pixel source rows are written as 0
    for (int r = 0; r < 20; ++r) EXPECT_EQ(vout.rowCpuData(0, r)[149], 0);
    y.reuse(tent, xb, 21);
    EXPECT_EQ(y.layout().size, kv::Size(40, 21));
}

TEST(ConvScalerErrors, MessagesAndStatuses) {
    TentKernel tent;
    kv::ScalerConvolutional s;
    const kv::Frame src = kvtest::randomFrame(kv::FRAME_BGR_8, kv::Size(20, 10), 3);
    kv::RowData row;
    EXPECT_FALSE(s.initialized());
    EXPECT_KV_THROW(s.layout(), 7, "instance not initialized");
    EXPECT_KV_THROW(s.produce(row), 7, "Failure in ScalerConvolutional::produce(...) : instance not initialized");
    EXPECT_KV_THROW(s.next(), 7, "Failure in ScalerConvolutional::next(...) : instance not initialized");

    EXPECT_KV_THROW(s.reuse(tent, kv::Frame(), kv::Size(5, 5), kv::KV_SCALER_FIXED_POINT_8S), 14,
                    "Failure in ScalerConvolutional::reuse(...) : frame is not initialized.");
    for (kv::Size empty : {kv::Size(0, 5), kv::Size(5, 0)})
        EXPECT_KV_THROW(s.reuse(tent, src, empty, kv::KV_SCALER_FIXED_POINT_8S), 14,
                        "Failure in ScalerConvolutional::reuse(...) : parameter 'dst_size' is empty.");
    kv::RowCopier idle;
    EXPECT_KV_THROW(s.reuse(tent, idle, kv::Size(5, 5), kv::KV_SCALER_FIXED_POINT_16S), 14,
                    "Failure in ScalerConvolutional::reuse(...) : layout is not initialized.");

    s.reuse(tent, src, kv::Size(10, 5), kv::KV_SCALER_FIXED_POINT_8S);
    EXPECT_TRUE(s.initialized());
    EXPECT_KV_THROW(s.reuse(tent, src, kv::Size(10, 5), kv::ScalerPrecision(12)), 6,
                    "Parameter 'precision' is incorrect.");
    EXPECT_FALSE(s.initialized());
    EXPECT_KV_THROW(s.next(), 7, "Failure in ScalerConvolutional::next(...) : instance not initialized");

    // Enlarging either axis fails in the table.
    EXPECT_KV_THROW(s.reuse(tent, src, kv::Size(21, 5), kv::KV_SCALER_FIXED_POINT_16S), 5,
                    "Failure in ScaleData::reuse(...), parameter 'dst_size' is out of range.");
    EXPECT_KV_THROW(s.reuse(tent, src, kv::Size(20, 11), kv::KV_SCALER_FIXED_POINT_16S), 5,
                    "Failure in ScaleData::reuse(...), parameter 'dst_size' is out of range.");

    // Packed 4:2:2 passes the vertical pass and is refused by the horizontal one at the first row.
    kv::Frame out;
    const kv::Frame yuyv = kvtest::randomFrame(kv::FRAME_YUYV, kv::Size(20, 10), 4);
    s.reuse(tent, yuyv, kv::Size(10, 5), kv::KV_SCALER_FIXED_POINT_8S);
    EXPECT_KV_THROW(kv::produceFrame(s, out), 8, "Failure in ScaleX::produce(...) : unsupported format.");
    // 16-bit samples pass the horizontal pass and are refused by the vertical one.
    const kv::Frame gray16 = kvtest::randomFrame(kv::FRAME_GRAY_16, kv::Size(20, 10), 5);
    s.reuse(tent, gray16, kv::Size(10, 5), kv::KV_SCALER_FIXED_POINT_16S);
    EXPECT_KV_THROW(kv::produceFrame(s, out), 8, "Failure in ScaleY::produce(...) : unsupported frame format.");

    kv::impl::ScaleX<signed char> x;
    kv::impl::ScaleY<signed char> y;
    EXPECT_KV_THROW(x.produce(row), 7, "Failure in ScaleX::produce(...): the scaler is not initialized.");
    EXPECT_KV_THROW(y.produce(row), 7, "The scaler is not initialized.");
    EXPECT_KV_THROW(x._reuseScaleData(tent, kv::FrameLayout(), 5), 7,
                    "Failure in ScaleX::reuse(...) : source frame is not initialized.");
    EXPECT_KV_THROW(y._reuseScaleData(tent, kv::FrameLayout(), 5), 7,
                    "Failure in ScaleY::reuse(...) : source frame is not initialized.");
}

}  // namespace
