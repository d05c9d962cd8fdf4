// Reference and AVX2 row kernels of the fast backend's adapter. The AVX2
// kernels run whole vectors on the bulk of a row and hand the tail to the
// reference, so every width gives the reference's bytes and no load or store
// leaves the row.
#include "kv_cv/kv_impl_fast_kernels.h"
#include "kv_cv/kv_impl_scale_rows.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "kv_cv/kv_impl_unaligned.h"

namespace kv {
namespace impl {

namespace ref {

void bgrToGrayRow(const uint8_t* bgr, uint8_t* gray, int width) {
    for (int x = 0; x < width; ++x, bgr += 3)
        gray[x] = uint8_t((kGrayB * bgr[0] + kGrayG * bgr[1] + kGrayR * bgr[2] + (1 << (kGrayShift - 1))) >>
                          kGrayShift);
}

void grayToBgrRow(const uint8_t* gray, uint8_t* bgr, int width) {
    for (int x = 0; x < width; ++x, bgr += 3) bgr[0] = bgr[1] = bgr[2] = gray[x];
}

// Float rows of caller frames may sit at any byte address.
void u8ToF32Row(const uint8_t* src, float* dst, size_t count) {
    for (size_t i = 0; i < count; ++i) storeSample(dst, i, float(src[i]));
}

void f32ToU8Row(const float* src, uint8_t* dst, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        // Written as the vector max/min behave: a NaN compares false and gives 0.
        const float s = loadSample(src, i);
        float v = s > 0.f ? s : 0.f;
        v = v < 255.f ? v : 255.f;
        dst[i] = uint8_t(std::lrint(v));  // current rounding mode: nearest even
    }
}

namespace {

uint32_t floatBits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

float bitsFloat(uint32_t u) {
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

}  // namespace

void halfToFloatRow(const uint16_t* src, float* dst, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const uint32_t h = src[i];
        const uint32_t sign = (h & 0x8000u) << 16;
        const uint32_t exp = (h >> 10) & 0x1f, mant = h & 0x3ff;
        uint32_t bits;
        if (exp == 0)  // zero or subnormal: mant * 2^-24 is exact in float
            bits = sign | floatBits(float(mant) * (1.f / 16777216.f));
        else if (exp == 31)  // infinity, or NaN made quiet
            bits = sign | 0x7f800000u | (mant << 13) | (mant ? 0x400000u : 0u);
        else
            bits = sign | ((exp + 112) << 23) | (mant << 13);
        dst[i] = bitsFloat(bits);
    }
}

void floatToHalfRow(const float* src, uint16_t* dst, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const uint32_t x = floatBits(src[i]);
        const uint32_t sign = (x >> 16) & 0x8000u, ax = x & 0x7fffffffu;
        uint32_t h;
        if (ax > 0x7f800000u)  // NaN: quiet, top mantissa bits kept
            h = 0x7e00u | ((ax >> 13) & 0x3ffu);
        else if (ax >= 0x477ff000u)  // 65520 and up round to infinity
            h = 0x7c00u;
        else if (ax < 0x38800000u)  // below 2^-14: subnormal half, m * 2^-24
            h = uint32_t(std::lrint(bitsFloat(ax) * 16777216.f));  // exact scaling, rounds to even
        else  // normal: rebias the exponent, round the 13 dropped bits to even
            h = (ax - 0x38000000u + 0xfffu + ((ax >> 13) & 1u)) >> 13;
        dst[i] = uint16_t(sign | h);
    }
}

// Rotates the source pixels [x0, x1) x [y0, y1) into their places.
static void rotate3Rect(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst,
                        size_t dst_step, int x0, int x1, int y0, int y1) {
    for (int y = y0; y < y1; ++y) {
        const uint8_t* s = src + size_t(y) * src_step;
        for (int x = x0; x < x1; ++x) {
            int dx, dy;
            if (code == 1) {
                dy = width - 1 - x; dx = y;
            } else if (code == 2) {
                dy = height - 1 - y; dx = width - 1 - x;
            } else {
                dy = x; dx = height - 1 - y;
            }
            std::memcpy(dst + size_t(dy) * dst_step + size_t(dx) * 3, s + size_t(x) * 3, 3);
        }
    }
}

void rotate3(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst, size_t dst_step) {
    rotate3Rect(src, src_step, width, height, code, dst, dst_step, 0, width, 0, height);
}

// OpenCV's 2 x 2 path rounds half up in integers; its general path rounds
// the float product (current rounding mode: nearest even).
static bool areaHalfUp(int channels, int fx, int fy) { return fx == 2 && fy == 2 && channels != 2; }

static uint8_t areaMean(uint32_t sum, bool half_up, float scale) {
    return uint8_t(half_up ? (sum + 2) >> 2 : uint32_t(std::lrint(float(sum) * scale)));
}

// Output samples [j0, j1) of output row y (j counts pixel * channels + channel).
static void areaBoxSpan(const uint8_t* src, size_t src_step, uint8_t* dst, int y, int j0, int j1, int channels,
                        int fx, int fy) {
    const bool half_up = areaHalfUp(channels, fx, fy);
    const float scale = 1.f / float(fx * fy);
    for (int j = j0; j < j1; ++j) {
        const size_t first = size_t(j / channels) * size_t(fx * channels) + size_t(j % channels);
        uint32_t sum = 0;
        for (int r = 0; r < fy; ++r) {
            const uint8_t* s = src + size_t(y * fy + r) * src_step + first;
            for (int i = 0; i < fx; ++i) sum += s[size_t(i * channels)];
        }
        dst[j] = areaMean(sum, half_up, scale);
    }
}

void areaBox(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width, int dst_height,
             int channels, int fx, int fy) {
    for (int y = 0; y < dst_height; ++y)
        areaBoxSpan(src, src_step, dst + size_t(y) * dst_step, y, 0, dst_width * channels, channels, fx, fy);
}

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2,f16c")
namespace avx2 {

namespace {

// Eight 3-byte pixels (exactly 24 bytes read) -> eight dwords, 4th byte 0.
inline __m256i load8Pixels3(const uint8_t* p) {
    const __m256i v = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), 1);
    // Lane 0 holds pixels 0..3 at byte 0, lane 1 pixels 4..7 at byte 4.
    const __m256i ctrl = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,  //
                                          4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
    return _mm256_shuffle_epi8(v, ctrl);
}

// Eight dwords -> their low three bytes, 24 bytes written.
inline void store8Pixels3(uint8_t* p, __m256i v) {
    const __m256i ctrl = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                          0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i packed = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(v, ctrl),
                                                       _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_castsi256_si128(packed));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p + 16), _mm256_extracti128_si256(packed, 1));
}

inline void transpose8x8(__m256i r[8]) {
    const __m256i t0 = _mm256_unpacklo_epi32(r[0], r[1]), t1 = _mm256_unpackhi_epi32(r[0], r[1]);
    const __m256i t2 = _mm256_unpacklo_epi32(r[2], r[3]), t3 = _mm256_unpackhi_epi32(r[2], r[3]);
    const __m256i t4 = _mm256_unpacklo_epi32(r[4], r[5]), t5 = _mm256_unpackhi_epi32(r[4], r[5]);
    const __m256i t6 = _mm256_unpacklo_epi32(r[6], r[7]), t7 = _mm256_unpackhi_epi32(r[6], r[7]);
    const __m256i u0 = _mm256_unpacklo_epi64(t0, t2), u1 = _mm256_unpackhi_epi64(t0, t2);
    const __m256i u2 = _mm256_unpacklo_epi64(t1, t3), u3 = _mm256_unpackhi_epi64(t1, t3);
    const __m256i u4 = _mm256_unpacklo_epi64(t4, t6), u5 = _mm256_unpackhi_epi64(t4, t6);
    const __m256i u6 = _mm256_unpacklo_epi64(t5, t7), u7 = _mm256_unpackhi_epi64(t5, t7);
    r[0] = _mm256_permute2x128_si256(u0, u4, 0x20);
    r[1] = _mm256_permute2x128_si256(u1, u5, 0x20);
    r[2] = _mm256_permute2x128_si256(u2, u6, 0x20);
    r[3] = _mm256_permute2x128_si256(u3, u7, 0x20);
    r[4] = _mm256_permute2x128_si256(u0, u4, 0x31);
    r[5] = _mm256_permute2x128_si256(u1, u5, 0x31);
    r[6] = _mm256_permute2x128_si256(u2, u6, 0x31);
    r[7] = _mm256_permute2x128_si256(u3, u7, 0x31);
}

// Eight gray values (dwords, lane 0 pixels 0..3, lane 1 pixels 4..7) of the
// eight pixels at `p`.
inline __m256i gray8(const uint8_t* p) {
    const __m256i v = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), 1);
    const __m256i ctrl_bg = _mm256_setr_epi8(0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1,  //
                                             4, -1, 5, -1, 7, -1, 8, -1, 10, -1, 11, -1, 13, -1, 14, -1);
    const __m256i ctrl_r = _mm256_setr_epi8(2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1,  //
                                            6, -1, -1, -1, 9, -1, -1, -1, 12, -1, -1, -1, 15, -1, -1, -1);
    // (R, 1) pairs carry the rounding term through the second multiply-add.
    const __m256i r1 = _mm256_or_si256(_mm256_shuffle_epi8(v, ctrl_r), _mm256_set1_epi32(1 << 16));
    const __m256i bg = _mm256_shuffle_epi8(v, ctrl_bg);
    const __m256i sum = _mm256_add_epi32(_mm256_madd_epi16(bg, _mm256_set1_epi32(kGrayB | (kGrayG << 16))),
                                         _mm256_madd_epi16(r1, _mm256_set1_epi32(kGrayR | ((1 << (kGrayShift - 1)) << 16))));
    return _mm256_srli_epi32(sum, kGrayShift);
}

}  // namespace

void bgrToGrayRow(const uint8_t* bgr, uint8_t* gray, int width) {
    int x = 0;
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    for (; x + 16 <= width; x += 16) {
        const __m256i a = gray8(bgr + 3 * x), b = gray8(bgr + 3 * x + 24);
        const __m256i w = _mm256_packus_epi32(a, b);  // lane 0: 0..3, 8..11; lane 1: 4..7, 12..15
        const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(w, w), order);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(gray + x), _mm256_castsi256_si128(bytes));
    }
    ref::bgrToGrayRow(bgr + 3 * x, gray + x, width - x);
}

void grayToBgrRow(const uint8_t* gray, uint8_t* bgr, int width) {
    int x = 0;
    const __m128i c0 = _mm_setr_epi8(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5);
    const __m128i c1 = _mm_setr_epi8(5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9, 9, 10, 10);
    const __m128i c2 = _mm_setr_epi8(10, 11, 11, 11, 12, 12, 12, 13, 13, 13, 14, 14, 14, 15, 15, 15);
    for (; x + 16 <= width; x += 16) {
        const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(gray + x));
        __m128i* d = reinterpret_cast<__m128i*>(bgr + 3 * x);
        _mm_storeu_si128(d, _mm_shuffle_epi8(g, c0));
        _mm_storeu_si128(d + 1, _mm_shuffle_epi8(g, c1));
        _mm_storeu_si128(d + 2, _mm_shuffle_epi8(g, c2));
    }
    ref::grayToBgrRow(gray + x, bgr + 3 * x, width - x);
}

void u8ToF32Row(const uint8_t* src, float* dst, size_t count) {
    size_t i = 0;
    for (; i + 32 <= count; i += 32)
        for (int k = 0; k < 4; ++k) {
            const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + i + 8 * k));
            _mm256_storeu_ps(dst + i + 8 * k, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(b)));
        }
    ref::u8ToF32Row(src + i, dst + i, count - i);
}

void f32ToU8Row(const float* src, uint8_t* dst, size_t count) {
    size_t i = 0;
    const __m256 zero = _mm256_setzero_ps(), top = _mm256_set1_ps(255.f);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    for (; i + 32 <= count; i += 32) {
        __m256i q[4];
        for (int k = 0; k < 4; ++k) {
            // max(x, 0) returns 0 for a NaN x (the second operand wins when unordered).
            const __m256 v = _mm256_min_ps(_mm256_max_ps(_mm256_loadu_ps(src + i + 8 * k), zero), top);
            q[k] = _mm256_cvtps_epi32(v);
        }
        const __m256i w = _mm256_packus_epi16(_mm256_packs_epi32(q[0], q[1]), _mm256_packs_epi32(q[2], q[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), _mm256_permutevar8x32_epi32(w, order));
    }
    ref::f32ToU8Row(src + i, dst + i, count - i);
}

void halfToFloatRow(const uint16_t* src, float* dst, size_t count) {
    size_t i = 0;
    for (; i + 8 <= count; i += 8)
        _mm256_storeu_ps(dst + i, _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i))));
    ref::halfToFloatRow(src + i, dst + i, count - i);
}

void floatToHalfRow(const float* src, uint16_t* dst, size_t count) {
    size_t i = 0;
    for (; i + 8 <= count; i += 8)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i),
                         _mm256_cvtps_ph(_mm256_loadu_ps(src + i), _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
    ref::floatToHalfRow(src + i, dst + i, count - i);
}

void rotate3(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst, size_t dst_step) {
    const int w8 = width & ~7, h8 = height & ~7;
    if (code == 2) {
        const __m256i reverse = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
        for (int y = 0; y < height; ++y) {
            const uint8_t* s = src + size_t(y) * src_step;
            uint8_t* d = dst + size_t(height - 1 - y) * dst_step;
            for (int x = 0; x < w8; x += 8)
                store8Pixels3(d + size_t(width - 8 - x) * 3,
                              _mm256_permutevar8x32_epi32(load8Pixels3(s + size_t(x) * 3), reverse));
        }
        ref::rotate3Rect(src, src_step, width, height, code, dst, dst_step, w8, width, 0, height);
        return;
    }
    for (int y0 = 0; y0 < h8; y0 += 8) {
        for (int x0 = 0; x0 < w8; x0 += 8) {
            __m256i r[8];
            // For 90 degrees clockwise the rows go in reverse so that each
            // transposed column comes out in destination order.
            for (int i = 0; i < 8; ++i) {
                const int y = code == 1 ? y0 + i : y0 + 7 - i;
                r[i] = load8Pixels3(src + size_t(y) * src_step + size_t(x0) * 3);
            }
            transpose8x8(r);
            for (int j = 0; j < 8; ++j) {
                const int x = x0 + j;
                uint8_t* d = code == 1 ? dst + size_t(width - 1 - x) * dst_step + size_t(y0) * 3
                                       : dst + size_t(x) * dst_step + size_t(height - 8 - y0) * 3;
                store8Pixels3(d, r[j]);
            }
        }
    }
    ref::rotate3Rect(src, src_step, width, height, code, dst, dst_step, w8, width, 0, height);
    ref::rotate3Rect(src, src_step, width, height, code, dst, dst_step, 0, w8, h8, height);
}

namespace {

// Sixteen sums of four 3-byte pixels, each starting at its own column of `c`.
inline __m256i sum4Pixels3(const uint16_t* c) {
    const auto at = [c](int i) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c + i)); };
    return _mm256_add_epi16(_mm256_add_epi16(at(0), at(3)), _mm256_add_epi16(at(6), at(9)));
}

// 4 x 4 blocks of 3-byte pixels, four output pixels (48 source bytes) per
// step: the four rows are summed into 16-bit columns, four neighbouring
// pixels added with shifted loads, and the twelve block sums (at columns
// 0-2, 12-14, 24-26, 36-38 of the step) picked from the three vectors with
// blends and one byte shuffle. A mean of 16 is exact in float, so OpenCV's
// rounding is (sum + 7 + (sum >> 4 & 1)) >> 4, half to even. Pixels left
// over at the end of a strip go to the reference.
void areaBox4x4C3(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width,
                  int dst_height) {
    constexpr int kStripPx = 512;  // output pixels per strip
    // Column sums of a strip, with room for the shifted loads of the last
    // step (up to 24 columns on), kept zero.
    alignas(32) uint16_t columns[kStripPx * 12 + 32];
    const __m256i seven = _mm256_set1_epi16(7), one = _mm256_set1_epi16(1);
    const __m128i order = _mm_setr_epi8(0, 1, 2, 12, 13, 14, 8, 9, 10, 4, 5, 6, -1, -1, -1, -1);
    for (int y = 0; y < dst_height; ++y) {
        const uint8_t* rows = src + size_t(y) * 4 * src_step;
        uint8_t* d = dst + size_t(y) * dst_step;
        for (int px0 = 0; px0 < dst_width; px0 += kStripPx) {
            const int npx = std::min(kStripPx, dst_width - px0);
            const int steps = npx / 4;
            const int n = steps * 48;  // source bytes of the vector part per row
            const uint8_t* s0 = rows + size_t(px0) * 12;
            for (int k = 0; k < n; k += 16) {
                const auto row = [&](int r) {
                    return _mm256_cvtepu8_epi16(
                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + size_t(r) * src_step + size_t(k))));
                };
                const __m256i sum = _mm256_add_epi16(_mm256_add_epi16(row(0), row(1)), _mm256_add_epi16(row(2), row(3)));
                _mm256_store_si256(reinterpret_cast<__m256i*>(columns + k), sum);
            }
            std::memset(columns + n, 0, 32 * sizeof(uint16_t));
            uint8_t* out = d + size_t(px0) * 3;
            for (int g = 0; g < steps; ++g) {
                const uint16_t* c = columns + 48 * g;
                const __m256i v0 = sum4Pixels3(c), v1 = sum4Pixels3(c + 16), v2 = sum4Pixels3(c + 32);
                // Lane 0: pixel 0 (words 0-2), pixel 3 (words 4-6); lane 1: pixel 2, pixel 1.
                const __m256i picked = _mm256_blend_epi32(_mm256_blend_epi16(v0, v2, 0x70),
                                                          _mm256_blend_epi16(v1, v0, 0x70), 0xF0);
                const __m256i odd = _mm256_and_si256(_mm256_srli_epi16(picked, 4), one);
                const __m256i mean =
                    _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(picked, seven), odd), 4);
                const __m256i bytes = _mm256_packus_epi16(mean, mean);
                const __m128i both = _mm_unpacklo_epi64(_mm256_castsi256_si128(bytes),
                                                        _mm256_extracti128_si256(bytes, 1));
                const __m128i px = _mm_shuffle_epi8(both, order);
                uint8_t* o = out + size_t(g) * 12;
                _mm_storel_epi64(reinterpret_cast<__m128i*>(o), px);
                const int last = _mm_extract_epi32(px, 2);
                std::memcpy(o + 8, &last, 4);
            }
            const int rest = npx - steps * 4;
            if (rest)
                ref::areaBox(s0 + size_t(n), src_step, out + size_t(steps) * 12, dst_step, rest, 1, 3, 4, 4);
        }
    }
}

}  // namespace

// 2 x 2 blocks of C-channel pixels: per row, the bytes of each pixel pair
// are shuffled side by side and summed into words by one multiply-add with
// ones; the two rows' sums are added and rounded as OpenCV rounds (half up
// for 1, 3 and 4 channels; the float path's half to even for 2). C = 1, 2,
// 4: 64 source bytes per row give 32 values; C = 3: 24 give 12 (the second
// 8-byte store reaches 2 bytes past them, rewritten by the next step).
namespace {
template <int C>
void areaBox2x2(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width, int dst_height) {
    static constexpr PixelPairOrder<C> kOrder{};
    const __m256i order = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kOrder.b));
    const __m256i ones8 = _mm256_set1_epi8(1);
    const __m256i two = _mm256_set1_epi16(2), one = _mm256_set1_epi16(1);
    const int n = dst_width * C;
    auto mean = [&](__m256i sum) {
        if (C == 2)  // (sum + 1 + (floor(sum / 4) & 1)) >> 2: half to even
            return _mm256_srli_epi16(
                _mm256_add_epi16(_mm256_add_epi16(sum, one), _mm256_and_si256(_mm256_srli_epi16(sum, 2), one)), 2);
        return _mm256_srli_epi16(_mm256_add_epi16(sum, two), 2);
    };
    for (int y = 0; y < dst_height; ++y) {
        const uint8_t* r0 = src + size_t(2 * y) * src_step;
        const uint8_t* r1 = r0 + src_step;
        uint8_t* d = dst + size_t(y) * dst_step;
        int e = 0;
        if (C == 3) {
            auto sums = [&](const uint8_t* p) {
                const __m256i v = _mm256_inserti128_si256(
                    _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 12)), 1);
                return _mm256_maddubs_epi16(_mm256_shuffle_epi8(v, order), ones8);
            };
            for (; e + 14 <= n && 2 * e + 28 <= 2 * n; e += 12) {
                const __m256i m = mean(_mm256_add_epi16(sums(r0 + 2 * e), sums(r1 + 2 * e)));
                const __m256i b = _mm256_packus_epi16(m, m);
                _mm_storel_epi64(reinterpret_cast<__m128i*>(d + e), _mm256_castsi256_si128(b));
                _mm_storel_epi64(reinterpret_cast<__m128i*>(d + e + 6), _mm256_extracti128_si256(b, 1));
            }
        } else {
            auto sums = [&](const uint8_t* p) {
                __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
                if (C > 1) v = _mm256_shuffle_epi8(v, order);
                return _mm256_maddubs_epi16(v, ones8);
            };
            for (; e + 32 <= n; e += 32) {
                const __m256i a = mean(_mm256_add_epi16(sums(r0 + 2 * e), sums(r1 + 2 * e)));
                const __m256i b = mean(_mm256_add_epi16(sums(r0 + 2 * e + 32), sums(r1 + 2 * e + 32)));
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + e),
                                    _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8));
            }
        }
        // The rest of the row: whole pixels from the first value not written.
        const int px = e / C;
        if (px < dst_width)
            ref::areaBox(r0 + size_t(px) * 2 * C, src_step, d + size_t(px) * C, dst_step, dst_width - px, 1, C, 2, 2);
    }
}
// Blocks up to 4 pixels wide (any height up to 64) of C-channel pixels,
// rounded as OpenCV's float path rounds: float(sum) * (1 / area) to nearest
// even. Each 128-bit lane holds G pixels (4 / C, or 1 for C = 3), V = G C
// values: per source row the lane's G * FX * C bytes are shuffled into one
// 4-byte group per value (FX samples, zero padding), summed in pairs into
// words by a multiply-add with ones and added over the rows; a multiply-add
// of the words with ones gives the block sums.
template <int C, int FX>
void areaBoxNarrow(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width, int dst_height,
                   int fy) {
    constexpr int G = C == 3 ? 1 : 4 / C;
    constexpr int V = G * C;
    constexpr int kLaneBytes = G * FX * C;  // source bytes per lane and row
    struct Groups {
        int8_t b[32];
        constexpr Groups() : b() {
            for (int lane = 0; lane < 2; ++lane)
                for (int k = 0; k < 16; ++k) {
                    const int v = k / 4, i = k % 4, g = v / C, c = v % C;
                    b[16 * lane + k] = int8_t(v < V && i < FX ? g * FX * C + i * C + c : -128);
                }
        }
    };
    static constexpr Groups kGroups{};
    const __m256i groups = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kGroups.b));
    const __m256i ones8 = _mm256_set1_epi8(1), ones16 = _mm256_set1_epi16(1);
    const __m256 scale = _mm256_set1_ps(1.f / float(FX * fy));
    const __m256i pick = _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0);
    const int row_bytes = dst_width * FX * C;  // source bytes of the blocks of one output row
    const int n = dst_width * C;
    for (int y = 0; y < dst_height; ++y) {
        const uint8_t* rows = src + size_t(y) * size_t(fy) * src_step;
        uint8_t* d = dst + size_t(y) * dst_step;
        int px = 0;  // first pixel of the block
        // Both lanes' 16-byte loads stay inside the row; 3-channel stores
        // write one byte past their 6 values, which must lie inside the output row.
        for (; (px + G) * FX * C + 16 <= row_bytes && (C != 3 || px * C + 7 <= n); px += 2 * G) {
            const uint8_t* s = rows + size_t(px) * FX * C;
            __m256i words = _mm256_setzero_si256();
            for (int r = 0; r < fy; ++r, s += src_step) {
                const __m256i v = _mm256_inserti128_si256(
                    _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s))),
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + kLaneBytes)), 1);
                words = _mm256_add_epi16(words, _mm256_maddubs_epi16(_mm256_shuffle_epi8(v, groups), ones8));
            }
            const __m256i sums = _mm256_madd_epi16(words, ones16);
            const __m256i q = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(sums), scale));
            const __m256i w = _mm256_packus_epi32(q, q);
            const __m256i bytes = _mm256_packus_epi16(w, w);  // lane h: its V values in bytes 0..V-1
            uint8_t* o = d + size_t(px) * C;
            if (C == 3) {
                const int lo = _mm256_extract_epi32(bytes, 0), hi = _mm256_extract_epi32(bytes, 4);
                std::memcpy(o, &lo, 4);
                std::memcpy(o + 3, &hi, 4);
            } else {
                _mm_storel_epi64(reinterpret_cast<__m128i*>(o),
                                 _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(bytes, pick)));
            }
        }
        if (px < dst_width)
            ref::areaBox(rows + size_t(px) * FX * C, src_step, d + size_t(px) * C, dst_step, dst_width - px, 1, C, FX,
                         fy);
    }
}

using AreaBoxNarrowFn = void (*)(const uint8_t*, size_t, uint8_t*, size_t, int, int, int);

AreaBoxNarrowFn areaBoxNarrowFor(int channels, int fx) {
    static const AreaBoxNarrowFn table[4][4] = {
        {areaBoxNarrow<1, 1>, areaBoxNarrow<1, 2>, areaBoxNarrow<1, 3>, areaBoxNarrow<1, 4>},
        {areaBoxNarrow<2, 1>, areaBoxNarrow<2, 2>, areaBoxNarrow<2, 3>, areaBoxNarrow<2, 4>},
        {areaBoxNarrow<3, 1>, areaBoxNarrow<3, 2>, areaBoxNarrow<3, 3>, areaBoxNarrow<3, 4>},
        {areaBoxNarrow<4, 1>, areaBoxNarrow<4, 2>, areaBoxNarrow<4, 3>, areaBoxNarrow<4, 4>}};
    return channels >= 1 && channels <= 4 && fx >= 1 && fx <= 4 ? table[channels - 1][fx - 1] : nullptr;
}

}  // namespace

// Box reduction a strip of output pixels at a time: the fy source rows are
// summed column by column into 16-bit sums, fx neighbouring sums of each
// channel are added along the strip, and the sums at block starts are
// gathered eight at a time, scaled and rounded. Blocks of more than 257
// pixels (whose sums could pass 16 bits) or wider than an eighth of a strip
// go to the reference.
void areaBox(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int dst_width, int dst_height,
             int channels, int fx, int fy) {
    if (channels == 3 && fx == 4 && fy == 4) {
        areaBox4x4C3(src, src_step, dst, dst_step, dst_width, dst_height);
        return;
    }
    // Blocks up to 4 wide and 64 high with float rounding (not OpenCV's 2 x 2
    // integer path, taken below) go through areaBoxNarrow.
    if (fx <= 4 && fy <= 64 && !ref::areaHalfUp(channels, fx, fy) && !(fx == 2 && fy == 2)) {
        if (const AreaBoxNarrowFn f = areaBoxNarrowFor(channels, fx)) {
            f(src, src_step, dst, dst_step, dst_width, dst_height, fy);
            return;
        }
    }
    if (fx == 2 && fy == 2 && dispatchCount<4>(channels, [&](auto c) {
            areaBox2x2<c()>(src, src_step, dst, dst_step, dst_width, dst_height);
        }))
        return;
    constexpr int kStrip = 2048;  // 16-bit column sums per strip
    const int block = fx * channels;
    if (fx * fy > 257 || block * 8 > kStrip) {
        ref::areaBox(src, src_step, dst, dst_step, dst_width, dst_height, channels, fx, fy);
        return;
    }
    // Column sums, then sums over fx pixels; spare entries so that the vector
    // loops may run past the strip's end (by up to 15 + a block) into zeros.
    alignas(32) uint16_t columns[kStrip + kStrip / 8 + 16];
    alignas(32) uint16_t boxes[kStrip + 16];
    std::memset(columns, 0, sizeof columns);
    std::memset(boxes, 0, sizeof boxes);
    const int strip_px = (kStrip / block) & ~7;
    const bool half_up = ref::areaHalfUp(channels, fx, fy);
    const __m256 scale = _mm256_set1_ps(1.f / float(fx * fy));
    const __m256i two = _mm256_set1_epi32(2);
    const __m256i low16 = _mm256_set1_epi32(0xFFFF);
    // Gather offsets of eight consecutive output samples: the pattern repeats
    // after `period` groups (3 for three channels, else 1).
    const int period = channels == 3 ? 3 : 1;
    __m256i offsets[3];
    for (int g = 0; g < period; ++g) {
        alignas(32) int32_t o[8];
        for (int l = 0; l < 8; ++l) o[l] = ((8 * g + l) / channels) * block + (8 * g + l) % channels;
        offsets[g] = _mm256_load_si256(reinterpret_cast<const __m256i*>(o));
    }
    const int period_advance = 8 * period / channels * block;  // source elements per period of groups
    for (int y = 0; y < dst_height; ++y) {
        const uint8_t* rows = src + size_t(y) * size_t(fy) * src_step;
        uint8_t* d = dst + size_t(y) * dst_step;
        for (int px0 = 0; px0 < dst_width; px0 += strip_px) {
            const int px1 = std::min(dst_width, px0 + strip_px);
            const int n = (px1 - px0) * block;  // source bytes of the strip per row
            const uint8_t* s0 = rows + size_t(px0) * size_t(block);
            int k = 0;
            for (; k + 16 <= n; k += 16) {
                __m256i acc = _mm256_setzero_si256();
                for (int r = 0; r < fy; ++r)
                    acc = _mm256_add_epi16(acc, _mm256_cvtepu8_epi16(_mm_loadu_si128(
                                                    reinterpret_cast<const __m128i*>(s0 + size_t(r) * src_step + k))));
                _mm256_store_si256(reinterpret_cast<__m256i*>(columns + k), acc);
            }
            for (; k < n; ++k) {
                uint16_t acc = 0;
                for (int r = 0; r < fy; ++r) acc = uint16_t(acc + s0[size_t(r) * src_step + size_t(k)]);
                columns[k] = acc;
            }
            // Only the sums at block starts are used; the ones near the end
            // of the strip read the spare zeros or stale sums and are dropped.
            for (k = 0; k < n; k += 16) {
                __m256i acc = _mm256_load_si256(reinterpret_cast<const __m256i*>(columns + k));
                for (int i = 1; i < fx; ++i)
                    acc = _mm256_add_epi16(
                        acc, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(columns + k + i * channels)));
                _mm256_store_si256(reinterpret_cast<__m256i*>(boxes + k), acc);
            }
            const int samples = (px1 - px0) * channels;
            uint8_t* out = d + size_t(px0) * size_t(channels);
            const int* base = reinterpret_cast<const int*>(boxes);
            int j = 0, g = 0, origin = 0;
            for (; j + 8 <= samples; j += 8) {
                const __m256i idx = _mm256_add_epi32(offsets[g], _mm256_set1_epi32(origin));
                // 32-bit loads at 16-bit positions; the upper half is the next sum.
                const __m256i sums =
                    _mm256_and_si256(_mm256_i32gather_epi32(base, idx, 2), low16);
                __m256i q;
                if (half_up)
                    q = _mm256_srli_epi32(_mm256_add_epi32(sums, two), 2);
                else
                    q = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(sums), scale));
                const __m128i w = _mm_packus_epi32(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1));
                _mm_storel_epi64(reinterpret_cast<__m128i*>(out + j), _mm_packus_epi16(w, w));
                if (++g == period) {
                    g = 0;
                    origin += period_advance;
                }
            }
            for (; j < samples; ++j) {
                const int at = (j / channels) * block + j % channels;
                out[j] = ref::areaMean(boxes[at], half_up, 1.f / float(fx * fy));
            }
        }
    }
}

}  // namespace avx2
#pragma GCC pop_options

namespace {

constexpr FastKernels kRef{ref::bgrToGrayRow,     ref::grayToBgrRow,     ref::u8ToF32Row,       ref::f32ToU8Row,
                           ref::halfToFloatRow,   ref::floatToHalfRow,   ref::rotate3,          ref::areaBox,
                           ref::yuvHalfToBgrRow,  ref::yuvHalfToRgbRow,  ref::yuvPairsToBgrRow, ref::yuvPairsToRgbRow,
                           ref::yuvFullToBgrRow,  ref::yuvFullToRgbRow,  ref::bgrToI420Rows,    ref::bgrToNv12Rows,
                           ref::bgrToI422Row,     ref::bgrToNv16Row,     ref::bgrToI444Row,     ref::split3Row,
                           ref::merge3Row,        ref::swap3Row,         ref::bytesToPlanarFloat3Row};
constexpr FastKernels kAvx2{avx2::bgrToGrayRow,     avx2::grayToBgrRow,     avx2::u8ToF32Row,
                            avx2::f32ToU8Row,       avx2::halfToFloatRow,   avx2::floatToHalfRow,
                            avx2::rotate3,          avx2::areaBox,          avx2::yuvHalfToBgrRow,
                            avx2::yuvHalfToRgbRow,  avx2::yuvPairsToBgrRow, avx2::yuvPairsToRgbRow,
                            avx2::yuvFullToBgrRow,  avx2::yuvFullToRgbRow,  avx2::bgrToI420Rows,
                            avx2::bgrToNv12Rows,    avx2::bgrToI422Row,     avx2::bgrToNv16Row,
                            avx2::bgrToI444Row,     avx2::split3Row,        avx2::merge3Row,
                            avx2::swap3Row,         avx2::bytesToPlanarFloat3Row};
constexpr FastKernels kAvx512{avx512::bgrToGrayRow,     avx2::grayToBgrRow,       avx2::u8ToF32Row,
                              avx2::f32ToU8Row,         avx512::halfToFloatRow,   avx2::floatToHalfRow,
                              avx512::rotate3,          avx2::areaBox,            avx512::yuvHalfToBgrRow,
                              avx512::yuvHalfToRgbRow,  avx512::yuvPairsToBgrRow, avx512::yuvPairsToRgbRow,
                              avx512::yuvFullToBgrRow,  avx512::yuvFullToRgbRow,  avx512::bgrToI420Rows,
                              avx512::bgrToNv12Rows,    avx512::bgrToI422Row,     avx512::bgrToNv16Row,
                              avx512::bgrToI444Row,     avx512::split3Row,        avx512::merge3Row,
                              avx512::swap3Row,         avx512::bytesToPlanarFloat3Row};

}  // namespace

const FastKernels& fastKernels(Isa isa) {
    static const bool f16c = __builtin_cpu_supports("f16c");
    if (!f16c || isa < Isa::kAvx2) return kRef;
    return isa >= Isa::kAvx512 ? kAvx512 : kAvx2;
}

}  // namespace impl
}  // namespace kv
