// The frame helpers' work split over the library's threads: quarter and half
// turns by destination row bands, half-float conversions by runs of values.
// One thread (or little work) runs the whole on the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kv_core/kv_frame.h"

namespace kv {
namespace impl {

// Turns every plane of `src` into `dst` (already of the turned size):
// rotatePlane's code 1, 2 or 3.
void rotatePlanes(const Frame& src, int code, Frame& dst);

void halfToFloatInBands(const uint16_t* src, size_t count, float* dst);
void floatToHalfInBands(const float* src, size_t count, uint16_t* dst);

}  // namespace impl
}  // namespace kv
