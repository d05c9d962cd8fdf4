// Row kernels of the fast backend's adapter where a loop of our own beats the
// third-party call: BGR to gray and to YUV (libyuv's arithmetic), gray to BGR,
// byte <-> float, half <-> float, rotation of 3-byte pixels, integer-factor
// area reduction, and the format converter's kernels of kv_impl_convert_rows
// for YUV to BGR / RGB and the byte moves of 3-byte pixels (so that both
// backends give the same bytes). Each kernel has a plain reference in
// kv::impl::ref that defines the result and an AVX2 twin in kv::impl::avx2,
// some an AVX-512 one in kv::impl::avx512, all with the same signature and
// bit-identical output. Kernels accept any width of at least 1 and never
// touch memory outside the given rows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kv_cv/kv_impl_convert_rows.h"
#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

// Gray weights of BT.601 luma on full-range bytes in 1.14 fixed point:
// 0.114 * 16384 = 1867.8 -> 1868, 0.587 * 16384 = 9617.4 -> 9617,
// 0.299 * 16384 = 4898.8 -> 4899 (sum 16384, so white stays 255).
constexpr int kGrayShift = 14;
constexpr int kGrayB = 1868;
constexpr int kGrayG = 9617;
constexpr int kGrayR = 4899;

// Row kernels; `width` in pixels, `count` in elements.
using BgrToGrayRowFn = void (*)(const uint8_t* bgr, uint8_t* gray, int width);
using GrayToBgrRowFn = void (*)(const uint8_t* gray, uint8_t* bgr, int width);
// v -> float(v).
using U8ToF32RowFn = void (*)(const uint8_t* src, float* dst, size_t count);
// Clamps to 0..255 (NaN gives 0) and rounds half to even.
using F32ToU8RowFn = void (*)(const float* src, uint8_t* dst, size_t count);
// IEEE binary16 <-> binary32; float to half rounds to nearest even, NaNs stay
// NaN with the quiet bit set and the top mantissa bits kept.
using HalfToFloatRowFn = void (*)(const uint16_t* src, float* dst, size_t count);
using FloatToHalfRowFn = void (*)(const float* src, uint16_t* dst, size_t count);
// Rotates a plane of 3-byte pixels; `code` 1: 90 degrees counter-clockwise,
// 2: 180 degrees, 3: 270 degrees counter-clockwise. `width` x `height` is the
// source size; the destination is height x width for codes 1 and 3.
using Rotate3Fn = void (*)(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst,
                           size_t dst_step);

// Integer-factor box reduction of a plane of `channels` (1 to 4) interleaved
// bytes: destination sample (x, y, c) is the mean of the fx x fy source block
// at (x fx, y fy), rounded as OpenCV's INTER_AREA rounds for integer factors:
// (sum + 2) >> 2 for 2 x 2 blocks of 1, 3 or 4 channels, otherwise
// float(sum) * (1.f / (fx fy)) rounded to nearest with ties to even. The
// source is (dst_width fx) x (dst_height fy) pixels; fx, fy >= 1.
using AreaBoxFn = void (*)(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width,
                           int dst_height, int channels, int fx, int fy);

// BGR rows to YUV with the fast backend's arithmetic (kv_impl_fast_yuv.cpp):
//   Y = (25 B + 129 G + 66 R + 4224) >> 8;
//   U = (112 B - 74 G - 38 R + 32768) >> 8, V = (112 R - 94 G - 18 B + 32768) >> 8
// of B, G, R averaged over the chroma block with rounding means
// (a + b + 1) >> 1, first down the rows, then across the column pair; an odd
// last column is a block of its own. The 4:2:0 kernels take a row pair (s0,
// s1 into y0, y1 and one chroma row); the 4:2:2 and 4:4:4 ones one row (s1
// and y1 unused). Chroma goes to planes u, v (ceil(width / 2) or width
// samples) or, for the Nv kernels, into pairs where u and v are one byte
// apart in either order.
using BgrToYuvRowsFn = void (*)(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                uint8_t* v, int width);

// The converter's byte moves of 3-byte pixels (kv_impl_convert_rows.h).
using Split3Fn = void (*)(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width);
using Merge3Fn = void (*)(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2, uint8_t* dst, int width);
using Swap3Fn = void (*)(const uint8_t* src, uint8_t* dst, int width);

struct FastKernels {
    BgrToGrayRowFn bgrToGrayRow;
    GrayToBgrRowFn grayToBgrRow;
    U8ToF32RowFn u8ToF32Row;
    F32ToU8RowFn f32ToU8Row;
    HalfToFloatRowFn halfToFloatRow;
    FloatToHalfRowFn floatToHalfRow;
    Rotate3Fn rotate3;
    AreaBoxFn areaBox;
    // YUV rows to 3-byte pixels, by chroma layout (see kv_impl_convert_rows.h).
    YuvToRgbRowFn yuvHalfToBgrRow;
    YuvToRgbRowFn yuvHalfToRgbRow;
    YuvToRgbRowFn yuvPairsToBgrRow;
    YuvToRgbRowFn yuvPairsToRgbRow;
    YuvToRgbRowFn yuvFullToBgrRow;
    YuvToRgbRowFn yuvFullToRgbRow;
    BgrToYuvRowsFn bgrToI420Rows;
    BgrToYuvRowsFn bgrToNv12Rows;
    BgrToYuvRowsFn bgrToI422Row;
    BgrToYuvRowsFn bgrToNv16Row;
    BgrToYuvRowsFn bgrToI444Row;
    Split3Fn split3;
    Merge3Fn merge3;
    Swap3Fn swap3;
    Split3Fn bytesToPlanarFloat3;  // floats at any byte address
};

// The kernel set for `isa` (AVX2 needs F16C too, which every AVX2 processor
// has); kAvx512 runs the AVX-512 kernels where there are any, else AVX2.
const FastKernels& fastKernels(Isa isa);

#define KV_FAST_YUV_KERNELS                                                                                      \
    void bgrToI420Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,   \
                       int width);                                                                               \
    void bgrToNv12Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,   \
                       int width);                                                                               \
    void bgrToI422Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width); \
    void bgrToNv16Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width); \
    void bgrToI444Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width)

namespace ref {
KV_FAST_YUV_KERNELS;
void bgrToGrayRow(const uint8_t* bgr, uint8_t* gray, int width);
void grayToBgrRow(const uint8_t* gray, uint8_t* bgr, int width);
void u8ToF32Row(const uint8_t* src, float* dst, size_t count);
void f32ToU8Row(const float* src, uint8_t* dst, size_t count);
void halfToFloatRow(const uint16_t* src, float* dst, size_t count);
void floatToHalfRow(const float* src, uint16_t* dst, size_t count);
void rotate3(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst, size_t dst_step);
void areaBox(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width, int dst_height,
             int channels, int fx, int fy);
}  // namespace ref

namespace avx2 {
KV_FAST_YUV_KERNELS;
void bgrToGrayRow(const uint8_t* bgr, uint8_t* gray, int width);
void grayToBgrRow(const uint8_t* gray, uint8_t* bgr, int width);
void u8ToF32Row(const uint8_t* src, float* dst, size_t count);
void f32ToU8Row(const float* src, uint8_t* dst, size_t count);
void halfToFloatRow(const uint16_t* src, float* dst, size_t count);
void floatToHalfRow(const float* src, uint16_t* dst, size_t count);
void rotate3(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst, size_t dst_step);
void areaBox(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width, int dst_height,
             int channels, int fx, int fy);
}  // namespace avx2

namespace avx512 {
KV_FAST_YUV_KERNELS;
void bgrToGrayRow(const uint8_t* bgr, uint8_t* gray, int width);
void halfToFloatRow(const uint16_t* src, float* dst, size_t count);
void rotate3(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst, size_t dst_step);
}  // namespace avx512

}  // namespace impl
}  // namespace kv
