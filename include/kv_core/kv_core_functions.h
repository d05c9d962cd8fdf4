// Free functions of the core library: rotation geometry and in-place float
// arithmetic over a region of a plane.
#pragma once

#include <cstddef>

#include "kv_core/kv_core_export.h"
#include "kv_core/kv_types.h"

namespace kv {

// Forward map from source to destination coordinates of a rotation by `angle`
// degrees (positive is counter-clockwise on screen) about `centre`, scaled:
//   a = scale*cos, b = scale*sin
//   [ a  b  (1-a)*cx - b*cy ]
//   [-b  a  b*cx + (1-a)*cy ]
KV_CORE_API void getRotationMatrix2D(float angle, Point centre, float (*matrix)[3], float scale);

// Geometry of rotating the rectangle `source` by `angle` degrees about its
// centre. With B = the axis-aligned box of the rotated rectangle (rounded
// outward to whole pixels) and d = max(0, ceil((B - source) / 2)) per axis:
// - `bounding`: the source region the rotation reads, from (x - dx, y - dy) to
//   the rectangle's bottom-right corner (it may start outside the frame);
// - `size`: the output size, source size + 2d per axis (it holds B, centred);
// - `placed`: B's place in the output, centred.
// So the rectangle lies at offset (bounding.width - source.width,
// bounding.height - source.height) inside `bounding`, and its centre maps to
// the centre of the output. A result past 32-bit coordinates (or a NaN or
// infinite angle) throws kv::Exception with status 5.
KV_CORE_API void getRotationRoi(float angle, const Rect& source, Rect& bounding, Size& size, Rect& placed);

// In place over `region` of a float plane (row pitch in bytes).
KV_CORE_API void addConstant_32f_C1(float value, unsigned char* data, int step, Rect region);
KV_CORE_API void mulConstant_32f_C1(float value, unsigned char* data, int step, Rect region);
KV_CORE_API void addConstant_32f_C3(const float values[3], unsigned char* data, size_t step, Rect region);
KV_CORE_API void mulConstant_32f_C3(const float values[3], unsigned char* data, size_t step, Rect region);

}  // namespace kv
