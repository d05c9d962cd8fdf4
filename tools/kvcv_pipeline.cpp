// The row pipeline's format converter as a whole-frame conversion, for the
// conversions that neither backend object offers.
#include "kvcv_common.h"

#include "kv_cv/kv_format_converter.h"

namespace kvcv {

std::function<void(const kv::Frame&, kv::Frame&)> rowPipelineConverter() {
    auto converter = std::make_shared<kv::FormatConverter>();
    return [converter](const kv::Frame& src, kv::Frame& dst) {
        converter->reuse(src, dst.format());
        kv::produceFrame(*converter, dst);
    };
}

}  // namespace kvcv
