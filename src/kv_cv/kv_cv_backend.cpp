// The backend interface's out-of-line members.
#include "kv_cv/kv_cv_backend.h"

namespace kv {

ICvBackend::~ICvBackend() = default;

}  // namespace kv
