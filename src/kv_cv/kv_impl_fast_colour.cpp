// BGR to YUV rows of the fast backend (kv_impl_fast_kernels.h), and the
// AVX-512 version of its BGR to gray row. YUV takes one pass over each row
// (or row pair), with the fast backend's own arithmetic,
//   Y = (25 B + 129 G + 66 R + 4224) >> 8,
//   U = (112 B - 74 G - 38 R + 32768) >> 8, V = (112 R - 94 G - 18 B + 32768) >> 8
// on chroma inputs averaged with rounding, first down the two rows and then
// across each column pair, ((a + b + 1) >> 1 at each step). The references
// define the bytes; the AVX2 kernels take 32 pixels a step, the AVX-512 ones
// 64 (VBMI permutes gather the pixels, VNNI dot products weigh them), and
// both hand the rest of a row to the next narrower kernel.
#include <immintrin.h>

#include "kv_cv/kv_impl_fast_kernels.h"

namespace kv {
namespace impl {

namespace {

inline uint8_t lumaOf(const uint8_t* p) { return uint8_t((25 * p[0] + 129 * p[1] + 66 * p[2] + 4224) >> 8); }
inline uint8_t uOf(int b, int g, int r) { return uint8_t((112 * b - 74 * g - 38 * r + 32768) >> 8); }
inline uint8_t vOf(int b, int g, int r) { return uint8_t((112 * r - 94 * g - 18 * b + 32768) >> 8); }
inline int mean(int a, int b) { return (a + b + 1) >> 1; }

// Chroma layouts of the outputs: separate planes, or (u, v) pairs one byte
// apart in either order; samples per pixel column: 1 (4:4:4) or 1/2.
enum class Out { kPlanar, kPairs };

// Writes chroma sample i from the averaged B, G, R.
template <Out kOut>
inline void putChroma(uint8_t* u, uint8_t* v, int i, int b, int g, int r) {
    const int at = kOut == Out::kPairs ? 2 * i : i;
    u[at] = uOf(b, g, r);
    v[at] = vOf(b, g, r);
}

// Pixels [x, width) of one row (s1 null) or a row pair; kSub 1 or 2.
template <int kSub, Out kOut>
void bgrToYuvSpan(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v, int x,
                  int width) {
    for (int i = x; i < width; ++i) {
        y0[i] = lumaOf(s0 + 3 * i);
        if (s1) y1[i] = lumaOf(s1 + 3 * i);
    }
    for (; x < width; x += kSub) {
        const int last = x + 1 < width ? x + 1 : x;  // an odd last column pairs with itself
        int c[3];
        for (int k = 0; k < 3; ++k) {
            const uint8_t* a = s0 + 3 * x + k;
            const uint8_t* b = s0 + 3 * last + k;
            if (kSub == 1)
                c[k] = *a;
            else if (s1)
                c[k] = mean(mean(*a, s1[3 * x + k]), mean(*b, s1[3 * last + k]));
            else
                c[k] = mean(*a, *b);
        }
        putChroma<kOut>(u, v, x / kSub, c[0], c[1], c[2]);
    }
}

}  // namespace

namespace ref {

void bgrToI420Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                   int width) {
    bgrToYuvSpan<2, Out::kPlanar>(s0, s1, y0, y1, u, v, 0, width);
}
void bgrToNv12Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                   int width) {
    bgrToYuvSpan<2, Out::kPairs>(s0, s1, y0, y1, u, v, 0, width);
}
void bgrToI422Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuvSpan<2, Out::kPlanar>(s, nullptr, y, nullptr, u, v, 0, width);
}
void bgrToNv16Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuvSpan<2, Out::kPairs>(s, nullptr, y, nullptr, u, v, 0, width);
}
void bgrToI444Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuvSpan<1, Out::kPlanar>(s, nullptr, y, nullptr, u, v, 0, width);
}

}  // namespace ref

namespace {

constexpr int32_t bytes4(int a, int b, int c, int d) {
    return int32_t(uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
                   uint32_t(uint8_t(d)) << 24);
}

// Weights on B, G, R, G quadruples. Luma splits 129 G as 68 + 61 so that each
// pmaddubsw pair sum stays below 32768 (25 + 68 and 66 + 61 times 255); the
// 16-bit total (at most 56100 + 4224) is read unsigned.
constexpr int32_t kLumaWeights = bytes4(25, 68, 66, 61);
constexpr int32_t kUWeights = bytes4(112, -74, -38, 0);
constexpr int32_t kVWeights = bytes4(-18, -94, 112, 0);

// pshufb masks (per 16-byte lane) of the AVX2 kernel.
struct alignas(32) Masks {
    int8_t quads[32];       // four 3-byte pixels to B, G, R, G
    int8_t quads_late[32];  // the same, lane 1 loaded 4 bytes late
    int8_t planar[32];      // U0 U1 U4 U5 V0 V1 V4 V5 U2 U3 U6 U7 V2 V3 V6 V7 -> U0..U7 V0..V7
    int8_t pairs[32];       // the same -> U0 V0 U1 V1 ...
};
constexpr Masks makeMasks() {
    Masks m{};
    const int order[4] = {0, 1, 2, 1};
    for (int lane = 0; lane < 2; ++lane)
        for (int i = 0; i < 16; ++i) {
            const int base = 3 * (i / 4) + order[i % 4];
            m.quads[16 * lane + i] = int8_t(base);
            m.quads_late[16 * lane + i] = int8_t(base + (lane ? 4 : 0));
        }
    // Byte of block b's U (or V) in a lane after the pack and 64-bit permute.
    const auto at = [](bool v, int b) { return (b & 2 ? 8 : 0) + (v ? 4 : 0) + (b >> 2) * 2 + (b & 1); };
    for (int lane = 0; lane < 2; ++lane)
        for (int i = 0; i < 16; ++i) {
            m.planar[16 * lane + i] = int8_t(at(i >= 8, i % 8));
            m.pairs[16 * lane + i] = int8_t(at(i % 2 == 1, i / 2));
        }
    return m;
}
constexpr Masks kMasks = makeMasks();

}  // namespace

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

inline __m256i mask(const int8_t* m) { return _mm256_load_si256(reinterpret_cast<const __m256i*>(m)); }
inline __m256i load2x128(const uint8_t* lo, const uint8_t* hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
}

// 16 pixels at p (48 bytes read) as quadruples: pixels 0..3 | 4..7 and 8..11 | 12..15.
inline void quads16(const uint8_t* p, __m256i& a, __m256i& b) {
    a = _mm256_shuffle_epi8(load2x128(p, p + 12), mask(kMasks.quads));
    b = _mm256_shuffle_epi8(load2x128(p + 24, p + 32), mask(kMasks.quads_late));
}

// Luma words of 16 pixels (0..3, 8..11 | 4..7, 12..15).
inline __m256i luma16(__m256i a, __m256i b) {
    const __m256i w = _mm256_set1_epi32(kLumaWeights);
    const __m256i sum = _mm256_hadd_epi16(_mm256_maddubs_epi16(a, w), _mm256_maddubs_epi16(b, w));
    return _mm256_srli_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(4224)), 8);
}

// 32 bytes in pixel order from packed words of pixels 0..15 and 16..31 in
// luma16's order.
inline __m256i inOrder(__m256i packed) {
    return _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}
inline __m256i lumaBytes(__m256i lo, __m256i hi) { return inOrder(_mm256_packus_epi16(lo, hi)); }

// Chroma words of 8 blocks from 16 averaged pixels: U of blocks 0, 1, 4, 5,
// V of the same | U, V of blocks 2, 3, 6, 7 (a block is a column pair).
inline __m256i chroma16(__m256i a, __m256i b) {
    const __m256 fa = _mm256_castsi256_ps(a), fb = _mm256_castsi256_ps(b);
    const __m256i c = _mm256_avg_epu8(_mm256_castps_si256(_mm256_shuffle_ps(fa, fb, 0x88)),
                                      _mm256_castps_si256(_mm256_shuffle_ps(fa, fb, 0xDD)));
    const __m256i su = _mm256_maddubs_epi16(c, _mm256_set1_epi32(kUWeights));
    const __m256i sv = _mm256_maddubs_epi16(c, _mm256_set1_epi32(kVWeights));
    return _mm256_srai_epi16(_mm256_hadd_epi16(su, sv), 8);
}

// U or V words of 16 single pixels, in luma16's order.
inline __m256i chroma16Full(__m256i a, __m256i b, int32_t weights) {
    const __m256i w = _mm256_set1_epi32(weights);
    return _mm256_srai_epi16(_mm256_hadd_epi16(_mm256_maddubs_epi16(a, w), _mm256_maddubs_epi16(b, w)), 8);
}

// Chroma words (-112..111) to bytes: + 128 is a flip of the top bit.
inline __m256i chromaBytes(__m256i packed) { return _mm256_xor_si256(packed, _mm256_set1_epi8(-128)); }

// Planar or paired chroma bytes of 16 blocks from chroma16 of two groups.
template <Out kOut>
inline void storeChroma(__m256i g0, __m256i g1, uint8_t* u, uint8_t* v, int i) {
    const __m256i bytes = _mm256_permute4x64_epi64(chromaBytes(_mm256_packs_epi16(g0, g1)), 0xD8);
    if (kOut == Out::kPairs) {
        const __m256i pairs = _mm256_shuffle_epi8(bytes, mask(kMasks.pairs));
        const bool u_first = reinterpret_cast<uintptr_t>(u) < reinterpret_cast<uintptr_t>(v);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>((u_first ? u : v) + 2 * i),
                            u_first ? pairs : _mm256_or_si256(_mm256_slli_epi16(pairs, 8), _mm256_srli_epi16(pairs, 8)));
        return;
    }
    const __m256i planes = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(bytes, mask(kMasks.planar)), 0xD8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + i), _mm256_castsi256_si128(planes));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + i), _mm256_extracti128_si256(planes, 1));
}

// 32 pixels a step of one row (s1 null) or a row pair; returns the pixels done.
template <int kSub, Out kOut>
int bgrToYuvBulk(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v, int width) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i a[2], b[2], luma[2];
        for (int h = 0; h < 2; ++h) {
            quads16(s0 + 3 * (x + 16 * h), a[h], b[h]);
            luma[h] = luma16(a[h], b[h]);
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(y0 + x), lumaBytes(luma[0], luma[1]));
        if (kSub == 1) {
            __m256i cu[2], cv[2];
            for (int h = 0; h < 2; ++h) {
                cu[h] = chroma16Full(a[h], b[h], kUWeights);
                cv[h] = chroma16Full(a[h], b[h], kVWeights);
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(u + x), chromaBytes(inOrder(_mm256_packs_epi16(cu[0], cu[1]))));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(v + x), chromaBytes(inOrder(_mm256_packs_epi16(cv[0], cv[1]))));
            continue;
        }
        if (s1) {
            for (int h = 0; h < 2; ++h) {
                __m256i c, d;
                quads16(s1 + 3 * (x + 16 * h), c, d);
                luma[h] = luma16(c, d);
                a[h] = _mm256_avg_epu8(a[h], c);
                b[h] = _mm256_avg_epu8(b[h], d);
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(y1 + x), lumaBytes(luma[0], luma[1]));
        }
        storeChroma<kOut>(chroma16(a[0], b[0]), chroma16(a[1], b[1]), u, v, x / 2);
    }
    return x;
}

}  // namespace

template <int kSub, Out kOut>
void bgrToYuv(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v, int width) {
    const int x = bgrToYuvBulk<kSub, kOut>(s0, s1, y0, y1, u, v, width);
    bgrToYuvSpan<kSub, kOut>(s0, s1, y0, y1, u, v, x, width);
}

void bgrToI420Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                   int width) {
    bgrToYuv<2, Out::kPlanar>(s0, s1, y0, y1, u, v, width);
}
void bgrToNv12Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                   int width) {
    bgrToYuv<2, Out::kPairs>(s0, s1, y0, y1, u, v, width);
}
void bgrToI422Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuv<2, Out::kPlanar>(s, nullptr, y, nullptr, u, v, width);
}
void bgrToNv16Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuv<2, Out::kPairs>(s, nullptr, y, nullptr, u, v, width);
}
void bgrToI444Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuv<1, Out::kPlanar>(s, nullptr, y, nullptr, u, v, width);
}

}  // namespace avx2

#pragma GCC pop_options

namespace {

struct alignas(64) Index64 {
    uint8_t b[64];
};
struct alignas(64) Index16 {
    int32_t d[16];
};

// Quadruples B, G, R, G of pixels 16k..16k+15 out of the 192 bytes of 64
// pixels held in registers r0, r1, r2: quadruples 0 and 3 lie within r0 and
// r2, quadruple 1 within (r0, r1) and quadruple 2 within (r1, r2); indices
// count from the first register used.
constexpr int kQuadBase[4] = {0, 0, 64, 128};
constexpr Index64 makeQuads(int k) {
    Index64 t{};
    const int order[4] = {0, 1, 2, 1};
    for (int i = 0; i < 64; ++i) t.b[i] = uint8_t(3 * (16 * k + i / 4) + order[i % 4] - kQuadBase[k]);
    return t;
}
constexpr Index64 kQuads[4] = {makeQuads(0), makeQuads(1), makeQuads(2), makeQuads(3)};

// Byte `byte` of dwords 0..15 of two registers (results in bytes 0..31), or
// byte 1 of both interleaved ((first, second) pairs).
constexpr Index64 makeBytes(int byte, bool pairs) {
    Index64 t{};
    for (int i = 0; i < 64; ++i) {
        const int k = i % 32;
        t.b[i] = uint8_t(pairs ? 64 * (k % 2) + 4 * (k / 2) + 1 : 4 * k + byte);
    }
    return t;
}
constexpr Index64 kByte0 = makeBytes(0, false);
constexpr Index64 kByte1 = makeBytes(1, false);
constexpr Index64 kByte1Pairs = makeBytes(1, true);

constexpr Index16 makeDwords(int first) {
    Index16 t{};
    for (int i = 0; i < 16; ++i) t.d[i] = 2 * i + first;
    return t;
}
constexpr Index16 kEvenDwords = makeDwords(0);
constexpr Index16 kOddDwords = makeDwords(1);

}  // namespace

KV_AVX512_BEGIN

namespace avx512 {

namespace {

inline __m512i index(const Index64& t) { return _mm512_load_si512(t.b); }
inline __m512i index(const Index16& t) { return _mm512_load_si512(t.d); }

// The four quadruple registers of 64 pixels at p (exactly 192 bytes read).
inline void quads64(const uint8_t* p, __m512i q[4]) {
    const __m512i r0 = _mm512_loadu_si512(p), r1 = _mm512_loadu_si512(p + 64), r2 = _mm512_loadu_si512(p + 128);
    q[0] = _mm512_maskz_permutexvar_epi8(~__mmask64(0), index(kQuads[0]), r0);
    q[1] = _mm512_permutex2var_epi8(r0, index(kQuads[1]), r1);
    q[2] = _mm512_permutex2var_epi8(r1, index(kQuads[2]), r2);
    q[3] = _mm512_maskz_permutexvar_epi8(~__mmask64(0), index(kQuads[3]), r2);
}

// One byte (kByte0 or kByte1) of the dwords of four registers, 64 bytes in order.
inline __m512i bytesOf(const __m512i d[4], const Index64& which = kByte1) {
    const __m512i lo = _mm512_permutex2var_epi8(d[0], index(which), d[1]);
    const __m512i hi = _mm512_permutex2var_epi8(d[2], index(which), d[3]);
    return _mm512_shuffle_i64x2(lo, hi, 0x44);
}

// Dot products in dwords, seeded so that the result sits in byte 1: luma
// (sum + 4224 < 65536), chroma (term + 32768 within 4208..61328).
inline __m512i dot(__m512i seed, __m512i q, int32_t weights) {
    return _mm512_dpbusd_epi32(seed, q, _mm512_set1_epi32(weights));
}

inline void storeLuma(uint8_t* y, const __m512i q[4]) {
    const __m512i seed = _mm512_set1_epi32(4224);
    const __m512i d[4] = {dot(seed, q[0], kLumaWeights), dot(seed, q[1], kLumaWeights), dot(seed, q[2], kLumaWeights),
                          dot(seed, q[3], kLumaWeights)};
    _mm512_storeu_si512(y, bytesOf(d));
}

// Column-pair means of 32 averaged pixels (two quadruple registers) as 16 dwords.
inline __m512i blocks16(__m512i a, __m512i b) {
    return _mm512_avg_epu8(_mm512_permutex2var_epi32(a, index(kEvenDwords), b),
                           _mm512_permutex2var_epi32(a, index(kOddDwords), b));
}

template <int kSub, Out kOut>
int bgrToYuvBulk(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v, int width) {
    const __m512i seed = _mm512_set1_epi32(32768);
    int x = 0;
    for (; x + 64 <= width; x += 64) {
        __m512i q[4];
        quads64(s0 + 3 * x, q);
        storeLuma(y0 + x, q);
        if (kSub == 1) {
            const __m512i du[4] = {dot(seed, q[0], kUWeights), dot(seed, q[1], kUWeights), dot(seed, q[2], kUWeights),
                                   dot(seed, q[3], kUWeights)};
            const __m512i dv[4] = {dot(seed, q[0], kVWeights), dot(seed, q[1], kVWeights), dot(seed, q[2], kVWeights),
                                   dot(seed, q[3], kVWeights)};
            _mm512_storeu_si512(u + x, bytesOf(du));
            _mm512_storeu_si512(v + x, bytesOf(dv));
            continue;
        }
        if (s1) {
            __m512i q1[4];
            quads64(s1 + 3 * x, q1);
            storeLuma(y1 + x, q1);
            for (int k = 0; k < 4; ++k) q[k] = _mm512_avg_epu8(q[k], q1[k]);
        }
        const __m512i c[2] = {blocks16(q[0], q[1]), blocks16(q[2], q[3])};
        const __m512i cu[2] = {dot(seed, c[0], kUWeights), dot(seed, c[1], kUWeights)};
        const __m512i cv[2] = {dot(seed, c[0], kVWeights), dot(seed, c[1], kVWeights)};
        if (kOut == Out::kPairs) {
            const bool u_first = reinterpret_cast<uintptr_t>(u) < reinterpret_cast<uintptr_t>(v);
            const __m512i* f = u_first ? cu : cv;
            const __m512i* g = u_first ? cv : cu;
            const __m512i lo = _mm512_permutex2var_epi8(f[0], index(kByte1Pairs), g[0]);
            const __m512i hi = _mm512_permutex2var_epi8(f[1], index(kByte1Pairs), g[1]);
            _mm512_storeu_si512((u_first ? u : v) + x, _mm512_shuffle_i64x2(lo, hi, 0x44));
        } else {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(u + x / 2),
                                _mm512_castsi512_si256(_mm512_permutex2var_epi8(cu[0], index(kByte1), cu[1])));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(v + x / 2),
                                _mm512_castsi512_si256(_mm512_permutex2var_epi8(cv[0], index(kByte1), cv[1])));
        }
    }
    return x;
}

// The bulk here, the rest of the row through the AVX2 kernel `tail`.
template <int kSub, Out kOut>
void bgrToYuv(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v, int width,
              BgrToYuvRowsFn tail) {
    const int x = bgrToYuvBulk<kSub, kOut>(s0, s1, y0, y1, u, v, width);
    if (x == width) return;
    const int c = kOut == Out::kPairs ? x : x / kSub;
    tail(s0 + 3 * x, s1 ? s1 + 3 * x : nullptr, y0 + x, s1 ? y1 + x : nullptr, u + c, v + c, width - x);
}

}  // namespace

// Gray = (1868 B + 9617 G + 4899 R + 8192) >> 14 as two dot products of
// byte weights: with H = 14 B + 75 G + 38 R and L = 76 B + 17 G + 35 R + 8192
// the sum is 128 H + L, and its >> 14 is (H + (L >> 7)) >> 7 (at most 32704
// before the last shift).
void bgrToGrayRow(const uint8_t* bgr, uint8_t* gray, int width) {
    const __m512i seed = _mm512_set1_epi32(8192);
    int x = 0;
    for (; x + 64 <= width; x += 64) {
        __m512i q[4], g[4];
        quads64(bgr + 3 * x, q);
        for (int k = 0; k < 4; ++k) {
            const __m512i low = _mm512_srli_epi32(dot(seed, q[k], bytes4(76, 17, 35, 0)), 7);
            g[k] = _mm512_srli_epi32(dot(low, q[k], bytes4(14, 75, 38, 0)), 7);
        }
        _mm512_storeu_si512(gray + x, bytesOf(g, kByte0));
    }
    if (x < width) avx2::bgrToGrayRow(bgr + 3 * x, gray + x, width - x);
}

void bgrToI420Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                   int width) {
    bgrToYuv<2, Out::kPlanar>(s0, s1, y0, y1, u, v, width, avx2::bgrToI420Rows);
}
void bgrToNv12Rows(const uint8_t* s0, const uint8_t* s1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                   int width) {
    bgrToYuv<2, Out::kPairs>(s0, s1, y0, y1, u, v, width, avx2::bgrToNv12Rows);
}
void bgrToI422Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuv<2, Out::kPlanar>(s, nullptr, y, nullptr, u, v, width, avx2::bgrToI422Row);
}
void bgrToNv16Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuv<2, Out::kPairs>(s, nullptr, y, nullptr, u, v, width, avx2::bgrToNv16Row);
}
void bgrToI444Row(const uint8_t* s, const uint8_t*, uint8_t* y, uint8_t*, uint8_t* u, uint8_t* v, int width) {
    bgrToYuv<1, Out::kPlanar>(s, nullptr, y, nullptr, u, v, width, avx2::bgrToI444Row);
}

}  // namespace avx512

KV_AVX512_END

}  // namespace impl
}  // namespace kv
