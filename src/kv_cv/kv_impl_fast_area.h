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
// the others. Bytes come out rounded half to even and clamped to 0..255,
// floats as they are. No operation is fused or reordered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

// True when OpenCV takes this decimation path for src -> dst: both scales at
// least 1 and not both within DBL_EPSILON of integers.
bool cvAreaDecimates(int src_width, int src_height, int dst_width, int dst_height);

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
    std::vector<uint8_t> select;   // blocks x taps x chunks x 32 (byte rows)
    std::vector<int32_t> index;    // blocks x taps x 8 source elements (float rows)
    std::vector<float> weight;     // blocks x taps x 8 alphas
};
void buildCvAreaRowPlan(CvAreaRowPlan& plan, const std::vector<CvAreaTap>& xtab, int dst_width, int channels,
                        int src_elements);

// What one source row gives to the output rows: up to two (output row,
// beta) contributions; `first` starts the output row's sum, `last` ends it
// (the row is then converted and stored).
struct CvAreaContribution {
    int dst_row;
    float beta;
    bool first;
    bool zero_start;  // first of output row 0: 0 + beta * buf
    bool last;
};

// Both axes of one plane.
struct CvAreaPlan {
    int src_width = 0, src_height = 0, dst_width = 0, dst_height = 0, channels = 0;
    bool bytes = true;
    CvAreaRowPlan row;
    std::vector<int32_t> source_rows;                  // source rows with a contribution, in order
    std::vector<CvAreaContribution> contributions;     // 2 per entry of source_rows (count in `counts`)
    std::vector<uint8_t> counts;
};
// Builds `plan` unless it already describes these sizes.
void buildCvAreaPlan(CvAreaPlan& plan, int src_width, int src_height, int dst_width, int dst_height, int channels,
                     bool bytes);

// Kernels: one source row through the horizontal taps and into the
// contributions' sums (two float rows of `values`, the first for even
// output rows, the second for odd ones); output rows that end are stored.
struct CvAreaRowArgs {
    const CvAreaRowPlan* plan;
    const void* src;                  // one source row (bytes or floats)
    const CvAreaContribution* contributions;
    int count;
    float* sums[2];
    void* dst_rows[2];                // destination row of each contribution (bytes or floats)
};
using CvAreaRowFn = void (*)(const CvAreaRowArgs& args);

// The whole plane with the kernel set of `isa`; `sums` holds 2 x values floats.
void cvAreaResize(const CvAreaPlan& plan, const void* src, size_t src_step, void* dst, size_t dst_step, float* sums,
                  Isa isa);

namespace ref {
void cvAreaRow8(const CvAreaRowArgs& args);
void cvAreaRow32f(const CvAreaRowArgs& args);
}  // namespace ref

namespace avx2 {
void cvAreaRow8(const CvAreaRowArgs& args);
void cvAreaRow32f(const CvAreaRowArgs& args);
}  // namespace avx2

}  // namespace impl
}  // namespace kv
