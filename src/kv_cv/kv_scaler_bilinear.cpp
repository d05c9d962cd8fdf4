// Bilinear scalers (X, Y, XY) and their row kernels: horizontal 16.16
// interpolation through precomputed plans, and two-row vertical blends.
//
// Exactness: every kernel computes (a * (65536 - f) + b * f) >> 16, which
// equals a + floor((b - a) * f / 65536). The 8-bit vector kernels evaluate the
// latter in 16-bit lanes: _mm256_mulhi_epi16 gives floor(d * s / 65536) for
// the signed reading s of f, and s = f - 65536 when f >= 32768, so adding d
// back for those lanes gives the exact floor.
#include "kv_cv/kv_scaler_bilinear.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_impl_unaligned.h"
#include "kv_cv/kv_row_window.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler_bilinear"

namespace kv {
namespace impl {

namespace {
// Chunks per block beyond which (reductions past about 1/10) the block plan
// is not worth its tables; such rows run the unit loads or the reference loop.
constexpr int kMaxLerpChunks = 12;
}  // namespace

void buildBilinearPositions(std::vector<int32_t>& table, int src, int dst) {
    const int32_t step = int32_t(uint32_t(src) << kBilinearShift) / dst;
    int32_t p = int32_t(uint32_t(step) - 65536u) / 2;
    table.resize(size_t(dst));
    for (int i = 0; i < dst; ++i) {
        table[size_t(i)] = p < 0 ? 0 : p;
        p = int32_t(uint32_t(p) + uint32_t(step));  // the value past the last may wrap; it is not used
    }
}

namespace {
// The unit plan of LerpPlan: leading whole units whose values are
// contiguous, whose right pixel follows the left one and whose 8-byte load
// stays inside the row, in blocks of four units; a 3-channel block stores 2
// bytes past its values, which must lie inside the row.
void planLerpUnits(LerpPlan& plan, int channels, int src_elems) {
    const int C = channels;
    plan.unit_values = 0;
    plan.unit_fx.clear();
    if (C > 4) return;
    int units = 0;
    for (;; ++units) {
        const int e0 = units * C;
        if (e0 + C > plan.n) break;
        bool ok = plan.left[size_t(e0)] + 8 <= src_elems;
        for (int c = 0; c < C && ok; ++c)
            ok = plan.left[size_t(e0 + c)] == plan.left[size_t(e0)] + c &&
                 plan.right[size_t(e0 + c)] == plan.left[size_t(e0 + c)] + C;
        if (!ok) break;
    }
    int blocks = units / 4;
    if (C == 3 && blocks > 0 && blocks * 12 + 2 > plan.n) --blocks;
    plan.unit_fx.assign(size_t(blocks) * 16, 0);
    for (int b = 0; b < blocks; ++b)
        for (int h = 0; h < 2; ++h)
            for (int j = 0; j < 2 * C; ++j)
                plan.unit_fx[size_t(b) * 16 + size_t(8 * h + j)] = plan.fx[size_t((4 * b + 2 * h) * C + j)];
    plan.unit_values = blocks * 4 * C;
    plan.unit_channels = C;
}
// The lowest and highest source element that values [e0, e0 + len) read.
void valueSpan(const LerpPlan& plan, int e0, int len, int& lo, int& hi) {
    lo = hi = plan.left[size_t(e0)];
    for (int e = e0; e < e0 + len; ++e) {
        lo = std::min({lo, plan.left[size_t(e)], plan.right[size_t(e)]});
        hi = std::max({hi, plan.left[size_t(e)], plan.right[size_t(e)]});
    }
}
// The window plan of 8-bit rows (LerpPlan); none for rows under 32 values
// or blocks that span more than kMaxLerpWindows windows.
constexpr int kMaxLerpWindows = 8;
void planLerpWindows(LerpPlan& plan, int src_elems) {
    const int n = plan.n;
    if (n < 32) return;
    const int blocks = (n + 31) / 32;
    int windows = 1;
    for (int b = 0; b < blocks; ++b) {
        int lo, hi;
        valueSpan(plan, std::min(32 * b, n - 32), 32, lo, hi);
        windows = std::max(windows, (hi - lo) / 64 + 1);
    }
    if (windows > kMaxLerpWindows || src_elems < 64 * windows) return;
    plan.win_base.resize(size_t(blocks));
    plan.win_start.resize(size_t(blocks));
    plan.win_index.assign(size_t(blocks) * 64, 0);
    plan.win_mask.assign(size_t(blocks) * size_t(windows), 0);
    for (int b = 0; b < blocks; ++b) {
        const int e0 = std::min(32 * b, n - 32);
        int lo, hi;
        valueSpan(plan, e0, 32, lo, hi);
        const int base = std::min(lo, src_elems - 64 * windows);
        plan.win_base[size_t(b)] = base;
        plan.win_start[size_t(b)] = e0;
        uint8_t* index = plan.win_index.data() + size_t(b) * 64;
        uint64_t* mask = plan.win_mask.data() + size_t(b) * size_t(windows);
        for (int j = 0; j < 32; ++j) {
            const int sides[2] = {plan.left[size_t(e0 + j)] - base, plan.right[size_t(e0 + j)] - base};
            for (int k = 0; k < 2; ++k) {
                index[2 * j + k] = uint8_t(sides[k] % 64);
                mask[sides[k] / 64] |= uint64_t(1) << (2 * j + k);
            }
        }
    }
    plan.win_count = windows;
}
// The permute plan of 16- and 32-bit rows (LerpPlan); none where a block of
// eight values spans more than kMaxPermuteLoads loads.
void planLerpPermutes(LerpPlan& plan, int src_elems) {
    const int blocks = plan.n / 8;
    if (blocks == 0) return;
    // Lowest and highest sample of block b.
    auto span = [&](int b, int& lo, int& hi) { valueSpan(plan, 8 * b, 8, lo, hi); };
    int loads = 1;
    for (int b = 0; b < blocks; ++b) {
        int lo, hi;
        span(b, lo, hi);
        loads = std::max(loads, (hi - lo) / 8 + 1);
    }
    if (loads > kMaxPermuteLoads || src_elems < 8 * loads) return;
    plan.perm_base.resize(size_t(blocks));
    plan.perm_left.resize(size_t(blocks) * 8);
    plan.perm_right.resize(size_t(blocks) * 8);
    for (int b = 0; b < blocks; ++b) {
        int lo, hi;
        span(b, lo, hi);
        const int base = std::min(lo, src_elems - 8 * loads);
        plan.perm_base[size_t(b)] = base;
        for (int e = 8 * b; e < 8 * b + 8; ++e) {
            plan.perm_left[size_t(e)] = permuteIndex(plan.left[size_t(e)] - base);
            plan.perm_right[size_t(e)] = permuteIndex(plan.right[size_t(e)] - base);
        }
    }
    plan.perm_loads = loads;
    plan.perm_blocks = blocks;
}
}  // namespace

void buildLerpPlan(LerpPlan& plan, const int32_t* xs, int units, int src_units, int channels, int n, int src_elems,
                   bool bytes8) {
    plan.n = n;
    plan.left.resize(size_t(n));
    plan.right.resize(size_t(n));
    plan.fx.resize(size_t(n));
    bool gather_only = true;
    for (int e = 0; e < n; ++e) {
        const int unit = std::min(e / channels, units - 1);
        const int32_t p = xs[unit];
        const int c = e - unit * channels;
        const int sx = std::min(p >> kBilinearShift, src_units - 1);
        const int l = std::min(sx * channels + c, src_elems - 1);
        const int r = sx < src_units - 1 ? std::min((sx + 1) * channels + c, src_elems - 1) : l;
        plan.left[size_t(e)] = l;
        plan.right[size_t(e)] = r;
        plan.fx[size_t(e)] = uint16_t(p & 0xFFFF);
        if (plan.fx[size_t(e)] != 0 && r != l) gather_only = false;
    }
    plan.gather_only = gather_only;
    plan.wide = 0;
    while (plan.wide < plan.n && std::max(plan.left[size_t(plan.wide)], plan.right[size_t(plan.wide)]) < src_elems - 1)
        ++plan.wide;
    plan.chunks = 0;
    plan.base.clear();
    plan.start.clear();
    plan.mask.clear();
    plan.gather.n = 0;
    plan.unit_values = 0;
    plan.half_channels = 0;
    plan.win_count = 0;
    plan.perm_loads = plan.perm_blocks = 0;
    if (!bytes8) {
        planLerpPermutes(plan, src_elems);
        return;
    }
    bool half = channels <= 4 && n == units * channels;
    for (int e = 0; e < n && half; ++e)
        half = plan.left[size_t(e)] == 2 * (e / channels) * channels + e % channels &&
               plan.right[size_t(e)] == plan.left[size_t(e)] + channels && plan.fx[size_t(e)] == 32768;
    if (half) plan.half_channels = channels;
    if (gather_only) {
        plan.gather.n = plan.n;
        plan.gather.index = plan.left;
        planGatherBlocks(plan.gather, src_elems);
        return;
    }
    if (!half) planLerpWindows(plan, src_elems);
    const int count = plan.n;
    if (count < 16) return;
    const int blocks = (count + 15) / 16;
    int chunks = 1;
    auto span = [&](int e0, int& lo, int& hi) { valueSpan(plan, e0, 16, lo, hi); };
    for (int b = 0; b < blocks; ++b) {
        int lo, hi;
        span(std::min(16 * b, count - 16), lo, hi);
        chunks = std::max(chunks, (hi - lo) / 16 + 1);
    }
    // Measured on full-HD rows: pixels of 3 and 4 bytes go faster through
    // one load per unit than through blocks of 3 or more loads; 1- and
    // 2-byte pixels keep the blocks up to their limit.
    const bool too_wide = chunks > kMaxLerpChunks || src_elems < 16 * chunks;
    if (too_wide || (channels >= 3 && chunks >= 3)) {
        planLerpUnits(plan, channels, src_elems);
        if (plan.unit_values || too_wide) return;
    }
    plan.base.resize(size_t(blocks));
    plan.start.resize(size_t(blocks));
    // Per block and chunk: 32 selectors for the left samples, then 32 for the
    // right ones. Word j of the 16 lands in byte 2j (lane j / 8), its high
    // byte stays zero; the chunk is broadcast to both lanes.
    plan.mask.assign(size_t(blocks) * size_t(chunks) * 64, 0x80);
    for (int b = 0; b < blocks; ++b) {
        const int e0 = std::min(16 * b, count - 16);
        int lo, hi;
        span(e0, lo, hi);
        const int base = std::min(lo, src_elems - 16 * chunks);
        plan.base[size_t(b)] = base;
        plan.start[size_t(b)] = e0;
        uint8_t* m = plan.mask.data() + size_t(b) * size_t(chunks) * 64;
        for (int j = 0; j < 16; ++j) {
            const int rl = plan.left[size_t(e0 + j)] - base;
            const int rr = plan.right[size_t(e0 + j)] - base;
            m[(rl / 16) * 64 + 2 * j] = uint8_t(rl % 16);
            m[(rr / 16) * 64 + 32 + 2 * j] = uint8_t(rr % 16);
        }
    }
    plan.chunks = chunks;
}

namespace {
// A 16- or 32-bit sample widened for the 64-bit products (caller rows may
// sit at any byte address: see kv_impl_unaligned.h).
template <typename T>
inline uint64_t load(const T* p, int i) {
    return loadSample(p, i);
}

template <typename T>
void lerpElems(const LerpPlan& plan, const T* src, T* dst, int from) {
    const int32_t* left = plan.left.data();
    const int32_t* right = plan.right.data();
    const uint16_t* fx = plan.fx.data();
    for (int e = from; e < plan.n; ++e) {
        const uint64_t f = fx[e];
        storeSample(dst, e, (load(src, left[e]) * (65536 - f) + load(src, right[e]) * f) >> kBilinearShift);
    }
}
}  // namespace

namespace ref {

namespace {
template <typename T>
void lerpRow(const LerpPlan& plan, const T* src, T* dst) {
    lerpElems(plan, src, dst, 0);
}

template <typename T>
void blendRow(const T* a, const T* b, T* dst, int n, uint32_t fy) {
    const uint64_t w1 = fy, w0 = 65536 - w1;
    for (int i = 0; i < n; ++i) storeSample(dst, i, (load(a, i) * w0 + load(b, i) * w1) >> kBilinearShift);
}
}  // namespace

void lerpRow8(const LerpPlan& plan, const uint8_t* src, uint8_t* dst) {
    const int32_t* left = plan.left.data();
    const int32_t* right = plan.right.data();
    const uint16_t* fx = plan.fx.data();
    for (int e = 0; e < plan.n; ++e) {
        const uint32_t f = fx[e];
        dst[e] = uint8_t((uint32_t(src[left[e]]) * (65536 - f) + uint32_t(src[right[e]]) * f) >> kBilinearShift);
    }
}
void lerpRow16(const LerpPlan& plan, const uint16_t* src, uint16_t* dst) { lerpRow(plan, src, dst); }
void lerpRow32(const LerpPlan& plan, const uint32_t* src, uint32_t* dst) { lerpRow(plan, src, dst); }

void blendRow8(const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy) {
    const uint32_t w1 = fy, w0 = 65536 - w1;
    for (int i = 0; i < n; ++i) dst[i] = uint8_t((a[i] * w0 + b[i] * w1) >> kBilinearShift);
}
void blendRow16(const uint16_t* a, const uint16_t* b, uint16_t* dst, int n, uint32_t fy) {
    blendRow(a, b, dst, n, fy);
}
void blendRow32(const uint32_t* a, const uint32_t* b, uint32_t* dst, int n, uint32_t fy) {
    blendRow(a, b, dst, n, fy);
}

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {

namespace {

// a + floor((b - a) * f / 65536) on 16 words; f holds the fraction as int16.
inline __m256i lerpWords(__m256i a, __m256i b, __m256i f) {
    const __m256i d = _mm256_sub_epi16(b, a);
    const __m256i t = _mm256_add_epi16(_mm256_mulhi_epi16(d, f), _mm256_and_si256(d, _mm256_srai_epi16(f, 15)));
    return _mm256_add_epi16(a, t);
}

template <int K>
void lerpBlocks(const LerpPlan& plan, const uint8_t* src, uint8_t* dst) {
    const size_t blocks = plan.base.size();
    const int32_t* base = plan.base.data();
    const int32_t* start = plan.start.data();
    const __m256i* m = reinterpret_cast<const __m256i*>(plan.mask.data());
    const int16_t* fx = reinterpret_cast<const int16_t*>(plan.fx.data());
    for (size_t b = 0; b < blocks; ++b) {
        const uint8_t* s = src + base[b];
        __m256i c = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
        __m256i l = _mm256_shuffle_epi8(c, _mm256_loadu_si256(m));
        __m256i r = _mm256_shuffle_epi8(c, _mm256_loadu_si256(m + 1));
        m += 2;
        for (int k = 1; k < K; ++k, m += 2) {
            c = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * k)));
            l = _mm256_or_si256(l, _mm256_shuffle_epi8(c, _mm256_loadu_si256(m)));
            r = _mm256_or_si256(r, _mm256_shuffle_epi8(c, _mm256_loadu_si256(m + 1)));
        }
        const __m256i f = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(fx + start[b]));
        const __m256i h = lerpWords(l, r, f);
        // Words 0..7 sit in lane 0 and 8..15 in lane 1: pack, then join the lanes' low halves.
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(h, h), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + start[b]), _mm256_castsi256_si128(packed));
    }
}

template <bool kHigh>
inline __m256i blendBytes(__m256i a, __m256i b, __m256i f) {
    // Even and odd bytes as words, without shuffles: masks and shifts only.
    const __m256i low = _mm256_set1_epi16(0x00FF);
    const __m256i ae = _mm256_and_si256(a, low), ao = _mm256_srli_epi16(a, 8);
    const __m256i de = _mm256_sub_epi16(_mm256_and_si256(b, low), ae);
    const __m256i dodd = _mm256_sub_epi16(_mm256_srli_epi16(b, 8), ao);
    __m256i re = _mm256_add_epi16(ae, _mm256_mulhi_epi16(de, f));
    __m256i ro = _mm256_add_epi16(ao, _mm256_mulhi_epi16(dodd, f));
    if (kHigh) {
        re = _mm256_add_epi16(re, de);
        ro = _mm256_add_epi16(ro, dodd);
    }
    return _mm256_or_si256(re, _mm256_slli_epi16(ro, 8));
}

template <bool kHigh>
void blendBytesRow(const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy) {
    const __m256i f = _mm256_set1_epi16(int16_t(uint16_t(fy)));
    auto step = [&](int i) {
        const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i));
        const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), blendBytes<kHigh>(va, vb, f));
    };
    int i = 0;
    for (; i + 64 <= n; i += 64) {
        step(i);
        step(i + 32);
    }
    for (; i + 32 <= n; i += 32) step(i);
    if (i < n) step(n - 32);  // the last 32 bytes again, overlapping
}

// The 16-bit blend in 32-bit lanes. d * fy needs 33 bits, so fy = 256 fh + fl
// and floor(d * fy / 65536) = floor((d * fh + floor(d * fl / 256)) / 256).
inline __m256i blendWords32(__m256i a, __m256i b, __m256i fh, __m256i fl) {
    const __m256i d = _mm256_sub_epi32(b, a);
    const __m256i t = _mm256_add_epi32(_mm256_mullo_epi32(d, fh), _mm256_srai_epi32(_mm256_mullo_epi32(d, fl), 8));
    return _mm256_add_epi32(a, _mm256_srai_epi32(t, 8));
}

// (a * w0 + b * w1) >> 16 on eight unsigned 32-bit lanes with 64-bit products.
inline __m256i blendDwords(__m256i a, __m256i b, __m256i w0, __m256i w1) {
    const __m256i even = _mm256_srli_epi64(
        _mm256_add_epi64(_mm256_mul_epu32(a, w0), _mm256_mul_epu32(b, w1)), kBilinearShift);
    const __m256i odd = _mm256_srli_epi64(_mm256_add_epi64(_mm256_mul_epu32(_mm256_srli_epi64(a, 32), w0),
                                                           _mm256_mul_epu32(_mm256_srli_epi64(b, 32), w1)),
                                          kBilinearShift);
    return _mm256_blend_epi32(even, _mm256_slli_epi64(odd, 32), 0xAA);
}

}  // namespace

void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst);

// Steep reductions: four units per block, each from one 8-byte load that
// holds its left and right pixels; the bytes go to words (left and right of
// units 2h, 2h + 1 in lane h) and lerpWords blends them with the fractions.
template <int C>
void lerpUnits(const LerpPlan& plan, const uint8_t* src, uint8_t* dst) {
    struct Masks {
        int8_t left[32], right[32];
        constexpr Masks() : left(), right() {
            for (int lane = 0; lane < 2; ++lane)
                for (int j = 0; j < 8; ++j) {
                    const bool used = j < 2 * C;
                    const int unit = j < C ? 0 : 8, c = j < C ? j : j - C;
                    left[16 * lane + 2 * j] = int8_t(used ? unit + c : -128);
                    right[16 * lane + 2 * j] = int8_t(used ? unit + C + c : -128);
                    left[16 * lane + 2 * j + 1] = right[16 * lane + 2 * j + 1] = -128;
                }
        }
    };
    static constexpr Masks kMasks{};
    const __m256i ml = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kMasks.left));
    const __m256i mr = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kMasks.right));
    const int32_t* left = plan.left.data();
    const __m256i* fx = reinterpret_cast<const __m256i*>(plan.unit_fx.data());
    auto q = [&](int unit) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + left[unit * C])); };
    for (int u = 0; u * C < plan.unit_values; u += 4, ++fx) {
        const __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_unpacklo_epi64(q(u), q(u + 1))),
                                                  _mm_unpacklo_epi64(q(u + 2), q(u + 3)), 1);
        const __m256i h = lerpWords(_mm256_shuffle_epi8(v, ml), _mm256_shuffle_epi8(v, mr), _mm256_loadu_si256(fx));
        const __m256i b = _mm256_packus_epi16(h, h);  // lane h: the 2C values of units 2h, 2h + 1
        uint8_t* d = dst + u * C;
        if (C == 4) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(_mm256_permute4x64_epi64(b, 0x08)));
        } else if (C == 3) {
            // 6 + 6 bytes; the second store's 2 extra bytes lie inside the row (see planLerpUnits).
            _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(b));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 6), _mm256_extracti128_si256(b, 1));
        } else {
            const __m128i j = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0)));
            if (C == 2) {
                _mm_storel_epi64(reinterpret_cast<__m128i*>(d), j);
            } else {
                const uint32_t pair = uint32_t(_mm_cvtsi128_si32(j)) & 0xFFFF;
                const uint32_t pair2 = uint32_t(_mm_extract_epi32(j, 1)) & 0xFFFF;
                const uint32_t four = pair | (pair2 << 16);
                std::memcpy(d, &four, 4);
            }
        }
    }
    lerpElems(plan, src, dst, plan.unit_values);
}

// Exact halving: (a * 32768 + b * 32768) >> 16 = (a + b) >> 1 for each
// value's pixel pair. Bytes of a lane are arranged so that each pair's two
// samples sit side by side, summed by one multiply-add with ones into words.
// C = 1, 2, 4: 16 source bytes give 8 values per lane; C = 3: 12 give 6.
template <int C>
void halfRow(const LerpPlan& plan, const uint8_t* src, uint8_t* dst, int src_elems) {
    static constexpr PixelPairOrder<C> kOrder{};
    const __m256i order = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kOrder.b));
    const __m256i ones = _mm256_set1_epi8(1);
    const int n = plan.n;
    int e = 0;
    if (C == 3) {
        // 12 values per step from 24 source bytes; the second 8-byte store
        // reaches 2 bytes past them, which the next step (or the tail) rewrites.
        for (; e + 14 <= n && 2 * e + 28 <= src_elems; e += 12) {
            const uint8_t* s = src + 2 * e;
            const __m256i v = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 12)), 1);
            const __m256i h = _mm256_srli_epi16(_mm256_maddubs_epi16(_mm256_shuffle_epi8(v, order), ones), 1);
            const __m256i b = _mm256_packus_epi16(h, h);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + e), _mm256_castsi256_si128(b));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + e + 6), _mm256_extracti128_si256(b, 1));
        }
    } else {
        // 32 values per step from 64 source bytes.
        for (; e + 32 <= n; e += 32) {
            const uint8_t* s = src + 2 * e;
            auto sums = [&](const uint8_t* p) {
                __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
                if (C > 1) v = _mm256_shuffle_epi8(v, order);
                return _mm256_srli_epi16(_mm256_maddubs_epi16(v, ones), 1);
            };
            const __m256i b = _mm256_permute4x64_epi64(_mm256_packus_epi16(sums(s), sums(s + 32)), 0xD8);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + e), b);
        }
    }
    lerpElems(plan, src, dst, e);
}

void lerpRow8(const LerpPlan& plan, const uint8_t* src, uint8_t* dst) {
    if (dispatchCount<4>(plan.half_channels, [&](auto c) { halfRow<c()>(plan, src, dst, 2 * plan.n); })) return;
    if (plan.gather_only && (plan.gather.chunks || plan.gather.gather_units)) {
        avx2::gatherRow(plan.gather, src, dst);
        return;
    }
    if (!plan.chunks && plan.unit_values &&
        dispatchCount<4>(plan.unit_channels, [&](auto c) { lerpUnits<c()>(plan, src, dst); }))
        return;
    if (!dispatchCount<kMaxLerpChunks>(plan.chunks, [&](auto k) { lerpBlocks<k()>(plan, src, dst); }))
        ref::lerpRow8(plan, src, dst);
}

// Stores eight 16-bit (l * (65536 - f) + r * f) >> 16 from 32-bit lanes; both
// products and their sum stay below 2^32, so unsigned lanes suffice.
inline void storeLerp16(uint16_t* dst, __m256i l, __m256i r, __m256i f) {
    const __m256i sum =
        _mm256_add_epi32(_mm256_mullo_epi32(l, _mm256_sub_epi32(_mm256_set1_epi32(65536), f)), _mm256_mullo_epi32(r, f));
    const __m256i v = _mm256_srli_epi32(sum, kBilinearShift);
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi32(v, v), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm256_castsi256_si128(packed));
}

// Eight 16-bit values per block of the permute plan: K loads of eight samples
// widened to 32-bit lanes, the left and right samples picked from them.
// Returns the values done.
template <int K>
int permuteLerp16(const LerpPlan& plan, const uint16_t* src, uint16_t* dst) {
    for (int b = 0; b < plan.perm_blocks; ++b) {
        const uint16_t* s = src + plan.perm_base[size_t(b)];
        __m256i c[K];
        for (int j = 0; j < K; ++j)
            c[j] = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 8 * j)));
        const int e = 8 * b;
        const __m256i l = permuteLoads<K>(c, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&plan.perm_left[size_t(e)])));
        const __m256i r = permuteLoads<K>(c, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&plan.perm_right[size_t(e)])));
        storeLerp16(dst + e, l, r, _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(plan.fx.data() + e))));
    }
    return 8 * plan.perm_blocks;
}

void lerpRow16(const LerpPlan& plan, const uint16_t* src, uint16_t* dst) {
    int done = 0;
    if (dispatchCount<kMaxPermuteLoads>(plan.perm_loads, [&](auto k) { done = permuteLerp16<k()>(plan, src, dst); })) {
        lerpElems(plan, src, dst, done);
        return;
    }
    // Eight elements per step through 32-bit gathers. A gather also reads the
    // sample after its index, so the leading `wide` elements (whose indices
    // leave room for that) run here and the rest in the scalar tail.
    const int limit = plan.wide;
    const int32_t* left = plan.left.data();
    const int32_t* right = plan.right.data();
    int e = 0;
    const int* base = reinterpret_cast<const int*>(src);
    for (; e + 8 <= limit; e += 8) {
        const __m256i il = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(left + e));
        const __m256i ir = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(right + e));
        const __m256i mask = _mm256_set1_epi32(0xFFFF);
        const __m256i l = _mm256_and_si256(_mm256_i32gather_epi32(base, il, 2), mask);
        const __m256i r = _mm256_and_si256(_mm256_i32gather_epi32(base, ir, 2), mask);
        storeLerp16(dst + e, l, r, _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(plan.fx.data() + e))));
    }
    lerpElems(plan, src, dst, e);
}

// (l * (65536 - f) + r * f) >> 16 on eight unsigned 32-bit lanes, with
// 64-bit products of the even and the odd lanes.
inline __m256i lerpDwords(__m256i l, __m256i r, __m256i f) {
    const __m256i w0 = _mm256_sub_epi32(_mm256_set1_epi32(65536), f);
    // mul_epu32 reads the even lanes; the odd weights move down for the odd half.
    const __m256i even =
        _mm256_srli_epi64(_mm256_add_epi64(_mm256_mul_epu32(l, w0), _mm256_mul_epu32(r, f)), kBilinearShift);
    const __m256i odd = _mm256_srli_epi64(
        _mm256_add_epi64(_mm256_mul_epu32(_mm256_srli_epi64(l, 32), _mm256_srli_epi64(w0, 32)),
                         _mm256_mul_epu32(_mm256_srli_epi64(r, 32), _mm256_srli_epi64(f, 32))),
        kBilinearShift);
    return _mm256_blend_epi32(even, _mm256_slli_epi64(odd, 32), 0xAA);
}

// lerpRow16's permute blocks for 32-bit samples.
template <int K>
int permuteLerp32(const LerpPlan& plan, const uint32_t* src, uint32_t* dst) {
    for (int b = 0; b < plan.perm_blocks; ++b) {
        const uint32_t* s = src + plan.perm_base[size_t(b)];
        __m256i c[K];
        for (int j = 0; j < K; ++j) c[j] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 8 * j));
        const int e = 8 * b;
        const __m256i l = permuteLoads<K>(c, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&plan.perm_left[size_t(e)])));
        const __m256i r = permuteLoads<K>(c, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&plan.perm_right[size_t(e)])));
        const __m256i f = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(plan.fx.data() + e)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + e), lerpDwords(l, r, f));
    }
    return 8 * plan.perm_blocks;
}

void lerpRow32(const LerpPlan& plan, const uint32_t* src, uint32_t* dst) {
    const int n = plan.n;
    const int32_t* left = plan.left.data();
    const int32_t* right = plan.right.data();
    const int* base = reinterpret_cast<const int*>(src);
    int e = 0;
    if (!dispatchCount<kMaxPermuteLoads>(plan.perm_loads, [&](auto k) { e = permuteLerp32<k()>(plan, src, dst); }))
        for (; e + 8 <= n; e += 8) {
            const __m256i l =
                _mm256_i32gather_epi32(base, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(left + e)), 4);
            const __m256i r =
                _mm256_i32gather_epi32(base, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(right + e)), 4);
            const __m256i f =
                _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(plan.fx.data() + e)));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + e), lerpDwords(l, r, f));
        }
    lerpElems(plan, src, dst, e);
}

void blendRow8(const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy) {
    if (n < 32) {
        ref::blendRow8(a, b, dst, n, fy);
        return;
    }
    if (fy >= 32768)
        blendBytesRow<true>(a, b, dst, n, fy);
    else
        blendBytesRow<false>(a, b, dst, n, fy);
}

void blendRow16(const uint16_t* a, const uint16_t* b, uint16_t* dst, int n, uint32_t fy) {
    if (n < 8) {
        ref::blendRow16(a, b, dst, n, fy);
        return;
    }
    const __m256i fh = _mm256_set1_epi32(int(fy >> 8)), fl = _mm256_set1_epi32(int(fy & 255));
    auto step = [&](int i) {
        const __m256i va = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i)));
        const __m256i vb = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i)));
        const __m256i v = blendWords32(va, vb, fh, fl);
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi32(v, v), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm256_castsi256_si128(packed));
    };
    int i = 0;
    for (; i + 8 <= n; i += 8) step(i);
    if (i < n) step(n - 8);
}

void blendRow32(const uint32_t* a, const uint32_t* b, uint32_t* dst, int n, uint32_t fy) {
    if (n < 8) {
        ref::blendRow32(a, b, dst, n, fy);
        return;
    }
    const __m256i w1 = _mm256_set1_epi64x(fy), w0 = _mm256_set1_epi64x(65536 - int64_t(fy));
    auto step = [&](int i) {
        const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i));
        const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), blendDwords(va, vb, w0, w1));
    };
    int i = 0;
    for (; i + 8 <= n; i += 8) step(i);
    if (i < n) step(n - 8);
}

}  // namespace avx2
#pragma GCC pop_options

KV_AVX512_BEGIN
namespace avx512 {

namespace {
// 32 values per block: W byte permutes (one per 64-byte window, each merging
// the bytes its mask names) give words of (left, right) samples, blended as
// l + floor((r - l) * f / 65536) in 16-bit lanes (see lerpWords).
template <int W>
void lerpWindows(const LerpPlan& plan, const uint8_t* src, uint8_t* dst) {
    const size_t blocks = plan.win_base.size();
    const int32_t* base = plan.win_base.data();
    const int32_t* start = plan.win_start.data();
    const uint8_t* index = plan.win_index.data();
    const uint64_t* mask = plan.win_mask.data();
    const int16_t* fx = reinterpret_cast<const int16_t*>(plan.fx.data());
    const __m512i low = _mm512_set1_epi16(0x00FF);
    for (size_t b = 0; b < blocks; ++b, index += 64, mask += W) {
        const uint8_t* s = src + base[b];
        const __m512i idx = _mm512_load_si512(index);
        __m512i v = _mm512_maskz_permutexvar_epi8(mask[0], idx, _mm512_loadu_si512(s));
        for (int w = 1; w < W; ++w) v = _mm512_mask_permutexvar_epi8(v, mask[w], idx, _mm512_loadu_si512(s + 64 * w));
        const __m512i l = _mm512_and_si512(v, low);
        const __m512i d = _mm512_sub_epi16(_mm512_srli_epi16(v, 8), l);
        const __m512i f = _mm512_loadu_si512(fx + start[b]);
        const __m512i t = _mm512_add_epi16(_mm512_mulhi_epi16(d, f), _mm512_and_si512(d, _mm512_srai_epi16(f, 15)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + start[b]), _mm512_cvtepi16_epi8(_mm512_add_epi16(l, t)));
    }
}
}  // namespace

void lerpRow8(const LerpPlan& plan, const uint8_t* src, uint8_t* dst) {
    if (!dispatchCount<kMaxLerpWindows>(plan.win_count, [&](auto w) { lerpWindows<w()>(plan, src, dst); }))
        avx2::lerpRow8(plan, src, dst);
}

}  // namespace avx512
KV_AVX512_END

const ScaleRowKernels& scaleRowKernels() {
    static const ScaleRowKernels kRef{ref::gatherRow,  ref::lerpRow8,   ref::lerpRow16, ref::lerpRow32,
                                      ref::blendRow8,  ref::blendRow16, ref::blendRow32};
    static const ScaleRowKernels kAvx2{avx2::gatherRow, avx2::lerpRow8,   avx2::lerpRow16, avx2::lerpRow32,
                                       avx2::blendRow8, avx2::blendRow16, avx2::blendRow32};
    static const ScaleRowKernels kAvx512{avx512::gatherRow, avx512::lerpRow8, avx2::lerpRow16, avx2::lerpRow32,
                                         avx2::blendRow8, avx2::blendRow16, avx2::blendRow32};
    const Isa isa = activeIsa();
    return isa >= Isa::kAvx512 ? kAvx512 : isa >= Isa::kAvx2 ? kAvx2 : kRef;
}

}  // namespace impl

// ---------------------------------------------------------------------------
// The scalers.

namespace {

constexpr int SHIFT = impl::kBilinearShift;

// side << SHIFT in the position tables' 32-bit wrapping arithmetic. A side of
// 32768 or more wraps here as it does in the tables (and fails the checks in
// _reuse) instead of overflowing a signed shift.
int32_t fixedSide(int side) { return int32_t(uint32_t(side) << SHIFT); }

// How a format is interpolated: sample width of plane 0, samples per unit of
// each plane, and whether planes 1 and 2 are separate (planar or semi-planar).
struct BilinearFormat {
    int planes = 0;  // 0: unsupported
    int bytes = 1;
    int channels[3] = {0, 0, 0};
};

BilinearFormat bilinearFormat(FrameFormat f) {
    switch (f) {
        case FRAME_GRAY_8: return {1, 1, {1}};
        case FRAME_RGB_8:
        case FRAME_BGR_8:
        case FRAME_YUYV:
        case FRAME_YUV444:
        case FRAME_C3_8: return {1, 1, {3}};
        case FRAME_UYVY:
        case FRAME_C4_8: return {1, 1, {4}};
        case FRAME_C2_8: return {1, 1, {2}};
        case FRAME_GRAY_16: return {1, 2, {1}};
        case FRAME_GRAY_FLOAT_32: return {1, 4, {1}};
        case FRAME_RGB_8_PLANAR:
        case FRAME_BGR_8_PLANAR:
        case FRAME_I420:
        case FRAME_YV12:
        case FRAME_YV16:
        case FRAME_YUV444_PLANAR: return {3, 1, {1, 1, 1}};
        case FRAME_NV12:
        case FRAME_NV21:
        case FRAME_NV16: return {2, 1, {1, 2}};
        default: return {};
    }
}

// One plane's horizontal plan and the two horizontally scaled rows kept for
// the vertical blend (keyed by plane row, so an enlargement scales each
// source row once).
struct PlaneState {
    int bytes = 1;        // sample bytes
    int elems = 0;        // output samples per row
    int mask = 0;         // vertical subsampling mask of the source plane
    impl::LerpPlan plan;
    int key[2] = {-1, -1};
    std::vector<uint8_t> cache[2];
};

// What X, Y and XY share: layouts, the window, kernels and per-plane state.
struct BilinearCore {
    FrameLayout src_layout;
    FrameLayout out_layout;
    RowWindow window;
    BilinearFormat format;
    PlaneState planes[3];
    const impl::ScaleRowKernels* kernels = nullptr;
    FrameFormat plan_format = FRAME_UNDEFINED;
    Size plan_src, plan_dst;

    // Rebuilds the per-plane plans when format or sizes changed (`xs` null:
    // vertical only); forgets cached rows in every case.
    void preparePlanes(const std::vector<int32_t>* xs) {
        const Size dst = out_layout.size;
        if (plan_format != src_layout.format || plan_src != src_layout.size || plan_dst != dst) {
            format = bilinearFormat(src_layout.format);
            for (int p = 0; p < format.planes; ++p) {
                PlaneState& ps = planes[p];
                const FramePlane& sp = src_layout.plane[p];
                const FramePlane& dp = out_layout.plane[p];
                ps.bytes = p == 0 ? format.bytes : 1;
                ps.elems = int(dp.row_bytes) / ps.bytes;
                ps.mask = subsamplingMask(src_layout.size.height, sp.size.height);
                if (xs) {
                    impl::buildLerpPlan(ps.plan, xs->data(), dp.size.width, sp.size.width, format.channels[p],
                                        ps.elems, int(sp.row_bytes) / ps.bytes, ps.bytes == 1);
                    ps.elems = ps.plan.n;
                    for (auto& c : ps.cache) c.resize(size_t(ps.elems) * size_t(ps.bytes));
                }
            }
            plan_format = src_layout.format;
            plan_src = src_layout.size;
            plan_dst = dst;
        }
        for (auto& ps : planes) ps.key[0] = ps.key[1] = -1;
        kernels = &impl::scaleRowKernels();
    }

    int windowSizeFor() const {
        return out_layout.planes > 1 && out_layout.plane[1].size.height != out_layout.plane[0].size.height ? 4 : 2;
    }

    void advanceTo(int target) {
        while (window.startRow() < target && window.next()) {
        }
    }

    void lerp(const PlaneState& ps, const uint8_t* src, uint8_t* dst) const {
        switch (ps.bytes) {
            case 1: kernels->lerpRow8(ps.plan, src, dst); break;
            case 2:
                kernels->lerpRow16(ps.plan, reinterpret_cast<const uint16_t*>(src), reinterpret_cast<uint16_t*>(dst));
                break;
            default:
                kernels->lerpRow32(ps.plan, reinterpret_cast<const uint32_t*>(src), reinterpret_cast<uint32_t*>(dst));
                break;
        }
    }

    void blend(int bytes, const uint8_t* a, const uint8_t* b, uint8_t* dst, int n, uint32_t fy) const {
        if (fy == 0 || a == b) {
            std::memcpy(dst, a, size_t(n) * size_t(bytes));
            return;
        }
        switch (bytes) {
            case 1: kernels->blendRow8(a, b, dst, n, fy); break;
            case 2:
                kernels->blendRow16(reinterpret_cast<const uint16_t*>(a), reinterpret_cast<const uint16_t*>(b),
                                    reinterpret_cast<uint16_t*>(dst), n, fy);
                break;
            default:
                kernels->blendRow32(reinterpret_cast<const uint32_t*>(a), reinterpret_cast<const uint32_t*>(b),
                                    reinterpret_cast<uint32_t*>(dst), n, fy);
                break;
        }
    }

    // The horizontally scaled source row with frame row `frame_row`, from the
    // cache or computed into the slot that `keep` does not hold.
    const uint8_t* scaledRow(PlaneState& ps, int frame_row, const uint8_t* src, int keep) const {
        const int key = frame_row / (ps.mask + 1);
        for (int s = 0; s < 2; ++s)
            if (ps.key[s] == key) return ps.cache[s].data();
        const int slot = keep >= 0 ? 1 - keep : (ps.key[0] <= ps.key[1] ? 0 : 1);
        ps.key[slot] = key;
        lerp(ps, src, ps.cache[slot].data());
        return ps.cache[slot].data();
    }
    int slotOf(const PlaneState& ps, int frame_row) const {
        const int key = frame_row / (ps.mask + 1);
        return ps.key[0] == key ? 0 : (ps.key[1] == key ? 1 : -1);
    }

    // The window rows that output plane p blends: rows r and r + 1 for plane
    // 0, r and r + 2 for planes 1 and 2; the upper row again past the window.
    int lowerRow(int p, int window_row) const {
        const int ws = window.windowSize();
        if (p == 0) return window_row + 1 < ws ? window_row + 1 : window_row;
        return window_row < ws - 2 ? window_row + 2 : window_row;
    }
};

}  // namespace

// ---- ScalerBilinearX --------------------------------------------------------

class ScalerBilinearX::Impl {
public:
    void _reuse(const FrameLayout& src_layout, int dst_width);
    template <typename Source>
    void attach(Source& src) {
        core.window.reuse(src, 1);
    }
    void produce(RowData& dst);
    bool next() {
        RowWindow& w = core.window;
        if (w.startRow() + w.windowSize() < core.src_layout.size.height) {
            w.next();
            return true;
        }
        return false;
    }

    BilinearCore core;
    std::vector<int32_t> _src_xs;
    Size cached_src;  // source size and output width of _src_xs
    int cached_dst = 0;
};

void ScalerBilinearX::Impl::_reuse(const FrameLayout& src_layout, int dst_width) {
    const Size src_size = src_layout.size;
    if (cached_src.width != src_size.width || cached_dst != dst_width) {
        impl::buildBilinearPositions(_src_xs, src_size.width, dst_width);
        KV_ASSERT_TEXT_LINE(_src_xs[dst_width - 1] < fixedSide(src_size.width),
                            "_src_xs[dst_width - 1] < (src_size.width << SHIFT)", "kv::ScalerBilinearX::Impl::_reuse",
                            __LINE__);
        cached_src = src_size;
        cached_dst = dst_width;
    }
    core.src_layout = src_layout;
    core.out_layout = FrameLayout(src_layout.format, Size(dst_width, src_size.height), 64);
    core.preparePlanes(&_src_xs);
}

void ScalerBilinearX::Impl::produce(RowData& dst) {
    const RowData src = core.window.rowData(0);
    if (core.out_layout.plane[0].size.width == core.src_layout.plane[0].size.width) {
        copyRowData(core.out_layout, src, dst);
        return;
    }
    if (core.format.planes == 0)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerBilinearX::Impl::produce",
                 "Failure in ScalerBilinearX::produce(...) : unsupported frame format.");
    for (int p = 0; p < core.format.planes; ++p)
        if (dst.plane[p]) core.lerp(core.planes[p], src.plane[p], dst.plane[p]);
}

ScalerBilinearX::ScalerBilinearX() : _impl(new Impl) {}
ScalerBilinearX::~ScalerBilinearX() = default;

void ScalerBilinearX::reuse(const Frame& src_frame, int dst_width) {
    KV_ASSERT(src_frame.initialized(), "kv::ScalerBilinearX::Impl::reuse");
    KV_ASSERT(0 < dst_width, "kv::ScalerBilinearX::Impl::reuse");
    _impl->_reuse(src_frame.layout(), dst_width);
    _impl->attach(src_frame);
}

void ScalerBilinearX::reuse(IRowProducer& src_producer, int dst_width) {
    KV_ASSERT(!src_producer.layout().size.empty(), "kv::ScalerBilinearX::Impl::reuse");
    KV_ASSERT(0 < dst_width, "kv::ScalerBilinearX::Impl::reuse");
    _impl->_reuse(src_producer.layout(), dst_width);
    _impl->attach(src_producer);
}

bool ScalerBilinearX::initialized() const { return _impl->core.window.initialized(); }
const FrameLayout& ScalerBilinearX::layout() { return _impl->core.out_layout; }
void ScalerBilinearX::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerBilinearX::next() { return _impl->next(); }

// ---- ScalerBilinearY --------------------------------------------------------

// The vertical cursor shared by the Y and XY scalers: a window positioned on
// the source row of each output row's 16.16 table entry.
struct VerticalCursor {
    template <typename Source>
    void attach(Source& src, int window_size) {
        core.window.reuse(src, window_size);
        core.advanceTo(_src_ys[0] >> SHIFT);
    }
    bool next() {
        if (row >= core.out_layout.size.height - 1) return false;
        ++row;
        core.advanceTo(_src_ys[size_t(row)] >> SHIFT);
        return true;
    }

    BilinearCore core;
    std::vector<int32_t> _src_ys;
    int32_t row = 0;
};

class ScalerBilinearY::Impl : public VerticalCursor {
public:
    void _reuse(const FrameLayout& src_layout, int dst_height);
    void produce(RowData& dst);
    int cached_src = 0, cached_dst = 0;
};

void ScalerBilinearY::Impl::_reuse(const FrameLayout& src_layout, int dst_height) {
    if (cached_src != src_layout.size.height || cached_dst != dst_height) {
        impl::buildBilinearPositions(_src_ys, src_layout.size.height, dst_height);
        KV_ASSERT_TEXT_LINE(_src_ys[dst_height - 1] < fixedSide(src_layout.size.height),
                            "_src_ys[dst_height - 1] < (src_layout.size.height << SHIFT)",
                            "kv::ScalerBilinearY::Impl::_reuse", __LINE__);
        cached_src = src_layout.size.height;
        cached_dst = dst_height;
    }
    core.src_layout = src_layout;
    core.out_layout = FrameLayout(src_layout.format, Size(src_layout.size.width, dst_height), 64);
    row = 0;
    core.preparePlanes(nullptr);
}

void ScalerBilinearY::Impl::produce(RowData& dst) {
    const int32_t p = _src_ys[size_t(row)];
    const int window_row = (p >> SHIFT) - core.window.startRow();
    const int window_size = core.window.windowSize();
    KV_ASSERT(0 <= window_row && window_row < window_size, "kv::ScalerBilinearY::Impl::produce");
    if (core.out_layout.size.height == core.src_layout.size.height) {
        const RowData src = core.window.rowData(window_row);
        copyRowData(core.out_layout, src, dst);
        return;
    }
    if (core.format.planes == 0)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerBilinearY::Impl::produce",
                 "Failure in ScalerBilinearY::produce(...) : unsupported frame format.");
    const uint32_t fy = uint32_t(p) & 0xFFFF;
    for (int q = 0; q < core.format.planes; ++q) {
        if (!dst.plane[q]) continue;
        const PlaneState& ps = core.planes[q];
        const uint8_t* upper = core.window.rowData(window_row).plane[q];
        const uint8_t* lower = core.window.rowData(core.lowerRow(q, window_row)).plane[q];
        core.blend(ps.bytes, upper, lower, dst.plane[q], ps.elems, fy);
    }
}

ScalerBilinearY::ScalerBilinearY() : _impl(new Impl) {}
ScalerBilinearY::~ScalerBilinearY() = default;

void ScalerBilinearY::reuse(const Frame& src_frame, int dst_height) {
    KV_ASSERT(!src_frame.size().empty(), "kv::ScalerBilinearY::Impl::reuse");
    KV_ASSERT(0 < dst_height, "kv::ScalerBilinearY::Impl::reuse");
    _impl->_reuse(src_frame.layout(), dst_height);
    _impl->attach(src_frame, std::min(_impl->core.windowSizeFor(), src_frame.size().height));
}

void ScalerBilinearY::reuse(IRowProducer& src_producer, int dst_height) {
    KV_ASSERT(!src_producer.layout().size.empty(), "kv::ScalerBilinearY::Impl::reuse");
    KV_ASSERT(0 < dst_height, "kv::ScalerBilinearY::Impl::reuse");
    _impl->_reuse(src_producer.layout(), dst_height);
    _impl->attach(src_producer, _impl->core.windowSizeFor());
}

bool ScalerBilinearY::initialized() const { return _impl->core.window.initialized(); }
const FrameLayout& ScalerBilinearY::layout() { return _impl->core.out_layout; }
void ScalerBilinearY::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerBilinearY::next() { return _impl->next(); }

// ---- ScalerBilinearXY -------------------------------------------------------

class ScalerBilinearXY::Impl : public VerticalCursor {
public:
    void _reuse(const FrameLayout& src_layout, Size dst_size);
    void produce(RowData& dst);

    std::vector<int32_t> _src_xs;
    Size cached_src, cached_dst;
};

void ScalerBilinearXY::Impl::_reuse(const FrameLayout& src_layout, Size dst_size) {
    const Size src_size = src_layout.size;
    if (cached_src != src_size || cached_dst != dst_size) {
        impl::buildBilinearPositions(_src_xs, src_size.width, dst_size.width);
        impl::buildBilinearPositions(_src_ys, src_size.height, dst_size.height);
        KV_ASSERT_TEXT_LINE(_src_xs[dst_size.width - 1] < fixedSide(src_size.width),
                            "_src_xs[dst_size.width - 1] < (src_size.width << SHIFT)",
                            "kv::ScalerBilinearXY::Impl::_reuse", __LINE__);
        KV_ASSERT_TEXT_LINE(_src_ys[dst_size.height - 1] < fixedSide(src_size.height),
                            "_src_ys[dst_size.height - 1] < (src_size.height << SHIFT)",
                            "kv::ScalerBilinearXY::Impl::_reuse", __LINE__);
        cached_src = src_size;
        cached_dst = dst_size;
    }
    core.src_layout = src_layout;
    core.out_layout = FrameLayout(src_layout.format, dst_size, 64);
    row = 0;
    core.preparePlanes(&_src_xs);
}

void ScalerBilinearXY::Impl::produce(RowData& dst) {
    const int32_t p = _src_ys[size_t(row)];
    RowWindow& w = core.window;
    const int window_row = (p >> SHIFT) - w.startRow();
    const int window_size = w.windowSize();
    KV_ASSERT(0 <= window_row && window_row < window_size, "kv::ScalerBilinearXY::Impl::produce");
    if (core.format.planes == 0)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerBilinearXY::Impl::produce",
                 "Failure in ScalerBilinearXY::produce(...) : unsupported frame format.");
    const uint32_t fy = uint32_t(p) & 0xFFFF;
    for (int q = 0; q < core.format.planes; ++q) {
        if (!dst.plane[q]) continue;
        PlaneState& ps = core.planes[q];
        const int lower_row = core.lowerRow(q, window_row);
        const uint8_t* upper = w.rowData(window_row).plane[q];
        const uint8_t* lower = w.rowData(lower_row).plane[q];
        if (fy == 0 || upper == lower) {
            // The blend would return the upper row unchanged.
            core.lerp(ps, upper, dst.plane[q]);
            continue;
        }
        const int r_upper = w.startRow() + window_row, r_lower = w.startRow() + lower_row;
        const uint8_t* hu = core.scaledRow(ps, r_upper, upper, core.slotOf(ps, r_lower));
        const uint8_t* hl = core.scaledRow(ps, r_lower, lower, core.slotOf(ps, r_upper));
        core.blend(ps.bytes, hu, hl, dst.plane[q], ps.elems, fy);
    }
}

ScalerBilinearXY::ScalerBilinearXY() : _impl(new Impl) {}
ScalerBilinearXY::~ScalerBilinearXY() = default;

void ScalerBilinearXY::reuse(const Frame& src_frame, Size dst_size) {
    KV_ASSERT(src_frame.initialized(), "kv::ScalerBilinearXY::Impl::reuse");
    KV_ASSERT(!dst_size.empty(), "kv::ScalerBilinearXY::Impl::reuse");
    _impl->_reuse(src_frame.layout(), dst_size);
    _impl->attach(src_frame, std::min(_impl->core.windowSizeFor(), src_frame.size().height));
}

void ScalerBilinearXY::reuse(IRowProducer& src_producer, Size dst_size) {
    KV_ASSERT(!src_producer.layout().size.empty(), "kv::ScalerBilinearXY::Impl::reuse");
    KV_ASSERT(!dst_size.empty(), "kv::ScalerBilinearXY::Impl::reuse");
    _impl->_reuse(src_producer.layout(), dst_size);
    _impl->attach(src_producer, _impl->core.windowSizeFor());
}

bool ScalerBilinearXY::initialized() const { return _impl->core.window.initialized(); }
const FrameLayout& ScalerBilinearXY::layout() { return _impl->core.out_layout; }
void ScalerBilinearXY::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerBilinearXY::next() { return _impl->next(); }

}  // namespace kv
