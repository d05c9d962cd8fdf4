// Affine warp of byte planes (1 to 4 interleaved channels), nearest and
// bilinear, constant zero border: the fast backend's own replacement for
// OpenCV's warpAffine on 8-bit planes, with OpenCV 4.6's fixed-point
// arithmetic so that both give the same bytes.
//
// Arithmetic (all integer once the tables are built):
// - The forward matrix is inverted in double as OpenCV does; M below is the
//   inverse (destination to source).
// - Per destination column x: adelta[x] = round(M0 x 1024), bdelta[x] =
//   round(M3 x 1024). Per destination row y: x0 = round((M1 y + M2) 1024) + r,
//   y0 = round((M4 y + M5) 1024) + r, with r = 16 for bilinear and 512 for
//   nearest; round is to nearest, ties to even, and a value outside int
//   gives INT_MIN (OpenCV's cvRound). Sums wrap in 32 bits.
// - Nearest: the source pixel is ((x0 + adelta) >> 10, (y0 + bdelta) >> 10).
// - Bilinear: X = (x0 + adelta) >> 5 is the source x in 1/32 pixel; sx =
//   X >> 5, fx = X & 31 (likewise y). The four taps are weighted
//   (32 - fx)(32 - fy), fx (32 - fy), (32 - fx) fy and fx fy (sum 1024) and
//   the sample is (sum + 512) >> 10, which equals OpenCV's 15-bit weights
//   with (sum + (1 << 14)) >> 15.
// - Source coordinates saturate to 16 bits, as OpenCV's remap maps do.
// - Taps outside the source read as 0; a nearest sample outside is 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

// One plane's warp as the row kernels see it.
struct WarpPlane {
    const uint8_t* src;
    size_t src_step;
    int src_width;
    int src_height;
    int channels;           // 1 to 4
    bool bilinear;
    const int32_t* adelta;  // per destination column
    const int32_t* bdelta;
    // True when every table entry is below 2^29 in magnitude and the plane
    // spans fewer than 2^31 bytes, so the vector kernels may use 32-bit
    // offsets and need not care for wrap-around.
    bool small;
    // Bytes from a source position to where the same destination column of
    // a later row samples (a prefetch hint only; 0 for none).
    ptrdiff_t ahead;
};

// Writes `width` pixels of one destination row whose start is (x0, y0) in
// the fixed point above.
using WarpRowFn = void (*)(const WarpPlane& plane, int32_t x0, int32_t y0, uint8_t* dst, int width);

namespace ref {
void warpRow(const WarpPlane& plane, int32_t x0, int32_t y0, uint8_t* dst, int width);
}  // namespace ref

namespace avx2 {
void warpRow(const WarpPlane& plane, int32_t x0, int32_t y0, uint8_t* dst, int width);
}  // namespace avx2

WarpRowFn warpRowKernel(Isa isa);

// Columns [*first, *last) of a row in which every source position is in
// [min_sx, max_sx] x [min_sy, max_sy] (pixel coordinates, the positions
// shifted right by 10); an empty range when none is. Requires plane.small and
// x0, y0 below 2^29 in magnitude (then the positions are monotone in x).
void warpInsideRange(const WarpPlane& plane, int32_t x0, int32_t y0, int width, int min_sx, int max_sx, int min_sy,
                     int max_sy, int* first, int* last);

// Warps a byte plane by the forward matrix `m` (2 x 3 row-major, source to
// destination) with the kernel of `isa`. The tables live in per-thread
// scratch that only grows.
void warpAffineBytes(const uint8_t* src, size_t src_step, int src_width, int src_height, uint8_t* dst,
                     size_t dst_step, int dst_width, int dst_height, int channels, const float m[6], bool bilinear,
                     Isa isa, int first_row = 0,
                     int last_row = -1);

}  // namespace impl
}  // namespace kv
