// The fast backend's BGR to YUV kernels: every vector set against the
// reference at every width (exact-size rows one byte off alignment,
// sentinels past every output), and the reference, through the adapter at
// each instruction set, against libyuv's own conversions, whose bytes the
// fast backend has always given.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_fast_kernels.h"
#include "test_util.h"

namespace {

using namespace kv;

struct YuvKernel {
    const char* name;
    impl::BgrToYuvRowsFn impl::FastKernels::*fn;
    bool two_rows;  // 4:2:0
    int sub;        // chroma samples per column: 1 or 2
    bool pairs;
};

const YuvKernel kYuvKernels[] = {
    {"I420", &impl::FastKernels::bgrToI420Rows, true, 2, false},
    {"NV12", &impl::FastKernels::bgrToNv12Rows, true, 2, true},
    {"I422", &impl::FastKernels::bgrToI422Row, false, 2, false},
    {"NV16", &impl::FastKernels::bgrToNv16Row, false, 2, true},
    {"I444", &impl::FastKernels::bgrToI444Row, false, 1, false},
};

// Outputs of one call: Y of both rows, chroma (planes or pairs), each with 40
// sentinel bytes.
struct YuvRows {
    std::vector<uint8_t> y0, y1, u, v;
};

YuvRows runKernel(const impl::FastKernels& k, const YuvKernel& yk, const std::vector<uint8_t> src[2], int width,
                  bool vu) {
    const size_t chroma = size_t(yk.sub == 2 ? (width + 1) / 2 : width);
    YuvRows out{std::vector<uint8_t>(size_t(width) + 40, 0xcd), std::vector<uint8_t>(size_t(width) + 40, 0xcd),
                std::vector<uint8_t>(2 * chroma + 40, 0xcd), std::vector<uint8_t>(chroma + 40, 0xcd)};
    uint8_t* u = yk.pairs ? out.u.data() + (vu ? 1 : 0) : out.u.data();
    uint8_t* v = yk.pairs ? out.u.data() + (vu ? 0 : 1) : out.v.data();
    (k.*yk.fn)(src[0].data() + 1, yk.two_rows ? src[1].data() + 1 : nullptr, out.y0.data(),
               yk.two_rows ? out.y1.data() : nullptr, u, v, width);
    return out;
}

class FastYuvKernels : public ::testing::TestWithParam<YuvKernel> {};

TEST_P(FastYuvKernels, VectorSetsMatchReferenceAtEveryWidth) {
    const YuvKernel yk = GetParam();
    std::vector<int> widths;
    for (int w = 1; w <= 67; ++w) widths.push_back(w);
    for (int w : {127, 128, 129, 1920, 1921}) widths.push_back(w);
    const impl::FastKernels& ref = impl::fastKernels(impl::Isa::kScalar);
    std::mt19937 rng(11);
    for (int width : widths) {
        // Exact-size rows, one byte into their blocks.
        std::vector<uint8_t> src[2] = {std::vector<uint8_t>(3 * size_t(width) + 1),
                                       std::vector<uint8_t>(3 * size_t(width) + 1)};
        for (auto& row : src)
            for (auto& b : row) b = uint8_t(rng());
        for (bool vu : {false, true}) {
            if (vu && !yk.pairs) continue;
            const YuvRows want = runKernel(ref, yk, src, width, vu);
            for (impl::Isa isa : kvtest::availableIsas()) {
                if (isa == impl::Isa::kScalar) continue;
                const YuvRows got = runKernel(impl::fastKernels(isa), yk, src, width, vu);
                const std::string what = std::string(yk.name) + " " + impl::isaName(isa) + " width " +
                                         std::to_string(width) + (vu ? " vu" : "");
                EXPECT_EQ(got.y0, want.y0) << what;
                EXPECT_EQ(got.y1, want.y1) << what;
                EXPECT_EQ(got.u, want.u) << what;
                EXPECT_EQ(got.v, want.v) << what;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, FastYuvKernels, ::testing::ValuesIn(kYuvKernels),
                         [](const ::testing::TestParamInfo<YuvKernel>& i) { return std::string(i.param.name); });

// A BGR plane of random bytes with runs of the extremes (0, 255 and the cube's
// corners), where the 16-bit sums and the rounding means are tightest.
std::vector<uint8_t> testPlane(int width, int height, size_t step, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> p(step * size_t(height));
    for (size_t i = 0; i < p.size(); ++i) {
        const uint32_t r = rng();
        p[i] = (i / 96) % 3 == 0 ? uint8_t(r) : ((r >> 8) & 1 ? 255 : 0);
    }
    (void)width;
    return p;
}

// The adapter (our kernels at each instruction set) against libyuv itself.
TEST(FastYuvAgainstLibrary, SameBytesAsLibyuv) {
    const int sizes[][2] = {{2, 2}, {6, 4}, {34, 6}, {62, 2}, {64, 4}, {66, 6}, {130, 4}, {1920, 4}, {1922, 2}};
    for (impl::Isa isa : kvtest::availableIsas()) {
        kvtest::IsaCap cap(isa);
        for (const auto& sz : sizes) {
            const int w = sz[0], h = sz[1];
            const size_t step = size_t(w) * 3 + 5;
            const std::vector<uint8_t> bgr = testPlane(w, h, step, uint32_t(w * 7 + h));
            const std::string what = std::string(impl::isaName(isa)) + " " + std::to_string(w) + "x" +
                                     std::to_string(h);
            for (int kind = 0; kind < 3; ++kind) {  // 4:2:0, 4:2:2, 4:4:4
                const int cw = kind == 2 ? w : w / 2, ch = kind == 0 ? h / 2 : h;
                std::vector<uint8_t> planes[2][3];
                for (int which = 0; which < 2; ++which) {
                    planes[which][0].assign(size_t(w) * size_t(h), 0);
                    planes[which][1].assign(size_t(cw) * size_t(ch), 0);
                    planes[which][2].assign(size_t(cw) * size_t(ch), 0);
                    const auto call = kind == 0 ? (which ? impl::fast::bgrToI420WithLibrary : impl::fast::bgrToI420)
                                      : kind == 1 ? (which ? impl::fast::bgrToI422WithLibrary : impl::fast::bgrToI422)
                                                  : (which ? impl::fast::bgrToYuv444WithLibrary : impl::fast::bgrToYuv444);
                    call(bgr.data(), step, planes[which][0].data(), size_t(w), planes[which][1].data(), size_t(cw),
                         planes[which][2].data(), size_t(cw), w, h);
                }
                for (int p = 0; p < 3; ++p)
                    EXPECT_EQ(planes[0][p], planes[1][p]) << what << " kind " << kind << " plane " << p;
            }
            // The paired forms carry the same samples as the planar ones.
            std::vector<uint8_t> y(size_t(w) * size_t(h)), u(size_t(w / 2) * size_t(h)), v(u.size());
            std::vector<uint8_t> y2(y.size()), uv(2 * u.size());
            impl::fast::bgrToI422(bgr.data(), step, y.data(), size_t(w), u.data(), size_t(w / 2), v.data(),
                                  size_t(w / 2), w, h);
            impl::fast::bgrToNv16(bgr.data(), step, y2.data(), size_t(w), uv.data(), size_t(w), w, h);
            EXPECT_EQ(y, y2) << what;
            for (size_t i = 0; i < u.size(); ++i) {
                ASSERT_EQ(uv[2 * i], u[i]) << what << " pair " << i;
                ASSERT_EQ(uv[2 * i + 1], v[i]) << what << " pair " << i;
            }
            for (bool vu : {false, true}) {
                std::vector<uint8_t> yi(size_t(w) * size_t(h)), ui(size_t(w / 2) * size_t(h / 2)), vi(ui.size());
                std::vector<uint8_t> yn(yi.size()), pairs(2 * ui.size());
                impl::fast::bgrToI420(bgr.data(), step, yi.data(), size_t(w), ui.data(), size_t(w / 2), vi.data(),
                                      size_t(w / 2), w, h);
                impl::fast::bgrToNv12(vu, bgr.data(), step, yn.data(), size_t(w), pairs.data(), size_t(w), w, h);
                EXPECT_EQ(yi, yn) << what;
                for (size_t i = 0; i < ui.size(); ++i) {
                    ASSERT_EQ(pairs[2 * i + (vu ? 1 : 0)], ui[i]) << what << " pair " << i;
                    ASSERT_EQ(pairs[2 * i + (vu ? 0 : 1)], vi[i]) << what << " pair " << i;
                }
            }
        }
    }
}

}  // namespace
