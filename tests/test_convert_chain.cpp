// Scaler and FormatConverter chained in one pass, in both orders, against the
// same steps done whole frame by whole frame.

#include <gtest/gtest.h>

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_scaler.h"
#include "test_util.h"

namespace {

using namespace kv;

Frame convertWhole(const Frame& src, FrameFormat format) {
    FormatConverter c;
    c.reuse(src, format);
    Frame out;
    produceFrame(c, out);
    return out;
}

Frame scaleWhole(const Frame& src, Size size, ScaleMethod method) {
    Scaler s;
    s.reuse(src, size, method);
    Frame out;
    produceFrame(s, out);
    return out;
}

struct ChainCase {
    Size src, dst;
    ScaleMethod method;
};

const ChainCase kCases[] = {
    {{67, 45}, {33, 20}, KV_SCALE_NEAREST}, {{67, 45}, {101, 61}, KV_SCALE_NEAREST},
    {{67, 45}, {33, 21}, KV_SCALE_BILINEAR}, {{64, 36}, {97, 55}, KV_SCALE_BILINEAR},
    {{64, 37}, {64, 19}, KV_SCALE_BILINEAR}, {{66, 44}, {31, 17}, KV_SCALE_AREA},
    {{66, 44}, {66, 23}, KV_SCALE_AREA},     {{65, 43}, {65, 43}, KV_SCALE_AREA},
};

TEST(ConvertChain, Nv12ThenConverterThenScaler) {
    for (impl::Isa isa : kvtest::availableIsas()) {
        impl::setMaxIsaForTesting(isa);
        for (const ChainCase& k : kCases) {
            const Frame nv12 = kvtest::randomFrame(FRAME_NV12, k.src, 5);
            FormatConverter converter;
            converter.reuse(nv12, FRAME_BGR_8);
            Scaler scaler;
            scaler.reuse(converter, k.dst, k.method);
            Frame chained;
            produceFrame(scaler, chained);
            const Frame whole = scaleWhole(convertWhole(nv12, FRAME_BGR_8), k.dst, k.method);
            EXPECT_TRUE(kvtest::framesEqual(chained, whole))
                << k.src.width << "x" << k.src.height << " -> " << k.dst.width << "x" << k.dst.height << " method "
                << k.method << " isa " << impl::isaName(isa);
        }
    }
    impl::setMaxIsaForTesting(impl::Isa::kAvx512);
}

TEST(ConvertChain, Nv12ThenScalerThenConverter) {
    for (impl::Isa isa : kvtest::availableIsas()) {
        impl::setMaxIsaForTesting(isa);
        for (const ChainCase& k : kCases) {
            const Frame nv12 = kvtest::randomFrame(FRAME_NV12, k.src, 6);
            Scaler scaler;
            scaler.reuse(nv12, k.dst, k.method);
            FormatConverter converter;
            converter.reuse(scaler, FRAME_BGR_8);
            Frame chained;
            produceFrame(converter, chained);
            const Frame whole = convertWhole(scaleWhole(nv12, k.dst, k.method), FRAME_BGR_8);
            EXPECT_TRUE(kvtest::framesEqual(chained, whole))
                << k.src.width << "x" << k.src.height << " -> " << k.dst.width << "x" << k.dst.height << " method "
                << k.method << " isa " << impl::isaName(isa);
        }
    }
    impl::setMaxIsaForTesting(impl::Isa::kAvx512);
}

}  // namespace

