// The fast backend's window onto libyuv and OpenCV: each facility the fast
// backend and the frame helpers need, as one small function over plane
// pointers, sizes in pixels and row pitches in bytes. This is the only file
// pair of the library that sees a libyuv or OpenCV header, and this header
// includes neither.
//
// Conventions shared by every function:
// - YUV is BT.601 limited range (Y 16..235, chroma 16..240 about 128), the
//   convention of the module's own integer kernels; 4:2:0 chroma from BGR is
//   the average of each 2x2 block.
// - Sizes are at least 1 and planes do not overlap; nothing is read or
//   written outside width x height of a plane.
// - Threads: OpenCV runs its calls on its own pool and its thread count is
//   process-wide; each adapter call that goes to OpenCV first sets it to
//   kv::getNumThreads() when it differs (1 by default: the module starts no
//   thread unless asked). Results do not depend on the count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_cv/kv_impl_fast_area.h"
#include "kv_cv/kv_impl_fast_area_up.h"
#include "kv_cv/kv_impl_scale_rows.h"

namespace kv {
namespace impl {
namespace fast {

enum class RgbOrder { kBgr, kRgb };
enum class Interpolation { kNearest, kBilinear, kArea };

// --- YUV ---------------------------------------------------------------------
// BGR to YUV with libyuv's arithmetic (see BgrToYuvRowsFn in
// kv_impl_fast_kernels.h), on our kernels. 4:2:0: width and height even;
// Nv12 writes (U, V) pairs, or (V, U) with `vu`; 4:2:2: width even, chroma
// planes (or pairs) of (width / 2) x height; packed 4:4:4 writes Y, U, V per pixel.
void bgrToI420(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step, uint8_t* v,
               size_t v_step, int width, int height);
void bgrToNv12(bool vu, const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* uv, size_t uv_step,
               int width, int height);
void bgrToI422(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step, uint8_t* v,
               size_t v_step, int width, int height);
void bgrToNv16(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* uv, size_t uv_step, int width,
               int height);
void bgrToYuv444(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step,
                 uint8_t* v, size_t v_step, int width, int height);
void bgrToYuv444Packed(const uint8_t* bgr, size_t bgr_step, uint8_t* dst, size_t dst_step, int width, int height);
// The same conversions by libyuv itself, so that tests can hold the kernels against it.
void bgrToI420WithLibrary(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step,
                          uint8_t* v, size_t v_step, int width, int height);
void bgrToI422WithLibrary(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step,
                          uint8_t* v, size_t v_step, int width, int height);
void bgrToYuv444WithLibrary(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u,
                            size_t u_step, uint8_t* v, size_t v_step, int width, int height);
// Packed 4:4:4 (Y, U, V per pixel) to its Y plane, and to 3-byte pixels as i444ToRgb.
void yuv444PackedToGray(const uint8_t* src, size_t src_step, uint8_t* gray, size_t gray_step, int width, int height);
void yuv444PackedToRgb(RgbOrder order, const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width,
                       int height);
// YUV to 3-byte pixels with the format converter's integer formulas (C =
// 297 (Y - 16), ...; see kv_impl_convert_rows.h), bit-identical to the
// generic backend. Chroma planes of ceil(width / 2) x ceil(height / 2)
// (4:2:0), ceil(width / 2) x height (4:2:2) or full size (4:4:4).
void i420ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step, const uint8_t* v,
               size_t v_step, uint8_t* dst, size_t dst_step, int width, int height);
// Semi-planar 4:2:0: chroma pairs U, V (or V, U with `vu`) at 4:2:0
// resolution; the same arithmetic as i420ToRgb.
void nv12ToRgb(RgbOrder order, bool vu, const uint8_t* y, size_t y_step, const uint8_t* uv, size_t uv_step,
               uint8_t* dst, size_t dst_step, int width, int height);
// Semi-planar 4:2:2: chroma pairs U, V, one row of pairs per luma row.
void nv16ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* uv, size_t uv_step, uint8_t* dst,
               size_t dst_step, int width, int height);
void i422ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step, const uint8_t* v,
               size_t v_step, uint8_t* dst, size_t dst_step, int width, int height);
void i444ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step, const uint8_t* v,
               size_t v_step, uint8_t* dst, size_t dst_step, int width, int height);

// --- Channel moves (exact) ----------------------------------------------------
// Swaps bytes 0 and 2 of every 3-byte pixel.
void swapRgb(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width, int height);
// 3-byte pixels <-> three planes, byte k to plane k.
void splitPlanes3(const uint8_t* src, size_t src_step, uint8_t* d0, size_t s0, uint8_t* d1, size_t s1, uint8_t* d2,
                  size_t s2, int width, int height);
void mergePlanes3(const uint8_t* p0, size_t s0, const uint8_t* p1, size_t s1, const uint8_t* p2, size_t s2,
                  uint8_t* dst, size_t dst_step, int width, int height);
// 3-byte pixels to three float planes, byte k of each pixel to plane k, unchanged.
void bytesToPlanarFloat3(const uint8_t* src, size_t src_step, float* d0, size_t s0, float* d1, size_t s1, float* d2,
                         size_t s2, int width, int height);
// 2-byte pairs <-> two planes; `width` counts pairs.
void splitPairs(const uint8_t* src, size_t src_step, uint8_t* d0, size_t s0, uint8_t* d1, size_t s1, int width,
                int height);
void mergePairs(const uint8_t* p0, size_t s0, const uint8_t* p1, size_t s1, uint8_t* dst, size_t dst_step, int width,
                int height);
void swapPairs(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width, int height);
// `width` in bytes.
void copyPlane(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width, int height);

// --- Gray and float ------------------------------------------------------------
// Gray = BT.601 luma weights on full-range bytes, rounded (1.14 fixed point).
void bgrToGray(const uint8_t* bgr, size_t bgr_step, uint8_t* gray, size_t gray_step, int width, int height);
void grayToBgr(const uint8_t* gray, size_t gray_step, uint8_t* bgr, size_t bgr_step, int width, int height);
// `count` values per row: byte v -> float v; float -> byte clamped to 0..255
// and rounded half to even.
void u8ToF32(const uint8_t* src, size_t src_step, float* dst, size_t dst_step, size_t count, int height);
void f32ToU8(const float* src, size_t src_step, uint8_t* dst, size_t dst_step, size_t count, int height);
// In place over `count` floats per row.
void addF32(float* data, size_t step, size_t count, int height, float value);
void mulF32(float* data, size_t step, size_t count, int height, float value);
// IEEE half <-> single precision, round to nearest even.
void halfToFloat(const uint16_t* src, size_t count, float* dst);
void floatToHalf(const float* src, size_t count, uint16_t* dst);

// --- Geometry -----------------------------------------------------------------
// One plane's bilinear tables and horizontally scaled rows, kept between calls
// so that a repeated size pair rebuilds and allocates nothing.
struct BilinearPlaneCache {
    int src_width = 0, src_height = 0, dst_width = 0, dst_height = 0, channels = 0;
    std::vector<int32_t> xs, ys;  // 16.16 source positions of output columns and rows
    LerpPlan plan;                // columns, for channels-byte pixels
    // Row buffers: source row r, scaled horizontally, lives in rows[r & 1]
    // when key[r & 1] == r (two neighbours never share a slot).
    int key[2] = {-1, -1};
    std::vector<uint8_t> rows[2];
};

// One plane's area plan (OpenCV's decimation at ratios that are not whole
// numbers), its ring of horizontally reduced float rows and their pointers.
struct AreaPlaneCache {
    CvAreaPlan plan;
    LineVector<float> rows;
    std::vector<const float*> pointers;
    // Where an axis enlarges: OpenCV's linear emulation and its two rows.
    CvLinearPlan up;
    LineVector<int16_t> up_rows;
};

// One plane's nearest-neighbour column gather (pixels of `pixel` bytes).
struct NearestPlaneCache {
    int src_width = 0, dst_width = 0, pixel = 0;
    std::vector<uint16_t> xs;       // source column of each output column
    std::vector<int32_t> offsets;   // its first byte
    GatherPlan plan;                // pixels of up to 4 bytes
};

// Everything one plane's resize keeps between calls.
struct PlaneResizeCache {
    BilinearPlaneCache bilinear;
    AreaPlaneCache area;
    NearestPlaneCache nearest;
};

// Caches by plane index, for a backend's resize().
struct ResizeCache {
    PlaneResizeCache planes[4];
};

// Resizes a plane of 1 to 4 channels of bytes or floats. Nearest samples the
// source at floor((i + 0.5) * src / dst) in 16.16 fixed point, as the
// module's own nearest scaler does; bilinear and area are centre-aligned.
// Area reductions of byte planes by integer factors (source = destination
// times fx by fy) run the module's own box kernel, which gives OpenCV's
// INTER_AREA bytes; the other reductions on both axes that OpenCV decimates
// run kv_impl_fast_area, OpenCV's arithmetic, for bytes (and for floats
// where it beats OpenCV: one channel, or a width reduced at most 2 times),
// and byte
// planes with an enlarging axis kv_impl_fast_area_up, OpenCV's too. Bilinear
// byte planes run resizeBilinearBytes when every side is below 32768 (the
// 16.16 tables' range). Tables live in `cache` (or local ones when null); the
// rest goes to OpenCV.
// With a row range only output rows [first_row, last_row) are written (-1:
// to the end), the same bytes as in a whole run; `dst` is still row 0.
void resizePlane(const void* src, size_t src_step, int src_width, int src_height, void* dst, size_t dst_step,
                 int dst_width, int dst_height, int channels, bool is_float, Interpolation method,
                 PlaneResizeCache* cache = nullptr, int first_row = 0, int last_row = -1);
// True when resizePlane runs the module's own kernels for these sizes, which
// take row ranges; OpenCV's calls take the whole plane (and spread it over
// OpenCV's own threads).
bool resizePlaneTakesRows(int src_width, int src_height, int dst_width, int dst_height, int channels, bool is_float,
                          Interpolation method);
// resizePlane without the module's kernels (OpenCV, and the plain nearest
// loop), so that tests can hold those kernels against OpenCV itself and the
// nearest gather against the loop.
void resizePlaneWithLibrary(const void* src, size_t src_step, int src_width, int src_height, void* dst,
                            size_t dst_step, int dst_width, int dst_height, int channels, bool is_float,
                            Interpolation method);
// Bilinear resize of a byte plane of 1 to 4 channels on the bilinear
// scalers' row kernels: output sample centres map onto source centres,
// source = (i + 0.5) * src / dst - 0.5 in 16.16 with the left edge clamped
// to 0 and the right neighbour of the last sample the sample itself;
// horizontal pass first, then the vertical blend, each truncating
// (a * (65536 - f) + b * f) >> 16. Every side in 1..32767.
void resizeBilinearBytes(const uint8_t* src, size_t src_step, int src_width, int src_height, uint8_t* dst,
                         size_t dst_step, int dst_width, int dst_height, int channels, BilinearPlaneCache& cache,
                         int first_row = 0, int last_row = -1);
// Warps a plane of 1 to 4 channels of bytes or floats by `matrix` (2x3 row-major, source to
// destination); destination pixels that map outside the source become 0.
// Returns false, writing nothing, when the matrix is singular. Byte planes run
// the module's own warp (kv_impl_fast_warp), which gives OpenCV's bytes;
// float planes go to OpenCV. warpAffinePlaneWithLibrary is OpenCV for both,
// so that tests can hold the kernel against it.
// Byte planes take a row range as resizePlane does; float planes do not
// (warpAffinePlaneTakesRows).
bool warpAffinePlane(const void* src, size_t src_step, int src_width, int src_height, void* dst,
                     size_t dst_step, int dst_width, int dst_height, int channels, bool is_float,
                     const float matrix[6], bool bilinear, int first_row = 0, int last_row = -1);
inline bool warpAffinePlaneTakesRows(bool is_float) { return !is_float; }
bool warpAffinePlaneWithLibrary(const void* src, size_t src_step, int src_width, int src_height, void* dst,
                                size_t dst_step, int dst_width, int dst_height, int channels, bool is_float,
                                const float matrix[6], bool bilinear);
// Rotates a plane of `pixel_bytes`-byte pixels (1 to 4; width x height is the
// source size): code 1 is 90 degrees counter-clockwise, 2 is 180 degrees, 3
// is 270 degrees counter-clockwise.
void rotatePlane(const uint8_t* src, size_t src_step, int width, int height, int pixel_bytes, int code, uint8_t* dst,
                 size_t dst_step);

}  // namespace fast
}  // namespace impl
}  // namespace kv
