// The fast backend's area reduction at ratios that are not whole numbers: the
// arithmetic of OpenCV 4's INTER_AREA decimation (cv::resize with both scales
// at least 1 and not both integers), reproduced operation for operation so
// that the bytes and floats come out identical, with AVX2 row kernels.
//
// OpenCV's rule, per plane of `cn` interleaved channels: each output column
// (row) takes the source columns (rows) that its cell [dx * scale, (dx + 1) *
// scale) covers, the partial ones at the ends weighted by their overlap, all
// divided by the cell width (double arithmetic, weights rounded to float).
// Per source row a float buffer receives, value by value and tap by tap in
// source order, buf = buf + float(s) * alpha (starting from 0); per output
// row the buffers of its source rows, in order, give sum = beta * buf for
// the first (0 + beta * buf for output row 0) and sum = sum + beta * buf for
// the others. A source row that two output rows share is computed once. Bytes come out rounded half to even and clamped to 0..255,
// floats as they are. No operation is fused or reordered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_cv/kv_impl_aligned.h"
#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

// True when OpenCV takes this decimation path for src -> dst: both scales at
// least 1 and not both within DBL_EPSILON of integers.
bool cvAreaDecimates(int src_width, int src_height, int dst_width, int dst_height);

// True when every four consecutive values of a float row of `channels`
// reduced from src_width to dst_width read within 32 floats, so that the
// float permute plan covers the whole row.
bool cvAreaFloatPermutes(int src_width, int dst_width, int channels);

// One axis of OpenCV's area table: (destination index, source index, alpha)
// entries in OpenCV's order, indices in samples of that axis.
struct CvAreaTap {
    int dst;
    int src;
    float alpha;
};
void buildCvAreaTable(int src_size, int dst_size, std::vector<CvAreaTap>& table);

// Horizontal taps of one row of `values` = dst_width * channels outputs, at
// most `taps` per value. Per value the taps sit at the END of its slot in
// source order; unused leading slots carry element 0 and alpha 0, whose
// product is +0 and leaves the running sum (+0 there) unchanged. Vector plan:
// blocks of eight values (four per 128-bit lane); byte rows read `chunks`
// 16-byte loads per lane and per tap move each value's sample into its own
// 32-bit lane; float rows gather.
struct CvAreaRowPlan {
    int values = 0;
    int taps = 0;
    std::vector<int32_t> element;  // values x taps source elements
    std::vector<float> alpha;      // values x taps
    int blocks = 0;                // 0: no vector plan (fewer than 8 values)
    int chunks = 0;                // 16-byte loads per lane for byte rows; 0: byte rows unplanned
    std::vector<int32_t> base;     // 2 per block: lane source offsets (byte rows)
    std::vector<int32_t> start;    // first value of each block
    LineVector<uint8_t> select;   // blocks x taps x chunks x 32 (byte rows)
    std::vector<int32_t> index;    // blocks x taps x 8 source elements (float rows)
    LineVector<float> weight;      // blocks x taps x 8 alphas
    // Float rows of one channel: each value's used slots read consecutive
    // samples, slot t at window[value] + t. A block whose eight windows of
    // 8 x `win_loads` samples (4 when there are at most 4 taps) lie inside
    // the row (win_ok) loads them and transposes them into per-slot vectors
    // instead of gathering; 0 `win_loads` means no such plan (more than 16
    // taps, or channels).
    int win_loads = 0;
    std::vector<int32_t> window;   // values
    std::vector<uint8_t> win_ok;   // blocks
    // Byte rows at kAvx512: blocks of 16 values whose used taps lie within
    // 64 bytes (`wide_tables` 1, one vpermb) or 128 (2, vpermt2b) from the
    // block's first used sample; 0 `wide_blocks` means no such plan. Per
    // block two load masks keep the window inside the row. Where a block
    // spans 128 bytes or more, the split form (`wide_tables` 3): each eight
    // values read the 128 bytes from their own base (2 per block, moved back
    // to stay inside the row, no masks), one two-table permute per half.
    // Tables per pattern (blocks with equal tables share one): per group of
    // four slots 64 index bytes, byte 4j + u giving value j's sample for slot
    // 4g + u in its window (0 for an unused slot, whose alpha 0 makes it +0),
    // and per slot 16 alphas.
    int wide_blocks = 0;
    int wide_tables = 0;
    std::vector<int32_t> wide_base;
    std::vector<int32_t> wide_pattern;  // per block
    std::vector<uint64_t> wide_mask;
    int wide_full[2] = {0, 0};          // leading blocks whose one (two) windows need no mask
    LineVector<uint8_t> wide_index;     // patterns x groups x 64
    LineVector<float> wide_weight;      // patterns x taps x 16
    // Float rows at kAvx512: blocks of 16 values in `fperm_groups` groups
    // (1, 2 or 4) of 16 / groups lanes, each group's used taps within the 32
    // floats from its own base (moved back to stay inside the row): per slot
    // one two-table permute per group. Per (block, slot) 16 index bytes
    // (value j's sample relative to its group's base), the lanes whose slot
    // has an alpha (the others take +0), and 16 alphas. 0 `fperm_blocks`: no
    // such plan.
    int fperm_blocks = 0;
    int fperm_groups = 0;
    std::vector<int32_t> fperm_base;   // blocks x groups
    std::vector<uint16_t> fperm_used;  // blocks x taps
    LineVector<uint8_t> fperm_index;   // blocks x taps x 16
    LineVector<float> fperm_weight;    // blocks x taps x 16
    std::vector<int32_t> scratch;  // working memory of the construction
    std::vector<uint64_t> scratch_hash;
};
void buildCvAreaRowPlan(CvAreaRowPlan& plan, const std::vector<CvAreaTap>& xtab, int dst_width, int channels,
                        int src_elements);

// Both axes of one plane. Output row r takes the horizontal results of
// source rows rows[k], k in [first[r], first[r + 1]), with weights beta[k],
// in that order; each source row is taken into the ring of `ring` float rows
// once, at slot (source row) % ring, `stride` floats apart.
struct CvAreaPlan {
    int src_width = 0, src_height = 0, dst_width = 0, dst_height = 0, channels = 0;
    bool bytes = true;
    CvAreaRowPlan row;
    std::vector<int32_t> rows;
    std::vector<float> beta;
    std::vector<int32_t> first;  // dst_height + 1 offsets into rows / beta
    int ring = 0;
    int stride = 0;              // values rounded up to a cache line of floats
    int max_rows = 0;            // most rows of one output row
    std::vector<CvAreaTap> xtab, ytab;  // the tables the plan was built from
};
// Builds `plan` unless it already describes these sizes.
void buildCvAreaPlan(CvAreaPlan& plan, int src_width, int src_height, int dst_width, int dst_height, int channels,
                     bool bytes);

// Kernels. Horizontal: buf[o] for the plan's `values` from one source row.
// Vertical: output value o = sum over k < count of beta[k] * bufs[k][o] in
// OpenCV's order (the first product alone, or 0 + it for output row 0 with
// `zero_start`), for o < n; bytes rounded half to even and clamped.
using CvAreaRowX8 = void (*)(const CvAreaRowPlan& plan, const uint8_t* src, float* buf);
using CvAreaRowX32f = void (*)(const CvAreaRowPlan& plan, const float* src, float* buf);
struct CvAreaRowsY {
    const float* const* bufs;
    const float* beta;
    int count;
    bool zero_start;
    int n;
};
using CvAreaRowsY8 = void (*)(const CvAreaRowsY& rows, uint8_t* dst);
using CvAreaRowsY32f = void (*)(const CvAreaRowsY& rows, float* dst);

// The whole plane with the kernel set of `isa`; `buffers` holds ring x
// stride floats (on a cache line: LineVector), `pointers` max_rows entries.
// Only output rows [first_row, last_row) are written when a range is given
// (last_row -1: to the end); `dst` is still the plane's first row.
void cvAreaResize(const CvAreaPlan& plan, const void* src, size_t src_step, void* dst, size_t dst_step,
                  float* buffers, const float** pointers, Isa isa, int first_row = 0, int last_row = -1);

namespace ref {
void cvAreaRowX8(const CvAreaRowPlan& plan, const uint8_t* src, float* buf);
void cvAreaRowX32f(const CvAreaRowPlan& plan, const float* src, float* buf);
void cvAreaRowsY8(const CvAreaRowsY& rows, uint8_t* dst);
void cvAreaRowsY32f(const CvAreaRowsY& rows, float* dst);
}  // namespace ref

namespace avx2 {
void cvAreaRowX8(const CvAreaRowPlan& plan, const uint8_t* src, float* buf);
void cvAreaRowX32f(const CvAreaRowPlan& plan, const float* src, float* buf);
void cvAreaRowsY8(const CvAreaRowsY& rows, uint8_t* dst);
void cvAreaRowsY32f(const CvAreaRowsY& rows, float* dst);
}  // namespace avx2

// kAvx512: byte rows and float rows (the horizontal pass runs the AVX2
// kernel where the plan has no wide or float permute blocks).
namespace avx512 {
void cvAreaRowX8(const CvAreaRowPlan& plan, const uint8_t* src, float* buf);
void cvAreaRowX32f(const CvAreaRowPlan& plan, const float* src, float* buf);
void cvAreaRowsY8(const CvAreaRowsY& rows, uint8_t* dst);
}  // namespace avx512

}  // namespace impl
}  // namespace kv
