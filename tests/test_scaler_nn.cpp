// Nearest-neighbour scaler: worked index tables, every format against a
// direct gather (frame and producer sources, vector and scalar kernels, odd
// sizes, guarded caller memory), the copy path, error texts, and the byte
// gather kernel vector against reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler_nn.h"
#include "test_util.h"
#include "wrapped_frame.h"

namespace {

using kv::Frame;
using kv::FrameFormat;
using kv::Size;
using kv::impl::Isa;

using kvtest::IsaCap;

// Bytes per gathered unit of each plane; empty for unsupported formats.
std::vector<int> units(FrameFormat f) {
    switch (int(f)) {
        case 1: return {1};
        case 4: case 11: case 14: case 17: return {3};
        case 12: case 18: case 20: return {4};
        case 16: case 19: return {2};
        case 5: case 6: case 7: case 10: case 15: return {1, 1, 1};
        case 8: case 9: case 13: return {1, 2};
        default: return {};
    }
}

std::vector<uint16_t> table(int src, int dst) {
    const int32_t step = (src << 16) / dst;
    std::vector<uint16_t> t;
    for (int32_t i = 0, p = step / 2; i < dst; ++i, p += step) t.push_back(uint16_t(p >> 16));
    return t;
}

Frame expected(const Frame& src, Size dst) {
    const kv::FrameLayout& sl = src.layout();
    Frame out(sl.format, dst);
    const kv::FrameLayout& ol = out.layout();
    const auto xs = table(sl.size.width, dst.width);
    const auto ys = table(sl.size.height, dst.height);
    const std::vector<int> u = units(sl.format);
    for (uint32_t q = 0; q < ol.planes; ++q) {
        const kv::FramePlane& sp = sl.plane[q];
        const kv::FramePlane& dp = ol.plane[q];
        const int smask = kv::subsamplingMask(sl.size.height, sp.size.height);
        const int dmask = kv::subsamplingMask(dst.height, dp.size.height);
        for (int k = 0; k < dp.size.height; ++k) {
            const uint8_t* s = src.rowCpuData(q, ys[size_t(k * (dmask + 1))] / (smask + 1));
            uint8_t* o = out.rowCpuData(q, k);
            if (dst.width == sl.size.width) {
                std::memcpy(o, s, dp.row_bytes);
                continue;
            }
            const int ub = u[q];
            for (int e = 0; e < int(dp.row_bytes); ++e) {
                const int unit = std::min(e / ub, dp.size.width - 1);
                const int x = std::min(int(xs[size_t(unit)]), sp.size.width - 1);
                o[e] = s[std::min(x * ub + e - unit * ub, int(sp.row_bytes) - 1)];
            }
        }
    }
    return out;
}

class NearestFormats : public ::testing::TestWithParam<int> {};

TEST_P(NearestFormats, MatchGather) {
    const FrameFormat format = FrameFormat(GetParam());
    const std::pair<Size, Size> sizes[] = {
        {{7, 5}, {12, 9}},   {{13, 11}, {5, 3}}, {{1, 1}, {4, 3}},    {{9, 7}, {1, 1}},  {{37, 9}, {70, 17}},
        {{70, 17}, {23, 9}}, {{67, 6}, {9, 13}}, {{5, 4}, {5, 7}},    {{6, 3}, {3, 3}},  {{8, 8}, {3, 3}},
    };
    for (Isa isa : {Isa::kAvx2, Isa::kScalar}) {
        IsaCap cap(isa);
        for (const auto& sz : sizes) {
            SCOPED_TRACE(::testing::Message() << sz.first.width << "x" << sz.first.height << " -> "
                                              << sz.second.width << "x" << sz.second.height << " isa "
                                              << kv::impl::isaName(isa));
            kvtest::WrappedFrame src = kvtest::wrappedFrame(format, sz.first, 3, 99u + uint32_t(format));
            const Frame want = expected(src.frame, sz.second);
            kv::ScalerNearestNeighbor s;
            kvtest::WrappedFrame got = kvtest::wrappedFrame(format, sz.second, 7, 0);
            s.reuse(src.frame, sz.second);
            kv::produceFrame(s, got.frame);
            EXPECT_TRUE(kvtest::framesEqual(got.frame, want));
            EXPECT_TRUE(kvtest::paddingIntact(got));
            kv::RowCopier producer;
            producer.reuse(src.frame);
            kv::ScalerNearestNeighbor sp;
            kvtest::WrappedFrame via = kvtest::wrappedFrame(format, sz.second, 7, 0);
            sp.reuse(producer, sz.second);
            kv::produceFrame(sp, via.frame);
            EXPECT_TRUE(kvtest::framesEqual(via.frame, want));
            EXPECT_TRUE(kvtest::paddingIntact(via));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllFormats, NearestFormats,
                         ::testing::Values(1, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20),
                         [](const ::testing::TestParamInfo<int>& i) { return kv::toString(FrameFormat(i.param)); });

// The worked tables, read back through a 16-bit row holding its column index.
TEST(ScalerNearest, WorkedTables) {
    struct Case {
        int src, dst;
        std::vector<uint16_t> cols;
    };
    std::vector<uint16_t> odd;
    for (int i = 1; i < 640; i += 2) odd.push_back(uint16_t(i));
    const Case cases[] = {{640, 320, odd}, {2, 4, {0, 0, 1, 1}}, {3, 2, {0, 2}}, {5, 1, {2}}};
    for (const Case& c : cases) {
        Frame src(kv::FRAME_GRAY_16, Size(c.src, c.src));
        for (int y = 0; y < c.src; ++y)
            for (int x = 0; x < c.src; ++x)
                reinterpret_cast<uint16_t*>(src.rowCpuData(0, y))[x] = uint16_t(x + 1000 * (y % 2));
        kv::ScalerNearestNeighbor s;
        s.reuse(src, Size(c.dst, c.dst));
        Frame out;
        kv::produceFrame(s, out);
        for (int y = 0; y < c.dst; ++y)
            for (int x = 0; x < c.dst; ++x)
                ASSERT_EQ(reinterpret_cast<const uint16_t*>(out.rowCpuData(0, y))[x],
                          c.cols[size_t(x)] + 1000 * (c.cols[size_t(y)] % 2))
                    << c.src << " -> " << c.dst << " at " << x << "," << y;
    }
}

// A one-row source scaled to five rows keeps the window on row 0.
TEST(ScalerNearest, OneRowSourceRepeats) {
    Frame src = kvtest::randomFrame(kv::FRAME_BGR_8, Size(7, 1), 4);
    kv::ScalerNearestNeighbor s;
    s.reuse(src, Size(3, 5));
    Frame out;
    kv::produceFrame(s, out);
    for (int y = 1; y < 5; ++y) EXPECT_EQ(std::memcmp(out.rowCpuData(0, y), out.rowCpuData(0, 0), 9), 0);
    EXPECT_TRUE(kvtest::framesEqual(out, expected(src, Size(3, 5))));
    EXPECT_FALSE(s.next());
}

// RGB formats fail when columns are remapped and pass when only rows change.
TEST(ScalerNearest, UnsupportedFormatOnlyWhenWidthChanges) {
    for (FrameFormat f : {kv::FRAME_RGB_8, kv::FRAME_RGB_8_PLANAR}) {
        Frame src = kvtest::randomFrame(f, Size(6, 4), 8);
        kv::ScalerNearestNeighbor s;
        Frame out;
        s.reuse(src, Size(3, 4));
        EXPECT_KV_THROW(kv::produceFrame(s, out), 8,
                        "Failure in ScalerNearestNeighbor::produce(...) : unsupported frame format.");
        s.reuse(src, Size(6, 9));
        kv::produceFrame(s, out);
        EXPECT_TRUE(kvtest::framesEqual(out, expected(src, Size(6, 9))));
    }
}

TEST(ScalerNearest, NullChromaSlotWritesLumaOnly) {
    Frame src = kvtest::randomFrame(kv::FRAME_NV12, Size(10, 6), 2);
    kv::ScalerNearestNeighbor s;
    s.reuse(src, Size(4, 3));
    std::vector<uint8_t> luma(4, 0xEE), chroma(4, 0xEE);
    kv::RowData row;
    row.plane[0] = luma.data();
    s.produce(row);
    EXPECT_NE(luma, std::vector<uint8_t>(4, 0xEE));
    EXPECT_EQ(chroma, std::vector<uint8_t>(4, 0xEE));
}

TEST(ScalerNearest, ReuseChecks) {
    const Frame empty;
    Frame src(kv::FRAME_GRAY_8, Size(4, 4));
    kv::RowCopier none;
    kv::ScalerNearestNeighbor s;
    EXPECT_FALSE(s.initialized());
    EXPECT_KV_THROW(s.reuse(empty, Size(2, 2)), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(s.reuse(src, Size(0, 2)), 2, "Assertion failed: !dst_size.empty()");
    EXPECT_KV_THROW(s.reuse(none, Size(2, 2)), 2, "Assertion failed: !src_producer.layout().size.empty()");
    EXPECT_FALSE(s.initialized());
    try {
        s.reuse(src, Size(2, -1));
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.function(), "kv::ScalerNearestNeighbor::Impl::reuse");
        EXPECT_EQ(e.file(), "src/kv_cv/kv_scaler_nn");
    }
    s.reuse(src, Size(2, 2));
    EXPECT_TRUE(s.initialized());
    EXPECT_EQ(s.layout().size, Size(2, 2));
    EXPECT_EQ(s.layout().format, kv::FRAME_GRAY_8);
}

// ---- Gather kernel: vector against reference ------------------------------

TEST(NearestKernels, GatherVectorMatchesReference) {
    if (kv::impl::detectedIsa() < Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    std::mt19937 rng(3);
    int vector_plans = 0, unit_plans = 0;
    const bool avx512 = kv::impl::detectedIsa() >= Isa::kAvx512;
    int window_plans[3] = {0, 0, 0};  // AVX-512: none, one table pair, two
    // (output units, source units): every width 1..67 at ratios from 4:1 up
    // to 1:10, then full-HD rows to wide and steeply reduced outputs.
    std::vector<std::pair<int, int>> widths;
    for (int w = 1; w <= 67; ++w)
        for (int num : {1, 2, 3, 4, 6, 9, 16, 27, 40}) widths.push_back({w, std::max(1, w * num / 4)});
    for (int src : {1920, 1921})
        for (int w : {2880, 1280, 224, 100, 67, 33}) widths.push_back({w, src});
    for (int ub = 1; ub <= 4; ++ub)
        for (const auto& [w, src_units] : widths) {
            // Whole rows, then rows clipped or extended like packed 4:2:2.
            const std::pair<int, int> rows[] = {{src_units * ub, w * ub},
                                                {std::max(1, src_units * ub * 2 / 3), std::max(1, w * ub * 2 / 3)},
                                                {src_units * ub + 1, w * ub + 1}};
            for (const auto& r : rows) {
                kv::impl::GatherPlan plan;
                const auto xs = table(src_units, w);
                kv::impl::buildGatherPlan(plan, xs.data(), w, ub, r.second, src_units, r.first);
                vector_plans += plan.chunks > 0;
                unit_plans += plan.gather_units > 0;
                std::vector<uint8_t> src(static_cast<size_t>(r.first));
                for (auto& b : src) b = uint8_t(rng());
                std::vector<uint8_t> a(size_t(r.second) + 16, 0x5A), b(size_t(r.second) + 16, 0x5A);
                kv::impl::ref::gatherRow(plan, src.data(), a.data());
                kv::impl::avx2::gatherRow(plan, src.data(), b.data());
                ASSERT_EQ(a, b) << "unit " << ub << " " << src_units << " -> " << w << " bytes " << r.first
                                << " -> " << r.second;
                for (size_t i = size_t(r.second); i < b.size(); ++i) ASSERT_EQ(b[i], 0x5A);
                if (!avx512) continue;
                window_plans[plan.win_tables] += 1;
                std::vector<uint8_t> c(size_t(r.second) + 16, 0x5A);
                kv::impl::avx512::gatherRow(plan, src.data(), c.data());
                ASSERT_EQ(a, c) << "AVX-512, unit " << ub << " " << src_units << " -> " << w << " bytes " << r.first
                                << " -> " << r.second;
            }
        }
    EXPECT_GT(vector_plans, 1000);  // the block path, not only the fallback
    EXPECT_GT(unit_plans, 100);     // and the unit gathers of steep reductions
    if (avx512) {                   // windows of one and of two table pairs
        EXPECT_GT(window_plans[1], 500);
        EXPECT_GT(window_plans[2], 50);
    }
}

}  // namespace
