// OpenCV's INTER_AREA enlargement of byte planes reproduced (see
// kv_impl_fast_area_up.h): the tables in OpenCV's arithmetic, scalar
// references that follow its loops, and AVX2 and AVX-512 row kernels with the
// same integer operations per value.
#include "kv_cv/kv_impl_fast_area_up.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_impl_unaligned.h"

namespace kv {
namespace impl {

namespace {
constexpr int kCoefBits = 11;  // OpenCV's INTER_RESIZE_COEF_BITS: weights in units of 2048
}  // namespace

bool cvAreaEnlarges(int src_width, int src_height, int dst_width, int dst_height) {
    const double sx = 1. / (double(dst_width) / double(src_width)), sy = 1. / (double(dst_height) / double(src_height));
    return sx < 1 || sy < 1;
}

// The horizontal axis clamps at its last source sample as OpenCV's table
// loop does; the vertical one leaves that to the row lookup (`clamp` false).
static void buildAxis(int src_size, int dst_size, bool clamp, CvLinearAxis& a) {
    const double inv = double(dst_size) / double(src_size), scale = 1. / inv;
    a.index.resize(size_t(dst_size));
    a.fixed.resize(size_t(dst_size) * 2);
    a.last = dst_size;
    for (int d = 0; d < dst_size; ++d) {
        int s = int(std::floor(d * scale));
        float f = float((d + 1) - (s + 1) * inv);
        f = f <= 0 ? 0.f : f - float(int(std::floor(f)));
        if (clamp && s + 1 >= src_size) {
            a.last = std::min(a.last, d);
            s = src_size - 1;
            f = 0;
        }
        a.index[size_t(d)] = s;
        const float c[2] = {1.f - f, f};
        for (int k = 0; k < 2; ++k) a.fixed[size_t(2 * d + k)] = int16_t(std::nearbyint(c[k] * float(1 << kCoefBits)));
    }
}

void buildCvLinearAxis(int src_size, int dst_size, CvLinearAxis& axis) { buildAxis(src_size, dst_size, true, axis); }

// The wide plan of CvLinearPlan; `right(v)` is value v's right sample (-1: none).
template <typename Right>
static void planWide(CvLinearPlan& plan, int channels, int src_elems, Right right) {
    const int blocks = plan.values / 16;
    plan.wide_blocks = 0;
    if (blocks == 0 || src_elems < 64) return;
    plan.wide_base.resize(size_t(blocks));
    for (int b = 0; b < blocks; ++b) {
        int l = src_elems, u = -1;
        for (int v = 16 * b; v < 16 * b + 16; ++v) {
            l = std::min(l, plan.left[size_t(v)]);
            u = std::max({u, plan.left[size_t(v)], right(v)});
        }
        if (u - l >= 64) return;
        plan.wide_base[size_t(b)] = std::min(l, src_elems - 64);
    }
    plan.wide_index.assign(size_t(blocks) * 64, 0);
    plan.wide_weight.resize(size_t(blocks) * 32);
    for (int b = 0; b < blocks; ++b)
        for (int j = 0; j < 16; ++j) {
            const int v = 16 * b + j, base = plan.wide_base[size_t(b)];
            const int samples[2] = {plan.left[size_t(v)], right(v)};
            for (int k = 0; k < 2; ++k) {
                plan.wide_weight[size_t(b) * 32 + size_t(2 * j + k)] = plan.x.fixed[size_t(2 * (v / channels) + k)];
                // A missing right sample reads the left one: the reference
                // takes l * 2048 there, and its table's right weight is 0.
                plan.wide_index[size_t(b) * 64 + size_t(4 * j + 2 * k)] =
                    uint8_t((samples[k] < 0 ? samples[0] : samples[k]) - base);
            }
        }
    plan.wide_blocks = blocks;
}

void buildCvLinearPlan(CvLinearPlan& plan, int src_width, int src_height, int dst_width, int dst_height,
                       int channels) {
    if (plan.src_width == src_width && plan.src_height == src_height && plan.dst_width == dst_width &&
        plan.dst_height == dst_height && plan.channels == channels)
        return;
    const int C = channels;
    buildAxis(src_width, dst_width, true, plan.x);
    buildAxis(src_height, dst_height, false, plan.y);
    plan.values = dst_width * C;
    plan.left.resize(size_t(plan.values));
    for (int v = 0; v < plan.values; ++v) plan.left[size_t(v)] = plan.x.index[size_t(v / C)] * C + v % C;
    // Per lane the span of its four values' samples, in 16-byte loads.
    const int src_elems = src_width * C;
    auto right = [&](int v) { return v / C < plan.x.last ? plan.left[size_t(v)] + C : -1; };
    plan.blocks = plan.values / 8;
    plan.chunks = 0;
    std::vector<int32_t>& lo = plan.scratch;
    lo.resize(size_t(plan.blocks) * 2);
    int chunks = 1;
    for (int b = 0; b < plan.blocks; ++b)
        for (int h = 0; h < 2; ++h) {
            int l = src_elems, u = -1;
            for (int j = 0; j < 4; ++j) {
                const int v = 8 * b + 4 * h + j;
                l = std::min(l, plan.left[size_t(v)]);
                u = std::max({u, plan.left[size_t(v)], right(v)});
            }
            lo[size_t(2 * b + h)] = l;
            chunks = std::max(chunks, (u - l) / 16 + 1);
        }
    if (plan.blocks == 0 || chunks > 4 || src_elems < 16 * chunks) {
        plan.blocks = 0;
    } else {
        plan.base.resize(size_t(plan.blocks) * 2);
        plan.select.assign(size_t(plan.blocks) * size_t(chunks) * 32, 0x80);
        plan.weights.resize(size_t(plan.blocks) * 16);
        for (int b = 0; b < plan.blocks; ++b)
            for (int h = 0; h < 2; ++h) {
                const int base = std::min(lo[size_t(2 * b + h)], src_elems - 16 * chunks);
                plan.base[size_t(2 * b + h)] = base;
                for (int j = 0; j < 4; ++j) {
                    const int v = 8 * b + 4 * h + j, word = 8 * h + 2 * j;
                    const int samples[2] = {plan.left[size_t(v)], right(v)};
                    for (int k = 0; k < 2; ++k) {
                        plan.weights[size_t(b) * 16 + size_t(word + k)] = plan.x.fixed[size_t(2 * (v / C) + k)];
                        if (samples[k] < 0) continue;
                        const int rel = samples[k] - base;
                        plan.select[(size_t(b) * size_t(chunks) + size_t(rel / 16)) * 32 + size_t(2 * (word + k))] =
                            uint8_t(rel % 16);
                    }
                }
            }
        plan.chunks = chunks;
    }
    planWide(plan, C, src_elems, right);
    plan.stride = (plan.values + 31) & ~31;
    plan.src_width = src_width;
    plan.src_height = src_height;
    plan.dst_width = dst_width;
    plan.dst_height = dst_height;
    plan.channels = channels;
}

namespace {

// Values [from, values) of a horizontal pass.
void refX8(const CvLinearPlan& p, const uint8_t* src, int16_t* row, int from) {
    const int C = p.channels;
    for (int v = from; v < p.values; ++v) {
        const int d = v / C, l = p.left[size_t(v)];
        const int32_t a0 = p.x.fixed[size_t(2 * d)], a1 = p.x.fixed[size_t(2 * d + 1)];
        row[v] = int16_t((d < p.x.last ? src[l] * a0 + src[l + C] * a1 : src[l] * (1 << kCoefBits)) >> 4);
    }
}


void refY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int from, int n) {
    for (int x = from; x < n; ++x) dst[x] = uint8_t((((b0 * h0[x]) >> 16) + ((b1 * h1[x]) >> 16) + 2) >> 2);
}


}  // namespace

namespace ref {
void cvLinearRowX8(const CvLinearPlan& plan, const uint8_t* src, int16_t* row) { refX8(plan, src, row, 0); }
void cvLinearRowsY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n) {
    refY8(h0, h1, b0, b1, dst, 0, n);
}
}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

template <int K>
void rowX8Blocks(const CvLinearPlan& p, const uint8_t* src, int16_t* row) {
    const __m256i* sel = reinterpret_cast<const __m256i*>(p.select.data());
    const __m256i* w = reinterpret_cast<const __m256i*>(p.weights.data());
    for (int b = 0; b < p.blocks; ++b, sel += K, ++w) {
        const uint8_t* s0 = src + p.base[size_t(2 * b)];
        const uint8_t* s1 = src + p.base[size_t(2 * b + 1)];
        __m256i words = _mm256_setzero_si256();
        for (int k = 0; k < K; ++k) {
            const __m256i c = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + 16 * k))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + 16 * k)), 1);
            words = _mm256_or_si256(words, _mm256_shuffle_epi8(c, _mm256_loadu_si256(sel + k)));
        }
        // Sums >> 4 fit in words: packed, then the two lanes' low halves joined.
        const __m256i sums = _mm256_srai_epi32(_mm256_madd_epi16(words, _mm256_loadu_si256(w)), 4);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row + 8 * b),
                         _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packs_epi32(sums, sums), 0x08)));
    }
}

}  // namespace

void cvLinearRowX8(const CvLinearPlan& p, const uint8_t* src, int16_t* row) {
    if (!p.blocks || !dispatchCount<4>(p.chunks, [&](auto k) { rowX8Blocks<k()>(p, src, row); })) {
        refX8(p, src, row, 0);
        return;
    }
    refX8(p, src, row, 8 * p.blocks);
}

void cvLinearRowsY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n) {
    const __m256i w0 = _mm256_set1_epi16(b0), w1 = _mm256_set1_epi16(b1), two = _mm256_set1_epi16(2);
    int x = 0;
    for (; x + 16 <= n; x += 16) {
        // All sums stay far from saturation.
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(h0 + x));
        const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(h1 + x));
        const __m256i s = _mm256_adds_epi16(_mm256_mulhi_epi16(a, w0), _mm256_mulhi_epi16(c, w1));
        const __m256i r = _mm256_srai_epi16(_mm256_adds_epi16(s, two), 2);
        const __m256i b = _mm256_permute4x64_epi64(_mm256_packus_epi16(r, r), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), _mm256_castsi256_si128(b));
    }
    refY8(h0, h1, b0, b1, dst, x, n);
}

}  // namespace avx2

#pragma GCC pop_options

KV_AVX512_BEGIN

namespace avx512 {

void cvLinearRowX8(const CvLinearPlan& p, const uint8_t* src, int16_t* row) {
    if (!p.wide_blocks) {
        avx2::cvLinearRowX8(p, src, row);
        return;
    }
    const __m512i* idx = reinterpret_cast<const __m512i*>(p.wide_index.data());
    const __m512i* w = reinterpret_cast<const __m512i*>(p.wide_weight.data());
    const int32_t* base = p.wide_base.data();
    constexpr __mmask64 kEvenBytes = 0x5555555555555555ull;
    for (int b = 0; b < p.wide_blocks; ++b) {
        const __m512i words = _mm512_maskz_permutexvar_epi8(kEvenBytes, _mm512_load_si512(idx + b),
                                                            _mm512_loadu_si512(src + base[b]));
        const __m512i sums = _mm512_srai_epi32(_mm512_madd_epi16(words, _mm512_load_si512(w + b)), 4);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + 16 * b), _mm512_cvtepi32_epi16(sums));
    }
    refX8(p, src, row, 16 * p.wide_blocks);
}

void cvLinearRowsY8(const int16_t* h0, const int16_t* h1, int16_t b0, int16_t b1, uint8_t* dst, int n) {
    const __m512i w0 = _mm512_set1_epi16(b0), w1 = _mm512_set1_epi16(b1), two = _mm512_set1_epi16(2);
    int x = 0;
    for (; x + 32 <= n; x += 32) {
        // All sums stay far from saturation, and the results within a byte (as the reference's cast).
        const __m512i s = _mm512_adds_epi16(_mm512_mulhi_epi16(_mm512_loadu_si512(h0 + x), w0),
                                            _mm512_mulhi_epi16(_mm512_loadu_si512(h1 + x), w1));
        const __m512i r = _mm512_srai_epi16(_mm512_adds_epi16(s, two), 2);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), _mm512_cvtepi16_epi8(r));
    }
    avx2::cvLinearRowsY8(h0 + x, h1 + x, b0, b1, dst + x, n - x);
}

}  // namespace avx512

KV_AVX512_END

void cvLinearResize(const CvLinearPlan& plan, const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step,
                    int16_t* rows, Isa isa, int first_row, int last_row) {
    const bool vec = isa >= Isa::kAvx2, wide = isa >= Isa::kAvx512;
    const CvLinearRowX8 x8 = wide ? avx512::cvLinearRowX8 : vec ? avx2::cvLinearRowX8 : ref::cvLinearRowX8;
    const CvLinearRowsY8 y8 = wide ? avx512::cvLinearRowsY8 : vec ? avx2::cvLinearRowsY8 : ref::cvLinearRowsY8;
    const size_t values = size_t(plan.stride);
    int key[2] = {-1, -1};
    // Source row r horizontally, from its slot or computed into the one the
    // other needed row does not hold.
    auto horizontal = [&](int r, int keep) -> const int16_t* {
        for (int k = 0; k < 2; ++k)
            if (key[k] == r) return rows + size_t(k) * values;
        const int k = key[0] == keep ? 1 : 0;
        key[k] = r;
        x8(plan, src + size_t(r) * src_step, rows + size_t(k) * values);
        return rows + size_t(k) * values;
    };
    const int end = last_row < 0 ? plan.dst_height : std::min(last_row, plan.dst_height);
    for (int y = first_row; y < end; ++y) {
        const int r0 = std::min(plan.y.index[size_t(y)], plan.src_height - 1);
        const int r1 = std::min(plan.y.index[size_t(y)] + 1, plan.src_height - 1);
        const int16_t* h0 = horizontal(r0, r1);
        const int16_t* h1 = horizontal(r1, r0);
        y8(h0, h1, plan.y.fixed[size_t(2 * y)], plan.y.fixed[size_t(2 * y + 1)], dst + size_t(y) * dst_step,
           plan.values);
    }
}

}  // namespace impl
}  // namespace kv
