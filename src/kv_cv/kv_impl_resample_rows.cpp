// Tables and row kernels of the antialiased resampler. The scalar references
// are the plain sums of the table; the AVX2 kernels get the same integers.
//
// Exact sums in 16-bit lanes: a 22-bit weight w (|w| <= 2^22) splits into
// w = hi * 65536 + lo with lo in [-32768, 32767] and |hi| <= 64. The low
// parts go through vpmaddwd (16-bit samples, 32-bit sums); the high parts
// through vpmaddubsw (8-bit samples times signed 8-bit weights) into 16-bit
// sums, exact while 255 * sum |hi| <= 32767, which the plans check per output
// (it holds for every shipped filter at any factor up to ~15, and the scalar
// kernel runs otherwise). The result (hi_sum << 16) + lo_sum + 2^21 is then
// the reference's 32-bit sum, computed modulo 2^32; the plans also check that
// the true sum cannot leave the 32-bit range.
#include "kv_impl_resample_rows.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "kv_impl_unaligned.h"

namespace kv {
namespace impl {

void buildResampleAxis(ResampleFilter filter, int src, int dst, ResampleAxis& a) {
    // Pillow's precompute_coeffs, step by step in double (the weights must
    // round to the same 22-bit integers).
    const double filter_support = resampleFilterSupport(filter);
    const double scale = double(float(src)) / dst;
    const double filterscale = scale < 1.0 ? 1.0 : scale;
    const double support = filter_support * filterscale;
    const int ksize = int(std::ceil(support)) * 2 + 1;
    std::vector<double> k(size_t(dst) * size_t(ksize), 0.0);
    a.src = src;
    a.dst = dst;
    a.start.assign(size_t(dst), 0);
    a.count.assign(size_t(dst), 0);
    int taps = 1;
    const double ss = 1.0 / filterscale;
    for (int xx = 0; xx < dst; ++xx) {
        const double center = (xx + 0.5) * scale;
        int xmin = int(center - support + 0.5);
        if (xmin < 0) xmin = 0;
        int xmax = int(center + support + 0.5);
        if (xmax > src) xmax = src;
        xmax -= xmin;
        double* kr = &k[size_t(xx) * size_t(ksize)];
        double ww = 0.0;
        for (int x = 0; x < xmax; ++x) {
            const double w = resampleFilterValue(filter, (x + xmin - center + 0.5) * ss);
            kr[x] = w;
            ww += w;
        }
        for (int x = 0; x < xmax; ++x)
            if (ww != 0.0) kr[x] /= ww;
        a.start[size_t(xx)] = xmin;
        a.count[size_t(xx)] = std::max(xmax, 0);
        taps = std::max(taps, xmax);
    }
    a.taps = taps;
    a.coeff.assign(size_t(dst) * size_t(taps), 0);
    a.weight.assign(size_t(dst) * size_t(taps), 0.f);
    const double one = double(1 << kResampleBits);
    for (int xx = 0; xx < dst; ++xx)
        for (int x = 0; x < a.count[size_t(xx)]; ++x) {
            const double w = k[size_t(xx) * size_t(ksize) + size_t(x)];
            a.coeff[size_t(xx) * size_t(taps) + size_t(x)] = w < 0 ? int32_t(-0.5 + w * one) : int32_t(0.5 + w * one);
            a.weight[size_t(xx) * size_t(taps) + size_t(x)] = float(w);
        }
}

namespace {

// w = hi * 65536 + lo, lo in [-32768, 32767].
inline int32_t lowPart(int32_t w) { return int32_t(int16_t(uint16_t(uint32_t(w) & 0xFFFFu))); }
inline int32_t highPart(int32_t w) { return (w - lowPart(w)) / 65536; }

// True when the vector sums of these weights are exact (see the file comment).
bool splitExact(const int32_t* w, int n) {
    int64_t hi_abs = 0, abs = 0;
    for (int k = 0; k < n; ++k) {
        const int32_t h = highPart(w[k]);
        if (h < -128 || h > 127) return false;
        hi_abs += std::abs(h);
        abs += std::abs(int64_t(w[k]));
    }
    return 255 * hi_abs <= 32767 && 255 * abs + kResampleHalf < (int64_t(1) << 31);
}

inline uint16_t hiPair(int32_t w0, int32_t w1) {
    return uint16_t(uint8_t(int8_t(highPart(w0))) | (uint16_t(uint8_t(int8_t(highPart(w1)))) << 8));
}
inline uint32_t loPair(int32_t w0, int32_t w1) {
    return uint32_t(uint16_t(int16_t(lowPart(w0)))) | (uint32_t(uint16_t(int16_t(lowPart(w1)))) << 16);
}

size_t roundUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

// The weight every nonzero tap of w[0..n) has, or 0 when they differ (or a
// 16-bit sum of 255 per tap could overflow). The reference's sum is then
// that weight times the plain sum of the chosen samples.
int32_t uniformWeight(const int32_t* w, int n) {
    int32_t common = 0;
    for (int k = 0; k < n; ++k) {
        if (w[k] == 0) continue;
        if (common != 0 && w[k] != common) return 0;
        common = w[k];
    }
    return common > 0 && 255 * n <= 65535 ? common : 0;
}

inline uint16_t maskPair(int32_t w0, int32_t w1) { return uint16_t((w0 != 0 ? 1 : 0) | (w1 != 0 ? 0x100 : 0)); }

}  // namespace

void prepareResampleX8(const ResampleAxis& a, int channels, ResampleX8& plan) {
    plan.axis = &a;
    plan.channels = channels;
    plan.pair_start.assign(size_t(a.dst), 0);
    plan.pair_count.assign(size_t(a.dst), 0);
    plan.pair_offset.assign(size_t(a.dst), 0);
    plan.hi.clear();
    plan.lo.clear();
    plan.mask.clear();
    plan.uniform.assign(size_t(a.dst), 0);
    bool exact = true;
    std::vector<int32_t> aligned(size_t(a.taps) + 2);
    for (int o = 0; o < a.dst; ++o) {
        const int32_t* w = &a.coeff[size_t(o) * size_t(a.taps)];
        int first = 0, n = a.count[size_t(o)];
        exact = exact && splitExact(w, n);
        // Zero weights at either end add nothing (a tent's last tap often has one).
        while (n > 0 && w[n - 1] == 0) --n;
        while (first < n && w[first] == 0) ++first;
        n -= first;
        w += first;
        const int start = a.start[size_t(o)] + first;
        // Taps from the even pixel at or before start: a leading 0 when odd.
        const int lead = start & 1;
        const int pairs = (n + lead + 1) / 2;
        std::fill(aligned.begin(), aligned.end(), 0);
        for (int k = 0; k < n; ++k) aligned[size_t(k + lead)] = w[k];
        plan.pair_start[size_t(o)] = start >> 1;
        plan.pair_count[size_t(o)] = pairs;
        plan.pair_offset[size_t(o)] = int32_t(plan.hi.size());
        plan.uniform[size_t(o)] = uniformWeight(w, n);
        for (int j = 0; j < pairs; ++j) {
            plan.hi.push_back(hiPair(aligned[size_t(2 * j)], aligned[size_t(2 * j + 1)]));
            plan.lo.push_back(loPair(aligned[size_t(2 * j)], aligned[size_t(2 * j + 1)]));
            plan.mask.push_back(maskPair(aligned[size_t(2 * j)], aligned[size_t(2 * j + 1)]));
        }
    }
    plan.vector = exact;
    const size_t entries = size_t((a.src + 1) / 2) * size_t(channels);
    plan.word_pitch = roundUp(entries, 8) * 2 + 64;
    if (exact) {
        plan.pairs.resize(roundUp(entries, 8) * 32);
        plan.words.resize(plan.word_pitch * kResampleBlock);
        plan.columns.resize(size_t(a.dst) * size_t(channels) * 16);
    } else {
        plan.pairs.clear();
        plan.words.clear();
        plan.columns.clear();
    }
}

void prepareResampleY8(const ResampleAxis& a, ResampleY8& plan) {
    plan.axis = &a;
    plan.pairs = (a.taps + 1) / 2;
    plan.hi.assign(size_t(a.dst) * size_t(plan.pairs), 0);
    plan.lo.assign(size_t(a.dst) * size_t(plan.pairs), 0);
    plan.vector.assign(size_t(a.dst), 0);
    plan.uniform.assign(size_t(a.dst), 0);
    plan.mask.assign(size_t(a.dst) * size_t(plan.pairs), 0);
    for (int y = 0; y < a.dst; ++y) {
        const int32_t* w = &a.coeff[size_t(y) * size_t(a.taps)];
        const int n = a.count[size_t(y)];
        plan.vector[size_t(y)] = splitExact(w, n) ? 1 : 0;
        plan.uniform[size_t(y)] = uniformWeight(w, n);
        for (int j = 0; 2 * j < n; ++j) {
            const int32_t w1 = 2 * j + 1 < n ? w[2 * j + 1] : 0;
            plan.hi[size_t(y) * size_t(plan.pairs) + size_t(j)] = hiPair(w[2 * j], w1);
            plan.lo[size_t(y) * size_t(plan.pairs) + size_t(j)] = loPair(w[2 * j], w1);
            plan.mask[size_t(y) * size_t(plan.pairs) + size_t(j)] = maskPair(w[2 * j], w1);
        }
    }
}

namespace ref {

namespace {

inline uint8_t clip8(int64_t sum) {
    const int64_t v = sum >> kResampleBits;
    return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}
inline uint16_t clip16(int64_t sum) {
    const int64_t v = sum >> kResampleBits;
    return uint16_t(v < 0 ? 0 : v > 65535 ? 65535 : v);
}

void rowX8(const uint8_t* src, uint8_t* dst, const ResampleAxis& a, int C) {
    for (int o = 0; o < a.dst; ++o) {
        const int32_t* w = &a.coeff[size_t(o) * size_t(a.taps)];
        const uint8_t* s = src + size_t(a.start[size_t(o)]) * size_t(C);
        const int n = a.count[size_t(o)];
        for (int c = 0; c < C; ++c) {
            int64_t sum = kResampleHalf;
            for (int k = 0; k < n; ++k) sum += int64_t(s[size_t(k) * size_t(C) + size_t(c)]) * w[k];
            dst[size_t(o) * size_t(C) + size_t(c)] = clip8(sum);
        }
    }
}

}  // namespace

void resampleRowsX8(const uint8_t* const* src, uint8_t* const* dst, int rows, ResampleX8& plan) {
    for (int r = 0; r < rows; ++r) rowX8(src[r], dst[r], *plan.axis, plan.channels);
}

void resampleRowY8(const ResampleRowsY& in, uint8_t* dst, const ResampleY8& plan) {
    const ResampleAxis& a = *plan.axis;
    const int32_t* w = &a.coeff[size_t(in.y) * size_t(a.taps)];
    const int n = a.count[size_t(in.y)];
    for (size_t x = 0; x < in.len; ++x) {
        int64_t sum = kResampleHalf;
        for (int k = 0; k < n; ++k) sum += int64_t(in.rows[k][x]) * w[k];
        dst[x] = clip8(sum);
    }
}

void resampleRowX16(const uint16_t* src, uint16_t* dst, const ResampleAxis& a, int C) {
    for (int o = 0; o < a.dst; ++o) {
        const int32_t* w = &a.coeff[size_t(o) * size_t(a.taps)];
        const ptrdiff_t first = ptrdiff_t(a.start[size_t(o)]) * C;
        const int n = a.count[size_t(o)];
        for (int c = 0; c < C; ++c) {
            int64_t sum = kResampleHalf;
            for (int k = 0; k < n; ++k) sum += int64_t(loadSample(src, first + ptrdiff_t(k) * C + c)) * w[k];
            storeSample(dst, ptrdiff_t(o) * C + c, clip16(sum));
        }
    }
}

void resampleRowY16(const ResampleRowsY& in, uint16_t* dst, const ResampleAxis& a) {
    const int32_t* w = &a.coeff[size_t(in.y) * size_t(a.taps)];
    const int n = a.count[size_t(in.y)];
    for (size_t x = 0; x < in.len; ++x) {
        int64_t sum = kResampleHalf;
        for (int k = 0; k < n; ++k)
            sum += int64_t(loadSample(reinterpret_cast<const uint16_t*>(in.rows[k]), ptrdiff_t(x))) * w[k];
        storeSample(dst, ptrdiff_t(x), clip16(sum));
    }
}

void resampleRowXF(const float* src, float* dst, const ResampleAxis& a, int C) {
    for (int o = 0; o < a.dst; ++o) {
        const float* w = &a.weight[size_t(o) * size_t(a.taps)];
        const ptrdiff_t first = ptrdiff_t(a.start[size_t(o)]) * C;
        const int n = a.count[size_t(o)];
        for (int c = 0; c < C; ++c) {
            float sum = 0.f;
            for (int k = 0; k < n; ++k) sum += loadSample(src, first + ptrdiff_t(k) * C + c) * w[k];
            storeSample(dst, ptrdiff_t(o) * C + c, sum);
        }
    }
}

void resampleRowYF(const ResampleRowsY& in, float* dst, const ResampleAxis& a) {
    const float* w = &a.weight[size_t(in.y) * size_t(a.taps)];
    const int n = a.count[size_t(in.y)];
    for (size_t x = 0; x < in.len; ++x) {
        float sum = 0.f;
        for (int k = 0; k < n; ++k) sum += loadSample(reinterpret_cast<const float*>(in.rows[k]), ptrdiff_t(x)) * w[k];
        storeSample(dst, ptrdiff_t(x), sum);
    }
}

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

// Pixel-pair words of one row: word (m * C + c) holds channel c of pixels 2m
// (low byte) and 2m + 1 (high byte; 0 past the row). `entries` words are
// written, then zeros up to a multiple of 8.
template <int C>
__attribute__((noinline)) void pairWords(const uint8_t* row, int width, uint8_t* out, size_t entries) {
    const int pairs = (width + 1) / 2;
    int m = 0;
    if (C == 1) {
        const int whole = width / 2;
        std::memcpy(out, row, size_t(whole) * 2);
        m = whole;
    } else if (C == 2 || C == 4) {
        // 2C bytes per pair: regroup each 2C-byte group, 32 bytes at a time.
        const __m256i shuffle =
            C == 2 ? _mm256_setr_epi8(0, 2, 1, 3, 4, 6, 5, 7, 8, 10, 9, 11, 12, 14, 13, 15, 0, 2, 1, 3, 4, 6, 5, 7, 8,
                                      10, 9, 11, 12, 14, 13, 15)
                   : _mm256_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15, 0, 4, 1, 5, 2, 6, 3, 7, 8,
                                      12, 9, 13, 10, 14, 11, 15);
        constexpr int kPairsPerVector = 32 / (2 * C);
        for (; m + kPairsPerVector <= width / 2; m += kPairsPerVector) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + size_t(m) * 2 * C));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + size_t(m) * 2 * C), _mm256_shuffle_epi8(v, shuffle));
        }
    } else if (C == 3) {
        // Four 6-byte pairs per step: two per 16-byte lane (the loads stay
        // inside the row), regrouped, then the 12 bytes of each lane packed
        // together; the 8 bytes stored past them are rewritten by the next step.
        const __m256i regroup = _mm256_setr_epi8(0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11, -1, -1, -1, -1, 0, 3, 1, 4, 2, 5,
                                                 6, 9, 7, 10, 8, 11, -1, -1, -1, -1);
        const __m256i pack = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
        auto step = [&](size_t at) {
            const __m256i v = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + at))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + at + 12)), 1);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + at),
                                _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(v, regroup), pack));
        };
        for (; size_t(m) * 6 + 52 <= size_t(width) * 3; m += 8) {
            step(size_t(m) * 6);
            step(size_t(m) * 6 + 24);
        }
        for (; size_t(m) * 6 + 28 <= size_t(width) * 3; m += 4) step(size_t(m) * 6);
        const __m128i shuffle = _mm_setr_epi8(0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11, -1, -1, -1, -1);
        for (; size_t(m) * 6 + 16 <= size_t(width) * 3; m += 2) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + size_t(m) * 6));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + size_t(m) * 6), _mm_shuffle_epi8(v, shuffle));
        }
    }
    for (; m < pairs; ++m)
        for (int c = 0; c < C; ++c) {
            const uint8_t lo = row[size_t(2 * m) * C + size_t(c)];
            const uint8_t hi = 2 * m + 1 < width ? row[size_t(2 * m + 1) * C + size_t(c)] : 0;
            out[(size_t(m) * C + size_t(c)) * 2] = lo;
            out[(size_t(m) * C + size_t(c)) * 2 + 1] = hi;
        }
    std::memset(out + entries * 2, 0, (roundUp(entries, 8) - entries) * 2);
}

// 16 rows of words (row r at words + r * pitch) to entries of 32 bytes: entry
// e holds word e of rows 0..7 in its low half and of rows 8..15 in its high half.
void transposeWords(const uint8_t* const* rows, size_t entries8, uint8_t* out) {
    for (size_t e = 0; e < entries8; e += 8) {
        __m256i a[8];
        for (int i = 0; i < 8; ++i)
            a[i] = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i] + e * 2))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i + 8] + e * 2)), 1);
        __m256i t[8], u[8];
        for (int i = 0; i < 4; ++i) {
            t[2 * i] = _mm256_unpacklo_epi16(a[2 * i], a[2 * i + 1]);
            t[2 * i + 1] = _mm256_unpackhi_epi16(a[2 * i], a[2 * i + 1]);
        }
        // t[0], t[2], t[4], t[6]: words 0..3 of row pairs; t[1], t[3], ...: words 4..7.
        u[0] = _mm256_unpacklo_epi32(t[0], t[2]);
        u[1] = _mm256_unpackhi_epi32(t[0], t[2]);
        u[2] = _mm256_unpacklo_epi32(t[1], t[3]);
        u[3] = _mm256_unpackhi_epi32(t[1], t[3]);
        u[4] = _mm256_unpacklo_epi32(t[4], t[6]);
        u[5] = _mm256_unpackhi_epi32(t[4], t[6]);
        u[6] = _mm256_unpacklo_epi32(t[5], t[7]);
        u[7] = _mm256_unpackhi_epi32(t[5], t[7]);
        __m256i* o = reinterpret_cast<__m256i*>(out + e * 32);
        for (int i = 0; i < 4; ++i) {
            _mm256_store_si256(o + 2 * i, _mm256_unpacklo_epi64(u[i], u[i + 4]));
            _mm256_store_si256(o + 2 * i + 1, _mm256_unpackhi_epi64(u[i], u[i + 4]));
        }
    }
}

// The sums of 16 rows as 16-bit words (rows 0..7 | 8..15): high parts shifted
// into place by interleaving them above zero words, low sums (seeded with the
// rounding offset) added, shifted and saturated.
inline __m256i finish(__m256i hi16, __m256i lo_a, __m256i lo_b) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i s0 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_unpacklo_epi16(zero, hi16), lo_a), kResampleBits);
    const __m256i s1 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_unpackhi_epi16(zero, hi16), lo_b), kResampleBits);
    return _mm256_packs_epi32(s0, s1);
}

// finish() for a 16-bit sum of samples that all carry weight w: the exact
// 32-bit sum w * s + 2^21 (the plans keep it in range), shifted and saturated.
inline __m256i finishUniform(__m256i sum16, __m256i w, __m256i half) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i s0 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(_mm256_unpacklo_epi16(sum16, zero), w), half),
                                         kResampleBits);
    const __m256i s1 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(_mm256_unpackhi_epi16(sum16, zero), w), half),
                                         kResampleBits);
    return _mm256_packs_epi32(s0, s1);
}

// An output pixel whose taps share one weight: every channel's samples summed
// in 16 bits (maddubs with the 0/1 tap masks), then scaled once.
template <int C>
inline void filterPixelUniform(const __m256i* x, const uint16_t* mask, int n, int32_t weight, uint8_t* out) {
    __m256i acc[C];
    for (int c = 0; c < C; ++c) acc[c] = _mm256_setzero_si256();
#pragma GCC unroll 2
    for (int j = 0; j < n; ++j) {
        const __m256i m = _mm256_set1_epi16(int16_t(mask[j]));
        for (int c = 0; c < C; ++c)
            acc[c] = _mm256_add_epi16(acc[c], _mm256_maddubs_epi16(_mm256_load_si256(x + size_t(j) * C + size_t(c)), m));
    }
    const __m256i w = _mm256_set1_epi32(weight), half = _mm256_set1_epi32(kResampleHalf);
    int c = 0;
    for (; c + 1 < C; c += 2) {
        const __m256i b = _mm256_packus_epi16(finishUniform(acc[c], w, half), finishUniform(acc[c + 1], w, half));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + c * 16), _mm256_permute4x64_epi64(b, 0xD8));
    }
    if (c < C) {
        const __m256i v = finishUniform(acc[c], w, half);
        const __m256i b = _mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + c * 16), _mm256_castsi256_si128(b));
    }
}

// Sums of G channels (c0, c0 + 1) of one output pixel over its pairs, then
// finished into G columns of 16 rows. At most two channels at a time keeps
// the sums in registers.
template <int C, int G>
inline void filterPixel(const __m256i* x, const uint16_t* hi, const uint32_t* lo, int n, int c0, uint8_t* out) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i ah[G], la[G], lb[G];
    for (int g = 0; g < G; ++g) {
        ah[g] = zero;
        la[g] = lb[g] = _mm256_set1_epi32(kResampleHalf);
    }
#pragma GCC unroll 2
    for (int j = 0; j < n; ++j) {
        const __m256i h = _mm256_set1_epi16(int16_t(hi[j]));
        const __m256i l = _mm256_set1_epi32(int32_t(lo[j]));
        for (int g = 0; g < G; ++g) {
            const __m256i v = _mm256_load_si256(x + size_t(j) * C + size_t(c0 + g));
            ah[g] = _mm256_add_epi16(ah[g], _mm256_maddubs_epi16(v, h));
            la[g] = _mm256_add_epi32(la[g], _mm256_madd_epi16(_mm256_unpacklo_epi8(v, zero), l));
            lb[g] = _mm256_add_epi32(lb[g], _mm256_madd_epi16(_mm256_unpackhi_epi8(v, zero), l));
        }
    }
    int g = 0;
    for (; g + 1 < G; g += 2) {
        // [a rows 0..7, b 0..7 | a 8..15, b 8..15] -> [a 0..15 | b 0..15]
        const __m256i b = _mm256_packus_epi16(finish(ah[g], la[g], lb[g]), finish(ah[g + 1], la[g + 1], lb[g + 1]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + (c0 + g) * 16), _mm256_permute4x64_epi64(b, 0xD8));
    }
    if (g < G) {
        const __m256i w = finish(ah[g], la[g], lb[g]);
        const __m256i b = _mm256_permute4x64_epi64(_mm256_packus_epi16(w, w), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + (c0 + g) * 16), _mm256_castsi256_si128(b));
    }
}

// Every output sample of the block: 16 rows at once over the pair entries.
template <int C>
void filterColumns(const ResampleX8& plan, const uint8_t* pairs, uint8_t* columns) {
    const int dst = plan.axis->dst;
    for (int o = 0; o < dst; ++o) {
        const __m256i* x = reinterpret_cast<const __m256i*>(pairs) + size_t(plan.pair_start[size_t(o)]) * C;
        const uint16_t* hi = &plan.hi[size_t(plan.pair_offset[size_t(o)])];
        const uint32_t* lo = &plan.lo[size_t(plan.pair_offset[size_t(o)])];
        const int n = plan.pair_count[size_t(o)];
        uint8_t* out = columns + size_t(o) * C * 16;
        if (plan.uniform[size_t(o)] != 0) {
            filterPixelUniform<C>(x, &plan.mask[size_t(plan.pair_offset[size_t(o)])], n, plan.uniform[size_t(o)], out);
            continue;
        }
        if (C == 3 && n <= 3) {  // few pairs: all three channels in one pass
            filterPixel<C, 3>(x, hi, lo, n, 0, out);
            continue;
        }
        if (C >= 2) filterPixel<C, 2>(x, hi, lo, n, 0, out);
        if (C == 4) filterPixel<C, 2>(x, hi, lo, n, 2, out);
        if (C == 1 || C == 3) filterPixel<C, 1>(x, hi, lo, n, C - 1, out);
    }
}

// Entries of 16 bytes (one per output sample, rows 0..15) back to rows
// (`Full`: all 16 rows are written).
template <bool Full>
void transposeBytes(const uint8_t* columns, size_t samples, uint8_t* const* dst, int rows) {
    size_t e = 0;
    for (; e + 16 <= samples; e += 16) {
        __m128i a[16], p[16], q[16], s[16];
        for (int i = 0; i < 16; ++i) a[i] = _mm_load_si128(reinterpret_cast<const __m128i*>(columns + (e + size_t(i)) * 16));
        // p[i] (i < 8): rows 0..7 of entries 2i, 2i+1; p[8 + i]: rows 8..15.
        for (int i = 0; i < 8; ++i) {
            p[i] = _mm_unpacklo_epi8(a[2 * i], a[2 * i + 1]);
            p[8 + i] = _mm_unpackhi_epi8(a[2 * i], a[2 * i + 1]);
        }
        // q[h * 8 + g * 4 + i]: half h, rows 4g..4g+3 of the half, entries 4i..4i+3.
        for (int h = 0; h < 2; ++h)
            for (int i = 0; i < 4; ++i) {
                q[h * 8 + i] = _mm_unpacklo_epi16(p[h * 8 + 2 * i], p[h * 8 + 2 * i + 1]);
                q[h * 8 + 4 + i] = _mm_unpackhi_epi16(p[h * 8 + 2 * i], p[h * 8 + 2 * i + 1]);
            }
        // s[hg * 4 + k * 2 + i]: rows 2k..2k+1 of the group, entries 8i..8i+7.
        for (int hg = 0; hg < 4; ++hg)
            for (int i = 0; i < 2; ++i) {
                s[hg * 4 + i] = _mm_unpacklo_epi32(q[hg * 4 + 2 * i], q[hg * 4 + 2 * i + 1]);
                s[hg * 4 + 2 + i] = _mm_unpackhi_epi32(q[hg * 4 + 2 * i], q[hg * 4 + 2 * i + 1]);
            }
        for (int hg = 0; hg < 4; ++hg)
            for (int k = 0; k < 2; ++k) {
                const int r = hg * 4 + k * 2;
                if (Full || r < rows)
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst[r] + e),
                                     _mm_unpacklo_epi64(s[hg * 4 + k * 2], s[hg * 4 + k * 2 + 1]));
                if (Full || r + 1 < rows)
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst[r + 1] + e),
                                     _mm_unpackhi_epi64(s[hg * 4 + k * 2], s[hg * 4 + k * 2 + 1]));
            }
    }
    for (; e < samples; ++e)
        for (int r = 0; r < rows; ++r) dst[r][e] = columns[e * 16 + size_t(r)];
}

template <int C>
void rowsX8(const uint8_t* const* src, uint8_t* const* dst, int rows, ResampleX8& plan) {
    const ResampleAxis& a = *plan.axis;
    const size_t entries = size_t((a.src + 1) / 2) * C;
    // One channel: whole chunks of 8 pair words are the source bytes as they
    // stand; only the rest goes through the word rows.
    const size_t direct = C == 1 ? size_t(a.src) / 16 * 8 : 0;
    const uint8_t* rows_in[kResampleBlock];
    const uint8_t* word_rows[kResampleBlock];
    for (int r = 0; r < kResampleBlock; ++r) {
        uint8_t* w = plan.words.data() + size_t(r) * plan.word_pitch;
        if (r < rows) {
            if (C == 1) {
                const size_t rest = size_t(a.src) - direct * 2;
                std::memcpy(w, src[r] + direct * 2, rest);
                std::memset(w + rest, 0, roundUp(entries - direct, 8) * 2 - rest);
            } else {
                pairWords<C>(src[r], a.src, w, entries);
            }
        }
        rows_in[r] = r < rows ? src[r] : src[0];  // rows past the block repeat row 0
        word_rows[r] = r < rows ? w : plan.words.data();
    }
    if (direct) transposeWords(rows_in, direct, plan.pairs.data());
    transposeWords(word_rows, roundUp(entries - direct, 8), plan.pairs.data() + direct * 32);
    filterColumns<C>(plan, plan.pairs.data(), plan.columns.data());
    if (rows == kResampleBlock)
        transposeBytes<true>(plan.columns.data(), size_t(a.dst) * C, dst, rows);
    else
        transposeBytes<false>(plan.columns.data(), size_t(a.dst) * C, dst, rows);
}

}  // namespace

void resampleRowsX8(const uint8_t* const* src, uint8_t* const* dst, int rows, ResampleX8& plan) {
    if (!plan.vector) {
        ref::resampleRowsX8(src, dst, rows, plan);
        return;
    }
    switch (plan.channels) {
        case 1: rowsX8<1>(src, dst, rows, plan); break;
        case 2: rowsX8<2>(src, dst, rows, plan); break;
        case 3: rowsX8<3>(src, dst, rows, plan); break;
        default: rowsX8<4>(src, dst, rows, plan); break;
    }
}

void resampleRowY8(const ResampleRowsY& in, uint8_t* dst, const ResampleY8& plan) {
    const size_t len = in.len;
    if (len < 32 || !plan.vector[size_t(in.y)]) {
        ref::resampleRowY8(in, dst, plan);
        return;
    }
    const ResampleAxis& a = *plan.axis;
    const int n = a.count[size_t(in.y)];
    const int pairs = (n + 1) / 2;
    const uint16_t* hi = &plan.hi[size_t(in.y) * size_t(plan.pairs)];
    const uint32_t* lo = &plan.lo[size_t(in.y) * size_t(plan.pairs)];
    const __m256i zero = _mm256_setzero_si256();
    const __m256i half = _mm256_set1_epi32(kResampleHalf);
    if (plan.uniform[size_t(in.y)] != 0) {
        // Taps of one weight: row pairs summed in 16 bits, scaled once.
        const uint16_t* mask = &plan.mask[size_t(in.y) * size_t(plan.pairs)];
        const __m256i w = _mm256_set1_epi32(plan.uniform[size_t(in.y)]);
        for (size_t x = 0;; x += 32) {
            if (x + 32 > len) x = len - 32;
            __m256i s0 = zero, s1 = zero;
#pragma GCC unroll 2
            for (int j = 0; j < pairs; ++j) {
                const __m256i a0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in.rows[2 * j] + x));
                const __m256i a1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in.rows[2 * j + 1] + x));
                const __m256i m = _mm256_set1_epi16(int16_t(mask[j]));
                s0 = _mm256_add_epi16(s0, _mm256_maddubs_epi16(_mm256_unpacklo_epi8(a0, a1), m));
                s1 = _mm256_add_epi16(s1, _mm256_maddubs_epi16(_mm256_unpackhi_epi8(a0, a1), m));
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x),
                                _mm256_packus_epi16(finishUniform(s0, w, half), finishUniform(s1, w, half)));
            if (x + 32 >= len) break;
        }
        return;
    }
    for (size_t x = 0;; x += 32) {
        if (x + 32 > len) x = len - 32;  // the last block overlaps the previous one
        __m256i h0 = zero, h1 = zero, l0 = half, l1 = half, l2 = half, l3 = half;
#pragma GCC unroll 2
        for (int j = 0; j < pairs; ++j) {
            const __m256i a0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in.rows[2 * j] + x));
            const __m256i a1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in.rows[2 * j + 1] + x));
            const __m256i h = _mm256_set1_epi16(int16_t(hi[j]));
            const __m256i l = _mm256_set1_epi32(int32_t(lo[j]));
            const __m256i p0 = _mm256_unpacklo_epi8(a0, a1);  // bytes 0..7 | 16..23, row pairs
            const __m256i p1 = _mm256_unpackhi_epi8(a0, a1);  // bytes 8..15 | 24..31
            h0 = _mm256_add_epi16(h0, _mm256_maddubs_epi16(p0, h));
            h1 = _mm256_add_epi16(h1, _mm256_maddubs_epi16(p1, h));
            l0 = _mm256_add_epi32(l0, _mm256_madd_epi16(_mm256_unpacklo_epi8(p0, zero), l));
            l1 = _mm256_add_epi32(l1, _mm256_madd_epi16(_mm256_unpackhi_epi8(p0, zero), l));
            l2 = _mm256_add_epi32(l2, _mm256_madd_epi16(_mm256_unpacklo_epi8(p1, zero), l));
            l3 = _mm256_add_epi32(l3, _mm256_madd_epi16(_mm256_unpackhi_epi8(p1, zero), l));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), _mm256_packus_epi16(finish(h0, l0, l1), finish(h1, l2, l3)));
        if (x + 32 >= len) break;
    }
}

}  // namespace avx2

#pragma GCC pop_options

}  // namespace impl
}  // namespace kv
