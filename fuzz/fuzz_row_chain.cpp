// Fuzz target: chains of format converters and scalers of random formats,
// sizes and methods over a source frame that wraps exactly sized caller
// memory, each chain run as producers and as steps through frames. One input
// runs up to three chains on the same producer objects, so reuse() with new
// formats and sizes in between is exercised too. A chain must give the steps'
// bytes or be refused where they are (chain_oracle.h); anything else aborts.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "chain_oracle.h"
#include "wrapped_frame.h"

namespace {

const kv::FrameFormat kFormats[] = {
    kv::FRAME_GRAY_8,  kv::FRAME_RGB_8,  kv::FRAME_RGB_8_PLANAR, kv::FRAME_BGR_8,   kv::FRAME_BGR_8_PLANAR,
    kv::FRAME_I420,    kv::FRAME_YV12,   kv::FRAME_NV12,         kv::FRAME_NV21,    kv::FRAME_YV16,
    kv::FRAME_YUYV,    kv::FRAME_UYVY,   kv::FRAME_NV16,         kv::FRAME_YUV444,  kv::FRAME_YUV444_PLANAR,
    kv::FRAME_C2_8,    kv::FRAME_C3_8,   kv::FRAME_C4_8,         kv::FRAME_GRAY_16, kv::FRAME_GRAY_FLOAT_32,
    kv::FRAME_FLOAT_32, kv::FRAME_FLOAT_32_C3, kv::FRAME_FLOAT_32_C3_PLANAR,
};

kv::Size pickSize(FuzzedDataProvider& in) {
    // Mostly small sides (row pairs and edges), sometimes up to 300.
    const int limit = in.ConsumeBool() ? 9 : 300;
    return kv::Size(in.ConsumeIntegralInRange(1, limit), in.ConsumeIntegralInRange(1, limit));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    kvtest::ChainRunner runner;
    const int chains = in.ConsumeIntegralInRange(1, 3);
    for (int c = 0; c < chains && in.remaining_bytes() > 0; ++c) {
        const kv::FrameFormat format = in.PickValueInArray(kFormats);
        const kv::Size src_size = pickSize(in);
        const size_t pad = in.ConsumeIntegralInRange<size_t>(0, 3) * 7;
        const kvtest::WrappedFrame src = kvtest::wrappedFrame(format, src_size, pad, in.ConsumeIntegral<uint32_t>() | 1);
        std::vector<kvtest::ChainStage> stages;
        const int depth = in.ConsumeIntegralInRange(1, 5);
        for (int i = 0; i < depth; ++i) {
            if (in.ConsumeBool())
                stages.push_back(kvtest::ChainStage::convert(in.PickValueInArray(kFormats)));
            else
                stages.push_back(kvtest::ChainStage::resize(
                    pickSize(in), kvtest::ScaleKind(in.ConsumeIntegralInRange(0, 3))));
        }
        const kvtest::ChainOutcome chain = runner.chained(src.frame, stages);
        const kvtest::ChainOutcome steps = runner.stepwise(src.frame, stages);
        const std::string v = kvtest::verdict(chain, steps);
        if (!v.empty()) {
            std::fprintf(stderr, "chain differs from its steps: %s\n  %s\n",
                         kvtest::describeChain(src.frame, stages).c_str(), v.c_str());
            std::abort();
        }
    }
    return 0;
}
