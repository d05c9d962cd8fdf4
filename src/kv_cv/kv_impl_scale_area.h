// Row kernels of the area scalers: the weight table, the horizontal combination
// of one row and the vertical accumulation of rows. Each vector kernel sits
// beside its scalar reference (same name and signature in impl::ref and
// impl::avx2); the references define the result and the vector kernels match
// them bit for bit.
//
// Rows are read only inside their bytes: a sample whose element index lies at
// or past `src_len` counts as 0 and is never loaded. That covers the element
// just past the last pixel that an enlargement weights with the table's small
// deficit (the vertical pass likewise drops the row past the bottom edge), and
// the 3- and 4-byte units that packed 4:2:2 rows are processed in, which reach
// past the row's bytes; outputs are written up to `dst_len` elements only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_cv/kv_impl_aligned.h"

namespace kv {
namespace impl {

struct AreaTableEntry {
    uint16_t first;   // first source index of the output pixel
    uint16_t weight;  // share of that first source pixel, in output-pixel units scaled by one
};

// The area table of dst + 1 entries (the last is the sentinel (src, weight_max)).
// Returns weight_max.
uint16_t buildAreaTable(int src, int dst, int shift, std::vector<AreaTableEntry>& table);

// Source rows an output row may need (the window size before doubling for
// subsampled chroma and before clamping to the source height).
int areaRowsNeeded(int src, int dst, const std::vector<AreaTableEntry>& table, uint16_t weight_max);

// Horizontal combination of one row of samples. The output values o in
// [o_begin, dst_len) are pixel o / channels, channel o % channels; `src_len` is
// the number of readable samples of the row.
struct AreaRowX {
    const AreaTableEntry* table;
    int channels;
    int src_len;
    int dst_len;
    uint32_t weight_max;
    int shift;
    bool reduce;  // dst < src
};

// Precomputed taps for the vector kernels of one plane: every output value is
// sum over t < taps of s[offset[o] + t * channels] * weights[o * taps + t], with
// every tap inside the row (taps past it carry weight 0 and a safe offset).
// `uniform_q` is 2 or 4 when the table is a plain box of q pixels with equal
// weights (then output = (weight_max * box sum) >> shift), else 0.
struct AreaTaps {
    int taps = 0;
    int vec_values = 0;  // values [0, vec_values) are safe for 4-byte gathers
    int uniform_q = 0;
    std::vector<int32_t> offset;
    std::vector<int32_t> weights;
    // Shuffle plan for 8- or 16-bit rows: blocks of 16 output values in four
    // quarters of four, quarter q in 128-bit lane q % 2 of vector q / 2. Each
    // quarter reads `chunks` 16-byte loads from its own base; per tap pair,
    // byte selectors put the pair's two samples of each value into two words
    // (8-bit samples with zero high bytes) that one multiply-add with the pair's two 16-bit
    // weights sums. A weight of 32768 (a whole sample at 16-bit precision) is
    // split over both words of its pair. Selector sets repeat along a row, so
    // blocks share them by index. The last block may overlap its predecessor;
    // zero `pair_blocks` means no plan (rows shorter than a block, or too many
    // loads per block).
    int pairs = 0;
    int chunks = 0;
    int pair_blocks = 0;
    struct PairBlock {
        int32_t base[4];  // source byte offset of each quarter
        int32_t start;    // first output value
        int32_t pattern;  // selector set
    };
    std::vector<PairBlock> pair_block;
    LineVector<uint8_t> pair_select;   // patterns x 2 x chunks x pairs x 32 selectors (0x80: zero)
    LineVector<int16_t> pair_weights;  // blocks x 2 x pairs x 16 weights
    // 16-bit rows: samples enter as s - 32768 (signed words); per block 16
    // values' 32768 x (sum of their weights) restores the sum.
    LineVector<int32_t> pair_bias;
    // Permute plan for 32-bit rows: block b holds values [8b, 8b + 8) and
    // reads `perm_chunks` (1 to 4) loads of eight samples from perm_base[b];
    // per tap each value's sample is picked from them by perm_index (bits 0-2:
    // sample within its load; bit 30: odd load; bit 31: third or fourth load).
    // Zero `perm_blocks` means no plan.
    int perm_chunks = 0;
    int perm_blocks = 0;
    std::vector<int32_t> perm_base;
    std::vector<int32_t> perm_index;  // blocks x taps x 8
    // Byte rows at kAvx512: blocks of 32 values whose taps lie within the 64
    // bytes from their base (moved back to stay inside the row; the last
    // block may overlap its predecessor). Per block, pair and half (16
    // values) 32 index bytes, widened to words, put value j's two samples in
    // words 2j and 2j + 1 (the permute zeroes their high bytes) and 32 weights
    // multiply-add them; a weight of 32768 takes a whole pair, split in two.
    // Blocks whose tables repeat share one pattern. 0 `wide_blocks`: no such plan.
    // The split form (`wide_split`), for blocks wider than 64 bytes: each
    // eight values of a block take their taps from the 128 bytes at their own
    // base (split_base, 4 per block), indices relative to it.
    int wide_blocks = 0;
    bool wide_split = false;
    std::vector<int32_t> split_base;
    int wide_pairs = 0;
    int wide_patterns = 0;
    std::vector<int32_t> wide_base;   // 3 per block: source byte offset, first output value, pattern
    LineVector<uint8_t> wide_index;   // patterns x pairs x 2 x 32
    LineVector<int16_t> wide_weight;  // patterns x pairs x 2 x 32
    // Working memory of the plan's construction.
    std::vector<int32_t> scratch_lo;
    std::vector<uint8_t> scratch_set;
    std::vector<uint64_t> scratch_hash;
};
// `sample_bytes` 1 or 2 builds the shuffle plan for 8- or 16-bit rows (4: none).
void buildAreaTaps(const AreaRowX& row, AreaTaps& taps, int sample_bytes = 1);

// Vertical accumulation: dst[x] = (sum of rows[k][x] * weights[k]) >> shift
// for x < len, truncated to the sample type; `acc` holds len elements (32-bit
// for 8-bit samples, 64-bit otherwise) and is used by the scalar kernels.
struct AreaRowsY {
    const uint8_t* const* rows;
    const uint32_t* weights;
    int count;
    int len;
    int shift;
};

namespace ref {
void areaRowX8(const uint8_t* src, uint8_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowX16(const uint16_t* src, uint16_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowX32(const uint32_t* src, uint32_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowsY8(const AreaRowsY& rows, uint8_t* dst, uint32_t* acc, int x_begin);
void areaRowsY16(const AreaRowsY& rows, uint16_t* dst, uint64_t* acc, int x_begin);
void areaRowsY32(const AreaRowsY& rows, uint32_t* dst, uint64_t* acc, int x_begin);
}  // namespace ref

namespace avx2 {
void areaRowX8(const uint8_t* src, uint8_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowX16(const uint16_t* src, uint16_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowX32(const uint32_t* src, uint32_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowsY8(const AreaRowsY& rows, uint8_t* dst, uint32_t* acc, int x_begin);
void areaRowsY16(const AreaRowsY& rows, uint16_t* dst, uint64_t* acc, int x_begin);
void areaRowsY32(const AreaRowsY& rows, uint32_t* dst, uint64_t* acc, int x_begin);
}  // namespace avx2

// kAvx512: the wide plan of byte rows (the AVX2 kernel where there is none,
// and for plain boxes); 64 values per vertical step (the AVX2 kernel for the rest).
namespace avx512 {
void areaRowX8(const uint8_t* src, uint8_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin);
void areaRowsY8(const AreaRowsY& rows, uint8_t* dst, uint32_t* acc, int x_begin);
}  // namespace avx512

}  // namespace impl
}  // namespace kv
