// How many threads one call of the library may use. By default one: every
// operation runs on the calling thread and the library starts no thread of
// its own. With n > 1, one call of a backend operation, a frame helper or
// crop_and_resize is split into row bands over up to n threads (the caller's
// among them), with results identical to one thread; frames too small to gain
// stay on the calling thread. The row producers stay single-threaded.
#pragma once

#include "kv_cv/kv_cv_export.h"

namespace kv {

// n = 0: one thread per hardware thread; 1: the calling thread only (the
// default); n > 1: up to n threads per call. Negative n throws kv::Exception
// (status 5). The worker threads start on the first call that uses them.
KV_CV_API void setNumThreads(int n);

// The count in force, 0 resolved to the hardware thread count.
KV_CV_API int getNumThreads();

}  // namespace kv
