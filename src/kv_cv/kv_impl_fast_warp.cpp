// Affine warp of byte planes: the scalar reference that defines the bytes
// (OpenCV 4.6's fixed point, see the header), the AVX2 row kernel, and the
// plane driver. Per row the AVX2 kernel finds by binary search the columns
// whose taps all lie inside the source (eight pixels at a time there), zeroes
// the columns that cannot touch it, and leaves the few in between to the
// reference's formulas.
#include "kv_cv/kv_impl_fast_warp.h"

#include <immintrin.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kv {
namespace impl {

namespace {

constexpr int kInterBits = 5;                    // source positions in 1/32 pixel
constexpr int kTableBits = 10;                   // fixed point of the tables
constexpr int kBilinearRound = 1 << (kTableBits - kInterBits - 1);
constexpr int kNearestRound = 1 << (kTableBits - 1);
constexpr int32_t kSmall = 1 << 29;              // see WarpPlane::small

inline int32_t wrapAdd(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }

inline int sat16(int32_t v) { return v < -32768 ? -32768 : v > 32767 ? 32767 : v; }

// OpenCV's cvRound: nearest, ties to even; outside int gives INT_MIN.
inline int32_t roundToInt(double v) {
    const double r = std::nearbyint(v);
    return r >= double(INT_MIN) && r <= double(INT_MAX) ? int32_t(r) : INT_MIN;
}

inline void nearestPixel(const WarpPlane& p, int sx, int sy, uint8_t* d) {
    const int cn = p.channels;
    if (unsigned(sx) < unsigned(p.src_width) && unsigned(sy) < unsigned(p.src_height)) {
        const uint8_t* s = p.src + size_t(sy) * p.src_step + size_t(sx) * size_t(cn);
        for (int c = 0; c < cn; ++c) d[c] = s[c];
    } else {
        for (int c = 0; c < cn; ++c) d[c] = 0;
    }
}

// X, Y: source position in 1/32 pixel.
inline void bilinearPixel(const WarpPlane& p, int32_t X, int32_t Y, uint8_t* d) {
    const int cn = p.channels;
    const int sx = sat16(X >> kInterBits), sy = sat16(Y >> kInterBits);
    const int fx = X & 31, fy = Y & 31;
    const int w[4] = {(32 - fx) * (32 - fy), fx * (32 - fy), (32 - fx) * fy, fx * fy};
    const uint8_t* tap[4] = {};
    for (int j = 0; j < 2; ++j) {
        if (unsigned(sy + j) >= unsigned(p.src_height)) continue;
        for (int i = 0; i < 2; ++i)
            if (unsigned(sx + i) < unsigned(p.src_width))
                tap[j * 2 + i] = p.src + size_t(sy + j) * p.src_step + size_t(sx + i) * size_t(cn);
    }
    for (int c = 0; c < cn; ++c) {
        int sum = 512;
        for (int k = 0; k < 4; ++k)
            if (tap[k]) sum += tap[k][c] * w[k];
        d[c] = uint8_t(sum >> 10);
    }
}

// Columns [from, to) of a row by the scalar formulas.
void scalarSpan(const WarpPlane& p, int32_t x0, int32_t y0, uint8_t* dst, int from, int to) {
    const int cn = p.channels;
    for (int x = from; x < to; ++x) {
        const int32_t xs = wrapAdd(x0, p.adelta[x]), ys = wrapAdd(y0, p.bdelta[x]);
        uint8_t* d = dst + size_t(x) * size_t(cn);
        if (p.bilinear)
            bilinearPixel(p, xs >> kInterBits, ys >> kInterBits, d);
        else
            nearestPixel(p, sat16(xs >> kTableBits), sat16(ys >> kTableBits), d);
    }
}

// First x in [0, n) for which `pred` holds (pred false then true along x); n if none.
template <typename Pred>
int firstTrue(int n, Pred pred) {
    int lo = 0, hi = n;
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        if (pred(mid))
            hi = mid;
        else
            lo = mid + 1;
    }
    return lo;
}

// [*first, *last): the x in [0, n) with lo <= (base + delta[x]) >> 10 <= hi,
// for `delta` monotone.
void monotoneRange(const int32_t* delta, int64_t base, int lo, int hi, int n, int* first, int* last) {
    const auto pos = [&](int x) { return (base + delta[x]) >> kTableBits; };
    if (delta[n - 1] >= delta[0]) {
        *first = firstTrue(n, [&](int x) { return pos(x) >= lo; });
        *last = firstTrue(n, [&](int x) { return pos(x) > hi; });
    } else {
        *first = firstTrue(n, [&](int x) { return pos(x) <= hi; });
        *last = firstTrue(n, [&](int x) { return pos(x) < lo; });
    }
}

}  // namespace

void warpInsideRange(const WarpPlane& plane, int32_t x0, int32_t y0, int width, int min_sx, int max_sx, int min_sy,
                     int max_sy, int* first, int* last) {
    *first = *last = 0;
    if (width < 1 || max_sx < min_sx || max_sy < min_sy) return;
    int ax, bx, ay, by;
    monotoneRange(plane.adelta, x0, min_sx, max_sx, width, &ax, &bx);
    monotoneRange(plane.bdelta, y0, min_sy, max_sy, width, &ay, &by);
    *first = std::max(ax, ay);
    *last = std::max(*first, std::min(bx, by));
}

namespace ref {

void warpRow(const WarpPlane& plane, int32_t x0, int32_t y0, uint8_t* dst, int width) {
    scalarSpan(plane, x0, y0, dst, 0, width);
}

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

// Whole pixels to keep clear of the right edge so that the loads stay in
// the row: nearest gathers 4 bytes per pixel, bilinear loads 8 bytes from
// each of the two rows.
int rightSlack(int cn, bool bilinear) {
    static const int kNearest[5] = {0, 3, 1, 1, 0};
    static const int kBilinear[5] = {0, 7, 3, 2, 1};
    return bilinear ? kBilinear[cn] : kNearest[cn];
}

struct Masks {
    // From the 8 top bytes and the 8 bottom bytes at a pixel, 32-bit lane c
    // gets channel c's taps as [top, bottom, top right, bottom right].
    __m256i quad;
    // 32-bit lanes of CN bytes to packed pixels within each half.
    __m256i pack;
};

Masks makeMasks(int cn) {
    Masks m;
    alignas(32) int8_t q[32], k[32];
    for (int half = 0; half < 2; ++half)
        for (int i = 0; i < 16; ++i) {
            const int c = i / 4, tap = i % 4;
            q[16 * half + i] = c < cn ? int8_t((tap & 1) * 8 + (tap >> 1) * cn + c) : int8_t(-1);
            k[16 * half + i] = i < 4 * cn ? int8_t(i / cn * 4 + i % cn) : int8_t(-1);
        }
    m.quad = _mm256_load_si256(reinterpret_cast<const __m256i*>(q));
    m.pack = _mm256_load_si256(reinterpret_cast<const __m256i*>(k));
    return m;
}

// Stores eight pixels held as the low CN bytes of each 32-bit lane.
template <int CN>
__attribute__((always_inline)) inline void storePixels(__m256i v, const Masks& m, uint8_t* d) {
    if (CN == 4) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), v);
        return;
    }
    v = _mm256_shuffle_epi8(v, m.pack);
    if (CN == 3) {
        v = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(v));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm256_extracti128_si256(v, 1));
    } else if (CN == 2) {
        v = _mm256_permute4x64_epi64(v, _MM_SHUFFLE(3, 1, 2, 0));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(v));
    } else {
        v = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 4, 1, 1, 1, 1, 1, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(v));
    }
}

// The 8 bytes at `o0` of the top and bottom rows in the low half, those at
// `o1` in the high half.
__attribute__((always_inline)) inline __m256i loadTaps(const uint8_t* top, const uint8_t* bottom, uint32_t o0,
                                                       uint32_t o1) {
    const __m128d lo = _mm_loadh_pd(_mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(top + o0))),
                                    reinterpret_cast<const double*>(bottom + o0));
    const __m128d hi = _mm_loadh_pd(_mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(top + o1))),
                                    reinterpret_cast<const double*>(bottom + o1));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_castpd_si128(lo)), _mm_castpd_si128(hi), 1);
}

template <int CN>
__attribute__((always_inline)) inline __m256i byteOffsets(__m256i sx, __m256i sy, __m256i step) {
    __m256i ox = sx;
    if (CN == 2) ox = _mm256_slli_epi32(sx, 1);
    if (CN == 3) ox = _mm256_add_epi32(sx, _mm256_slli_epi32(sx, 1));
    if (CN == 4) ox = _mm256_slli_epi32(sx, 2);
    return _mm256_add_epi32(_mm256_mullo_epi32(sy, step), ox);
}

// Eight pixels from column x on; every tap inside the source.
template <int CN>
__attribute__((always_inline)) inline void nearest8(const WarpPlane& p, __m256i x0, __m256i y0, __m256i step,
                                                    const Masks& m, int x, uint8_t* d) {
    const __m256i xs = _mm256_add_epi32(x0, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p.adelta + x)));
    const __m256i ys = _mm256_add_epi32(y0, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p.bdelta + x)));
    const __m256i off = byteOffsets<CN>(_mm256_srai_epi32(xs, kTableBits), _mm256_srai_epi32(ys, kTableBits), step);
    const __m256i v = _mm256_i32gather_epi32(reinterpret_cast<const int*>(p.src), off, 1);
    storePixels<CN>(v, m, d);
}

// Bilinear, first half: for eight pixels from column x, the byte offsets of
// their top-left taps and the weights, per pixel: bytes (32 - fy, fy) twice
// for the vertical step, words (32 - fx, fx) for the horizontal one.
template <int CN>
__attribute__((always_inline)) inline void bilinearPrepare(const WarpPlane& p, __m256i x0, __m256i y0, __m256i step,
                                                           int x, uint32_t* off, __m256i* wy, __m256i* wx) {
    const __m256i k31 = _mm256_set1_epi32(31), k32 = _mm256_set1_epi32(32);
    const __m256i xs = _mm256_add_epi32(x0, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p.adelta + x)));
    const __m256i ys = _mm256_add_epi32(y0, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p.bdelta + x)));
    const __m256i fx = _mm256_and_si256(_mm256_srli_epi32(xs, kInterBits), k31);
    const __m256i fy = _mm256_and_si256(_mm256_srli_epi32(ys, kInterBits), k31);
    const __m256i wy1 = _mm256_or_si256(_mm256_sub_epi32(k32, fy), _mm256_slli_epi32(fy, 8));
    *wy = _mm256_or_si256(wy1, _mm256_slli_epi32(wy1, 16));
    *wx = _mm256_or_si256(_mm256_sub_epi32(k32, fx), _mm256_slli_epi32(fx, 16));
    _mm256_store_si256(reinterpret_cast<__m256i*>(off),
                       byteOffsets<CN>(_mm256_srai_epi32(xs, kTableBits), _mm256_srai_epi32(ys, kTableBits), step));
}

// Bilinear, second half: loads the taps and writes the eight pixels.
template <int CN>
__attribute__((always_inline)) inline void bilinearTaps(const WarpPlane& p, const uint32_t* o, __m256i wy, __m256i wx,
                                                        const Masks& m, uint8_t* d) {
    const uint8_t* top = p.src;
    const uint8_t* bottom = p.src + p.src_step;
    // q[k]: pixel k in the low half and k + 4 in the high half, lane c of
    // each holding channel c's taps; the transposition below makes that one
    // register per channel with the pixels in order.
    for (int k = 0; k < 8; k += 2)
        _mm_prefetch(reinterpret_cast<const char*>(uintptr_t(top) + o[k] + uintptr_t(p.ahead)), _MM_HINT_T0);
    __m256i q[4];
    for (int k = 0; k < 4; ++k) q[k] = _mm256_shuffle_epi8(loadTaps(top, bottom, o[k], o[k + 4]), m.quad);
    const __m256i u0 = _mm256_unpacklo_epi32(q[0], q[1]), u2 = _mm256_unpacklo_epi32(q[2], q[3]);
    __m256i ch[4];
    ch[0] = _mm256_unpacklo_epi64(u0, u2);
    if (CN >= 2) ch[1] = _mm256_unpackhi_epi64(u0, u2);
    if (CN >= 3) {
        const __m256i u1 = _mm256_unpackhi_epi32(q[0], q[1]), u3 = _mm256_unpackhi_epi32(q[2], q[3]);
        ch[2] = _mm256_unpacklo_epi64(u1, u3);
        if (CN == 4) ch[3] = _mm256_unpackhi_epi64(u1, u3);
    }
    const __m256i half = _mm256_set1_epi32(512);
    __m256i out = _mm256_setzero_si256();
    for (int c = 0; c < CN; ++c) {
        __m256i s = _mm256_madd_epi16(_mm256_maddubs_epi16(ch[c], wy), wx);
        s = _mm256_srli_epi32(_mm256_add_epi32(s, half), kTableBits);
        out = c == 0 ? s : _mm256_or_si256(out, _mm256_slli_epi32(s, 8 * c));
    }
    storePixels<CN>(out, m, d);
}

// Columns [first, last), last - first >= 8, in groups of eight; a short tail
// is redone as the last eight columns (same bytes again).
template <int CN>
void nearestSpan(const WarpPlane& p, int32_t x0, int32_t y0, uint8_t* dst, int first, int last) {
    static const Masks m = makeMasks(CN);
    const __m256i vx0 = _mm256_set1_epi32(x0), vy0 = _mm256_set1_epi32(y0);
    const __m256i step = _mm256_set1_epi32(int(p.src_step));
    for (int x = first;; x += 8) {
        if (x > last - 8) x = last - 8;
        nearest8<CN>(p, vx0, vy0, step, m, x, dst + size_t(x) * CN);
        if (x == last - 8) break;
    }
}

// As nearestSpan; the offsets of a few groups go through memory first, which
// is cheaper than taking them out of the vector one by one.
template <int CN>
void bilinearSpan(const WarpPlane& p, int32_t x0, int32_t y0, uint8_t* dst, int first, int last) {
    constexpr int kGroups = 4;
    static const Masks m = makeMasks(CN);
    const __m256i vx0 = _mm256_set1_epi32(x0), vy0 = _mm256_set1_epi32(y0);
    const __m256i step = _mm256_set1_epi32(int(p.src_step));
    alignas(32) uint32_t off[kGroups][8];
    __m256i wy[kGroups], wx[kGroups];
    int at[kGroups];
    for (int x = first; x < last;) {
        int n = 0;
        for (; n < kGroups && x < last; ++n, x += 8) {
            at[n] = std::min(x, last - 8);
            bilinearPrepare<CN>(p, vx0, vy0, step, at[n], off[n], &wy[n], &wx[n]);
        }
        for (int g = 0; g < n; ++g) bilinearTaps<CN>(p, off[g], wy[g], wx[g], m, dst + size_t(at[g]) * CN);
    }
}

using SpanFn = void (*)(const WarpPlane&, int32_t, int32_t, uint8_t*, int, int);

}  // namespace

void warpRow(const WarpPlane& p, int32_t x0, int32_t y0, uint8_t* dst, int width) {
    if (width < 8 || !p.small || std::abs(int64_t(x0)) >= kSmall || std::abs(int64_t(y0)) >= kSmall) {
        scalarSpan(p, x0, y0, dst, 0, width);
        return;
    }
    const int w = p.src_width, h = p.src_height, cn = p.channels;
    // Columns whose taps may touch the source; the rest are zero. (Beyond
    // 16-bit sizes a saturated position can land inside: no shortcut there.)
    int touch_first = 0, touch_last = width;
    if (w <= 32767 && h <= 32767) {
        const int lo = p.bilinear ? -1 : 0;
        warpInsideRange(p, x0, y0, width, lo, w - 1, lo, h - 1, &touch_first, &touch_last);
        std::memset(dst, 0, size_t(touch_first) * cn);
        std::memset(dst + size_t(touch_last) * cn, 0, size_t(width - touch_last) * cn);
    }
    // Columns whose taps (and the gathers' extra bytes) all lie inside.
    int first = 0, last = 0;
    const int max_sx = std::min(w - 1 - rightSlack(cn, p.bilinear), 32767);
    const int max_sy = std::min(h - (p.bilinear ? 2 : 1), 32767);
    warpInsideRange(p, x0, y0, width, 0, max_sx, 0, max_sy, &first, &last);
    if (last - first < 8) {
        scalarSpan(p, x0, y0, dst, touch_first, touch_last);
        return;
    }
    static const SpanFn kSpans[2][4] = {{nearestSpan<1>, nearestSpan<2>, nearestSpan<3>, nearestSpan<4>},
                                        {bilinearSpan<1>, bilinearSpan<2>, bilinearSpan<3>, bilinearSpan<4>}};
    scalarSpan(p, x0, y0, dst, touch_first, first);
    kSpans[p.bilinear][cn - 1](p, x0, y0, dst, first, last);
    scalarSpan(p, x0, y0, dst, last, touch_last);
}

}  // namespace avx2

#pragma GCC pop_options

WarpRowFn warpRowKernel(Isa isa) { return isa >= Isa::kAvx2 ? avx2::warpRow : ref::warpRow; }

void warpAffineBytes(const uint8_t* src, size_t src_step, int src_width, int src_height, uint8_t* dst,
                     size_t dst_step, int dst_width, int dst_height, int channels, const float m[6], bool bilinear,
                     Isa isa) {
    // The inverse in double, written as OpenCV writes it.
    double M[6] = {m[0], m[1], m[2], m[3], m[4], m[5]};
    double D = M[0] * M[4] - M[1] * M[3];
    D = D != 0 ? 1. / D : 0;
    const double A11 = M[4] * D, A22 = M[0] * D;
    M[0] = A11;
    M[1] *= -D;
    M[3] *= -D;
    M[4] = A22;
    const double b1 = -M[0] * M[2] - M[1] * M[5];
    const double b2 = -M[3] * M[2] - M[4] * M[5];
    M[2] = b1;
    M[5] = b2;

    thread_local std::vector<int32_t> tables;
    if (tables.size() < 2 * size_t(dst_width)) tables.resize(2 * size_t(dst_width));
    int32_t* adelta = tables.data();
    int32_t* bdelta = adelta + dst_width;
    bool small = size_t(src_height) * src_step < (size_t(1) << 31);
    for (int x = 0; x < dst_width; ++x) {
        adelta[x] = roundToInt(M[0] * x * (1 << kTableBits));
        bdelta[x] = roundToInt(M[3] * x * (1 << kTableBits));
        small = small && std::abs(int64_t(adelta[x])) < kSmall && std::abs(int64_t(bdelta[x])) < kSmall;
    }
    // Hardware prefetchers do not follow a rotated row down the source; the
    // bilinear kernel asks for the lines that row y + 4 will need.
    // Only a distance within the source is worth asking for (and a matrix of
    // huge or NaN terms must not overflow the arithmetic): otherwise none.
    const double rows_ahead = 4;
    const double ahead_bytes = std::round(M[4] * rows_ahead) * double(src_step) + std::round(M[1] * rows_ahead) * channels;
    const ptrdiff_t ahead = std::fabs(ahead_bytes) < double(1u << 30) ? ptrdiff_t(ahead_bytes) : 0;
    const WarpPlane plane{src, src_step, src_width, src_height, channels, bilinear, adelta, bdelta, small, ahead};
    const WarpRowFn row = warpRowKernel(isa);
    const int32_t round = bilinear ? kBilinearRound : kNearestRound;
    for (int y = 0; y < dst_height; ++y) {
        const int32_t x0 = wrapAdd(roundToInt((M[1] * y + M[2]) * (1 << kTableBits)), round);
        const int32_t y0 = wrapAdd(roundToInt((M[4] * y + M[5]) * (1 << kTableBits)), round);
        row(plane, x0, y0, dst + size_t(y) * dst_step, dst_width);
    }
}

}  // namespace impl
}  // namespace kv
