// AVX-512 versions of the YUV to BGR / RGB row kernels and of the byte moves
// of 3-byte pixels: the arithmetic of the AVX2 kernels
// (kv_impl_convert_rows.cpp) on 64 pixels a step, with VBMI byte permutes
// spreading the chroma and moving the bytes of three registers (192 bytes,
// 64 pixels) at once. The tail of a row (under 64 pixels) goes to the AVX2
// kernel, which ends with the reference code, so every width gives the
// reference's bytes.
#include <immintrin.h>

#include <algorithm>

#include "kv_impl_convert_rows.h"
#include "kv_cv/kv_impl_cpu.h"

namespace kv {
namespace impl {

namespace {

// Byte permutes of 64-byte registers.
struct alignas(64) Perm64 {
    uint8_t i[64];
};

// Chroma to one byte per pixel: `half` from 32 half-width samples, `even` /
// `odd` from 32 (first, second) pairs.
constexpr Perm64 makeSpread(int kind) {  // 0 half, 1 even, 2 odd
    Perm64 p{};
    for (int k = 0; k < 64; ++k) p.i[k] = uint8_t(kind == 0 ? k / 2 : 2 * (k / 2) + (kind == 2 ? 1 : 0));
    return p;
}
constexpr Perm64 kSpreadHalf = makeSpread(0);
constexpr Perm64 kSpreadEven = makeSpread(1);
constexpr Perm64 kSpreadOdd = makeSpread(2);

// Output block b (bytes 64b..64b+63 of 64 three-byte pixels): `pair` picks
// channel 0 (indices 0..63) and channel 1 (64..127) for vpermt2b, `third`
// picks channel 2 for the merge at the `third` mask's bytes.
struct Interleave3 {
    Perm64 pair[3];
    Perm64 third[3];
    uint64_t mask[3];
};
constexpr Interleave3 makeInterleave3() {
    Interleave3 t{};
    for (int b = 0; b < 3; ++b) {
        t.mask[b] = 0;
        for (int k = 0; k < 64; ++k) {
            const int j = 64 * b + k, pixel = j / 3, channel = j % 3;
            t.pair[b].i[k] = uint8_t(channel == 1 ? 64 + pixel : pixel);
            t.third[b].i[k] = uint8_t(pixel);
            if (channel == 2) t.mask[b] |= uint64_t(1) << k;
        }
    }
    return t;
}
constexpr Interleave3 kInterleave3 = makeInterleave3();

// The reverse and the swap of bytes 0 and 2 of each pixel, from 192 bytes in
// three registers: output register o takes `pair` of registers (lo[o],
// lo[o] + 1) and, at the `third` mask's bytes, `third` of register 2.
struct Gather3 {
    Perm64 pair[3];
    Perm64 third[3];
    uint64_t mask[3];
    int lo[3];
};
template <typename Source>
constexpr Gather3 makeGather3(Source source, bool planes) {
    Gather3 t{};
    for (int o = 0; o < 3; ++o) {
        int low = 128;  // lowest source byte of this output
        for (int k = 0; k < 64; ++k) low = std::min(low, source(o, k));
        t.lo[o] = planes ? 0 : (low >= 64 ? 1 : 0);
        t.mask[o] = 0;
        for (int k = 0; k < 64; ++k) {
            const int from = source(o, k) - 64 * t.lo[o];
            if (from >= 128) t.mask[o] |= uint64_t(1) << k;
            t.pair[o].i[k] = uint8_t(from < 128 ? from : 0);
            t.third[o].i[k] = uint8_t(from >= 128 ? from - 128 : 0);
        }
    }
    return t;
}
// Plane p byte k is pixel k's byte p.
constexpr Gather3 kSplit3 = makeGather3([](int p, int k) { return 3 * k + p; }, true);
// Output byte j = 64 o + k comes from byte 3 (j / 3) + 2 - j % 3.
constexpr Gather3 kSwap3 = makeGather3([](int o, int k) { return 3 * ((64 * o + k) / 3) + 2 - (64 * o + k) % 3; },
                                       false);

// Chroma layouts, as in the AVX2 kernels.
enum class Chroma { kHalf, kPairs, kFull };
constexpr int chromaStep(Chroma c) { return c == Chroma::kPairs ? 2 : 1; }
constexpr int chromaSub(Chroma c) { return c == Chroma::kFull ? 1 : 2; }

}  // namespace

KV_AVX512_BEGIN

namespace avx512 {

namespace {

inline __m512i perm(const Perm64& p) { return _mm512_load_si512(p.i); }

// vpermb; the zero-masking form, since the plain intrinsic's undefined
// pass-through upsets GCC 12's initialisation analysis.
inline __m512i permb(__m512i index, __m512i a) { return _mm512_maskz_permutexvar_epi8(~__mmask64(0), index, a); }
// 32 bytes at p, zero above (nothing read past p + 32).
inline __m512i load32(const uint8_t* p) { return _mm512_maskz_loadu_epi8(0xFFFFFFFFu, p); }

inline __m512i pairWeights(int first, int second) {
    return _mm512_set1_epi16(int16_t(uint16_t(uint8_t(first)) | uint16_t(uint16_t(uint8_t(second)) << 8)));
}

// The split numerators of the AVX2 kernel (see yuvPairsToWords there):
//   B = Y + 2U - 277 + (41Y + 4U + 112) >> 8
//   G = Y - V + 134 + (41Y + 49V - 100U + 240) >> 8
//   R = Y + 2V - 223 + (41Y - 104V + 112) >> 8
struct YuvToRgbConsts {
    __m512i int_br, frac_b, frac_r, int_g, frac_g_yv, frac_g_yu, add_br, add_g, off_b, off_r, off_g;
};

inline YuvToRgbConsts yuvToRgbConsts() {
    return {pairWeights(1, 2),        pairWeights(41, 4),       pairWeights(41, -104),   pairWeights(1, -1),
            pairWeights(41, 49),      pairWeights(0, -100),     _mm512_set1_epi16(112),  _mm512_set1_epi16(240),
            _mm512_set1_epi16(-277),  _mm512_set1_epi16(-223),  _mm512_set1_epi16(134)};
}

inline void yuvPairsToWords(__m512i yu, __m512i yv, const YuvToRgbConsts& k, __m512i& b, __m512i& g, __m512i& r) {
    b = _mm512_add_epi16(_mm512_add_epi16(_mm512_maddubs_epi16(yu, k.int_br), k.off_b),
                         _mm512_srai_epi16(_mm512_add_epi16(_mm512_maddubs_epi16(yu, k.frac_b), k.add_br), 8));
    r = _mm512_add_epi16(_mm512_add_epi16(_mm512_maddubs_epi16(yv, k.int_br), k.off_r),
                         _mm512_srai_epi16(_mm512_add_epi16(_mm512_maddubs_epi16(yv, k.frac_r), k.add_br), 8));
    const __m512i frac_g =
        _mm512_add_epi16(_mm512_maddubs_epi16(yv, k.frac_g_yv), _mm512_maddubs_epi16(yu, k.frac_g_yu));
    g = _mm512_add_epi16(_mm512_add_epi16(_mm512_maddubs_epi16(yv, k.int_g), k.off_g),
                         _mm512_srai_epi16(_mm512_add_epi16(frac_g, k.add_g), 8));
}

// Three planes of 64 bytes into 64 three-byte pixels (192 bytes at d).
inline void storeInterleaved3(uint8_t* d, __m512i p0, __m512i p1, __m512i p2) {
    for (int b = 0; b < 3; ++b) {
        const __m512i two = _mm512_permutex2var_epi8(p0, perm(kInterleave3.pair[b]), p1);
        _mm512_storeu_si512(d + 64 * b,
                            _mm512_mask_permutexvar_epi8(two, kInterleave3.mask[b], perm(kInterleave3.third[b]), p2));
    }
}

// Register o of a 64-pixel gather (kSplit3 or kSwap3) from the 192 bytes in r.
inline __m512i gather3(const Gather3& t, const __m512i r[3], int o) {
    const __m512i two = _mm512_permutex2var_epi8(r[t.lo[o]], perm(t.pair[o]), r[t.lo[o] + 1]);
    return t.mask[o] ? _mm512_mask_permutexvar_epi8(two, t.mask[o], perm(t.third[o]), r[2]) : two;
}

inline void load192(const uint8_t* p, __m512i r[3]) {
    for (int k = 0; k < 3; ++k) r[k] = _mm512_loadu_si512(p + 64 * k);
}

template <Chroma kChroma, bool kRgb>
int yuvToRgbBulk(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* d, int width) {
    const YuvToRgbConsts k = yuvToRgbConsts();
    const bool u_first = reinterpret_cast<uintptr_t>(u) < reinterpret_cast<uintptr_t>(v);
    const uint8_t* pairs = u_first ? u : v;
    const __m512i spread_u = perm(kChroma == Chroma::kPairs ? (u_first ? kSpreadEven : kSpreadOdd) : kSpreadHalf);
    const __m512i spread_v = perm(kChroma == Chroma::kPairs ? (u_first ? kSpreadOdd : kSpreadEven) : kSpreadHalf);
    int x = 0;
    for (; x + 64 <= width; x += 64) {
        const __m512i yy = _mm512_loadu_si512(y + x);
        __m512i uu, vv;  // one chroma byte per pixel, pixel order
        if (kChroma == Chroma::kPairs) {
            const __m512i p = _mm512_loadu_si512(pairs + x);
            uu = permb(spread_u, p);
            vv = permb(spread_v, p);
        } else if (kChroma == Chroma::kHalf) {
            uu = permb(spread_u, load32(u + x / 2));
            vv = permb(spread_v, load32(v + x / 2));
        } else {
            uu = _mm512_loadu_si512(u + x);
            vv = _mm512_loadu_si512(v + x);
        }
        // Each 16-pixel lane: pixels 0..7 (lo) and 8..15 (hi); packus restores the order.
        __m512i b[2], g[2], r[2];
        yuvPairsToWords(_mm512_unpacklo_epi8(yy, uu), _mm512_unpacklo_epi8(yy, vv), k, b[0], g[0], r[0]);
        yuvPairsToWords(_mm512_unpackhi_epi8(yy, uu), _mm512_unpackhi_epi8(yy, vv), k, b[1], g[1], r[1]);
        const __m512i pb = _mm512_packus_epi16(b[0], b[1]);
        const __m512i pg = _mm512_packus_epi16(g[0], g[1]);
        const __m512i pr = _mm512_packus_epi16(r[0], r[1]);
        storeInterleaved3(d + 3 * x, kRgb ? pr : pb, pg, kRgb ? pb : pr);
    }
    return x;
}

// The bulk here, the rest of the row through the AVX2 kernel `tail`.
template <Chroma kChroma, bool kRgb>
void yuvToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* d, int width, YuvToRgbRowFn tail) {
    const int x = yuvToRgbBulk<kChroma, kRgb>(y, u, v, d, width);
    if (x == width) return;
    const int c = x / chromaSub(kChroma) * chromaStep(kChroma);
    tail(y + x, u + c, v + c, d + 3 * x, width - x);
}

template <Chroma kChroma>
void yuvToBgr(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv,
              YuvToRgbRowFn tail) {
    const Impl::YuvFormatInfo& si = conv.srcInfo();
    const RowData& s = *rows[0];
    yuvToRgbRow<kChroma, false>(s.plane[si.yPlane] + si.yOffset, s.plane[si.uPlane] + si.uOffset,
                                s.plane[si.vPlane] + si.vOffset, dst.plane[0], width, tail);
}

}  // namespace

void yuvHalfToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kHalf, false>(y, u, v, dst, width, avx2::yuvHalfToBgrRow);
}
void yuvHalfToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kHalf, true>(y, u, v, dst, width, avx2::yuvHalfToRgbRow);
}
void yuvPairsToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kPairs, false>(y, u, v, dst, width, avx2::yuvPairsToBgrRow);
}
void yuvPairsToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kPairs, true>(y, u, v, dst, width, avx2::yuvPairsToRgbRow);
}
void yuvFullToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kFull, false>(y, u, v, dst, width, avx2::yuvFullToBgrRow);
}
void yuvFullToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kFull, true>(y, u, v, dst, width, avx2::yuvFullToRgbRow);
}

void split3Row(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width) {
    uint8_t* const planes[3] = {p0, p1, p2};
    int x = 0;
    for (; x + 64 <= width; x += 64) {
        __m512i r[3];
        load192(src + 3 * x, r);
        for (int p = 0; p < 3; ++p) _mm512_storeu_si512(planes[p] + x, gather3(kSplit3, r, p));
    }
    if (x < width) avx2::split3Row(src + 3 * x, p0 + x, p1 + x, p2 + x, width - x);
}

void merge3Row(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2, uint8_t* dst, int width) {
    int x = 0;
    for (; x + 64 <= width; x += 64)
        storeInterleaved3(dst + 3 * x, _mm512_loadu_si512(p0 + x), _mm512_loadu_si512(p1 + x),
                          _mm512_loadu_si512(p2 + x));
    if (x < width) avx2::merge3Row(p0 + x, p1 + x, p2 + x, dst + 3 * x, width - x);
}

void swap3Row(const uint8_t* src, uint8_t* dst, int width) {
    int x = 0;
    for (; x + 64 <= width; x += 64) {
        __m512i r[3];
        load192(src + 3 * x, r);
        for (int o = 0; o < 3; ++o) _mm512_storeu_si512(dst + 3 * x + 64 * o, gather3(kSwap3, r, o));
    }
    if (x < width) avx2::swap3Row(src + 3 * x, dst + 3 * x, width - x);
}

void bytesToPlanarFloat3Row(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width) {
    uint8_t* const planes[3] = {p0, p1, p2};
    int x = 0;
    for (; x + 64 <= width; x += 64) {
        __m512i r[3];
        load192(src + 3 * x, r);
        for (int p = 0; p < 3; ++p) {
            const __m512i bytes = gather3(kSplit3, r, p);
            const __m128i quarters[4] = {_mm512_castsi512_si128(bytes), _mm512_extracti32x4_epi32(bytes, 1),
                                         _mm512_extracti32x4_epi32(bytes, 2), _mm512_extracti32x4_epi32(bytes, 3)};
            for (int q = 0; q < 4; ++q)
                _mm512_storeu_ps(reinterpret_cast<float*>(planes[p] + 4 * (x + 16 * q)),
                                 _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(quarters[q])));
        }
    }
    if (x < width) avx2::bytesToPlanarFloat3Row(src + 3 * x, p0 + 4 * x, p1 + 4 * x, p2 + 4 * x, width - x);
}

void yuvToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    avx2::yuvToBgrWith(rows, dst, width, conv, yuvHalfToBgrRow, yuvPairsToBgrRow, yuvFullToBgrRow);
}

void yuv420PlanarToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    yuvToBgr<Chroma::kHalf>(rows, dst, width, conv, avx2::yuvHalfToBgrRow);
}
void yuv420SemiToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    yuvToBgr<Chroma::kPairs>(rows, dst, width, conv, avx2::yuvPairsToBgrRow);
}
void yuv444PlanarToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    yuvToBgr<Chroma::kFull>(rows, dst, width, conv, avx2::yuvFullToBgrRow);
}

}  // namespace avx512

KV_AVX512_END

}  // namespace impl
}  // namespace kv
