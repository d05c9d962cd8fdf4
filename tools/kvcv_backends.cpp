// The two compute backends by name. A backend whose header is not part of the
// build is reported as not available (exit status 1) instead of failing to compile.
#include "kvcv_common.h"

#if __has_include("kv_cv/kv_cv_backend_base.h")
#include "kv_cv/kv_cv_backend_base.h"
#define KVCV_HAVE_BACKEND_BASE 1
#else
#define KVCV_HAVE_BACKEND_BASE 0
#endif

#if __has_include("kv_cv/kv_cv_backend_simd.h")
#include "kv_cv/kv_cv_backend_simd.h"
#define KVCV_HAVE_BACKEND_SIMD 1
#else
#define KVCV_HAVE_BACKEND_SIMD 0
#endif

namespace kvcv {

bool backendAvailable(const std::string& name) {
    if (name == "base") return KVCV_HAVE_BACKEND_BASE;
    if (name == "fast") return KVCV_HAVE_BACKEND_SIMD;
    return false;
}

std::unique_ptr<kv::ICvBackend> makeBackend(const std::string& name) {
#if KVCV_HAVE_BACKEND_BASE
    if (name == "base") return std::make_unique<kv::CvBackendBase>();
#endif
#if KVCV_HAVE_BACKEND_SIMD
    if (name == "fast") return std::make_unique<kv::CvBackendSimd>();
#endif
    notAvailable("the " + name + " backend");
}

std::unique_ptr<kv::ICvBackend> anyBackend() {
    if (backendAvailable("fast")) return makeBackend("fast");
    if (backendAvailable("base")) return makeBackend("base");
    notAvailable("colour conversion (neither backend)");
}

}  // namespace kvcv
