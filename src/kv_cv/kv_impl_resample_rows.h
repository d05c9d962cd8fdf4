// Row kernels of the antialiased resampler (ScalerResample): the per-axis
// weight tables, the horizontal pass over a block of rows and the vertical
// pass that combines rows. Each vector kernel sits beside its scalar
// reference with the same name and signature (impl::ref, impl::avx2); the
// references define the result and the vector kernels match them bit for bit.
//
// Fixed point (8-bit and 16-bit samples): weights carry 22 fractional bits
// (8 bits of result, one sign bit and one bit of headroom in a 32-bit sum, as
// Pillow's PRECISION_BITS), each rounded half away from zero on its own; a
// sum starts at the rounding offset 2^21, is shifted right by 22 (flooring)
// and clamped to the sample range. Float samples use the same weights as
// floats, summed in tap order, with neither rounding nor clamping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_core/kv_buffer.h"
#include "kv_cv/kv_scaler_resample.h"

namespace kv {
namespace impl {

constexpr int kResampleBits = 22;
constexpr int32_t kResampleHalf = int32_t(1) << (kResampleBits - 1);
// Rows the horizontal pass filters at once (the vector kernel's block).
constexpr int kResampleBlock = 16;

// One axis of one plane: output position i reads `count[i]` source samples
// from `start[i]`, with weights coeff[i * taps + k] (22-bit fixed point) and
// weight[i * taps + k] (float); entries past count[i] are 0.
struct ResampleAxis {
    int src = 0;
    int dst = 0;
    int taps = 0;  // row stride of coeff and weight: the largest count
    std::vector<int32_t> start;
    std::vector<int32_t> count;
    std::vector<int32_t> coeff;
    std::vector<float> weight;

    // An unchanged length is copied, not filtered.
    bool copies() const { return src == dst; }
};

// Pillow's table for `filter` from `src` to `dst` samples (both at least 1):
// scale = src / dst, support = filter support * max(scale, 1), output i
// centred at (i + 0.5) * scale, taps [int(centre - support + 0.5),
// int(centre + support + 0.5)) clipped to the axis, weights
// filter((tap - centre + 0.5) / max(scale, 1)) divided by their sum.
void buildResampleAxis(ResampleFilter filter, int src, int dst, ResampleAxis& axis);

// Horizontal pass of 8-bit rows with `channels` interleaved samples per pixel
// (1 to 4): the table and, when the vector kernel can run it, its split
// weights and scratch. The vector kernel works on pairs of source pixels: per
// output pixel, the first pair, the pair count, and per pair two 8-bit high
// weight parts (one 16-bit word) and two 16-bit low parts (one 32-bit word),
// weight = high * 65536 + low.
struct ResampleX8 {
    const ResampleAxis* axis = nullptr;
    int channels = 1;
    bool vector = false;  // every weight splits so that the vector sums are exact
    std::vector<int32_t> pair_start, pair_count, pair_offset;
    std::vector<uint16_t> hi;
    std::vector<uint32_t> lo;
    // Per output pixel: the weight all its taps share (a box's taps do), else
    // 0. Such a pixel sums its samples in 16 bits, with mask (two 0/1 bytes
    // per pair, beside hi) choosing the taps, and scales the sum once.
    std::vector<int32_t> uniform;
    std::vector<uint16_t> mask;
    Buffer pairs;    // the block's source as 16 rows of pixel-pair words, per (pair, channel)
    Buffer words;    // 16 rows of pixel-pair words, one row of the source each
    Buffer columns;  // the block's output, 16 rows per output sample
    size_t word_pitch = 0;
};
// Fills the vector form and sizes the scratch for `axis` (which must outlive
// the plan).
void prepareResampleX8(const ResampleAxis& axis, int channels, ResampleX8& plan);

// Vertical pass of 8-bit rows: per output row, the split weights of its taps
// in pairs (the last row of an odd count pairs with weight 0).
struct ResampleY8 {
    const ResampleAxis* axis = nullptr;
    int pairs = 0;  // per output row (the largest pair count)
    std::vector<uint16_t> hi;
    std::vector<uint32_t> lo;
    std::vector<uint8_t> vector;  // per output row: the split sums are exact
    // Per output row: the weight its nonzero taps share, else 0; then mask
    // (beside hi) holds the two 0/1 bytes of each row pair.
    std::vector<int32_t> uniform;
    std::vector<uint16_t> mask;
};
void prepareResampleY8(const ResampleAxis& axis, ResampleY8& plan);

// Output row `y` of the vertical pass: rows[k] for k < count is source row
// start[y] + k (rows[count] must be readable too: the last row again).
struct ResampleRowsY {
    const uint8_t* const* rows;
    int y;
    size_t len;  // samples per row
};

namespace ref {
// `rows` (1..16) source rows to as many output rows.
void resampleRowsX8(const uint8_t* const* src, uint8_t* const* dst, int rows, ResampleX8& plan);
void resampleRowY8(const ResampleRowsY& in, uint8_t* dst, const ResampleY8& plan);
void resampleRowX16(const uint16_t* src, uint16_t* dst, const ResampleAxis& axis, int channels);
void resampleRowY16(const ResampleRowsY& in, uint16_t* dst, const ResampleAxis& axis);
void resampleRowXF(const float* src, float* dst, const ResampleAxis& axis, int channels);
void resampleRowYF(const ResampleRowsY& in, float* dst, const ResampleAxis& axis);
}  // namespace ref

namespace avx2 {
void resampleRowsX8(const uint8_t* const* src, uint8_t* const* dst, int rows, ResampleX8& plan);
void resampleRowY8(const ResampleRowsY& in, uint8_t* dst, const ResampleY8& plan);
}  // namespace avx2

}  // namespace impl
}  // namespace kv
