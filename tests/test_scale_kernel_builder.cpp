// Fixed-point weight tables of the convolutional scaler: the weight-sum fix,
// kernel integration, border folding, the kernel store and the per-axis table
// with its limits.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

#include "kv_cv/kv_impl_scale_data.h"
#include "test_kernels.h"
#include "test_util.h"

using kv::impl::FixedPoint;
using kv::impl::ScaleData;
using kv::impl::ScaleKernelBuilder;
using kvtest::BoxKernel;
using kvtest::ConstantKernel;
using kvtest::CubicKernel;
using kvtest::LanczosKernel;
using kvtest::TentKernel;

namespace {

template <typename T>
int sumOf(const T* w, int n) {
    int s = 0;
    for (int k = 0; k < n; ++k) s += w[k];
    return s;
}

TEST(ScaleFixWeightSum, StepsFromTheMiddleOutward) {
    struct Case {
        std::vector<int> in, out;
    };
    const Case cases[] = {
        {{10, 12, 17, 12, 10}, {10, 12, 19, 13, 10}},  // 61: steps to 2, 2, 3; index 0 untouched
        {{15, 15, 15, 15}, {16, 16, 16, 16}},          // 60: pairs (1,2) then (0,3)
        {{20, 30, 17}, {20, 28, 16}},                   // 67: -1 to 1 twice, then to 2
        {{10, 20, 10}, {10, 22, 11}},                   // 40: three steps only, the error stays
        {{32, 32}, {32, 32}},                           // already one unit
        {{-3, 20, 45, 1}, {-3, 21, 45, 1}},             // 63: one step, to half - 1
    };
    for (const Case& c : cases) {
        std::vector<signed char> w(c.in.begin(), c.in.end());
        kv::impl::_fixWeightSum(w.data(), int(w.size()));
        std::vector<int> got(w.begin(), w.end());
        EXPECT_EQ(got, c.out) << "first weight " << c.in[0];
    }
    std::vector<short> s = {4000, 4000, 4000, 4380};  // 16380: 4 steps to 16384
    kv::impl::_fixWeightSum(s.data(), 4);
    EXPECT_EQ(std::vector<int>(s.begin(), s.end()), (std::vector<int>{4001, 4001, 4001, 4381}));
}

template <typename T>
class ScaleWeights : public ::testing::Test {};
using WeightTypes = ::testing::Types<signed char, short>;
TYPED_TEST_SUITE(ScaleWeights, WeightTypes);

TYPED_TEST(ScaleWeights, ComputeWeightsGoldenRows) {
    using T = TypeParam;
    constexpr int kOne = FixedPoint<T>::kOne;
    struct Case {
        const kv::IKernel* kernel;
        float phase;
        std::vector<int> quarters;  // weights in units of kOne / 4
    };
    BoxKernel box1(1.0f), box2(2.0f);
    TentKernel tent;
    const Case cases[] = {
        {&box1, 0.0f, {4}},
        {&box2, 0.5f, {1, 2, 1}},
        {&tent, 0.0f, {2, 2}},
    };
    for (const Case& c : cases) {
        std::vector<float> fb(8);
        std::vector<T> w(8, T(99));
        int taps = -1;
        kv::impl::_computeWeights(const_cast<kv::IKernel*>(c.kernel), fb.data(), w.data(), 8, c.phase, &taps);
        ASSERT_EQ(taps, int(c.quarters.size()));
        for (int k = 0; k < 8; ++k)
            EXPECT_EQ(int(w[size_t(k)]), k < taps ? c.quarters[size_t(k)] * kOne / 4 : 0) << "tap " << k;
    }
}

TYPED_TEST(ScaleWeights, ComputeWeightsSumToOneAndMirror) {
    using T = TypeParam;
    TentKernel tent(2.5f);
    CubicKernel cubic(1.5f);
    LanczosKernel lanczos(1.0f);
    const kv::IKernel* kernels[] = {&tent, &cubic, &lanczos};
    for (const kv::IKernel* k : kernels) {
        for (int i = 0; i < 16; ++i) {
            const float phase = float(i) / 16.0f;
            std::vector<float> fb(16);
            std::vector<T> w(16);
            int taps = 0;
            kv::impl::_computeWeights(const_cast<kv::IKernel*>(k), fb.data(), w.data(), 16, phase, &taps);
            EXPECT_EQ(taps, int(std::ceil(k->aperture() + phase)));
            EXPECT_EQ(sumOf(w.data(), 16), FixedPoint<T>::kOne) << "phase " << phase;
            if (i == 0) {
                // Before the sum fix a symmetric kernel at phase 0 is symmetric;
                // the fix may only touch the middle.
                for (int t = 0; t < taps / 2 - 1; ++t) EXPECT_EQ(w[size_t(t)], w[size_t(taps - 1 - t)]);
            }
        }
    }
}

TYPED_TEST(ScaleWeights, ComputeWeightsErrors) {
    using T = TypeParam;
    TentKernel tent;
    std::vector<float> fb(8);
    std::vector<T> w(8);
    int taps = 0;
    const char* kFix = "Failure in _computeWeights(...): ";
    EXPECT_KV_THROW(kv::impl::_computeWeights(&tent, fb.data(), (T*)nullptr, 8, 0.0f, &taps), 4,
                    std::string(kFix) + "Parameter 'p_weights' is null.");
    EXPECT_EQ(taps, 2);  // written before the checks
    EXPECT_KV_THROW(kv::impl::_computeWeights(&tent, nullptr, w.data(), 8, 0.0f, &taps), 4,
                    std::string(kFix) + "Parameter 'p_weight_buffer' is null.");
    for (int cap : {0, -1, 1073741824})
        EXPECT_KV_THROW(kv::impl::_computeWeights(&tent, fb.data(), w.data(), cap, 0.0f, &taps), 5,
                        std::string(kFix) + "Parameter 'weight_capacity' is out of range.");
    for (float phase : {-0.01f, 1.0f})
        EXPECT_KV_THROW(kv::impl::_computeWeights(&tent, fb.data(), w.data(), 8, phase, &taps), 5,
                        std::string(kFix) + "Parameter 'phase' is out of range.");
    EXPECT_KV_THROW(kv::impl::_computeWeights(&tent, fb.data(), w.data(), 2, 0.5f, &taps), 19,
                    std::string(kFix) + "Not enough capacity to fit the kernel.");
    for (float value : {0.0f, -1.0f, 0.0001f}) {
        ConstantKernel flat(value, 3.0f);
        EXPECT_KV_THROW(kv::impl::_computeWeights(&flat, fb.data(), w.data(), 8, 0.0f, &taps), 4,
                        "Failure in computeWeights(...): Kernel has zero weight sum.");
    }
}

TEST(ScaleWeights8, ApertureLimit) {
    BoxKernel wide(64.0f);
    std::vector<float> fb(65);
    std::vector<signed char> w(65);
    int taps = 0;
    kv::impl::_computeWeights(&wide, fb.data(), w.data(), 65, 0.0f, &taps);
    EXPECT_EQ(taps, 64);
    EXPECT_KV_THROW(kv::impl::_computeWeights(&wide, fb.data(), w.data(), 65, 0.25f, &taps), 19,
                    "Failure in _computeWeights(...): The kernel aperture is greater than MAX_FIXED_POINT_APERTURE");
    EXPECT_EQ(taps, 65);
    std::vector<short> w16(65);
    kv::impl::_computeWeights(&wide, fb.data(), w16.data(), 65, 0.25f, &taps);
    EXPECT_EQ(sumOf(w16.data(), 65), 16384);
}

TEST(ScaleIntegral, TrapezoidsOfOneSixteenth) {
    // A linear kernel is integrated exactly by trapezoids, partial panel included.
    struct Linear : kv::IKernel {
        void prepare() override {}
        float value(float x) const override { return x; }
        float aperture() const override { return 2.0f; }
    } linear;
    const struct {
        float offset, from, to;
    } cases[] = {{0.0f, 0.0f, 1.3f}, {0.25f, 0.25f, 1.0f}, {0.0f, 1.0f, 1.03f}, {0.5f, 2.0f, 2.5f}};
    for (const auto& c : cases) {
        const double centre = 1.0 + c.offset;
        const double exact = (std::pow(c.to - centre, 2) - std::pow(c.from - centre, 2)) / 2.0;
        EXPECT_NEAR(kv::impl::_computeIntegral(&linear, c.offset, c.from, c.to), exact, 1e-5) << c.from << ".." << c.to;
    }
    TentKernel tent;
    // Cell 0 of a tent centred at 1: 0.5 exactly (all panel ends are exact).
    EXPECT_EQ(kv::impl::_computeIntegral(&tent, 0.0f, 0.0f, 1.0f), 0.5f);
    EXPECT_KV_THROW(kv::impl::_computeIntegral(nullptr, 0.0f, 0.0f, 1.0f), 4, "Parameter '_p_kernel' is null.");
}

TYPED_TEST(ScaleWeights, ReflectFoldsIntoTheSource) {
    using T = TypeParam;
    struct Case {
        std::vector<int> weights;
        int src_size, start;
        int new_start;
        std::vector<int> folded;
    };
    const Case cases[] = {
        // 3-sample source, 6-tap kernel starting at -2: several taps per sample.
        {{4, 8, 12, 16, 14, 10}, 3, -2, 0, {20, 20, 24, 0, 0, 0}},
        {{4, 8, 12, 16, 14, 10}, 3, -5, 0, {14 + 10, 4 + 16, 8 + 12, 0, 0, 0}},
        // Right end: taps 7 and 8 of a 7-sample source mirror onto 6 and 5.
        {{10, 20, 34}, 7, 5, 4, {0, 10, 54}},
        {{16, 32, 16}, 7, 6, 4, {0, 16, 48}},
        // Left end: -1 -> 0.
        {{16, 32, 16}, 7, -1, 0, {48, 16, 0}},
    };
    for (const Case& c : cases) {
        std::vector<T> w(c.weights.begin(), c.weights.end());
        std::vector<T> out(w.size(), T(77));
        int new_start = -100;
        kv::impl::_reflectWeights(w.data(), int(w.size()), c.src_size, c.start, &new_start, out.data());
        EXPECT_EQ(new_start, c.new_start);
        EXPECT_EQ(std::vector<int>(out.begin(), out.end()), c.folded) << "start " << c.start;
        EXPECT_EQ(sumOf(out.data(), int(out.size())), sumOf(w.data(), int(w.size())));
    }
}

TYPED_TEST(ScaleWeights, ReflectErrors) {
    using T = TypeParam;
    std::vector<T> w(8), out(8);
    int ns = 0;
    const std::string pre = "Failure in _reflectWeights(...) : ";
    EXPECT_KV_THROW(kv::impl::_reflectWeights((const T*)nullptr, 3, 5, 0, &ns, out.data()), 4,
                    pre + "Parameter 'p_weights' is null.");
    EXPECT_KV_THROW(kv::impl::_reflectWeights(w.data(), 3, 5, 0, &ns, (T*)nullptr), 4,
                    pre + "Parameter 'p_borderWieghts' is null.");
    for (int ap : {0, FixedPoint<T>::kMaxAperture + 1})
        EXPECT_KV_THROW(kv::impl::_reflectWeights(w.data(), ap, 5, 0, &ns, out.data()), 5,
                        pre + "Parameter 'aperture' is out of range.");
    for (int src : {0, 8193})
        EXPECT_KV_THROW(kv::impl::_reflectWeights(w.data(), 3, src, 0, &ns, out.data()), 5,
                        pre + "Parameter 'src_size' is out of range.");
    // A start no table produces would fold outside the row: refused, nothing written past it.
    EXPECT_KV_THROW(kv::impl::_reflectWeights(w.data(), 3, 10, 100, &ns, out.data()), 2,
                    "Assertion failed: 0 <= slot && slot < aperture");
}

TYPED_TEST(ScaleWeights, BuilderCapacityAndPhaseLookup) {
    using T = TypeParam;
    ScaleKernelBuilder<T> b;
    EXPECT_KV_THROW(b.reuse(0), 5, "Parameter 'aperture' is out of range.");
    b.reuse(3);
    EXPECT_EQ(b.stride % 64, 0u);
    const T w[3] = {T(1), T(2), T(3)};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(b.addInnerKernel(float(i) / 16.0f, w), i);
    EXPECT_KV_THROW(b.addInnerKernel(0.99f, w), 2,
                    "Failure in ScaleKernelBuilder::addInnerKernel(...), buffer has already filled");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(b.addBorderKernel(w), 16 + i);
    EXPECT_KV_THROW(b.addBorderKernel(w), 2,
                    "Failure in ScaleKernelBuilder::addBorderKernel(...), buffer has already filled");
    EXPECT_EQ(b.findInnerKernel(0.1875f + 0.0009f), 3);
    EXPECT_EQ(b.findInnerKernel(0.1875f + 0.0011f), -1);
    EXPECT_EQ(int(b.row(18)[2]), 3);
    EXPECT_EQ(int(b.row(18)[3]), 0);  // rows are zero past the kernel
}

TEST(ScaleDataLimits, SizesAndScaleFactors) {
    TentKernel tent;
    ScaleData<signed char> d8;
    ScaleData<short> d16;
    const std::string pre = "Failure in ScaleData::reuse(...), ";
    EXPECT_KV_THROW(d8.reuse(tent, 0, 1), 5, pre + "parameter 'src_size' is out of range.");
    EXPECT_KV_THROW(d16.reuse(tent, 8193, 100), 5, pre + "parameter 'src_size' is out of range.");
    EXPECT_KV_THROW(d8.reuse(tent, 100, 101), 5, pre + "parameter 'dst_size' is out of range.");
    EXPECT_KV_THROW(d16.reuse(tent, 100, 0), 5, pre + "parameter 'dst_size' is out of range.");
    // 32-fold is the 8-bit limit; 33-fold is refused there and accepted with 16 bits.
    d8.reuse(tent, 320, 10);
    EXPECT_KV_THROW(d8.reuse(tent, 330, 10), 5, pre + "scale factor is out of range.");
    d16.reuse(tent, 330, 10);
    d16.reuse(tent, 8192, 1);
    EXPECT_EQ(int(d16.entries.size()), 1);
    // Aperture 64 with 8-bit weights: 65 taps at any phase above 0.
    BoxKernel wide(64.0f);
    EXPECT_KV_THROW(d8.reuse(wide, 100, 40), 19,
                    "Failure in _computeWeights(...): The kernel aperture is greater than MAX_FIXED_POINT_APERTURE");
    d16.reuse(wide, 100, 40);
    EXPECT_EQ(d16.maxAperture, 65);
    BoxKernel wider(70.0f);
    EXPECT_KV_THROW(d8.reuse(wider, 100, 40), 19,
                    "Failure in _computeWeights(...): The kernel aperture is greater than MAX_FIXED_POINT_APERTURE");
}

// Table invariants over a spread of sizes and kernels: rows sum to one unit,
// every nonzero weight reads inside the source, inner rows are shared by
// phase, border rows sit at 16 onward.
template <typename T>
void checkTable(const ScaleData<T>& d, int src, int dst, const char* what) {
    SCOPED_TRACE(::testing::Message() << what << " " << src << "->" << dst);
    ASSERT_EQ(int(d.entries.size()), dst);
    EXPECT_LE(d.builder.innerCount, 16);
    for (int i = 0; i < dst; ++i) {
        const int start = kv::impl::entryStart(d.entries[size_t(i)]);
        const int row = kv::impl::entryRow(d.entries[size_t(i)]);
        const T* w = d.builder.row(row);
        EXPECT_TRUE(row < d.builder.innerCount || (row >= 16 && row < 16 + d.builder.borderCount));
        EXPECT_EQ(sumOf(w, d.builder.kernelLength), FixedPoint<T>::kOne) << "position " << i;
        EXPECT_GE(start, 0);
        for (int k = 0; k < d.builder.kernelLength; ++k)
            if (w[k] != 0) {
                EXPECT_LT(start + k, src) << "position " << i;
                EXPECT_LT(k, d.maxAperture);
            }
    }
}

TYPED_TEST(ScaleWeights, TableInvariants) {
    using T = TypeParam;
    BoxKernel box(1.0f);
    TentKernel tent(1.5f);
    CubicKernel cubic(2.0f);
    LanczosKernel lanczos(1.0f);
    const std::pair<const char*, kv::IKernel*> kernels[] = {
        {"box", &box}, {"tent", &tent}, {"cubic", &cubic}, {"lanczos", &lanczos}};
    const std::pair<int, int> sizes[] = {{1, 1},   {3, 3},   {3, 1},    {7, 5},     {16, 16},  {67, 23},
                                         {100, 99}, {640, 480}, {1920, 640}, {1000, 999}, {8192, 1000}};
    ScaleData<T> d;
    for (const auto& k : kernels)
        for (const auto& s : sizes) {
            d.reuse(*k.second, s.first, s.second);
            checkTable(d, s.first, s.second, k.first);
        }
}

TEST(ScaleDataPhases, SharingAndQuantisation) {
    TentKernel tent;
    ScaleData<short> d;
    // Equal sizes: one phase, all inner positions share row 0.
    d.reuse(tent, 50, 50);
    EXPECT_EQ(d.builder.innerCount, 1);
    int inner = 0;
    for (auto e : d.entries)
        if (kv::impl::entryRow(e) < 16) {
            EXPECT_EQ(kv::impl::entryRow(e), 0);
            ++inner;
        }
    EXPECT_GT(inner, 45);
    // 1000 -> 999 cycles through 999 phases: quantised to sixteenths.
    d.reuse(tent, 1000, 999);
    EXPECT_LE(d.builder.innerCount, 16);
    for (float p : d.builder.phases) EXPECT_EQ(p * 16.0f, std::floor(p * 16.0f)) << p;
    // 5 -> 3 has 3 phases, kept exact.
    d.reuse(tent, 50, 30);
    EXPECT_EQ(d.builder.innerCount, 3);
    EXPECT_NE(d.builder.phases[1] * 16.0f, std::floor(d.builder.phases[1] * 16.0f));
}

}  // namespace
