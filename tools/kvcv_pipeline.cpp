// The row pipeline's format converter as a whole-frame conversion, for the
// conversions that neither backend object offers in this build.
#include "kvcv_common.h"

#if __has_include("kv_cv/kv_format_converter.h")
#include "kv_cv/kv_format_converter.h"
#define KVCV_HAVE_FORMAT_CONVERTER 1
#else
#define KVCV_HAVE_FORMAT_CONVERTER 0
#endif

namespace kvcv {

std::function<void(const kv::Frame&, kv::Frame&)> rowPipelineConverter() {
#if KVCV_HAVE_FORMAT_CONVERTER
    auto converter = std::make_shared<kv::FormatConverter>();
    return [converter](const kv::Frame& src, kv::Frame& dst) {
        converter->reuse(src, dst.format());
        kv::produceFrame(*converter, dst);
    };
#else
    return nullptr;
#endif
}

}  // namespace kvcv
