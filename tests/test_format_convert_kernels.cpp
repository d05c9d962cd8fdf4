// Vector row kernels against their scalar references: every vectorised pair
// of formats at widths 1..67 (and a full HD row) and odd heights, sources in
// exact-size caller memory one byte off alignment, destinations padded with
// sentinels that must survive.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_convert_rows.h"
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

void PrintTo(const Pair& p, std::ostream* os) { *os << toString(p.src) << " -> " << toString(p.dst); }

// Every pair of formats the converter accepts (asked at start-up).
std::vector<Pair> supportedPairs() {
    const FrameFormat formats[] = {FRAME_GRAY_8, FRAME_RGB_8,  FRAME_RGB_8_PLANAR, FRAME_BGR_8,  FRAME_BGR_8_PLANAR,
                                   FRAME_I420,   FRAME_YV12,   FRAME_NV12,         FRAME_NV21,   FRAME_YV16,
                                   FRAME_YUYV,   FRAME_UYVY,   FRAME_NV16,         FRAME_YUV444, FRAME_YUV444_PLANAR,
                                   FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR};
    std::vector<Pair> pairs;
    for (FrameFormat s : formats)
        for (FrameFormat d : formats) {
            if (s == d) continue;
            try {
                FormatConverter c;
                c.reuse(Frame(s, Size(2, 2)), d);
                pairs.push_back({s, d});
            } catch (const Exception&) {
            }
        }
    return pairs;
}

class ConvertKernels : public ::testing::TestWithParam<Pair> {};

// Every vector level this processor runs against the scalar references.
TEST_P(ConvertKernels, VectorMatchesScalarAtEveryWidth) {
    const std::vector<impl::Isa> isas = kvtest::availableIsas();
    if (isas.size() < 2) GTEST_SKIP() << "no vector instruction set";
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
            for (size_t k = 1; k < isas.size(); ++k) {
                const auto vec = convertRows(src.frame, pair.dst, isas[k], 101);
                ASSERT_EQ(ref.size(), vec.size());
                for (size_t i = 0; i < ref.size(); ++i) {
                    size_t x = 0;
                    while (x < ref[i].size() && ref[i][x] == vec[i][x]) ++x;
                    ASSERT_EQ(x, ref[i].size())
                        << toString(pair.src) << " -> " << toString(pair.dst) << " " << impl::isaName(isas[k]) << " "
                        << width << "x" << height << " row record " << i << " first difference at byte " << x;
                }
            }
        }
}

INSTANTIATE_TEST_SUITE_P(Pairs, ConvertKernels, ::testing::ValuesIn(supportedPairs()),
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

// The vector YUV to BGR arithmetic splits each numerator into a multiple of
// 256 and a 16-bit remainder; checked over every (Y, U, V) triple. Rows of
// 4:4:4 carry the triples (each pixel has its own chroma); the half-width
// layouts share that arithmetic and are covered at every width above.
TEST(ConvertKernelsExtremes, EveryYuvTripleAgrees) {
    if (impl::detectedIsa() < impl::Isa::kAvx2) GTEST_SKIP() << "no AVX2";
    const int width = 65536;  // Y = x & 255, V = x >> 8, one U per row
    std::vector<uint8_t> y(width), u(width), v(width), a(3 * size_t(width)), b(3 * size_t(width));
    for (int x = 0; x < width; ++x) {
        y[size_t(x)] = uint8_t(x);
        v[size_t(x)] = uint8_t(x >> 8);
    }
    std::vector<impl::YuvToRgbRowFn> kernels{impl::avx2::yuvFullToBgrRow};
    if (impl::detectedIsa() >= impl::Isa::kAvx512) kernels.push_back(impl::avx512::yuvFullToBgrRow);
    for (int uu = 0; uu < 256; ++uu) {
        std::fill(u.begin(), u.end(), uint8_t(uu));
        impl::ref::yuvFullToBgrRow(y.data(), u.data(), v.data(), a.data(), width);
        for (size_t k = 0; k < kernels.size(); ++k) {
            kernels[k](y.data(), u.data(), v.data(), b.data(), width);
            ASSERT_EQ(a, b) << "U " << uu << " kernel " << k;
        }
    }
}

// The BGR to 4:2:0 row-pair kernels (scalar and AVX2) against two calls of the
// scalar row kernel: Y of the first row and the chroma into the destination,
// Y of the second row into `next_y`, never a byte beyond any of them.
TEST(ConvertPairKernels, MatchTwoRowCallsOfTheScalarKernel) {
    struct Kernels {
        FrameFormat dst;
        Impl::ConvertRowFn row;
        Impl::ConvertPairFn pair[2];
    };
    const Kernels kernels[] = {
        {FRAME_I420, &impl::ref::bgrToYuv420PlanarRow,
         {&impl::ref::bgrToYuv420PlanarPairRow, &impl::avx2::bgrToYuv420PlanarPairRow}},
        {FRAME_YV12, &impl::ref::bgrToYuv420PlanarRow,
         {&impl::ref::bgrToYuv420PlanarPairRow, &impl::avx2::bgrToYuv420PlanarPairRow}},
        {FRAME_NV12, &impl::ref::bgrToYuv420SemiRow,
         {&impl::ref::bgrToYuv420SemiPairRow, &impl::avx2::bgrToYuv420SemiPairRow}},
        {FRAME_NV21, &impl::ref::bgrToYuv420SemiRow,
         {&impl::ref::bgrToYuv420SemiPairRow, &impl::avx2::bgrToYuv420SemiPairRow}},
    };
    const int isas = impl::detectedIsa() >= impl::Isa::kAvx2 ? 2 : 1;
    std::vector<int> widths;
    for (int w = 1; w <= 67; ++w) widths.push_back(w);
    widths.push_back(1920);
    widths.push_back(1921);
    std::mt19937 rng(7);
    for (const Kernels& k : kernels)
        for (int width : widths) {
            Impl::ImplFormatConverter conv;
            int window = 0;
            conv.reuse(FRAME_BGR_8, k.dst, width, &window);
            const FrameLayout l(k.dst, Size(width, 2), 1);
            // Exact-size source rows, so that reads past a row end are caught.
            std::vector<uint8_t> src[2] = {std::vector<uint8_t>(3 * size_t(width)),
                                           std::vector<uint8_t>(3 * size_t(width))};
            for (auto& row : src)
                for (auto& b : row) b = uint8_t(rng());
            RowData s0, s1;
            s0.plane[0] = src[0].data();
            s1.plane[0] = src[1].data();
            const RowData* both[2] = {&s0, &s1};
            const RowData* second[2] = {&s1, nullptr};
            // Expected: row 0 with chroma, then row 1 alone without chroma.
            std::vector<std::vector<uint8_t>> want(l.planes + 1);
            RowData w0, w1;
            for (uint32_t p = 0; p < l.planes; ++p) {
                want[p].assign(l.plane[p].row_bytes, 0);
                w0.plane[p] = want[p].data();
            }
            want[l.planes].assign(size_t(width), 0);
            w1.plane[0] = want[l.planes].data();
            k.row(both, w0, width, conv);
            k.row(second, w1, width, conv);
            for (int isa = 0; isa < isas; ++isa) {
                std::vector<std::vector<uint8_t>> got(l.planes + 1);
                RowData d;
                for (uint32_t p = 0; p < l.planes; ++p) {
                    got[p].assign(l.plane[p].row_bytes + kSlack, 0xA5);
                    d.plane[p] = got[p].data();
                }
                got[l.planes].assign(size_t(width) + kSlack, 0xA5);
                k.pair[isa](both, d, got[l.planes].data(), width, conv);
                for (size_t p = 0; p < got.size(); ++p) {
                    for (size_t i = want[p].size(); i < got[p].size(); ++i)
                        ASSERT_EQ(got[p][i], 0xA5) << toString(k.dst) << " width " << width << " isa " << isa
                                                   << " record " << p << " byte " << i;
                    got[p].resize(want[p].size());
                    ASSERT_EQ(got[p], want[p]) << toString(k.dst) << " width " << width << " isa " << isa
                                               << " record " << p;
                }
            }
        }
}

// The converter parks the second row's luma during the first row of a pair;
// consumers that skip a row, or that ask for chroma on a row that would not
// carry it, still get that row's own bytes.
TEST(ConvertPairKernels, SkippedRowsAndChromaOnEveryRow) {
    for (impl::Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        const Size size(45, 9);
        const CallerFrame src(FRAME_BGR_8, size, 21);
        Frame whole;
        {
            FormatConverter c;
            c.reuse(src.frame, FRAME_NV12);
            produceFrame(c, whole);
        }
        Impl::ImplFormatConverter conv;
        int window = 0;
        conv.reuse(FRAME_BGR_8, FRAME_NV12, size.width, &window);
        FormatConverter c;
        c.reuse(src.frame, FRAME_NV12);
        // Per row: 0 skip, 1 Y only, 2 Y and chroma.
        const int plan[9] = {2, 0, 1, 2, 2, 1, 0, 2, 2};
        for (int r = 0; r < size.height; ++r) {
            std::vector<uint8_t> y(size_t(size.width) + kSlack, 0xA5), uv(size_t(size.width + 1) + kSlack, 0xA5);
            RowData d;
            d.plane[0] = y.data();
            if (plan[r] == 2) d.plane[1] = uv.data();
            if (plan[r] != 0) c.produce(d);
            c.next();
            if (plan[r] == 0) continue;
            EXPECT_EQ(0, std::memcmp(y.data(), whole.rowCpuData(0, r), size_t(size.width))) << "row " << r;
            EXPECT_EQ(y[size_t(size.width)], 0xA5);
            if (plan[r] != 2) continue;
            // Chroma from rows r and r + 1 (r alone on the last row).
            RowData s0, s1, want;
            s0.plane[0] = const_cast<uint8_t*>(src.frame.rowCpuData(0, r));
            if (r + 1 < size.height) s1.plane[0] = const_cast<uint8_t*>(src.frame.rowCpuData(0, r + 1));
            const RowData* rows[2] = {&s0, r + 1 < size.height ? &s1 : nullptr};
            std::vector<uint8_t> want_y(size_t(size.width)), want_uv(size_t(size.width + 1));
            want.plane[0] = want_y.data();
            want.plane[1] = want_uv.data();
            impl::ref::bgrToYuv420SemiRow(rows, want, size.width, conv);
            EXPECT_EQ(0, std::memcmp(uv.data(), want_uv.data(), want_uv.size())) << "row " << r;
            EXPECT_EQ(uv[want_uv.size()], 0xA5);
        }
    }
}

}  // namespace
