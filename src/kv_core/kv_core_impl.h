// Internal kernels of kv_core, declared for the tests that compare the vector
// path with the plain one.
#pragma once

#include <cstddef>

#include "kv_core/kv_types.h"

namespace kv {
namespace impl {

// In place over `region` of a float plane: v = v + pattern[i % period] (add)
// or v * pattern[i % period], i counting floats from the region's left edge.
// `period` is 1 or 3.
namespace ref {
void arithConstant(bool add, const float* pattern, int period, unsigned char* data, size_t step, Rect region);
}
namespace avx2 {
void arithConstant(bool add, const float* pattern, int period, unsigned char* data, size_t step, Rect region);
}
bool cpuHasAvx2();

}  // namespace impl
}  // namespace kv
