// Row kernels of the format converter. Every kernel has the ConvertRowFn
// signature; the scalar references in kv::impl::ref define the results, and
// the AVX2 versions in kv::impl::avx2 (kv_impl_convert_rows.cpp,
// kv_impl_convert_yuv.cpp) and the AVX-512 ones in kv::impl::avx512
// (kv_impl_convert_avx512.cpp) reproduce them bit for bit (they run whole
// vectors on the bulk of the row and the next narrower kernel on the tail,
// never touching a byte outside the row).
//
// Fixed formulas (8-bit unsigned inputs B, G, R; 32-bit unsigned arithmetic):
//   gray = (76 (R + 2 G) + 28 B) >> 8
//   Y = (25 B + 129 G + 65 R + 4096) >> 8
//   U term = 112 B - 74 G - 38 R + 32768,  V term = 112 R - 94 G - 18 B + 32768
//   chroma = sum of the covered terms >> (8 + log2(terms))
//   YUV to BGR: C = 297 (Y - 16); B = (516 (U - 128) + C) / 256;
//   G = (C - 100 U - 207 V + 39296) / 256; R = (408 (V - 128) + C) / 256, clamped.
#pragma once

#include "kv_impl_format_converter.h"

namespace kv {
namespace impl {

#define KV_CONVERT_ROW_KERNEL(name) \
    void name(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv)

// BGR to 4:2:0 over a row pair (rows[1] and both chroma slots present): Y of
// row r into dst, Y of row r+1 into `next_y` (width bytes, step 1) and the
// chroma of the pair, so that each source row is deinterleaved once.
#define KV_CONVERT_PAIR_KERNEL(name)                                                \
    void name(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width, \
              const Impl::ImplFormatConverter& conv)

// Kernels with a vector version: declared for both namespaces.
#define KV_CONVERT_VECTOR_KERNELS                     \
    KV_CONVERT_ROW_KERNEL(bgrToGrayRow);              \
    KV_CONVERT_ROW_KERNEL(bgrToYuv420PlanarRow);      \
    KV_CONVERT_ROW_KERNEL(bgrToYuv420SemiRow);        \
    KV_CONVERT_ROW_KERNEL(yuv420PlanarToBgrRow);      \
    KV_CONVERT_ROW_KERNEL(yuv420SemiToBgrRow);        \
    KV_CONVERT_ROW_KERNEL(yuv444PlanarToBgrRow);      \
    KV_CONVERT_ROW_KERNEL(bytesToFloatRow);           \
    KV_CONVERT_ROW_KERNEL(floatToBytesRow);           \
    KV_CONVERT_PAIR_KERNEL(bgrToYuv420PlanarPairRow); \
    KV_CONVERT_PAIR_KERNEL(bgrToYuv420SemiPairRow)

// The YUV to 3-byte pixel conversion above on plain row pointers, shared by
// the converter and the fast backend so that both give the same bytes. `y`
// holds `width` samples; `u` and `v` point at the chroma of column 0:
//   Half:  separate chroma rows at half width (4:2:0 and 4:2:2 planar);
//   Pairs: one row of chroma pairs at half width, `u` and `v` one byte apart
//          in either order (NV12: v = u + 1; NV21: u = v + 1);
//   Full:  separate chroma rows at full width (4:4:4 planar).
// Bgr writes B, G, R; Rgb writes R, G, B.
using YuvToRgbRowFn = void (*)(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width);

#define KV_YUV_TO_RGB_ROW_KERNELS                                                               \
    void yuvHalfToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width);  \
    void yuvHalfToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width);  \
    void yuvPairsToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width); \
    void yuvPairsToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width); \
    void yuvFullToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width);  \
    void yuvFullToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width)

// Byte moves of 3-byte pixels on plain pointers, `width` pixels: split3Row /
// merge3Row move byte k of each pixel to or from plane k, swap3Row swaps
// bytes 0 and 2 of each pixel, bytesToPlanarFloat3Row writes byte k of each
// pixel as a float into plane k (floats at any byte address).
#define KV_BYTE_MOVE_KERNELS                                                                             \
    void split3Row(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width);               \
    void merge3Row(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2, uint8_t* dst, int width);   \
    void swap3Row(const uint8_t* src, uint8_t* dst, int width);                                         \
    void bytesToPlanarFloat3Row(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width);  \
    KV_CONVERT_ROW_KERNEL(swapRbRow);                                                                   \
    KV_CONVERT_ROW_KERNEL(interleave3Row);                                                              \
    KV_CONVERT_ROW_KERNEL(deinterleave3Row);                                                            \
    KV_CONVERT_ROW_KERNEL(bytesToPlanarFloatRow)

// Plain-pointer building blocks of the YUV kernels: bgrToYuv422PlanarRow
// writes width Y and ceil(width / 2) U and V samples (4:2:2 of one row),
// bgrToYuv444PlanarRow width of each.
#define KV_CONVERT_PLAIN_KERNELS                                                                         \
    KV_BYTE_MOVE_KERNELS;                                                                               \
    void bgrToYuv422PlanarRow(const uint8_t* bgr, uint8_t* y, uint8_t* u, uint8_t* v, int width);       \
    void bgrToYuv444PlanarRow(const uint8_t* bgr, uint8_t* y, uint8_t* u, uint8_t* v, int width)

// Kernels on formats addressed through YuvFormatInfo: gray to BGR and to
// YUV, BGR to 4:2:2 and 4:4:4, YUV to gray, to BGR and to YUV. The vector
// versions (kv_impl_convert_yuv.cpp) work in strips of planar samples.
#define KV_CONVERT_LAYOUT_KERNELS          \
    KV_CONVERT_ROW_KERNEL(grayToBgrRow);   \
    KV_CONVERT_ROW_KERNEL(grayToYuvRow);   \
    KV_CONVERT_ROW_KERNEL(bgrToYuv422Row); \
    KV_CONVERT_ROW_KERNEL(bgrToYuv444Row); \
    KV_CONVERT_ROW_KERNEL(yuvToGrayRow);   \
    KV_CONVERT_ROW_KERNEL(yuvToBgrRow);    \
    KV_CONVERT_ROW_KERNEL(yuvToYuvRow)

namespace ref {
KV_CONVERT_VECTOR_KERNELS;
KV_YUV_TO_RGB_ROW_KERNELS;
KV_CONVERT_PLAIN_KERNELS;
KV_CONVERT_LAYOUT_KERNELS;
}  // namespace ref

namespace avx2 {
KV_CONVERT_VECTOR_KERNELS;
KV_YUV_TO_RGB_ROW_KERNELS;
KV_CONVERT_PLAIN_KERNELS;
KV_CONVERT_LAYOUT_KERNELS;
// yuvToBgrRow with the given kernels for planar rows and strips by chroma
// layout (half-width planes, pairs, full planes).
void yuvToBgrWith(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv,
                  YuvToRgbRowFn half, YuvToRgbRowFn pairs, YuvToRgbRowFn full);
}  // namespace avx2

// AVX-512 (VBMI) versions of the YUV to 3-byte pixel kernels and the byte
// moves, 64 pixels a step (the float conversion runs its AVX2 version).
namespace avx512 {
KV_YUV_TO_RGB_ROW_KERNELS;
KV_BYTE_MOVE_KERNELS;
KV_CONVERT_ROW_KERNEL(yuv420PlanarToBgrRow);
KV_CONVERT_ROW_KERNEL(yuv420SemiToBgrRow);
KV_CONVERT_ROW_KERNEL(yuv444PlanarToBgrRow);
KV_CONVERT_ROW_KERNEL(yuvToBgrRow);  // packed sources: AVX2 splits, AVX-512 conversion
}  // namespace avx512

}  // namespace impl
}  // namespace kv
