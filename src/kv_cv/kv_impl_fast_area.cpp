// OpenCV's INTER_AREA decimation reproduced (see kv_impl_fast_area.h): the
// tables in OpenCV's double arithmetic, a scalar reference that follows its
// loops, and AVX2 and AVX-512 row kernels with the same float operations in
// the same order per value (vector lanes are values; nothing is fused, so the
// processor's FMA is never used).
#include "kv_cv/kv_impl_fast_area.h"

#include <immintrin.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "kv_cv/kv_impl_block_patterns.h"
#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_impl_unaligned.h"

namespace kv {
namespace impl {

namespace {

// OpenCV's scale factors: inverse of the ratio, in double.
double cvScale(int src, int dst) { return 1. / (double(dst) / double(src)); }

bool nearInteger(double v) { return std::abs(v - double(std::lround(v))) < DBL_EPSILON; }

}  // namespace

bool cvAreaDecimates(int src_width, int src_height, int dst_width, int dst_height) {
    const double sx = cvScale(src_width, dst_width), sy = cvScale(src_height, dst_height);
    return sx >= 1 && sy >= 1 && !(nearInteger(sx) && nearInteger(sy));
}

bool cvAreaFloatPermutes(int src_width, int dst_width, int channels) {
    if (src_width * channels < 32) return false;
    // Values c0 .. c0 + 3 (c0 the first one's channel) lie in `pixels`
    // output pixels, whose cells touch at most ceil(pixels x scale) + 1
    // source pixels; their samples span that less one, in pixels, plus the
    // channel distance of the last value from the first.
    const double scale = cvScale(src_width, dst_width);
    for (int c0 = 0; c0 < channels; ++c0) {
        const int pixels = (c0 + 3) / channels + 1;
        const int channel_distance = (c0 + 3) % channels - c0;
        if (std::ceil(pixels * scale) * channels + channel_distance > 31) return false;
    }
    return true;
}

void buildCvAreaTable(int src_size, int dst_size, std::vector<CvAreaTap>& table) {
    const double scale = cvScale(src_size, dst_size);
    table.clear();
    for (int dx = 0; dx < dst_size; ++dx) {
        const double fsx1 = dx * scale;
        const double fsx2 = fsx1 + scale;
        const double cell = std::min(scale, src_size - fsx1);
        int sx1 = int(std::ceil(fsx1)), sx2 = int(std::floor(fsx2));
        sx2 = std::min(sx2, src_size - 1);
        sx1 = std::min(sx1, sx2);
        if (sx1 - fsx1 > 1e-3) table.push_back({dx, sx1 - 1, float((sx1 - fsx1) / cell)});
        for (int sx = sx1; sx < sx2; ++sx) table.push_back({dx, sx, float(1.0 / cell)});
        if (fsx2 - sx2 > 1e-3) table.push_back({dx, sx2, float(std::min(std::min(fsx2 - sx2, 1.), cell) / cell)});
    }
}

// The window plan of CvAreaRowPlan (float rows of one channel).
void planCvAreaWindows(CvAreaRowPlan& plan, int channels, int src_elements) {
    const int T = plan.taps;
    plan.win_loads = 0;
    if (channels != 1 || T > 16 || plan.blocks == 0) return;
    const int loads = (T + 7) / 8;
    plan.window.assign(size_t(plan.values), 0);
    plan.win_ok.assign(size_t(plan.blocks), 0);
    for (int o = 0; o < plan.values; ++o) {
        bool found = false, consecutive = true;
        int start = 0;
        for (int t = 0; t < T; ++t) {
            const size_t v = size_t(o) * size_t(T) + size_t(t);
            if (plan.alpha[v] == 0.f) continue;
            if (!found) start = plan.element[v] - t, found = true;
            consecutive = consecutive && plan.element[v] == start + t;
        }
        const bool inside = start >= 0 && start + (T <= 4 ? 4 : 8 * loads) <= src_elements;
        plan.window[size_t(o)] = consecutive && inside ? start : -1;
    }
    for (int b = 0; b < plan.blocks; ++b) {
        bool ok = true;
        for (int j = 0; j < 8; ++j) ok = ok && plan.window[size_t(8 * b + j)] >= 0;
        plan.win_ok[size_t(b)] = ok;
    }
    plan.win_loads = loads;
}

// The tables of the wide plan: per block and group of four slots 64 index
// bytes (byte 4j + u: value j's sample for slot 4g + u, relative to
// base_of(block, j)), per block and slot 16 alphas. Blocks with the same
// tables share one pattern, so a row whose ratio recurs keeps them in the
// first-level cache.
template <typename BaseOf>
void fillCvAreaWide(CvAreaRowPlan& plan, int blocks, BaseOf base_of) {
    const int T = plan.taps, G = (T + 3) / 4;
    const size_t index_bytes = size_t(G) * 64, weights = size_t(T) * 16;
    plan.wide_index.assign(size_t(blocks) * index_bytes, 0);
    plan.wide_weight.assign(size_t(blocks) * weights, 0.f);
    plan.wide_pattern.assign(size_t(blocks), 0);
    std::vector<uint64_t>& known = plan.scratch_hash;
    known.clear();
    int patterns = 0;
    for (int b = 0; b < blocks; ++b) {
        uint8_t* idx = &plan.wide_index[size_t(patterns) * index_bytes];
        float* w = &plan.wide_weight[size_t(patterns) * weights];
        std::memset(idx, 0, index_bytes);
        for (int t = 0; t < T; ++t)
            for (int j = 0; j < 16; ++j) {
                const size_t v = size_t(16 * b + j) * size_t(T) + size_t(t);
                if (plan.alpha[v] != 0.f) idx[(t / 4) * 64 + 4 * j + t % 4] = uint8_t(plan.element[v] - base_of(b, j));
                w[size_t(t) * 16 + size_t(j)] = plan.alpha[v];
            }
        const int q = int(findBlockPattern(known, {idx, plan.wide_index.data(), index_bytes},
                                           {w, plan.wide_weight.data(), weights * sizeof(float)}));
        patterns += q == patterns;
        plan.wide_pattern[size_t(b)] = q;
    }
    plan.wide_index.resize(size_t(patterns) * index_bytes);
    plan.wide_weight.resize(size_t(patterns) * weights);
    plan.wide_blocks = blocks;
}

// The wide plan's split form: each eight values of a block within 128 bytes
// of their own base, moved back to keep both loads inside the row.
void planCvAreaSplit(CvAreaRowPlan& plan, int src_elements) {
    const int T = plan.taps, blocks = plan.values / 16;
    if (src_elements < 128) return;
    plan.wide_base.assign(size_t(blocks) * 2, 0);
    for (int b = 0; b < blocks; ++b)
        for (int h = 0; h < 2; ++h) {
            int l = src_elements, u = -1;
            for (size_t v = size_t(16 * b + 8 * h) * size_t(T); v < size_t(16 * b + 8 * h + 8) * size_t(T); ++v)
                if (plan.alpha[v] != 0.f) {
                    l = std::min(l, plan.element[v]);
                    u = std::max(u, plan.element[v]);
                }
            if (u < 0) l = u = 0;
            if (u - l >= 128) return;
            plan.wide_base[size_t(2 * b + h)] = std::min(l, src_elements - 128);
        }
    plan.wide_mask.clear();
    fillCvAreaWide(plan, blocks, [&](int b, int j) { return plan.wide_base[size_t(2 * b + j / 8)]; });
    plan.wide_tables = 3;
}

// The wide plan of CvAreaRowPlan (byte rows at kAvx512).
void planCvAreaWide(CvAreaRowPlan& plan, int src_elements) {
    const int T = plan.taps, blocks = plan.values / 16;
    plan.wide_blocks = plan.wide_tables = 0;
    plan.wide_base.assign(size_t(blocks), 0);
    int tables = 1;
    for (int b = 0; b < blocks; ++b) {
        int l = src_elements, u = -1;
        for (size_t v = size_t(16 * b) * size_t(T); v < size_t(16 * b + 16) * size_t(T); ++v)
            if (plan.alpha[v] != 0.f) {
                l = std::min(l, plan.element[v]);
                u = std::max(u, plan.element[v]);
            }
        if (u < 0) l = u = 0;
        if (u - l >= 128) {
            planCvAreaSplit(plan, src_elements);
            return;
        }
        if (u - l >= 64) tables = 2;
        plan.wide_base[size_t(b)] = l;
    }
    plan.wide_mask.assign(size_t(blocks) * 2, 0);
    for (int b = 0; b < blocks; ++b) {
        const int base = plan.wide_base[size_t(b)];
        for (int h = 0; h < 2; ++h) {
            const int inside = std::max(0, std::min(64, src_elements - base - 64 * h));
            plan.wide_mask[size_t(2 * b + h)] = inside == 64 ? ~uint64_t(0) : (uint64_t(1) << inside) - 1;
        }
    }
    // Blocks before the first whose one (two) windows reach past the row.
    for (int n = 0; n < 2; ++n) {
        int b = 0;
        while (b < blocks && plan.wide_mask[size_t(2 * b)] == ~uint64_t(0) &&
               (n == 0 || plan.wide_mask[size_t(2 * b + 1)] == ~uint64_t(0)))
            ++b;
        plan.wide_full[n] = b;
    }
    fillCvAreaWide(plan, blocks, [&](int b, int) { return plan.wide_base[size_t(b)]; });
    plan.wide_tables = tables;
}

// The float permute plan of CvAreaRowPlan: the fewest groups per block
// whose spans all stay under 32 floats.
void planCvAreaFloat(CvAreaRowPlan& plan, int src_elements) {
    const int T = plan.taps, blocks = plan.values / 16;
    plan.fperm_blocks = plan.fperm_groups = 0;
    if (src_elements < 32 || blocks == 0) return;
    int groups = 1;
    for (; groups <= 4; groups *= 2) {
        const int lanes = 16 / groups;
        plan.fperm_base.assign(size_t(blocks) * size_t(groups), 0);
        bool fits = true;
        for (int b = 0; b < blocks && fits; ++b)
            for (int g = 0; g < groups && fits; ++g) {
                int l = src_elements, u = -1;
                for (size_t v = size_t(16 * b + lanes * g) * size_t(T); v < size_t(16 * b + lanes * (g + 1)) * size_t(T); ++v)
                    if (plan.alpha[v] != 0.f) {
                        l = std::min(l, plan.element[v]);
                        u = std::max(u, plan.element[v]);
                    }
                if (u < 0) l = u = 0;
                fits = u - l < 32;
                plan.fperm_base[size_t(b * groups + g)] = std::min(l, src_elements - 32);
            }
        if (fits) break;
    }
    if (groups > 4) return;
    const int lanes = 16 / groups;
    plan.fperm_used.assign(size_t(blocks) * size_t(T), 0);
    plan.fperm_index.assign(size_t(blocks) * size_t(T) * 16, 0);
    plan.fperm_weight.assign(size_t(blocks) * size_t(T) * 16, 0.f);
    for (int b = 0; b < blocks; ++b)
        for (int t = 0; t < T; ++t)
            for (int j = 0; j < 16; ++j) {
                const size_t v = size_t(16 * b + j) * size_t(T) + size_t(t);
                const size_t at = size_t(b) * size_t(T) + size_t(t);
                if (plan.alpha[v] == 0.f) continue;
                plan.fperm_used[at] = uint16_t(plan.fperm_used[at] | (1u << j));
                plan.fperm_index[at * 16 + size_t(j)] =
                    uint8_t(plan.element[v] - plan.fperm_base[size_t(b * groups + j / lanes)]);
                plan.fperm_weight[at * 16 + size_t(j)] = plan.alpha[v];
            }
    plan.fperm_blocks = blocks;
    plan.fperm_groups = groups;
}

void buildCvAreaRowPlan(CvAreaRowPlan& plan, const std::vector<CvAreaTap>& xtab, int dst_width, int channels,
                        int src_elements) {
    const int C = channels;
    // Scratch: taps per output pixel, then taps filled so far, then lane spans.
    std::vector<int32_t>& scratch = plan.scratch;
    scratch.assign(size_t(dst_width) * 2, 0);
    int32_t* count = scratch.data();
    int32_t* filled = count + dst_width;
    for (const CvAreaTap& t : xtab) ++count[t.dst];
    const int T = *std::max_element(count, count + dst_width);
    plan.values = dst_width * C;
    plan.taps = T;
    plan.element.assign(size_t(plan.values) * size_t(T), 0);
    plan.alpha.assign(size_t(plan.values) * size_t(T), 0.f);
    // Each pixel's taps fill the end of its slots, in table order.
    for (const CvAreaTap& t : xtab) {
        const int slot = T - count[t.dst] + filled[t.dst]++;
        for (int c = 0; c < C; ++c) {
            const size_t at = (size_t(t.dst) * size_t(C) + size_t(c)) * size_t(T) + size_t(slot);
            plan.element[at] = t.src * C + c;
            plan.alpha[at] = t.alpha;
        }
    }
    plan.blocks = plan.values / 8;
    plan.start.resize(size_t(plan.blocks));
    plan.index.assign(size_t(plan.blocks) * size_t(T) * 8, 0);
    plan.weight.assign(size_t(plan.blocks) * size_t(T) * 8, 0.f);
    for (int b = 0; b < plan.blocks; ++b) {
        plan.start[size_t(b)] = 8 * b;
        for (int t = 0; t < T; ++t)
            for (int j = 0; j < 8; ++j) {
                const size_t v = size_t(8 * b + j) * size_t(T) + size_t(t);
                plan.index[(size_t(b) * size_t(T) + size_t(t)) * 8 + size_t(j)] = plan.element[v];
                plan.weight[(size_t(b) * size_t(T) + size_t(t)) * 8 + size_t(j)] = plan.alpha[v];
            }
    }
    planCvAreaWindows(plan, C, src_elements);
    planCvAreaWide(plan, src_elements);
    planCvAreaFloat(plan, src_elements);
    // Byte rows: per lane the span of its four values' taps, in 16-byte loads.
    plan.chunks = 0;
    plan.base.clear();
    plan.select.clear();
    if (plan.blocks == 0) return;
    std::vector<int32_t>& lo = plan.scratch;
    lo.resize(size_t(plan.blocks) * 2);
    int chunks = 1;
    for (int b = 0; b < plan.blocks; ++b)
        for (int h = 0; h < 2; ++h) {
            int l = src_elements, u = -1;
            for (int j = 0; j < 4; ++j)
                for (int t = 0; t < T; ++t) {
                    const size_t v = size_t(8 * b + 4 * h + j) * size_t(T) + size_t(t);
                    if (plan.alpha[v] == 0.f) continue;
                    l = std::min(l, plan.element[v]);
                    u = std::max(u, plan.element[v]);
                }
            if (u < 0) l = u = 0;
            lo[size_t(2 * b + h)] = l;
            chunks = std::max(chunks, (u - l) / 16 + 1);
        }
    if (chunks > 8 || src_elements < 16 * chunks) return;
    plan.base.resize(size_t(plan.blocks) * 2);
    plan.select.assign(size_t(plan.blocks) * size_t(T) * size_t(chunks) * 32, 0x80);
    for (int b = 0; b < plan.blocks; ++b)
        for (int h = 0; h < 2; ++h) {
            const int base = std::min(lo[size_t(2 * b + h)], src_elements - 16 * chunks);
            plan.base[size_t(2 * b + h)] = base;
            for (int j = 0; j < 4; ++j)
                for (int t = 0; t < T; ++t) {
                    const size_t v = size_t(8 * b + 4 * h + j) * size_t(T) + size_t(t);
                    if (plan.alpha[v] == 0.f) continue;
                    const int rel = plan.element[v] - base;
                    uint8_t* sel = &plan.select[((size_t(b) * size_t(T) + size_t(t)) * size_t(chunks) + size_t(rel / 16)) * 32];
                    sel[16 * h + 4 * j] = uint8_t(rel % 16);
                }
        }
    plan.chunks = chunks;
}

void buildCvAreaPlan(CvAreaPlan& plan, int src_width, int src_height, int dst_width, int dst_height, int channels,
                     bool bytes) {
    if (plan.src_width == src_width && plan.src_height == src_height && plan.dst_width == dst_width &&
        plan.dst_height == dst_height && plan.channels == channels && plan.bytes == bytes)
        return;
    std::vector<CvAreaTap>& xtab = plan.xtab;
    std::vector<CvAreaTap>& ytab = plan.ytab;
    buildCvAreaTable(src_width, dst_width, xtab);
    buildCvAreaTable(src_height, dst_height, ytab);
    buildCvAreaRowPlan(plan.row, xtab, dst_width, channels, src_width * channels);
    plan.rows.resize(ytab.size());
    plan.beta.resize(ytab.size());
    plan.first.assign(size_t(dst_height) + 1, int32_t(ytab.size()));
    int ring = 1;
    for (size_t k = ytab.size(); k-- > 0;) {
        plan.rows[k] = ytab[k].src;
        plan.beta[k] = ytab[k].alpha;
        plan.first[size_t(ytab[k].dst)] = int32_t(k);
    }
    // The ring holds every row of one output row and the next row it starts
    // with: its span plus one.
    int max_rows = 1;
    for (int r = 0; r < dst_height; ++r) {
        const int a = plan.first[size_t(r)], b = plan.first[size_t(r) + 1];
        ring = std::max(ring, plan.rows[size_t(b - 1)] - plan.rows[size_t(a)] + 2);
        max_rows = std::max(max_rows, b - a);
    }
    plan.ring = ring;
    plan.stride = (plan.row.values + 15) & ~15;
    plan.max_rows = max_rows;
    plan.src_width = src_width;
    plan.src_height = src_height;
    plan.dst_width = dst_width;
    plan.dst_height = dst_height;
    plan.channels = channels;
    plan.bytes = bytes;
}

namespace {

// OpenCV's saturate_cast<uchar>(float): round half to even, then clamp (NaN gives 0).
inline uint8_t toByte(float v) {
    if (!(v == v)) return 0;
    const float r = std::nearbyint(v);
    return uint8_t(r <= 0.f ? 0.f : r >= 255.f ? 255.f : r);
}

inline void storeValue(uint8_t* row, int o, float v) { row[o] = toByte(v); }
inline void storeValue(float* row, int o, float v) { storeSample(row, o, v); }

// Values [from, values) of a source row: taps in slot order, unused slots skipped.
template <typename T>
void refRowX(const CvAreaRowPlan& p, const T* src, float* buf, int from) {
    for (int o = from; o < p.values; ++o) {
        float acc = 0.f;
        for (int t = 0; t < p.taps; ++t) {
            const size_t v = size_t(o) * size_t(p.taps) + size_t(t);
            if (p.alpha[v] == 0.f) continue;
            acc = acc + float(loadSample(src, p.element[v])) * p.alpha[v];
        }
        buf[o] = acc;
    }
}

template <typename T>
void refRowsY(const CvAreaRowsY& r, T* dst, int from) {
    for (int o = from; o < r.n; ++o) {
        const float first = r.beta[0] * r.bufs[0][o];
        float sum = r.zero_start ? 0.f + first : first;
        for (int k = 1; k < r.count; ++k) sum = sum + r.beta[k] * r.bufs[k][o];
        storeValue(dst, o, sum);
    }
}

}  // namespace

namespace ref {

void cvAreaRowX8(const CvAreaRowPlan& plan, const uint8_t* src, float* buf) { refRowX(plan, src, buf, 0); }
void cvAreaRowX32f(const CvAreaRowPlan& plan, const float* src, float* buf) { refRowX(plan, src, buf, 0); }
void cvAreaRowsY8(const CvAreaRowsY& rows, uint8_t* dst) { refRowsY(rows, dst, 0); }
void cvAreaRowsY32f(const CvAreaRowsY& rows, float* dst) { refRowsY(rows, dst, 0); }

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

// Eight values per block; the first slot's product starts the sum (the
// reference's 0 + p is p for the non-negative products of bytes).
template <int K>
void rowBlocks8(const CvAreaRowPlan& p, const uint8_t* src, float* buf) {
    const int T = p.taps;
    const __m256i* sel = reinterpret_cast<const __m256i*>(p.select.data());
    const float* w = p.weight.data();
    for (int b = 0; b < p.blocks; ++b) {
        const uint8_t* s0 = src + p.base[size_t(2 * b)];
        const uint8_t* s1 = src + p.base[size_t(2 * b + 1)];
        __m256i c[K];
        for (int k = 0; k < K; ++k)
            c[k] = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + 16 * k))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + 16 * k)), 1);
        auto product = [&](int t) {
            __m256i v = _mm256_shuffle_epi8(c[0], _mm256_loadu_si256(sel + t * K));
            for (int k = 1; k < K; ++k) v = _mm256_or_si256(v, _mm256_shuffle_epi8(c[k], _mm256_loadu_si256(sel + t * K + k)));
            return _mm256_mul_ps(_mm256_cvtepi32_ps(v), _mm256_loadu_ps(w + 8 * t));
        };
        __m256 acc = product(0);
        for (int t = 1; t < T; ++t) acc = _mm256_add_ps(acc, product(t));
        _mm256_storeu_ps(buf + 8 * b, acc);
        sel += T * K;
        w += 8 * T;
    }
}

inline __m256 sumY(const CvAreaRowsY& r, int o) {
    const __m256 first = _mm256_mul_ps(_mm256_set1_ps(r.beta[0]), _mm256_loadu_ps(r.bufs[0] + o));
    __m256 sum = r.zero_start ? _mm256_add_ps(_mm256_setzero_ps(), first) : first;
    for (int k = 1; k < r.count; ++k)
        sum = _mm256_add_ps(sum, _mm256_mul_ps(_mm256_set1_ps(r.beta[k]), _mm256_loadu_ps(r.bufs[k] + o)));
    return sum;
}

}  // namespace

void cvAreaRowX8(const CvAreaRowPlan& p, const uint8_t* src, float* buf) {
    if (!p.blocks || !dispatchCount<8>(p.chunks, [&](auto k) { rowBlocks8<k()>(p, src, buf); })) {
        refRowX(p, src, buf, 0);
        return;
    }
    refRowX(p, src, buf, 8 * p.blocks);
}

// Float rows: eight values per block, slot by slot in order, the running sum
// starting at +0. Slots without alpha add +0 * 0: a block of the window plan
// masks their samples to +0, a gather loads nothing for them.
void cvAreaRowX32f(const CvAreaRowPlan& p, const float* src, float* buf) {
    const int T = p.taps;
    const int32_t* idx = p.index.data();
    const float* w = p.weight.data();
    const __m256 zero = _mm256_setzero_ps();
    for (int b = 0; b < p.blocks; ++b, idx += 8 * T, w += 8 * T) {
        __m256 acc = zero;
        auto add = [&](__m256 s, const float* alpha_at) {
            const __m256 alpha = _mm256_loadu_ps(alpha_at);
            const __m256 used = _mm256_cmp_ps(alpha, zero, _CMP_NEQ_OQ);
            acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_and_ps(s, used), alpha));
        };
        if (p.win_loads && p.win_ok[size_t(b)] && T <= 4) {
            // Values j and j + 4 share a register; a 4 x 4 transpose per lane.
            const int32_t* start = &p.window[size_t(8 * b)];
            __m256 r[4];
            for (int j = 0; j < 4; ++j)
                r[j] = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(src + start[j])),
                                            _mm_loadu_ps(src + start[j + 4]), 1);
            const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
            const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
            r[0] = _mm256_shuffle_ps(t0, t2, 0x44);
            r[1] = _mm256_shuffle_ps(t0, t2, 0xEE);
            r[2] = _mm256_shuffle_ps(t1, t3, 0x44);
            r[3] = _mm256_shuffle_ps(t1, t3, 0xEE);
            for (int t = 0; t < T; ++t) add(r[t], w + 8 * t);
        } else if (p.win_loads && p.win_ok[size_t(b)]) {
            const int32_t* start = &p.window[size_t(8 * b)];
            for (int l = 0; l < p.win_loads; ++l) {
                __m256 r[8];
                for (int j = 0; j < 8; ++j) r[j] = _mm256_loadu_ps(src + start[j] + 8 * l);
                transpose8(r);
                for (int t = 8 * l; t < std::min(T, 8 * l + 8); ++t) add(r[t - 8 * l], w + 8 * t);
            }
        } else {
            for (int t = 0; t < T; ++t) {
                const __m256 used = _mm256_cmp_ps(_mm256_loadu_ps(w + 8 * t), zero, _CMP_NEQ_OQ);
                add(_mm256_mask_i32gather_ps(zero, src, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(idx + 8 * t)),
                                             used, 4),
                    w + 8 * t);
            }
        }
        _mm256_storeu_ps(buf + 8 * b, acc);
    }
    refRowX(p, src, buf, 8 * p.blocks);
}

void cvAreaRowsY8(const CvAreaRowsY& r, uint8_t* dst) {
    int o = 0;
    // Round half to even (the default rounding mode); saturating packs clamp.
    for (; o + 32 <= r.n; o += 32) {
        const __m256i a = _mm256_packus_epi32(_mm256_cvtps_epi32(sumY(r, o)), _mm256_cvtps_epi32(sumY(r, o + 8)));
        const __m256i b = _mm256_packus_epi32(_mm256_cvtps_epi32(sumY(r, o + 16)), _mm256_cvtps_epi32(sumY(r, o + 24)));
        const __m256i bytes = _mm256_packus_epi16(a, b);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + o),
                            _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
    }
    for (; o + 8 <= r.n; o += 8) {
        const __m256i v = _mm256_packus_epi32(_mm256_cvtps_epi32(sumY(r, o)), _mm256_setzero_si256());
        const __m256i bytes = _mm256_packus_epi16(v, v);  // values 0-3 in dword 0, 4-7 in dword 4
        _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + o),
                         _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0))));
    }
    refRowsY(r, dst, o);
}

void cvAreaRowsY32f(const CvAreaRowsY& r, float* dst) {
    int o = 0;
    for (; o + 8 <= r.n; o += 8) _mm256_storeu_ps(dst + o, sumY(r, o));
    refRowsY(r, dst, o);
}

}  // namespace avx2

#pragma GCC pop_options

KV_AVX512_BEGIN
#if !defined(__clang__)
#pragma GCC optimize("fp-contract=off")  // the target has FMA; a fused product would round differently
#endif

namespace avx512 {

namespace {

// One block's sum over T slots in slot order. Per group of four slots `pick`
// applies one byte permute to the group's 64 index bytes under `mask`, which
// keeps byte u of each 32-bit lane for the group's n slots: lane j holds
// value j's samples of slots 4g..4g+n-1 in bytes 0..n-1. Slot u is byte u,
// shifted down and masked; each sample times its slot's alpha joins the sum
// (the first product starts it).
template <typename Pick>
inline __m512 slotSum(int T, const __m512i* idx, const float* w, Pick pick) {
    constexpr uint64_t kBytes[4] = {0x1111111111111111ull, 0x3333333333333333ull, 0x7777777777777777ull,
                                    ~uint64_t(0)};
    const __m512i low = _mm512_set1_epi32(0xFF);
    __m512 acc = _mm512_setzero_ps();
#pragma GCC unroll 4
    for (int g = 0; 4 * g < T; ++g) {
        const int n = std::min(4, T - 4 * g);
        const __m512i v = pick(_mm512_load_si512(idx + g), __mmask64(kBytes[n - 1]));
#pragma GCC unroll 4
        for (int u = 0; u < n; ++u) {
            __m512i x = u == 0 ? v : _mm512_srli_epi32(v, 8 * u);
            if (u < n - 1) x = _mm512_and_si512(x, low);
            const __m512 p = _mm512_mul_ps(_mm512_cvtepi32_ps(x), _mm512_load_ps(w + 16 * (4 * g + u)));
            acc = g == 0 && u == 0 ? p : _mm512_add_ps(acc, p);
        }
    }
    return acc;
}

// Sixteen values per block: per group of slots one byte permute (of one
// 64-byte window, or two). kT > 0 fixes the slot count (unrolled); 0 reads
// it from the plan.
template <int Tables, int kT>
void rowBlocks16(const CvAreaRowPlan& p, const uint8_t* src, float* buf) {
    const int T = kT > 0 ? kT : p.taps, G = (T + 3) / 4;
    const __m512i* indices = reinterpret_cast<const __m512i*>(p.wide_index.data());
    const float* weights = p.wide_weight.data();
    const int32_t* base = p.wide_base.data();
    const int32_t* pattern = p.wide_pattern.data();
    const uint64_t* mask = p.wide_mask.data();
    auto block = [&](int b, __m512i lo, __m512i hi) {
        const size_t q = size_t(pattern[b]);
        _mm512_storeu_ps(buf + 16 * b, slotSum(T, indices + q * size_t(G), weights + q * size_t(16 * T),
                                               [&](__m512i i, __mmask64 m) {
                                                   return Tables == 2 ? _mm512_maskz_permutex2var_epi8(m, lo, i, hi)
                                                                      : _mm512_maskz_permutexvar_epi8(m, i, lo);
                                               }));
    };
    // Full loads up to the blocks whose windows reach past the row (masked
    // loads are slow here).
    const int full = Tables == 2 ? p.wide_full[1] : p.wide_full[0];
    int b = 0;
    for (; b < full; ++b) {
        const uint8_t* s = src + base[b];
        _mm_prefetch(reinterpret_cast<const char*>(s + 384), _MM_HINT_T0);
        const __m512i lo = _mm512_loadu_si512(s);
        block(b, lo, Tables == 2 ? _mm512_loadu_si512(s + 64) : lo);
    }
    for (; b < p.wide_blocks; ++b) {
        const uint8_t* s = src + base[b];
        const __m512i lo = _mm512_maskz_loadu_epi8(mask[2 * b], s);
        block(b, lo, Tables == 2 ? _mm512_maskz_loadu_epi8(mask[2 * b + 1], s + 64) : lo);
    }
}

// The split form: values 0-7 of a block from the 128 bytes at their base,
// values 8-15 from the 128 at theirs, one two-table permute each per group.
template <int kT>
void splitBlocks16(const CvAreaRowPlan& p, const uint8_t* src, float* buf) {
    const int T = kT > 0 ? kT : p.taps, G = (T + 3) / 4;
    const __m512i* indices = reinterpret_cast<const __m512i*>(p.wide_index.data());
    const float* weights = p.wide_weight.data();
    const int32_t* base = p.wide_base.data();
    const int32_t* pattern = p.wide_pattern.data();
    constexpr uint64_t kFirst = 0x00000000FFFFFFFFull;
    for (int b = 0; b < p.wide_blocks; ++b) {
        const uint8_t* sa = src + base[2 * b];
        const uint8_t* sb = src + base[2 * b + 1];
        const __m512i a0 = _mm512_loadu_si512(sa), a1 = _mm512_loadu_si512(sa + 64);
        const __m512i b0 = _mm512_loadu_si512(sb), b1 = _mm512_loadu_si512(sb + 64);
        const size_t q = size_t(pattern[b]);
        _mm512_storeu_ps(buf + 16 * b, slotSum(T, indices + q * size_t(G), weights + q * size_t(16 * T),
                                               [&](__m512i i, __mmask64 m) {
                                                   return _mm512_or_si512(
                                                       _mm512_maskz_permutex2var_epi8(m & kFirst, a0, i, a1),
                                                       _mm512_maskz_permutex2var_epi8(m & ~kFirst, b0, i, b1));
                                               }));
    }
}

template <int Tables>
void rowBlocks16(const CvAreaRowPlan& p, const uint8_t* src, float* buf) {
    if (Tables == 3) {
        if (!dispatchCount<12>(p.taps, [&](auto t) { splitBlocks16<t()>(p, src, buf); })) splitBlocks16<0>(p, src, buf);
        return;
    }
    if (!dispatchCount<4>(p.taps, [&](auto t) { rowBlocks16<Tables, t()>(p, src, buf); }))
        rowBlocks16<Tables, 0>(p, src, buf);
}

}  // namespace

// Float rows: per group two 16-float loads, per slot and group one two-table
// permute of the lanes the slot uses (the others +0, as in the AVX2 kernel),
// the product added to the running sum from +0 in slot order.
template <int G, int kT>
void floatBlocks16(const CvAreaRowPlan& p, const float* src, float* buf) {
    const int T = kT > 0 ? kT : p.taps;
    const __m128i* idx = reinterpret_cast<const __m128i*>(p.fperm_index.data());
    const float* w = p.fperm_weight.data();
    const uint16_t* used = p.fperm_used.data();
    const int32_t* base = p.fperm_base.data();
    constexpr int kLanes = 16 / G;
    for (int b = 0; b < p.fperm_blocks; ++b, idx += T, w += 16 * T, used += T, base += G) {
        __m512 lo[G], hi[G];
        for (int g = 0; g < G; ++g) {
            lo[g] = _mm512_loadu_ps(src + base[g]);
            hi[g] = _mm512_loadu_ps(src + base[g] + 16);
        }
        __m512 acc = _mm512_setzero_ps();
        for (int t = 0; t < T; ++t) {
            const __m512i i = _mm512_cvtepu8_epi32(_mm_load_si128(idx + t));
            __m512 s = _mm512_maskz_permutex2var_ps(__mmask16(used[t] & ((1u << kLanes) - 1)), lo[0], i, hi[0]);
            for (int g = 1; g < G; ++g) {
                const __mmask16 m = __mmask16(used[t] & (((1u << kLanes) - 1) << (kLanes * g)));
                s = _mm512_or_ps(s, _mm512_maskz_permutex2var_ps(m, lo[g], i, hi[g]));
            }
            acc = _mm512_add_ps(acc, _mm512_mul_ps(s, _mm512_load_ps(w + 16 * t)));
        }
        _mm512_storeu_ps(buf + 16 * b, acc);
    }
}

template <int G>
void floatBlocks16(const CvAreaRowPlan& p, const float* src, float* buf) {
    if (!dispatchCount<4>(p.taps, [&](auto t) { floatBlocks16<G, t()>(p, src, buf); })) floatBlocks16<G, 0>(p, src, buf);
}

// The wide plan wherever it exists (with tables on cache lines and compact
// indices it beats the AVX2 shuffles even where those need one load).
void cvAreaRowX8(const CvAreaRowPlan& p, const uint8_t* src, float* buf) {
    if (!p.wide_blocks) {
        avx2::cvAreaRowX8(p, src, buf);
        return;
    }
    if (p.wide_tables == 3)
        rowBlocks16<3>(p, src, buf);
    else if (p.wide_tables == 2)
        rowBlocks16<2>(p, src, buf);
    else
        rowBlocks16<1>(p, src, buf);
    refRowX(p, src, buf, 16 * p.wide_blocks);
}

void cvAreaRowX32f(const CvAreaRowPlan& p, const float* src, float* buf) {
    if (!p.fperm_blocks) {
        avx2::cvAreaRowX32f(p, src, buf);
        return;
    }
    if (p.fperm_groups == 1)
        floatBlocks16<1>(p, src, buf);
    else if (p.fperm_groups == 2)
        floatBlocks16<2>(p, src, buf);
    else
        floatBlocks16<4>(p, src, buf);
    refRowX(p, src, buf, 16 * p.fperm_blocks);
}

// 64 values per step, then 16; full loads only (masked ones measured slower
// here than the AVX2 kernel), the last few values in the reference.
void cvAreaRowsY8(const CvAreaRowsY& r, uint8_t* dst) {
    const __m512 zero = _mm512_setzero_ps();
    auto sum = [&](int o) {
        const __m512 first = _mm512_mul_ps(_mm512_set1_ps(r.beta[0]), _mm512_loadu_ps(r.bufs[0] + o));
        __m512 s = r.zero_start ? _mm512_add_ps(zero, first) : first;
        for (int k = 1; k < r.count; ++k)
            s = _mm512_add_ps(s, _mm512_mul_ps(_mm512_set1_ps(r.beta[k]), _mm512_loadu_ps(r.bufs[k] + o)));
        // Round half to even (the default rounding mode); negative sums clamp to 0.
        return _mm512_max_epi32(_mm512_cvtps_epi32(s), _mm512_setzero_si512());
    };
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    int o = 0;
    for (; o + 64 <= r.n; o += 64) {
        const __m512i a = _mm512_packus_epi32(sum(o), sum(o + 16));
        const __m512i b = _mm512_packus_epi32(sum(o + 32), sum(o + 48));
        _mm512_storeu_si512(dst + o, _mm512_permutexvar_epi32(order, _mm512_packus_epi16(a, b)));
    }
    for (; o + 16 <= r.n; o += 16)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + o), _mm512_cvtusepi32_epi8(sum(o)));
    refRowsY(r, dst, o);
}

}  // namespace avx512

KV_AVX512_END

void cvAreaResize(const CvAreaPlan& plan, const void* src, size_t src_step, void* dst, size_t dst_step,
                  float* buffers, const float** bufs, Isa isa, int first_row, int last_row) {
    const bool vec = isa >= Isa::kAvx2, wide = isa >= Isa::kAvx512;
    const CvAreaRowX8 x8 = wide ? avx512::cvAreaRowX8 : vec ? avx2::cvAreaRowX8 : ref::cvAreaRowX8;
    const CvAreaRowX32f x32 = wide ? avx512::cvAreaRowX32f : vec ? avx2::cvAreaRowX32f : ref::cvAreaRowX32f;
    const CvAreaRowsY8 y8 = wide ? avx512::cvAreaRowsY8 : vec ? avx2::cvAreaRowsY8 : ref::cvAreaRowsY8;
    const CvAreaRowsY32f y32 = vec ? avx2::cvAreaRowsY32f : ref::cvAreaRowsY32f;
    const auto* s = static_cast<const uint8_t*>(src);
    auto* d = static_cast<uint8_t*>(dst);
    const size_t stride = size_t(plan.stride);
    int next = 0;  // first source row not yet in the ring
    const int end = last_row < 0 ? plan.dst_height : std::min(last_row, plan.dst_height);
    for (int r = first_row; r < end; ++r) {
        const int a = plan.first[size_t(r)], b = plan.first[size_t(r) + 1];
        for (int k = a; k < b; ++k) {
            const int row = plan.rows[size_t(k)];
            float* buf = buffers + size_t(row % plan.ring) * stride;
            if (row >= next) {
                const uint8_t* sr = s + size_t(row) * src_step;
                if (plan.bytes)
                    x8(plan.row, sr, buf);
                else
                    x32(plan.row, reinterpret_cast<const float*>(sr), buf);
                next = row + 1;
            }
            bufs[k - a] = buf;
        }
        const CvAreaRowsY rows{bufs, &plan.beta[size_t(a)], b - a, r == 0, plan.row.values};
        uint8_t* out = d + size_t(r) * dst_step;
        if (plan.bytes)
            y8(rows, out);
        else
            y32(rows, reinterpret_cast<float*>(out));
    }
}

}  // namespace impl
}  // namespace kv
