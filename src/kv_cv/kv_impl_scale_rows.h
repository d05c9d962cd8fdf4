// Row kernels of the nearest-neighbour and bilinear scalers: byte gathers,
// horizontal 16.16 interpolation and two-row vertical blends. Each kernel has
// a plain reference in kv::impl::ref and an AVX2 version in kv::impl::avx2
// with the same signature and bit-identical results; objects pick one set per
// reuse() through scaleRowKernels().
//
// Plans are built once per size pair (in reuse) and hold everything a kernel
// needs, so rows run without allocation or branching on the format. The
// reference kernels read only the per-element index and fraction tables; the
// vector kernels read the block tables, which cover every output element with
// 16-element blocks (the last block overlaps its predecessor when the width is
// not a multiple of 16), so nothing is read or written outside a row's bytes.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "kv_cv/kv_impl_aligned.h"
#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

// The fixed-point fraction width of bilinear positions (one = 65536).
constexpr int kBilinearShift = 16;

// 16.16 positions of output sample centres in source samples, clamped at 0:
// (i + 0.5) * src / dst - 0.5 with the step (src << 16) / dst truncated, in
// 32-bit wrapping arithmetic (sides below 32768 stay exact). Shared by the
// bilinear scalers and the fast backend's bilinear resize, so both sample the
// same positions.
void buildBilinearPositions(std::vector<int32_t>& table, int src, int dst);

// dst[e] = src[index[e]] for the n output bytes of a row.
struct GatherPlan {
    int32_t n = 0;
    std::vector<int32_t> index;  // source byte per output byte
    // Vector plan: `chunks` 16-byte source loads per 16-byte output block,
    // chunk k of block b starting at base[b] + 16 k; 0 when there is none.
    int32_t chunks = 0;
    std::vector<int32_t> base;
    std::vector<int32_t> start;  // first output byte of each block
    std::vector<uint8_t> mask;   // blocks x chunks x 16 pshufb selectors (0x80: another chunk)
    // Steep reductions (no block plan, or one of many loads) of whole units
    // of 2 to 4 bytes: eight units per 32-bit gather from their source offsets. The leading
    // `gather_units` units read 4 bytes inside the row; the rest of the row
    // runs the byte loop.
    int32_t unit_bytes = 0;
    int32_t gather_units = 0;
    std::vector<int32_t> unit_offset;
    // AVX-512 window plan, for blocks of the vector plan's layout (16 output
    // bytes from `start`): each block's sources lie within 128 bytes
    // (`win_tables` 1: one two-table byte permute) or 256 (2: two, picked by
    // the index's top bit) from its win_base; 16 index bytes per block. 0:
    // no such plan.
    int32_t win_tables = 0;
    std::vector<int32_t> win_base;
    std::vector<uint8_t> win_index;
};

// Builds the gather of `units` output units of `unit_bytes` bytes, unit x
// taken from source unit min(xs[x], src_units - 1) (a subsampled plane reads
// the shared table of plane 0, whose entries may pass its own width by one).
// The row has n output bytes; source bytes are read at min(index,
// src_bytes - 1). Rows whose byte count is not `units` whole units (packed
// 4:2:2 moved as 3- or 4-byte units) are clipped where the units pass the
// row's end, and continue the last unit where they fall short of it, so a row
// is written exactly and nothing outside it is read.
void buildGatherPlan(GatherPlan& plan, const uint16_t* xs, int units, int unit_bytes, int n, int src_units,
                     int src_bytes);
// Fills the vector plan of a gather whose `index` and `n` are set.
void planGatherBlocks(GatherPlan& plan, int src_bytes);
// Adds the unit plan to a gather whose `n` bytes are whole units of
// `unit_bytes` (the kernels run it only where `chunks` is 0).
void planGatherUnits(GatherPlan& plan, int unit_bytes, int src_bytes);

// Horizontal 16.16 interpolation of one row of n elements (samples of one
// type): dst[e] = (src[left[e]] * (65536 - fx[e]) + src[right[e]] * fx[e]) >> 16.
struct LerpPlan {
    int32_t n = 0;
    std::vector<int32_t> left, right;  // source element indices
    std::vector<uint16_t> fx;
    int32_t wide = 0;                  // leading elements whose indices are below the last source sample
    bool gather_only = false;          // every fraction is 0: the row is a gather of `left`
    GatherPlan gather;                 // that gather, for 8-bit samples
    // Vector plan for 8-bit samples: `chunks` 16-byte loads per block, and per
    // block and chunk 32 selector bytes for the left and 32 for the right
    // samples, each picking one byte into the low half of a 16-bit lane.
    int32_t chunks = 0;
    std::vector<int32_t> base;
    std::vector<int32_t> start;
    std::vector<uint8_t> mask;
    // Steep reductions (too many loads per block) of 8-bit samples in units
    // of 1 to 4 channels: per unit one 8-byte load at its left pixel, which
    // holds the right pixel too; four units per block, their fractions in
    // `unit_fx` as 16 words (lane h: the 2 x channels values of units 2h and
    // 2h + 1). The leading `unit_values` values run so; the rest the scalar loop.
    int32_t unit_values = 0;
    int32_t unit_channels = 0;
    std::vector<uint16_t> unit_fx;
    // Exact halving of 8-bit rows (value e from source pixels 2 (e / C) and
    // 2 (e / C) + 1, fraction 32768 everywhere): each value is the floor of
    // the pair's mean. `half_channels` is C, 0 when the row is not such.
    int32_t half_channels = 0;
    // Window plan for 8-bit samples (AVX-512): block b holds values
    // [win_start[b], + 32) and reads `win_count` 64-byte windows from
    // win_base[b] on. One byte permute per window puts each value's left
    // sample in the low and its right sample in the high byte of its word:
    // 64 index bytes per block (positions modulo 64) and per window a 64-bit
    // mask of the bytes it supplies. Zero `win_count` means no plan.
    int32_t win_count = 0;
    std::vector<int32_t> win_base, win_start;
    LineVector<uint8_t> win_index;  // blocks x 64
    std::vector<uint64_t> win_mask;  // blocks x win_count
    // Vector plan for 16- and 32-bit samples: block b holds values [8b, 8b + 8)
    // and reads `perm_loads` loads of eight samples from perm_base[b]; the
    // left and right samples are picked by permuteIndex values. Zero
    // `perm_blocks` means no plan.
    int32_t perm_loads = 0;
    int32_t perm_blocks = 0;
    std::vector<int32_t> perm_base;
    std::vector<int32_t> perm_left, perm_right;  // blocks x 8
};

// Builds the interpolation of `units` output units of `channels` samples from
// a source row of `src_units` units, with positions xs (16.16, clamped at 0;
// integer parts past the row are clamped to its last unit). The right
// neighbour of the last source unit is the unit itself. n and
// src_elems clip the row as for buildGatherPlan; `bytes8` asks for the 8-bit
// vector plan.
void buildLerpPlan(LerpPlan& plan, const int32_t* xs, int units, int src_units, int channels, int n, int src_elems,
                   bool bytes8);

// Runs f(std::integral_constant<int, K>()) for the K in [1, N] equal to k,
// so that a kernel templated on a small count (loads per block, taps) is
// chosen once per row; false, running nothing, for any other k.
template <int N, typename F>
inline bool dispatchCount(int k, F&& f) {
    if constexpr (N >= 1) {
        if (k == N) {
            f(std::integral_constant<int, N>());
            return true;
        }
        return dispatchCount<N - 1>(k, std::forward<F>(f));
    } else {
        return false;
    }
}

// Permute plans of 32-bit lanes: a block of eight values reads K (1 to 4)
// loads of eight samples from its base, and each value's sample is picked by
// an index whose bits 0-2 name the sample within its load, bit 30 an odd load
// and bit 31 the third or fourth. `rel` counts samples from the block's base.
constexpr int kMaxPermuteLoads = 4;
inline int32_t permuteIndex(int rel) {
    const int load = rel / 8;
    return int32_t(uint32_t(rel % 8) | uint32_t(load & 1) << 30 | uint32_t(load >> 1) << 31);
}

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {
// a or b per 32-bit lane, by the sign bit of `by`.
inline __m256i pickBySign(__m256i a, __m256i b, __m256i by) {
    return _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(a), _mm256_castsi256_ps(b), _mm256_castsi256_ps(by)));
}

// The samples that `idx` (permuteIndex values) names among loads c[0..K).
template <int K>
inline __m256i permuteLoads(const __m256i* c, __m256i idx) {
    __m256i v = _mm256_permutevar8x32_epi32(c[0], idx);
    if (K < 2) return v;
    const __m256i odd = _mm256_slli_epi32(idx, 1);
    v = pickBySign(v, _mm256_permutevar8x32_epi32(c[1], idx), odd);
    if (K < 3) return v;
    __m256i high = _mm256_permutevar8x32_epi32(c[2], idx);
    if (K == 4) high = pickBySign(high, _mm256_permutevar8x32_epi32(c[K - 1], idx), odd);
    return pickBySign(v, high, idx);
}
// Transposes eight vectors of eight 32-bit lanes: r[t] lane j = r[j] lane t.
inline void transpose8(__m256 r[8]) {
    __m256 t[8], u[8];
    for (int k = 0; k < 8; k += 2) {
        t[k] = _mm256_unpacklo_ps(r[k], r[k + 1]);
        t[k + 1] = _mm256_unpackhi_ps(r[k], r[k + 1]);
    }
    for (int k = 0; k < 8; k += 4) {
        u[k] = _mm256_shuffle_ps(t[k], t[k + 2], 0x44);
        u[k + 1] = _mm256_shuffle_ps(t[k], t[k + 2], 0xEE);
        u[k + 2] = _mm256_shuffle_ps(t[k + 1], t[k + 3], 0x44);
        u[k + 3] = _mm256_shuffle_ps(t[k + 1], t[k + 3], 0xEE);
    }
    for (int k = 0; k < 4; ++k) {
        r[k] = _mm256_permute2f128_ps(u[k], u[k + 4], 0x20);
        r[k + 4] = _mm256_permute2f128_ps(u[k], u[k + 4], 0x31);
    }
}

}  // namespace avx2
#pragma GCC pop_options

// Byte selectors (for a 32-byte shuffle) that put the two pixels of each
// pixel pair side by side, channel by channel (a0 b0 a1 b1 ...), so that one
// multiply-add with ones sums each pair into a word: per 128-bit lane 16
// source bytes (C = 1, 2, 4) or 12 (C = 3; the last 4 selectors give 0).
template <int C>
struct PixelPairOrder {
    int8_t b[32];
    constexpr PixelPairOrder() : b() {
        for (int lane = 0; lane < 2; ++lane)
            for (int k = 0; k < 16; ++k) {
                const int value = k / 2, pair = value / C, c = value % C;
                b[16 * lane + k] = int8_t(C == 3 && k >= 12 ? -128 : pair * 2 * C + (k % 2) * C + c);
            }
    }
};

// out = (a * (65536 - fy) + b * fy) >> 16 per sample; the shift truncates.
using BlendRow8 = void (*)(const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy);
using BlendRow16 = void (*)(const uint16_t* a, const uint16_t* b, uint16_t* dst, int n, uint32_t fy);
using BlendRow32 = void (*)(const uint32_t* a, const uint32_t* b, uint32_t* dst, int n, uint32_t fy);
using LerpRow8 = void (*)(const LerpPlan& plan, const uint8_t* src, uint8_t* dst);
using LerpRow16 = void (*)(const LerpPlan& plan, const uint16_t* src, uint16_t* dst);
using LerpRow32 = void (*)(const LerpPlan& plan, const uint32_t* src, uint32_t* dst);
using GatherRow = void (*)(const GatherPlan& plan, const uint8_t* src, uint8_t* dst);

struct ScaleRowKernels {
    GatherRow gatherRow;
    LerpRow8 lerpRow8;
    LerpRow16 lerpRow16;
    LerpRow32 lerpRow32;
    BlendRow8 blendRow8;
    BlendRow16 blendRow16;
    BlendRow32 blendRow32;
};

// The kernel set for activeIsa().
const ScaleRowKernels& scaleRowKernels();

namespace ref {
void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst);
void lerpRow8(const LerpPlan& plan, const uint8_t* src, uint8_t* dst);
void lerpRow16(const LerpPlan& plan, const uint16_t* src, uint16_t* dst);
void lerpRow32(const LerpPlan& plan, const uint32_t* src, uint32_t* dst);
void blendRow8(const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy);
void blendRow16(const uint16_t* a, const uint16_t* b, uint16_t* dst, int n, uint32_t fy);
void blendRow32(const uint32_t* a, const uint32_t* b, uint32_t* dst, int n, uint32_t fy);
}  // namespace ref

namespace avx2 {
void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst);
void lerpRow8(const LerpPlan& plan, const uint8_t* src, uint8_t* dst);
void lerpRow16(const LerpPlan& plan, const uint16_t* src, uint16_t* dst);
void lerpRow32(const LerpPlan& plan, const uint32_t* src, uint32_t* dst);
void blendRow8(const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy);
void blendRow16(const uint16_t* a, const uint16_t* b, uint16_t* dst, int n, uint32_t fy);
void blendRow32(const uint32_t* a, const uint32_t* b, uint32_t* dst, int n, uint32_t fy);
}  // namespace avx2

namespace avx512 {
// The AVX-512 set differs from the AVX2 one in these kernels only.
void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst);
void lerpRow8(const LerpPlan& plan, const uint8_t* src, uint8_t* dst);
}  // namespace avx512

}  // namespace impl
}  // namespace kv
