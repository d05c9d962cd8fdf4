// AVX-512 versions of the YUV to BGR / RGB row kernels: the arithmetic of the
// AVX2 kernels (kv_impl_convert_rows.cpp) on 64 pixels a step, with VBMI byte
// permutes spreading the chroma and interleaving the three output planes.
// The tail of a row (under 64 pixels) goes to the AVX2 kernel, which ends
// with the reference code, so every width gives the reference's bytes.
#include <immintrin.h>

#include "kv_impl_convert_rows.h"

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

// Chroma layouts, as in the AVX2 kernels.
enum class Chroma { kHalf, kPairs, kFull };
constexpr int chromaStep(Chroma c) { return c == Chroma::kPairs ? 2 : 1; }
constexpr int chromaSub(Chroma c) { return c == Chroma::kFull ? 1 : 2; }

}  // namespace

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512vl,avx512dq,avx512vbmi")
// GCC 12 reads the "undefined" pass-through operand of many AVX-512
// intrinsics as an uninitialised variable.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

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

#pragma GCC diagnostic pop
#pragma GCC pop_options

}  // namespace impl
}  // namespace kv
