// Vector row kernels against their scalar references: every vectorised pair
// of formats at widths 1..67 (and a full HD row) and odd heights, sources in
// exact-size caller memory one byte off alignment, destinations padded with
// sentinels that must survive.
#include <gtest/gtest.h>

#include <vector>

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_impl_cpu.h"
#include "test_util.h"

namespace {

using namespace kv;

using kvtest::IsaCap;

constexpr size_t kSlack = 64;

// A source frame over exact-size heap blocks (one per plane, rows packed with
// no padding, starting one byte into the block), so reads past the last row
// reach unowned memory.
struct CallerFrame {
    std::vector<std::vector<uint8_t>> blocks;
    Frame frame;

    CallerFrame(FrameFormat format, Size size, uint32_t seed) {
        const FrameLayout l(format, size, 1);
        void* planes[4] = {};
        size_t steps[4] = {};
        std::mt19937 rng(seed);
        for (uint32_t p = 0; p < l.planes; ++p) {
            blocks.emplace_back(1 + l.plane[p].row_bytes * size_t(l.plane[p].size.height));
            std::vector<uint8_t>& b = blocks.back();
            if (l.plane[p].bits_per_channel == 32) {
                // Floats across and beyond the byte range, negative ones too.
                for (size_t i = 1; i + 4 <= b.size(); i += 4) {
                    const float v = float(int(rng() % 80000) - 10000) / 64.0f;
                    std::memcpy(&b[i], &v, 4);
                }
            } else {
                for (auto& v : b) v = uint8_t(rng());
            }
            planes[p] = b.data() + 1;
            steps[p] = l.plane[p].row_bytes;
        }
        frame = Frame::wrap(format, size, planes, steps);
    }
};

// Runs a converter row by row into sentinel-filled rows (null chroma slots
// on the rows a RowWriter would leave out) and returns every row's bytes.
std::vector<std::vector<uint8_t>> convertRows(const Frame& src, FrameFormat dst_format, impl::Isa isa,
                                              uint8_t sentinel) {
    FormatConverter c;
    {
        IsaCap cap(isa);
        c.reuse(src, dst_format);
    }
    const FrameLayout l = c.layout();
    std::vector<std::vector<uint8_t>> out;
    for (int r = 0; r < l.size.height; ++r) {
        RowData row;
        std::vector<std::vector<uint8_t>> buffers(l.planes);
        for (uint32_t p = 0; p < l.planes; ++p) {
            const int mask = subsamplingMask(l.size.height, l.plane[p].size.height);
            if ((r & mask) != 0) continue;
            buffers[p].assign(l.plane[p].row_bytes + kSlack, sentinel);
            row.plane[p] = buffers[p].data();
        }
        c.produce(row);
        c.next();
        for (uint32_t p = 0; p < l.planes; ++p) {
            if (buffers[p].empty()) continue;
            for (size_t i = l.plane[p].row_bytes; i < buffers[p].size(); ++i)
                EXPECT_EQ(buffers[p][i], sentinel) << "row " << r << " plane " << p << " byte " << i;
            buffers[p].resize(l.plane[p].row_bytes);
            out.push_back(std::move(buffers[p]));
        }
    }
    return out;
}

struct Pair {
    FrameFormat src, dst;
};

const Pair kVectorPairs[] = {
    {FRAME_BGR_8, FRAME_GRAY_8},         {FRAME_BGR_8, FRAME_I420},         {FRAME_BGR_8, FRAME_YV12},
    {FRAME_BGR_8, FRAME_NV12},           {FRAME_BGR_8, FRAME_NV21},         {FRAME_I420, FRAME_BGR_8},
    {FRAME_YV12, FRAME_BGR_8},           {FRAME_NV12, FRAME_BGR_8},         {FRAME_NV21, FRAME_BGR_8},
    {FRAME_YV16, FRAME_BGR_8},           {FRAME_NV16, FRAME_BGR_8},         {FRAME_YUV444_PLANAR, FRAME_BGR_8},
    {FRAME_BGR_8, FRAME_FLOAT_32_C3},    {FRAME_BGR_8, FRAME_FLOAT_32_C3_PLANAR},
    {FRAME_RGB_8, FRAME_FLOAT_32_C3_PLANAR}, {FRAME_FLOAT_32_C3, FRAME_BGR_8}, {FRAME_BGR_8, FRAME_RGB_8},
    {FRAME_RGB_8, FRAME_BGR_8},          {FRAME_RGB_8_PLANAR, FRAME_RGB_8}, {FRAME_BGR_8_PLANAR, FRAME_BGR_8},
    {FRAME_RGB_8, FRAME_RGB_8_PLANAR},   {FRAME_BGR_8, FRAME_BGR_8_PLANAR},
};

class ConvertKernels : public ::testing::TestWithParam<Pair> {};

TEST_P(ConvertKernels, VectorMatchesScalarAtEveryWidth) {
    if (impl::detectedIsa() < impl::Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    const Pair pair = GetParam();
    std::vector<int> widths;
    for (int w = 1; w <= 67; ++w) widths.push_back(w);
    widths.push_back(1920);
    widths.push_back(1921);
    uint32_t seed = 100;
    for (int width : widths)
        for (int height : {1, 3, 5}) {
            const CallerFrame src(pair.src, Size(width, height), seed++);
            const auto ref = convertRows(src.frame, pair.dst, impl::Isa::kScalar, 1);
            const auto vec = convertRows(src.frame, pair.dst, impl::Isa::kAvx2, 101);
            ASSERT_EQ(ref.size(), vec.size());
            for (size_t i = 0; i < ref.size(); ++i) {
                size_t x = 0;
                while (x < ref[i].size() && ref[i][x] == vec[i][x]) ++x;
                ASSERT_EQ(x, ref[i].size()) << toString(pair.src) << " -> " << toString(pair.dst) << " " << width
                                            << "x" << height << " row record " << i << " first difference at byte "
                                            << x;
            }
        }
}

INSTANTIATE_TEST_SUITE_P(Pairs, ConvertKernels, ::testing::ValuesIn(kVectorPairs),
                         [](const ::testing::TestParamInfo<Pair>& i) {
                             return std::string(toString(i.param.src)) + "_to_" + toString(i.param.dst);
                         });

// Extreme inputs where 16-bit intermediates would overflow or saturate if the
// weight splitting were wrong: all-0 and all-255 rows and the corners of the
// RGB cube, scalar against vector.
TEST(ConvertKernelsExtremes, CubeCornersAgree) {
    if (impl::detectedIsa() < impl::Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    const Size size(64, 3);
    for (FrameFormat src_format : {FRAME_BGR_8, FRAME_I420, FRAME_NV12}) {
        for (int corner = 0; corner < 8 * 8; ++corner) {
            CallerFrame src(src_format, size, 1);
            const FrameLayout& l = src.frame.layout();
            for (uint32_t p = 0; p < l.planes; ++p)
                for (int y = 0; y < l.plane[p].size.height; ++y) {
                    uint8_t* row = src.frame.rowCpuData(p, y);
                    for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i)
                        row[i] = ((corner >> ((i + p + y) % 6)) & 1) ? 255 : 0;
                }
            const FrameFormat dst_format = src_format == FRAME_BGR_8 ? FRAME_NV21 : FRAME_BGR_8;
            EXPECT_EQ(convertRows(src.frame, dst_format, impl::Isa::kScalar, 1),
                      convertRows(src.frame, dst_format, impl::Isa::kAvx2, 1))
                << toString(src_format) << " corner " << corner;
            if (src_format == FRAME_BGR_8) {
                EXPECT_EQ(convertRows(src.frame, FRAME_GRAY_8, impl::Isa::kScalar, 1),
                          convertRows(src.frame, FRAME_GRAY_8, impl::Isa::kAvx2, 1));
            }
        }
    }
}

}  // namespace
