// Placeholder for crop_and_resize until its implementation lands, so that the
// backends that forward to it link.
#include "kv_cv/kv_cv_backend.h"

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_crop_and_resize"

namespace kv {

void crop_and_resize(ICvBackend&, const Frame&, Tensor&, const std::vector<Rect>&, const std::vector<Rect>&, float,
                     float) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::crop_and_resize", "Operation is not implemented");
}

}  // namespace kv
