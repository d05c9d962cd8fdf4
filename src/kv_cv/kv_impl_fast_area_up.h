// The fast backend's area resize of byte planes where an axis enlarges:
// OpenCV 4's INTER_AREA emulation through its linear resize (cv::resize when
// either scale is below 1), reproduced operation for operation so that the
// bytes come out identical, with AVX2 row kernels. (Float planes stay with
// OpenCV, which measured faster there than gathers of float pairs.)
//
// OpenCV's rule, per axis: output index d takes source s = floor(d * scale)
// and s + 1 (clamped to the last sample), weighted 1 - f and f where f =
// float((d + 1) - (s + 1) / scale), 0 when not positive, else its fraction.
// Weights in 11-bit fixed point (rounded to even); per source row the
// horizontal pass gives exact integers l * a0 + r * a1 (only l * 2048 from
// the first output column whose s reaches the last source column), kept as
// words h >> 4; per output row the vertical pass gives ((b0 * (h0 >> 4)) >>
// 16) + ((b1 * (h1 >> 4)) >> 16) + 2) >> 2.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_cv/kv_impl_aligned.h"
#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

// True when OpenCV's INTER_AREA takes its linear path: either scale below 1.
bool cvAreaEnlarges(int src_width, int src_height, int dst_width, int dst_height);

// One axis: source index and weights of each output index; `last` is the
// first output index that takes the last source sample alone.
struct CvLinearAxis {
    std::vector<int32_t> index;
    std::vector<int16_t> fixed;  // 2 per output index
    int last = 0;
};
void buildCvLinearAxis(int src_size, int dst_size, CvLinearAxis& axis);

// Both axes of one plane of `channels` interleaved samples, and the vector
// plan of the horizontal pass over bytes: blocks of eight values (four per
// 128-bit lane), each lane reading `chunks` 16-byte loads from its own base;
// per block, selectors put each value's left and right samples into a pair
// of words and its two weights sit beside, for one multiply-add.
struct CvLinearPlan {
    int src_width = 0, src_height = 0, dst_width = 0, dst_height = 0, channels = 0;
    CvLinearAxis x, y;
    int values = 0;                 // dst_width * channels
    std::vector<int32_t> left;      // per value: source element of the left sample
    int blocks = 0;                 // 0: no vector plan
    int chunks = 0;
    std::vector<int32_t> base;      // 2 per block
    LineVector<uint8_t> select;     // blocks x chunks x 32
    LineVector<int16_t> weights;    // blocks x 16
    // kAvx512: blocks of sixteen values whose samples lie within the 64 bytes
    // from wide_base (moved back to stay inside the row); one byte permute
    // per block puts value j's left and right samples in words 2j and 2j + 1
    // (index bytes 4j and 4j + 2; the odd bytes are zeroed). 0 `wide_blocks`:
    // no such plan (rows under 64 bytes, or spans too wide).
    int wide_blocks = 0;
    std::vector<int32_t> wide_base;
    LineVector<uint8_t> wide_index;   // wide_blocks x 64
    LineVector<int16_t> wide_weight;  // wide_blocks x 32
    // Words per row of the horizontal pass: values rounded up to a cache line.
    int stride = 0;
    std::vector<int32_t> scratch;
};
void buildCvLinearPlan(CvLinearPlan& plan, int src_width, int src_height, int dst_width, int dst_height, int channels);

// Kernels: the horizontal pass of one source row into `values` words h >> 4;
// the vertical pass of two of them into an output row of n bytes with the
// weights of one output row.
using CvLinearRowX8 = void (*)(const CvLinearPlan& plan, const uint8_t* src, int16_t* row);
using CvLinearRowsY8 = void (*)(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n);

// The whole plane with the kernels of `isa`; `rows` holds 2 x stride words
// (on a cache line: LineVector).
// Output rows [first_row, last_row) only when a range is given (-1: to the end).
void cvLinearResize(const CvLinearPlan& plan, const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step,
                    int16_t* rows, Isa isa, int first_row = 0,
                    int last_row = -1);

namespace ref {
void cvLinearRowX8(const CvLinearPlan& plan, const uint8_t* src, int16_t* row);
void cvLinearRowsY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n);
}  // namespace ref

namespace avx2 {
void cvLinearRowX8(const CvLinearPlan& plan, const uint8_t* src, int16_t* row);
void cvLinearRowsY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n);
}  // namespace avx2

// kAvx512: the wide plan (the AVX2 kernel where there is none); 32 values per
// vertical step.
namespace avx512 {
void cvLinearRowX8(const CvLinearPlan& plan, const uint8_t* src, int16_t* row);
void cvLinearRowsY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n);
}  // namespace avx512

}  // namespace impl
}  // namespace kv
