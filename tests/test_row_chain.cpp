// Chains of format converters and scalers, in one pass, against the same steps
// through whole frames: every (source format, intermediate format, resize
// method, destination format) the converter and the scalers support, over
// sizes that catch row pairs and edges, and chains of depth 4. Each source
// format is its own test so that ctest runs them side by side.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "chain_oracle.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "test_util.h"

namespace {

using namespace kv;
using kvtest::ChainStage;
using kvtest::ScaleKind;

const FrameFormat kFormats[] = {
    FRAME_GRAY_8, FRAME_RGB_8,  FRAME_RGB_8_PLANAR, FRAME_BGR_8,  FRAME_BGR_8_PLANAR,  FRAME_I420,
    FRAME_YV12,   FRAME_NV12,   FRAME_NV21,         FRAME_YV16,   FRAME_YUYV,          FRAME_UYVY,
    FRAME_NV16,   FRAME_YUV444, FRAME_YUV444_PLANAR, FRAME_C2_8,  FRAME_C3_8,          FRAME_C4_8,
    FRAME_GRAY_16, FRAME_GRAY_FLOAT_32, FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR,
};

const ScaleKind kKinds[] = {ScaleKind::kNearest, ScaleKind::kBilinear, ScaleKind::kArea, ScaleKind::kTent};

// The formats the converter produces from `src` (src itself: a pass-through).
std::vector<FrameFormat> convertibleFrom(FrameFormat src) {
    std::vector<FrameFormat> out;
    const Frame probe(src, Size(2, 2));
    for (FrameFormat dst : kFormats) {
        FormatConverter c;
        try {
            c.reuse(probe, dst);
            out.push_back(dst);
        } catch (const Exception&) {
        }
    }
    return out;
}

struct SizePair {
    Size from, to;
};

// One and two rows and columns, odd sides, row pairs cut in half at either
// end, reductions and enlargements.
const SizePair kSmall[] = {
    {{1, 1}, {2, 2}},  {{2, 2}, {1, 1}},  {{1, 9}, {3, 5}},   {{9, 1}, {5, 3}},    {{3, 3}, {2, 2}},
    {{2, 2}, {3, 3}},  {{5, 7}, {3, 3}},  {{7, 5}, {33, 21}}, {{33, 21}, {7, 5}},  {{33, 21}, {17, 11}},
    {{33, 21}, {1, 9}}, {{3, 3}, {9, 1}}, {{33, 21}, {16, 20}}, {{33, 21}, {33, 8}}, {{33, 21}, {11, 21}},
};

// The sanitizer builds run ten times slower: there the full-HD sweep keeps
// one resize method and one destination per intermediate format (rotating).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Counts the chains a test ran; written to the test's XML record.
struct Tally {
    int equal = 0, refused = 0;
    ~Tally() {
        ::testing::Test::RecordProperty("chains_equal", equal);
        ::testing::Test::RecordProperty("chains_refused", refused);
    }
};

std::vector<ChainStage> convertScaleConvert(FrameFormat mid, Size size, ScaleKind kind, FrameFormat dst) {
    return {ChainStage::convert(mid), ChainStage::resize(size, kind), ChainStage::convert(dst)};
}

void expectChainMatches(kvtest::ChainRunner& runner, const Frame& src, const std::vector<ChainStage>& stages,
                        Tally& tally) {
    const kvtest::ChainOutcome chain = runner.chained(src, stages);
    const kvtest::ChainOutcome steps = runner.stepwise(src, stages);
    const std::string v = kvtest::verdict(chain, steps);
    EXPECT_EQ(v, "") << kvtest::describeChain(src, stages);
    if (chain.ok)
        ++tally.equal;
    else
        ++tally.refused;
}

class RowChain : public ::testing::TestWithParam<FrameFormat> {};

// converter -> scaler -> converter, every supported combination.
TEST_P(RowChain, ConvertScaleConvertEqualsSteps) {
    const FrameFormat src_format = GetParam();
    kvtest::ChainRunner runner;
    Tally tally;
    uint32_t seed = 1;
    for (FrameFormat mid : convertibleFrom(src_format)) {
        const std::vector<FrameFormat> dsts = convertibleFrom(mid);
        for (ScaleKind kind : kKinds)
            for (FrameFormat dst : dsts) {
                for (const SizePair& s : kSmall) {
                    const Frame src = kvtest::randomFrame(src_format, s.from, seed++);
                    for (impl::Isa isa : kvtest::availableIsas()) {
                        kvtest::IsaCap cap(isa);
                        expectChainMatches(runner, src, convertScaleConvert(mid, s.to, kind, dst), tally);
                    }
                }
            }
    }
}

// Full HD: every combination to 640x360; to 2880x1620 every source,
// intermediate format and method, the destinations taken in turn.
TEST_P(RowChain, FullHdEqualsSteps) {
    const FrameFormat src_format = GetParam();
    kvtest::ChainRunner runner;
    Tally tally;
    const Frame src = kvtest::randomFrame(src_format, Size(1920, 1080), 7);
    size_t turn = 0;
    for (FrameFormat mid : convertibleFrom(src_format)) {
        const std::vector<FrameFormat> dsts = convertibleFrom(mid);
        for (size_t k = 0; k < 4; ++k) {
            if (kSanitized && k != turn % 4) continue;
            for (size_t d = 0; d < dsts.size(); ++d)
                if (!kSanitized || d == turn % dsts.size())
                    expectChainMatches(runner, src, convertScaleConvert(mid, Size(640, 360), kKinds[k], dsts[d]),
                                       tally);
            expectChainMatches(runner, src,
                               convertScaleConvert(mid, Size(2880, 1620), kKinds[k], dsts[turn % dsts.size()]),
                               tally);
            ++turn;
        }
    }
}

// converter -> scaler -> converter -> scaler.
TEST_P(RowChain, DepthFourEqualsSteps) {
    const FrameFormat src_format = GetParam();
    kvtest::ChainRunner runner;
    Tally tally;
    const Size sizes[][3] = {{{33, 21}, {17, 11}, {9, 13}}, {{9, 7}, {20, 15}, {3, 3}}, {{5, 6}, {2, 2}, {5, 3}}};
    uint32_t seed = 100;
    for (const auto& s : sizes) {
        const Frame src = kvtest::randomFrame(src_format, s[0], seed++);
        for (FrameFormat mid : convertibleFrom(src_format))
            for (FrameFormat second : convertibleFrom(mid))
                for (ScaleKind k1 : kKinds)
                    for (ScaleKind k2 : {ScaleKind::kBilinear, ScaleKind::kNearest})
                        expectChainMatches(runner, src,
                                           {ChainStage::convert(mid), ChainStage::resize(s[1], k1),
                                            ChainStage::convert(second), ChainStage::resize(s[2], k2)},
                                           tally);
    }
}

// The generic backend's convert (resize, then convert, in one pass) against
// the two steps through a frame, regions included.
TEST_P(RowChain, BaseBackendConvertEqualsSteps) {
    const FrameFormat src_format = GetParam();
    CvBackendBase backend;
    uint32_t seed = 300;
    const Rect regions[] = {Rect(), Rect(2, 3, 30, 15), Rect(1, 1, 31, 19)};
    for (FrameFormat dst_format : convertibleFrom(src_format))
        for (ScaleKind kind : {ScaleKind::kNearest, ScaleKind::kBilinear, ScaleKind::kArea})
            for (Size out_size : {Size(17, 11), Size(1, 1), Size(40, 3), Size(33, 21)})
                for (const Rect& roi : regions) {
                    const Frame src = kvtest::randomFrame(src_format, Size(33, 21), seed++);
                    backend.setIntProperty(1, int(kind));
                    Frame got(dst_format, out_size);
                    std::string got_error, want_error;
                    try {
                        backend.convert(src, got, roi);
                    } catch (const Exception& e) {
                        got_error = e.message();
                    }
                    Frame want;
                    try {
                        const Frame region = roi.empty() ? src : getRegion(src, roi);
                        Scaler scaler;
                        scaler.reuse(region, out_size, ScaleMethod(kind));
                        Frame scaled;
                        produceFrame(scaler, scaled);
                        FormatConverter converter;
                        converter.reuse(scaled, dst_format);
                        produceFrame(converter, want);
                    } catch (const Exception& e) {
                        want_error = e.message();
                    }
                    const std::string what = std::string(toString(src_format)) + " -> " + toString(dst_format) + " " +
                                             kvtest::scaleKindName(kind) + " " + std::to_string(out_size.width) +
                                             "x" + std::to_string(out_size.height);
                    EXPECT_EQ(got_error, want_error) << what;
                    if (got_error.empty() && want_error.empty()) {
                        EXPECT_EQ(kvtest::frameDifference(got, want), "") << what;
                    }
                }
}

std::string formatName(const ::testing::TestParamInfo<FrameFormat>& info) {
    std::string n = toString(info.param);
    return n.substr(n.find('_') + 1);
}

INSTANTIATE_TEST_SUITE_P(EverySource, RowChain, ::testing::ValuesIn(kFormats), formatName);

// Rows of a producer, read as a writer reads them (subsampled planes on the
// first row of each plane row), asking each row only for the planes `ask`
// lets through; the planes not asked for stay as they were.
Frame drain(IRowProducer& p, const std::function<bool(int row, uint32_t plane)>& ask) {
    const FrameLayout l = p.layout();
    Frame out(l.format, l.size);
    out.setZero();
    for (int r = 0; r < l.size.height; ++r) {
        RowData dst;
        for (uint32_t q = 0; q < l.planes; ++q) {
            const int mask = (l.size.height + l.size.height % 2) / l.plane[q].size.height - 1;
            const bool first_of_plane_row = (r & mask) == 0;
            if (first_of_plane_row && ask(r, q)) dst.plane[q] = out.rowCpuData(q, r / (mask + 1));
        }
        p.produce(dst);
        p.next();
    }
    return out;
}

// Every producer writes exactly the planes a row asks for, the same bytes as
// when asked for all of them, and nothing through a null slot, luma included
// (a window asks for the chroma of a row pair alone).
TEST(ProducerContract, OnlyTheAskedPlanesAreWritten) {
    const auto all = [](int, uint32_t) { return true; };
    const auto luma = [](int, uint32_t q) { return q == 0; };
    const auto chroma = [](int, uint32_t q) { return q != 0; };
    const auto alternate = [](int r, uint32_t q) { return (r / 2 + int(q)) % 2 == 0; };
    for (FrameFormat src_format : {FRAME_BGR_8, FRAME_I420, FRAME_NV12, FRAME_YUYV}) {
        const Frame src = kvtest::randomFrame(src_format, Size(35, 13), 11);
        for (FrameFormat dst_format : convertibleFrom(src_format)) {
            FormatConverter c;
            c.reuse(src, dst_format);
            const Frame want = drain(c, all);
            for (const auto& ask : {std::function<bool(int, uint32_t)>(luma), std::function<bool(int, uint32_t)>(chroma),
                                    std::function<bool(int, uint32_t)>(alternate)}) {
                c.reuse(src, dst_format);
                const Frame got = drain(c, ask);
                const FrameLayout& l = want.layout();
                for (uint32_t q = 0; q < l.planes; ++q)
                    for (int y = 0; y < l.plane[q].size.height; ++y) {
                        const int r = y * (l.size.height == l.plane[q].size.height ? 1 : 2);
                        const uint8_t* w = want.rowCpuData(q, y);
                        const uint8_t* g = got.rowCpuData(q, y);
                        for (uint64_t x = 0; x < l.plane[q].row_bytes; ++x)
                            ASSERT_EQ(int(g[x]), ask(r, q) ? int(w[x]) : 0)
                                << toString(src_format) << " -> " << toString(dst_format) << " plane " << q << " row "
                                << y << " byte " << x;
                    }
            }
        }
        for (ScaleKind kind : kKinds) {
            kvtest::ChainRunner runner;
            const kvtest::ChainOutcome whole = runner.stepwise(src, {ChainStage::resize(Size(17, 9), kind)});
            if (!whole.ok) continue;
            Scaler scaler;
            kvtest::TentKernel tent;
            ScalerConvolutional convolutional;
            IRowProducer* p = &scaler;
            for (const auto& ask : {std::function<bool(int, uint32_t)>(luma), std::function<bool(int, uint32_t)>(chroma)}) {
                if (kind == ScaleKind::kTent) {
                    convolutional.reuse(tent, src, Size(17, 9), KV_SCALER_FIXED_POINT_16S);
                    p = &convolutional;
                } else {
                    scaler.reuse(src, Size(17, 9), ScaleMethod(kind));
                }
                const Frame got = drain(*p, ask);
                const FrameLayout& l = got.layout();
                for (uint32_t q = 0; q < l.planes; ++q)
                    for (int y = 0; y < l.plane[q].size.height; ++y)
                        for (uint64_t x = 0; x < l.plane[q].row_bytes; ++x)
                            ASSERT_EQ(int(got.rowCpuData(q, y)[x]), ask(0, q) ? int(whole.frame.rowCpuData(q, y)[x]) : 0)
                                << toString(src_format) << " " << kvtest::scaleKindName(kind) << " plane " << q;
            }
        }
    }
}

// A chain reused for another run with the same sizes gives the same bytes:
// the window skips rows of its new producer, not of the old one.
TEST(RowChainReuse, SecondRunOfAReusedChainEqualsTheFirst) {
    kvtest::ChainRunner runner;
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(40, 30), 3);
    for (ScaleKind kind : kKinds) {
        const std::vector<ChainStage> stages = {ChainStage::convert(FRAME_NV12),
                                                ChainStage::resize(Size(13, 9), kind),
                                                ChainStage::convert(FRAME_BGR_8)};
        const kvtest::ChainOutcome first = runner.chained(src, stages);
        const kvtest::ChainOutcome second = runner.chained(src, stages);
        ASSERT_TRUE(first.ok && second.ok) << first.message << second.message;
        EXPECT_EQ(kvtest::frameDifference(first.frame, second.frame), "") << kvtest::scaleKindName(kind);
    }
}

// One scaler object reused from format to format at the same sizes gives what
// a fresh one gives: plans cached per plane must not leak from one format into
// the next (a nearest plan for NV12's two-byte chroma once stayed in force for
// YV16's one-byte planes).
TEST(RowChainReuse, ScalerReusedAcrossFormatsEqualsAFreshOne) {
    const SizePair sizes[] = {{{9, 7}, {20, 15}}, {{200, 9}, {13, 4}}, {{33, 21}, {7, 5}}};
    for (ScaleKind kind : kKinds) {
        kvtest::ChainRunner reused;
        for (const SizePair& sp : sizes)
            for (FrameFormat first : kFormats)
                for (FrameFormat second : kFormats) {
                    if (first == second) continue;
                    const std::vector<ChainStage> stage = {ChainStage::resize(sp.to, kind)};
                    reused.stepwise(kvtest::randomFrame(first, sp.from, 1), stage);
                    const Frame src = kvtest::randomFrame(second, sp.from, 2);
                    kvtest::ChainRunner fresh;
                    const kvtest::ChainOutcome got = reused.stepwise(src, stage);
                    const kvtest::ChainOutcome want = fresh.stepwise(src, stage);
                    EXPECT_EQ(got.ok, want.ok);
                    if (got.ok && want.ok) {
                        EXPECT_EQ(kvtest::frameDifference(got.frame, want.frame), "")
                            << kvtest::scaleKindName(kind) << " after " << toString(first) << ": "
                            << kvtest::describeChain(src, stage);
                    }
                }
    }
}

}  // namespace
