// Entry checks the backends share for regions and pitches of caller frames.
#pragma once

#include <cstddef>

#include "kv_core/kv_frame.h"

namespace kv {
namespace impl {

// Throws kv::Exception (status 5) when `region` is given (width and height of
// at least 1) but does not lie inside the initialised frame `f`. `function` is
// the qualified name ("kv::CvBackendSimd::resize"), `file` and `line` the call
// site's, `parameter` the argument's name ("src_roi").
void requireRegionInside(const Frame& f, const Rect& region, const char* function, const char* file, int line,
                         const char* parameter);

// Throws kv::Exception (status 5) when a row pitch of `f` does not fit a
// signed 32-bit int, the pitch type of the third-party calls and of the
// float arithmetic of the core library.
void requireIntPitches(const Frame& f, const char* function, const char* file, int line, const char* parameter);

}  // namespace impl
}  // namespace kv
