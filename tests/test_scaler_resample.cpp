// The antialiased resampler: the shipped kernels' values, Pillow's results on
// a small image (golden bytes made with Pillow 9.4), the vector row kernels
// against their references over odd widths and every channel count, every
// format through the producer against a plain two-pass model, producer
// sources, rows asked for plane by plane, errors and steady-state reuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "alloc_count.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler_convolutional.h"
#include "kv_cv/kv_scaler_resample.h"
#include "kv_cv/kv_impl_resample_rows.h"
#include "kv_cv/kv_impl_unaligned.h"
#include "test_util.h"

namespace {

using namespace kv;
using kv::impl::Isa;

const ResampleFilter kFilters[] = {KV_RESAMPLE_BOX,      KV_RESAMPLE_TRIANGLE, KV_RESAMPLE_CUBIC,
                                   KV_RESAMPLE_LANCZOS2, KV_RESAMPLE_LANCZOS3, KV_RESAMPLE_MITCHELL};

// ---- kernels ----------------------------------------------------------------------

TEST(ResampleFilters, ValuesAtKnownOffsets) {
    struct Case {
        ResampleFilter f;
        double x, value;
    };
    const Case cases[] = {
        {KV_RESAMPLE_BOX, 0.5, 1.0},         {KV_RESAMPLE_BOX, -0.5, 0.0},         {KV_RESAMPLE_BOX, 0.7, 0.0},
        {KV_RESAMPLE_TRIANGLE, -0.25, 0.75}, {KV_RESAMPLE_TRIANGLE, 1.0, 0.0},     {KV_RESAMPLE_CUBIC, 0.0, 1.0},
        {KV_RESAMPLE_CUBIC, 0.5, 0.5625},    {KV_RESAMPLE_CUBIC, -1.5, -0.0625},   {KV_RESAMPLE_CUBIC, 2.0, 0.0},
        {KV_RESAMPLE_LANCZOS2, 0.5, 0.5731591682507563}, {KV_RESAMPLE_LANCZOS2, 1.0, 0.0},
        {KV_RESAMPLE_LANCZOS2, 2.0, 0.0},    {KV_RESAMPLE_LANCZOS3, 0.0, 1.0},     {KV_RESAMPLE_LANCZOS3, 1.5, -0.13509491152311703},
        {KV_RESAMPLE_LANCZOS3, -3.0, 0.0},   {KV_RESAMPLE_MITCHELL, 0.0, 8.0 / 9}, {KV_RESAMPLE_MITCHELL, 1.0, 1.0 / 18},
        {KV_RESAMPLE_MITCHELL, 0.5, 0.5347222222222222}, {KV_RESAMPLE_MITCHELL, -1.5, -0.034722222222222224},
        {KV_RESAMPLE_MITCHELL, 2.0, 0.0},
    };
    for (const Case& c : cases)
        EXPECT_NEAR(resampleFilterValue(c.f, c.x), c.value, 1e-12) << toString(c.f) << " at " << c.x;
    for (ResampleFilter f : kFilters) {
        ResampleFilter back = KV_RESAMPLE_BOX;
        EXPECT_TRUE(parseResampleFilter(toString(f), back));
        EXPECT_EQ(back, f);
        // Zero at and past the support.
        EXPECT_EQ(resampleFilterValue(f, resampleFilterSupport(f) + 1e-9), 0.0) << toString(f);
    }
    ResampleFilter dummy;
    EXPECT_FALSE(parseResampleFilter("bicubic", dummy));
    EXPECT_KV_THROW(resampleFilterSupport(ResampleFilter(6)), KV_STATUS_OUT_OF_RANGE, "Parameter 'filter' is out of range.");
}

// Weights of every output sum to one unit within the per-tap rounding, and the
// kernel is stretched by the reduction factor (its taps cover the footprint).
TEST(ResampleTables, WeightsSumToOneAndStretchWithTheFactor) {
    const int sizes[][2] = {{10, 3}, {1920, 640}, {1920, 700}, {7, 13}, {1, 5}, {5, 1}, {100, 100}, {33, 4}};
    for (ResampleFilter f : kFilters)
        for (const auto& s : sizes) {
            impl::ResampleAxis a;
            impl::buildResampleAxis(f, s[0], s[1], a);
            const double scale = double(s[0]) / s[1];
            const double support = resampleFilterSupport(f) * std::max(scale, 1.0);
            for (int i = 0; i < s[1]; ++i) {
                int64_t sum = 0;
                for (int k = 0; k < a.count[size_t(i)]; ++k) sum += a.coeff[size_t(i) * size_t(a.taps) + size_t(k)];
                EXPECT_LE(std::llabs(sum - (int64_t(1) << 22)), a.count[size_t(i)]) << toString(f) << " " << s[0] << "->" << s[1];
                EXPECT_GE(a.start[size_t(i)], 0);
                EXPECT_LE(a.start[size_t(i)] + a.count[size_t(i)], s[0]);
                EXPECT_LE(a.count[size_t(i)], int(std::ceil(support)) * 2 + 1);
            }
            for (int i = 0; i < s[1]; ++i) {  // an output whose footprint lies inside spans the stretched support
                const double centre = (i + 0.5) * scale;
                if (centre - support >= 0 && centre + support <= s[0]) {
                    EXPECT_GE(a.count[size_t(i)], int(2 * support) - 1) << toString(f) << " " << s[0] << "->" << s[1];
                }
            }
        }
}

// ---- Pillow's results on a small image ---------------------------------------------

std::vector<uint8_t> hexBytes(const char* hex) {
    std::vector<uint8_t> v;
    for (size_t i = 0; hex[i] && hex[i + 1]; i += 2) v.push_back(uint8_t(std::stoi(std::string(hex + i, 2), nullptr, 16)));
    return v;
}

// 9x7 gray: a ramp pattern with a bright 4x3 square at (2, 2).
Frame goldenSource() {
    Frame f(FRAME_GRAY_8, Size(9, 7));
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x)
            f.rowCpuData(0, y)[x] = (x >= 2 && x <= 5 && y >= 2 && y <= 4) ? 250 : uint8_t((x * 37 + y * 91) % 256);
    return f;
}

struct Golden {
    ResampleFilter filter;
    Size size;
    const char* bytes;  // Image.resize(size, BOX / BILINEAR / BICUBIC / LANCZOS), row by row
};

const Golden kGolden[] = {
    {KV_RESAMPLE_BOX, {4, 3}, "419d7a4479faca7c8864818b"},
    {KV_RESAMPLE_BOX, {13, 10},
     "0025254a6f6f94b9b9de0303285b8080a5cacaef1414395e5e835b8080a5cacaef1414395e5e83b6dbdbfafafafafafa94b9b9de113636fa"
     "fafafafafaef141439113636fafafafafafaef1414396c9191fafafafafafa4a6f6f94c7ecec1136365b8080a5cacaefc7ecec1136365b80"
     "80a5cacaef2247476c9191b6dbdb0025254a"},
    {KV_RESAMPLE_TRIANGLE, {4, 3}, "6dac926a88e4cc7b84839382"},
    {KV_RESAMPLE_TRIANGLE, {13, 10},
     "00142e47617a94aec7cd3614283246607993acc67e6c7d47465a72869fb8ccdef2804e536c869ab1c5def4f7f8f9f2ca92abc5d94b5f8ff0"
     "fafafafaeac56c5f7331457bedfafafafae0ab5245597185aae8f0f1f2f3b4526b8599b0c4b5565d6f83969891aac4d87d918a42516a849e"
     "8b5e7791a522365069839cb6d087031c364a"},
    {KV_RESAMPLE_CUBIC, {4, 3}, "64af93648af8d47b807e917e"},
    {KV_RESAMPLE_CUBIC, {13, 10},
     "000b28415b748eb4dfde2601242a3c59728dadc46f5e7e3b3a557689a5bacfebf86a29416d90a2b5c8e4f7f9f9fafacd8eaecfe1404c85f7"
     "fffbfafffed95e4d6c1c2568faffffffffeeb43a29486f7faaeff8f5f5fbb64566889bc0e0ca4143607589959cbbdaec7e9b91313d607b9f"
     "8b607897aa1628496e89a2bce98e000d2f42"},
    {KV_RESAMPLE_LANCZOS3, {4, 3}, "5fb294608efdd37e797c9078"},
    {KV_RESAMPLE_LANCZOS3, {13, 10},
     "000a2a435c718db2f6e22a002c202f506d84b0c1675b81352c4e8496b3c3cffbfe6a0f3674a5afb7c9e9f7faf9fbf9c789a8d7e345488af2"
     "fcf0f5ffffe7624974110a63fffffffffeebac29143e757eb1edf6eef4fab44460949fc9f8d44135637183939ec5ecfa779d8c2b305e77a1"
     "8a637198a7111e477693a4c2fb8d0000313c"},
};

class ResampleGolden : public testing::TestWithParam<Isa> {};

TEST_P(ResampleGolden, PillowsResultsOnASmallImage) {
    kvtest::IsaCap cap(GetParam());
    const Frame src = goldenSource();
    for (const Golden& g : kGolden) {
        Frame out;
        resampleFrame(src, g.size, out, g.filter);
        const std::vector<uint8_t> want = hexBytes(g.bytes);
        ASSERT_EQ(want.size(), size_t(g.size.width) * size_t(g.size.height));
        for (int y = 0; y < g.size.height; ++y)
            for (int x = 0; x < g.size.width; ++x)
                ASSERT_EQ(int(out.rowCpuData(0, y)[x]), int(want[size_t(y) * size_t(g.size.width) + size_t(x)]))
                    << toString(g.filter) << " " << g.size.width << "x" << g.size.height << " at " << x << "," << y;
    }
}

std::string isaName(const testing::TestParamInfo<Isa>& info) { return impl::isaName(info.param); }

INSTANTIATE_TEST_SUITE_P(EveryIsa, ResampleGolden, testing::ValuesIn(kvtest::availableIsas()), isaName);

// ---- vector kernels against the references ----------------------------------------

std::vector<int> kernelWidths() {
    std::vector<int> w;
    for (int i = 1; i <= 67; ++i) w.push_back(i);
    w.push_back(1920);
    w.push_back(1921);
    return w;
}

// Output widths for a source width: reductions by large and small factors, the
// same width, an enlargement.
std::vector<int> outputWidths(int src) {
    std::vector<int> d = {1, std::max(1, src / 8), std::max(1, src * 10 / 37), std::max(1, src * 2 / 3), src, src * 8 / 5 + 1};
    std::sort(d.begin(), d.end());
    d.erase(std::unique(d.begin(), d.end()), d.end());
    return d;
}

TEST(ResampleKernels, HorizontalVectorMatchesScalar) {
    if (impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    std::mt19937 rng(5);
    for (int C = 1; C <= 4; ++C)
        for (int w : kernelWidths())
            for (int dw : outputWidths(w)) {
                const ResampleFilter f = kFilters[size_t(w + dw + C) % 6];
                impl::ResampleAxis a;
                impl::buildResampleAxis(f, w, dw, a);
                impl::ResampleX8 plan;
                impl::prepareResampleX8(a, C, plan);
                ASSERT_TRUE(plan.vector) << w << "->" << dw;
                const int rows = 1 + int(rng() % 16);
                const size_t in_len = size_t(w) * size_t(C), out_len = size_t(dw) * size_t(C);
                // Sources one byte past an aligned start; outputs with sentinels past their row.
                std::vector<std::vector<uint8_t>> in(size_t(rows), std::vector<uint8_t>(in_len + 1));
                std::vector<std::vector<uint8_t>> want(size_t(rows), std::vector<uint8_t>(out_len + 16, 1));
                std::vector<std::vector<uint8_t>> got(size_t(rows), std::vector<uint8_t>(out_len + 16, 101));
                std::vector<const uint8_t*> src;
                std::vector<uint8_t*> dw_ref, dw_vec;
                for (int r = 0; r < rows; ++r) {
                    for (uint8_t& v : in[size_t(r)]) v = uint8_t(rng());
                    src.push_back(in[size_t(r)].data() + 1);
                    dw_ref.push_back(want[size_t(r)].data());
                    dw_vec.push_back(got[size_t(r)].data());
                }
                impl::ref::resampleRowsX8(src.data(), dw_ref.data(), rows, plan);
                impl::avx2::resampleRowsX8(src.data(), dw_vec.data(), rows, plan);
                for (int r = 0; r < rows; ++r) {
                    for (size_t x = 0; x < out_len; ++x)
                        ASSERT_EQ(int(got[size_t(r)][x]), int(want[size_t(r)][x]))
                            << toString(f) << " C" << C << " " << w << "->" << dw << " row " << r << " x " << x;
                    for (size_t x = out_len; x < out_len + 16; ++x) ASSERT_EQ(got[size_t(r)][x], 101) << "wrote past the row";
                }
            }
}

TEST(ResampleKernels, VerticalVectorMatchesScalar) {
    if (impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    std::mt19937 rng(6);
    const int heights[][2] = {{9, 3}, {40, 5}, {1080, 360}, {5, 9}, {200, 23}, {3, 3}};
    for (int len : kernelWidths())
        for (const auto& h : heights) {
            const ResampleFilter f = kFilters[size_t(len + h[0]) % 6];
            impl::ResampleAxis a;
            impl::buildResampleAxis(f, h[0], h[1], a);
            impl::ResampleY8 plan;
            impl::prepareResampleY8(a, plan);
            std::vector<std::vector<uint8_t>> rows(size_t(h[0]), std::vector<uint8_t>(size_t(len) + 1));
            for (auto& r : rows)
                for (uint8_t& v : r) v = uint8_t(rng());
            for (int y = 0; y < h[1]; y += std::max(1, h[1] / 7)) {
                std::vector<const uint8_t*> taps;
                for (int k = 0; k < a.count[size_t(y)]; ++k) taps.push_back(rows[size_t(a.start[size_t(y)] + k)].data() + 1);
                taps.push_back(taps.back());
                const impl::ResampleRowsY in{taps.data(), y, size_t(len)};
                std::vector<uint8_t> want(size_t(len) + 32, 1), got(size_t(len) + 32, 101);
                impl::ref::resampleRowY8(in, want.data(), plan);
                impl::avx2::resampleRowY8(in, got.data(), plan);
                for (int x = 0; x < len; ++x)
                    ASSERT_EQ(int(got[size_t(x)]), int(want[size_t(x)])) << toString(f) << " len " << len << " y " << y << " x " << x;
                for (size_t x = size_t(len); x < got.size(); ++x) ASSERT_EQ(got[x], 101) << "wrote past the row";
            }
        }
}

// Box taps share one weight: those pixels and rows take the summing path,
// which must give the reference's bytes at every channel count and width.
TEST(ResampleKernels, BoxSummingPathsMatchScalar) {
    if (impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    std::mt19937 rng(7);
    for (int C = 1; C <= 4; ++C)
        for (int w : kernelWidths())
            for (int dw : outputWidths(w)) {
                impl::ResampleAxis a;
                impl::buildResampleAxis(KV_RESAMPLE_BOX, w, dw, a);
                impl::ResampleX8 plan;
                impl::prepareResampleX8(a, C, plan);
                ASSERT_TRUE(plan.vector);
                if (w <= 200 * dw)  // beyond, the 16-bit sums could overflow: the split sums run
                    ASSERT_GT(std::count_if(plan.uniform.begin(), plan.uniform.end(), [](int32_t u) { return u != 0; }), 0) << C << " " << w << "->" << dw;
                const int rows = 1 + int(rng() % 16);
                std::vector<std::vector<uint8_t>> in(size_t(rows), std::vector<uint8_t>(size_t(w) * size_t(C)));
                std::vector<std::vector<uint8_t>> want(size_t(rows), std::vector<uint8_t>(size_t(dw) * size_t(C)));
                std::vector<std::vector<uint8_t>> got = want;
                std::vector<const uint8_t*> src;
                std::vector<uint8_t*> d_ref, d_vec;
                for (int r = 0; r < rows; ++r) {
                    // Mostly 255 at large factors: the largest sums the 16-bit lanes hold.
                    for (uint8_t& v : in[size_t(r)]) v = rng() % 3 ? 255 : uint8_t(rng());
                    src.push_back(in[size_t(r)].data());
                    d_ref.push_back(want[size_t(r)].data());
                    d_vec.push_back(got[size_t(r)].data());
                }
                impl::ref::resampleRowsX8(src.data(), d_ref.data(), rows, plan);
                impl::avx2::resampleRowsX8(src.data(), d_vec.data(), rows, plan);
                ASSERT_EQ(got, want) << "C" << C << " " << w << "->" << dw;
            }
    for (int len : {32, 33, 95, 1921})
        for (int h : {2, 3, 7, 40, 1080}) {
            for (int dh : outputWidths(h)) {
                impl::ResampleAxis a;
                impl::buildResampleAxis(KV_RESAMPLE_BOX, h, dh, a);
                impl::ResampleY8 plan;
                impl::prepareResampleY8(a, plan);
                std::vector<std::vector<uint8_t>> rows(static_cast<size_t>(h), std::vector<uint8_t>(static_cast<size_t>(len)));
                for (auto& r : rows)
                    for (uint8_t& v : r) v = rng() % 3 ? 255 : uint8_t(rng());
                for (int y = 0; y < dh; ++y) {
                    if (h <= 200 * dh) ASSERT_NE(plan.uniform[size_t(y)], 0);
                    std::vector<const uint8_t*> taps;
                    for (int k = 0; k < a.count[size_t(y)]; ++k) taps.push_back(rows[size_t(a.start[size_t(y)] + k)].data());
                    taps.push_back(taps.back());
                    const impl::ResampleRowsY in{taps.data(), y, size_t(len)};
                    std::vector<uint8_t> want(static_cast<size_t>(len)), got(static_cast<size_t>(len));
                    impl::ref::resampleRowY8(in, want.data(), plan);
                    impl::avx2::resampleRowY8(in, got.data(), plan);
                    ASSERT_EQ(got, want) << "len " << len << " " << h << "->" << dh << " y " << y;
                }
            }
        }
}

// Weights whose high parts would overflow the vector kernels' 16-bit sums
// (not met by the shipped filters) make the plans fall back to the reference.
TEST(ResampleKernels, WeightsTooLargeForTheVectorSumsRunTheReference) {
    impl::ResampleAxis a;
    a.src = 4;
    a.dst = 1;
    a.taps = 4;
    a.start = {0};
    a.count = {4};
    a.coeff = {3774874, -2936013, 3774874, -419431};  // 0.9, -0.7, 0.9, -0.1 of 2^22
    a.weight = {0.9f, -0.7f, 0.9f, -0.1f};
    impl::ResampleX8 xplan;
    impl::prepareResampleX8(a, 3, xplan);
    impl::ResampleY8 yplan;
    impl::prepareResampleY8(a, yplan);
    EXPECT_FALSE(xplan.vector);
    EXPECT_EQ(int(yplan.vector[0]), 0);
    const uint8_t row[12] = {255, 0, 9, 0, 255, 9, 255, 0, 9, 0, 255, 9};
    uint8_t want[3], got[3];
    const uint8_t* src = row;
    uint8_t* d0 = want;
    uint8_t* d1 = got;
    impl::ref::resampleRowsX8(&src, &d0, 1, xplan);
    impl::avx2::resampleRowsX8(&src, &d1, 1, xplan);
    EXPECT_EQ(std::vector<uint8_t>(want, want + 3), std::vector<uint8_t>(got, got + 3));
    EXPECT_EQ(int(want[0]), 255);  // 255 * 1.8, clamped
    std::vector<uint8_t> r0(40, 255), r1(40, 0), out_ref(40), out_vec(40);
    const uint8_t* rows[5] = {r0.data(), r1.data(), r0.data(), r1.data(), r1.data()};
    const impl::ResampleRowsY in{rows, 0, 40};
    impl::ref::resampleRowY8(in, out_ref.data(), yplan);
    impl::avx2::resampleRowY8(in, out_vec.data(), yplan);
    EXPECT_EQ(out_ref, out_vec);
}

// ---- the producer against a plain two-pass model ------------------------------------

const FrameFormat kFormats[] = {
    FRAME_GRAY_8,  FRAME_RGB_8,  FRAME_RGB_8_PLANAR, FRAME_BGR_8,         FRAME_BGR_8_PLANAR, FRAME_I420,
    FRAME_YV12,    FRAME_NV12,   FRAME_NV21,         FRAME_YV16,          FRAME_NV16,         FRAME_YUV444,
    FRAME_YUYV,    FRAME_UYVY,
    FRAME_YUV444_PLANAR, FRAME_C2_8, FRAME_C3_8,     FRAME_C4_8,          FRAME_GRAY_16,      FRAME_GRAY_FLOAT_32,
    FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR,
};

// One plane through both passes, written from the rule: horizontal pass into
// full rows (each rounded), then the vertical pass (skipped when the length
// is unchanged).
template <typename T>
void modelPlane(const Frame& src, Frame& dst, uint32_t p, ResampleFilter f) {
    const FramePlane& sp = src.layout().plane[p];
    const FramePlane& dp = dst.layout().plane[p];
    const int C = sp.channels, sw = sp.size.width, sh = sp.size.height, dw = dp.size.width, dh = dp.size.height;
    impl::ResampleAxis ax, ay;
    impl::buildResampleAxis(f, sw, dw, ax);
    impl::buildResampleAxis(f, sh, dh, ay);
    auto at = [](const uint8_t* row, int i) {
        T v;
        std::memcpy(&v, row + size_t(i) * sizeof(T), sizeof(T));
        return v;
    };
    auto apply = [&](const impl::ResampleAxis& a, int i, const std::function<T(int)>& sample) -> T {
        if (a.src == a.dst) return sample(i);
        if (std::is_floating_point<T>::value) {
            float s = 0.f;
            for (int k = 0; k < a.count[size_t(i)]; ++k)
                s += float(sample(a.start[size_t(i)] + k)) * a.weight[size_t(i) * size_t(a.taps) + size_t(k)];
            return T(s);
        }
        int64_t s = int64_t(1) << 21;
        for (int k = 0; k < a.count[size_t(i)]; ++k)
            s += int64_t(sample(a.start[size_t(i)] + k)) * a.coeff[size_t(i) * size_t(a.taps) + size_t(k)];
        const int64_t v = s >> 22, top = sizeof(T) == 1 ? 255 : 65535;
        return T(v < 0 ? 0 : v > top ? top : v);
    };
    std::vector<T> mid(size_t(sh) * size_t(dw) * size_t(C));
    for (int y = 0; y < sh; ++y)
        for (int x = 0; x < dw; ++x)
            for (int c = 0; c < C; ++c)
                mid[(size_t(y) * size_t(dw) + size_t(x)) * size_t(C) + size_t(c)] =
                    apply(ax, x, [&](int i) { return at(src.rowCpuData(p, y), i * C + c); });
    for (int y = 0; y < dh; ++y)
        for (int x = 0; x < dw; ++x)
            for (int c = 0; c < C; ++c) {
                const T v = apply(ay, y, [&](int i) { return mid[(size_t(i) * size_t(dw) + size_t(x)) * size_t(C) + size_t(c)]; });
                std::memcpy(dst.rowCpuData(p, y) + (size_t(x) * size_t(C) + size_t(c)) * sizeof(T), &v, sizeof(T));
            }
}

// Packed 4:2:2 through its luma and chroma pairs as two frames.
Frame modelPacked(const Frame& src, Size size, ResampleFilter f) {
    const bool yuyv = src.format() == FRAME_YUYV;
    const int y0 = yuyv ? 0 : 1, y1 = yuyv ? 2 : 3, u = yuyv ? 1 : 0, v = yuyv ? 3 : 2;
    const int w = src.size().width, h = src.size().height;
    Frame luma(FRAME_GRAY_8, Size(w, h)), chroma(FRAME_C2_8, Size((w + 1) / 2, h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t* g = src.rowCpuData(0, y) + (x / 2) * 4;
            luma.rowCpuData(0, y)[x] = g[x % 2 ? y1 : y0];
            if (x % 2 == 0) {
                chroma.rowCpuData(0, y)[x] = g[u];
                chroma.rowCpuData(0, y)[x + 1] = g[v];
            }
        }
    Frame out(src.format(), size), sl(FRAME_GRAY_8, size), sc(FRAME_C2_8, Size((size.width + 1) / 2, size.height));
    modelPlane<uint8_t>(luma, sl, 0, f);
    modelPlane<uint8_t>(chroma, sc, 0, f);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; x += 2) {
            uint8_t* g = out.rowCpuData(0, y) + (x / 2) * 4;
            g[y0] = sl.rowCpuData(0, y)[x];
            g[y1] = sl.rowCpuData(0, y)[x + 1 < size.width ? x + 1 : x];
            g[u] = sc.rowCpuData(0, y)[x];
            g[v] = sc.rowCpuData(0, y)[x + 1];
        }
    return out;
}

Frame model(const Frame& src, Size size, ResampleFilter f) {
    if (src.format() == FRAME_YUYV || src.format() == FRAME_UYVY) return modelPacked(src, size, f);
    Frame out(src.format(), size);
    const FrameLayout& l = src.layout();
    for (uint32_t p = 0; p < l.planes; ++p) {
        if (l.plane[p].bits_per_channel == 8) modelPlane<uint8_t>(src, out, p, f);
        else if (l.plane[p].bits_per_channel == 16) modelPlane<uint16_t>(src, out, p, f);
        else modelPlane<float>(src, out, p, f);
    }
    return out;
}

// Reductions, enlargements, one axis only, one pixel, odd sizes (4:2:0 chroma
// of odd height), and a source taller than two blocks of rows.
const std::pair<Size, Size> kSizes[] = {
    {{33, 21}, {11, 7}}, {{33, 21}, {52, 34}}, {{33, 21}, {33, 9}}, {{33, 21}, {10, 21}}, {{7, 5}, {1, 1}},
    {{1, 1}, {3, 2}},    {{2, 41}, {5, 13}},   {{35, 40}, {34, 39}}, {{33, 21}, {33, 21}},
};

struct FormatCase {
    FrameFormat format;
    Isa isa;
};

class ResampleFrames : public testing::TestWithParam<FormatCase> {};

TEST_P(ResampleFrames, FrameAndProducerSourcesMatchTheModel) {
    const FormatCase fc = GetParam();
    kvtest::IsaCap cap(fc.isa);
    uint32_t seed = 1;
    ScalerResample scaler;  // reused across cases: tables rebuilt on every change
    RowCopier copier;
    for (ResampleFilter f : kFilters)
        for (const auto& s : kSizes) {
            ++seed;
            // Rows packed without padding on every other case: odd addresses for wide samples.
            const Frame src = kvtest::randomFrame(fc.format, s.first, seed, seed % 2 ? 1 : 0);
            const Frame want = model(src, s.second, f);
            const std::string what = std::string(toString(fc.format)) + " " + toString(f) + " " +
                                     std::to_string(s.first.width) + "x" + std::to_string(s.first.height) + " -> " +
                                     std::to_string(s.second.width) + "x" + std::to_string(s.second.height);
            Frame got;
            scaler.reuse(src, s.second, f);
            produceFrame(scaler, got);
            EXPECT_EQ(kvtest::frameDifference(got, want), "") << what << " (frame)";
            copier.reuse(src);
            scaler.reuse(copier, s.second, f);
            Frame piped;
            produceFrame(scaler, piped);
            EXPECT_EQ(kvtest::frameDifference(piped, want), "") << what << " (producer)";
        }
}

std::vector<FormatCase> formatCases() {
    std::vector<FormatCase> v;
    for (Isa isa : kvtest::availableIsas())
        for (FrameFormat f : kFormats) v.push_back({f, isa});
    return v;
}

std::string formatCaseName(const testing::TestParamInfo<FormatCase>& info) {
    std::string n = toString(info.param.format);
    return n.substr(n.find('_') + 1) + "_" + impl::isaName(info.param.isa);
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, ResampleFrames, testing::ValuesIn(formatCases()), formatCaseName);

// Full HD through the vector kernels (blocks of 16 rows, 4:2:0 chroma pulled
// ahead of the luma over a producer), BGR and NV12, against the model.
TEST(ResampleFrames, FullHdReductionsMatchTheModel) {
    for (FrameFormat format : {FRAME_BGR_8, FRAME_NV12}) {
        const Frame src = kvtest::randomFrame(format, Size(1920, 1080), 3);
        for (ResampleFilter f : {KV_RESAMPLE_TRIANGLE, KV_RESAMPLE_LANCZOS3})
            for (Size to : {Size(640, 360), Size(700, 500)}) {
                const Frame want = model(src, to, f);
                Frame got;
                resampleFrame(src, to, got, f);
                EXPECT_EQ(kvtest::frameDifference(got, want), "") << toString(format) << " " << toString(f);
                RowCopier copier;
                copier.reuse(src);
                ScalerResample scaler;
                scaler.reuse(copier, to, f);
                Frame piped;
                produceFrame(scaler, piped);
                EXPECT_EQ(kvtest::frameDifference(piped, want), "") << toString(format) << " " << toString(f) << " (producer)";
            }
    }
}

// Rows asked for plane by plane: exactly the asked planes are written, with
// the bytes of a full run, over a frame and over a producer.
TEST(ResampleFrames, OnlyTheAskedPlanesAreWritten) {
    using Ask = std::function<bool(int row, uint32_t plane)>;
    const Ask asks[] = {[](int, uint32_t q) { return q == 0; }, [](int, uint32_t q) { return q != 0; },
                        [](int r, uint32_t q) { return (r / 2 + int(q)) % 2 == 0; },
                        [](int r, uint32_t q) { return (r / 5 + int(q)) % 3 != 0; }};
    for (FrameFormat format : {FRAME_I420, FRAME_NV12, FRAME_YV16, FRAME_BGR_8_PLANAR})
        for (ResampleFilter f : {KV_RESAMPLE_BOX, KV_RESAMPLE_LANCZOS3}) {
            const Frame src = kvtest::randomFrame(format, Size(37, 51), 9);
            const Size to(15, 23);
            const Frame want = model(src, to, f);
            for (const Ask& ask : asks)
                for (bool producer : {false, true}) {
                    RowCopier copier;
                    copier.reuse(src);
                    ScalerResample scaler;
                    if (producer)
                        scaler.reuse(copier, to, f);
                    else
                        scaler.reuse(src, to, f);
                    const FrameLayout& l = scaler.layout();
                    Frame got(format, to);
                    got.setZero();
                    for (int r = 0; r < to.height; ++r) {
                        RowData dst;
                        for (uint32_t q = 0; q < l.planes; ++q) {
                            const int mask = subsamplingMask(to.height, l.plane[q].size.height);
                            if ((r & mask) == 0 && ask(r, q)) dst.plane[q] = got.rowCpuData(q, r / (mask + 1));
                        }
                        scaler.produce(dst);
                        scaler.next();
                    }
                    for (uint32_t q = 0; q < l.planes; ++q) {
                        const int mask = subsamplingMask(to.height, l.plane[q].size.height);
                        for (int y = 0; y < l.plane[q].size.height; ++y)
                            for (uint64_t x = 0; x < l.plane[q].row_bytes; ++x)
                                ASSERT_EQ(int(got.rowCpuData(q, y)[x]), ask(y * (mask + 1), q) ? int(want.rowCpuData(q, y)[x]) : 0)
                                    << toString(format) << " " << toString(f) << (producer ? " producer" : " frame")
                                    << " plane " << q << " row " << y << " byte " << x;
                    }
                }
        }
}

// Flat images stay flat: the renormalised weights keep a constant exactly.
TEST(ResampleFrames, ConstantsStayConstant) {
    for (FrameFormat format : {FRAME_BGR_8, FRAME_I420, FRAME_GRAY_16, FRAME_FLOAT_32_C3})
        for (ResampleFilter f : kFilters)
            for (Size to : {Size(7, 5), Size(90, 70), Size(1, 1)}) {
                Frame src(format, Size(41, 29));
                const FrameLayout& l = src.layout();
                for (uint32_t p = 0; p < l.planes; ++p)
                    for (int y = 0; y < l.plane[p].size.height; ++y) {
                        uint8_t* row = src.rowCpuData(p, y);
                        for (uint64_t i = 0; i < l.plane[p].row_bytes * 8 / l.plane[p].bits_per_channel; ++i) {
                            if (l.plane[p].bits_per_channel == 8) row[i] = 201;
                            else if (l.plane[p].bits_per_channel == 16) impl::storeSample(reinterpret_cast<uint16_t*>(row), ptrdiff_t(i), 60001);
                            else impl::storeSample(reinterpret_cast<float*>(row), ptrdiff_t(i), 3.5f);
                        }
                    }
                Frame out;
                resampleFrame(src, to, out, f);
                const FrameLayout& o = out.layout();
                for (uint32_t p = 0; p < o.planes; ++p)
                    for (int y = 0; y < o.plane[p].size.height; ++y) {
                        const uint8_t* row = out.rowCpuData(p, y);
                        for (uint64_t i = 0; i < o.plane[p].row_bytes * 8 / o.plane[p].bits_per_channel; ++i) {
                            if (o.plane[p].bits_per_channel == 8) ASSERT_EQ(int(row[i]), 201) << toString(f);
                            else if (o.plane[p].bits_per_channel == 16)
                                ASSERT_EQ(int(impl::loadSample(reinterpret_cast<const uint16_t*>(row), ptrdiff_t(i))), 60001);
                            else ASSERT_NEAR(impl::loadSample(reinterpret_cast<const float*>(row), ptrdiff_t(i)), 3.5f, 1e-5);
                        }
                    }
            }
}

// ---- errors, reuse, the IKernel form --------------------------------------------

TEST(ResampleErrors, ReuseAndDrivingChecks) {
    ScalerResample s;
    EXPECT_FALSE(s.initialized());
    RowData row;
    EXPECT_KV_THROW(s.produce(row), KV_STATUS_NOT_INITIALIZED, "Failure in ScalerResample::produce(...) : instance not initialized");
    EXPECT_KV_THROW(s.next(), KV_STATUS_NOT_INITIALIZED, "Failure in ScalerResample::next(...) : instance not initialized");
    EXPECT_KV_THROW(s.reuse(Frame(), Size(2, 2), KV_RESAMPLE_BOX), KV_STATUS_EMPTY_INPUT,
                    "Failure in ScalerResample::reuse(...) : source is not initialized.");
    const Frame src(FRAME_BGR_8, Size(8, 8));
    EXPECT_KV_THROW(s.reuse(src, Size(0, 2), KV_RESAMPLE_BOX), KV_STATUS_EMPTY_INPUT,
                    "Failure in ScalerResample::reuse(...) : parameter 'dst_size' is empty.");
    EXPECT_KV_THROW(s.reuse(src, Size(2, 2), ResampleFilter(6)), KV_STATUS_INVALID_VALUE, "Parameter 'filter' is incorrect.");
    EXPECT_KV_THROW(s.reuse(src, Size(2, 2), ResampleFilter(-1)), KV_STATUS_INVALID_VALUE, "Parameter 'filter' is incorrect.");
    RowCopier idle;
    EXPECT_KV_THROW(s.reuse(idle, Size(2, 2), KV_RESAMPLE_BOX), KV_STATUS_EMPTY_INPUT,
                    "Failure in ScalerResample::reuse(...) : source is not initialized.");
    Frame gray(FRAME_GRAY_8, Size(4, 4));
    EXPECT_KV_THROW(resampleFrame(src, gray, KV_RESAMPLE_BOX), KV_STATUS_NOT_SUPPORTED,
                    "Failure in resampleFrame(...) : destination format FRAME_GRAY_8 differs from FRAME_BGR_8.");
    Frame none;
    EXPECT_KV_THROW(resampleFrame(src, none, KV_RESAMPLE_BOX), KV_STATUS_EMPTY_INPUT,
                    "Failure in resampleFrame(...) : destination is not initialized.");
    EXPECT_KV_THROW(ResampleKernel(KV_RESAMPLE_CUBIC, 0.5f), KV_STATUS_OUT_OF_RANGE, "Parameter 'stretch' is out of range.");
    s.reuse(src, Size(3, 3), KV_RESAMPLE_MITCHELL);
    EXPECT_TRUE(s.initialized());
    EXPECT_EQ(s.filter(), KV_RESAMPLE_MITCHELL);
    s.clear();
    EXPECT_FALSE(s.initialized());
}

// A second run with the same sizes allocates nothing and gives the same bytes;
// resampleFrame into a region of a larger frame writes only that region.
TEST(ResampleSteadyState, SecondReuseAndProduceAllocateNothing) {
    const Frame src = kvtest::randomFrame(FRAME_NV12, Size(640, 480), 4);
    ScalerResample scaler;
    Frame out;
    scaler.reuse(src, Size(213, 161), KV_RESAMPLE_LANCZOS3);
    produceFrame(scaler, out);
    Frame copy;
    out.copyTo(copy);
    const size_t before = kvtest::allocationCount();
    scaler.reuse(src, Size(213, 161), KV_RESAMPLE_LANCZOS3);
    produceFrame(scaler, out);
    EXPECT_EQ(kvtest::allocationCount(), before);
    EXPECT_EQ(kvtest::frameDifference(out, copy), "");

    Frame canvas(FRAME_BGR_8, Size(50, 40));
    canvas.setZero();
    Frame region = getRegion(canvas, Rect(10, 5, 20, 15));
    resampleFrame(kvtest::randomFrame(FRAME_BGR_8, Size(60, 45), 2), region, KV_RESAMPLE_CUBIC);
    int outside = 0;
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 50 * 3; ++x)
            if ((y < 5 || y >= 20 || x < 30 || x >= 90) && canvas.rowCpuData(0, y)[x] != 0) ++outside;
    EXPECT_EQ(outside, 0);
}

// The shipped kernels drive the convolutional scaler too, stretched for a
// reduction; on a smooth image its interior lies close to the resampler's
// (the two differ in fixed point, centring and edges).
TEST(ResampleKernel, DrivesTheConvolutionalScaler) {
    Frame src(FRAME_GRAY_8, Size(90, 60));
    for (int y = 0; y < 60; ++y)
        for (int x = 0; x < 90; ++x) src.rowCpuData(0, y)[x] = uint8_t(x + 2 * y);
    for (ResampleFilter f : kFilters) {
        ResampleKernel kernel(f, 3.f);
        EXPECT_FLOAT_EQ(kernel.aperture(), float(6 * resampleFilterSupport(f)));
        ScalerConvolutional conv;
        conv.reuse(kernel, src, Size(30, 20), KV_SCALER_FIXED_POINT_16S);
        Frame a, b;
        produceFrame(conv, a);
        resampleFrame(src, Size(30, 20), b, f);
        int worst = 0;
        for (int y = 4; y < 16; ++y)
            for (int x = 4; x < 26; ++x) worst = std::max(worst, std::abs(a.rowCpuData(0, y)[x] - b.rowCpuData(0, y)[x]));
        EXPECT_LE(worst, 2) << toString(f);
    }
}

}  // namespace
