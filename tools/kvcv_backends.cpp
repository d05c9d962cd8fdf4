// The two compute backends by name: "base" (the row pipeline) and "fast".
#include "kvcv_common.h"

#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"

namespace kvcv {

std::unique_ptr<kv::ICvBackend> makeBackend(const std::string& name) {
    if (name == "base") return std::make_unique<kv::CvBackendBase>();
    if (name == "fast") return std::make_unique<kv::CvBackendSimd>();
    throw UsageError("unknown backend '" + name + "' (base or fast)");
}

std::unique_ptr<kv::ICvBackend> anyBackend() {
    return makeBackend("fast");
}

}  // namespace kvcv
