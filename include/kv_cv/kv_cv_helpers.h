// Free helpers over whole frames and buffers: shared empty values, resize and
// colour conversion through a temporary CvBackendSimd, fixed and arbitrary
// rotation, inversion of 2x3 affine matrices, half <-> single precision.
//
// Rotating frames whose chroma is subsampled in one direction only
// (FRAME_YV16, FRAME_NV16) by 90 degrees, or packed 4:2:2 frames (FRAME_YUYV,
// FRAME_UYVY) at all, would scramble the chroma; rotateFrame rejects those
// with status 8 instead.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kv_core/kv_frame.h"
#include "kv_core/kv_tensor.h"
#include "kv_core/kv_types.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_export.h"

namespace kv {

// Clockwise turns by multiples of 90 degrees.
enum FixedRotation : int32_t {
    Rotate0 = 0,
    Rotate90 = 1,   // 90 degrees clockwise: W x H becomes H x W
    Rotate180 = 2,
    Rotate270 = 3,  // 270 degrees clockwise, i.e. 90 counter-clockwise
};

// A shared all-zero Rect (whole frame for every backend operation).
KV_CV_API const Rect& emptyRoi();
// A shared uninitialised Frame.
KV_CV_API const Frame& emptyFrame();

// dst = src resized to `size` with `method`; a copy when the size is the
// source's own; dst cleared when src is uninitialised or `size` is empty.
KV_CV_API void resizeFrame(const Frame& src, const Size& size, Frame& dst, ResizeMethod method);
// dst = src converted to `format`; a copy when it is the source's own; dst
// cleared when src is uninitialised or `format` is FRAME_UNDEFINED.
KV_CV_API void colorConvert(const Frame& src, FrameFormat format, Frame& dst);
// dst = src turned by `rotation`; 8-bit formats only.
KV_CV_API void rotateFrame(const Frame& src, FixedRotation rotation, Frame& dst);
// Rotates the rectangle `rect` of src by `angle` degrees (counter-clockwise)
// about its centre into dst, sized to hold the whole rotated rectangle;
// `placed` receives the rotated rectangle's box in dst. Parts of the box
// outside the source are zero.
KV_CV_API void rotateFrame(const Frame& src, const Rect& rect, float angle, Frame& dst, Rect& placed);

// iM = inverse of the 2x3 row-major affine matrix M. Returns false (and
// writes zeros) only when the determinant is exactly zero or NaN.
KV_CV_API bool invertAffineTransform(const float* M, float* iM);

// IEEE binary16 <-> binary32; float to half rounds to nearest even.
KV_CV_API void convertFp16ToFp32(const uint16_t* src, size_t count, float* dst);
KV_CV_API void convertFp32ToFp16(const float* src, size_t count, uint16_t* dst);
// dst = src (TENSOR_FLOAT_16) as TENSOR_FLOAT_32, same shape, strides doubled.
KV_CV_API void tensorFp16ToFp32(const Tensor& src, Tensor& dst);

}  // namespace kv
