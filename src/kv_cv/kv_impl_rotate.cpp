// AVX-512 quarter turns of 3-byte pixels (kv_impl_fast_kernels.h): 16 x 16
// tiles, each row of a tile widened to 16 dwords by one byte permute, the
// tile transposed in registers (four shuffle rounds) and every column
// written as one 48-byte destination run. The strips beyond the last whole
// tile and the half turn run the AVX2 kernel, which rotates a sub-rectangle
// as an image of its own at the matching destination offset.
#include <immintrin.h>

#include "kv_cv/kv_impl_fast_kernels.h"

namespace kv {
namespace impl {

namespace {

struct alignas(64) Bytes64 {
    uint8_t i[64];
};

// 16 three-byte pixels to dwords (the fourth byte is a copy, never stored)
// and back to 48 bytes.
constexpr Bytes64 makeWiden(bool widen) {
    Bytes64 t{};
    for (int k = 0; k < 64; ++k) t.i[k] = uint8_t(widen ? 3 * (k / 4) + (k % 4 < 3 ? k % 4 : 2) : (k < 48 ? 4 * (k / 3) + k % 3 : 0));
    return t;
}
constexpr Bytes64 kWiden = makeWiden(true);
constexpr Bytes64 kNarrow = makeWiden(false);

constexpr uint64_t kBytes48 = (uint64_t(1) << 48) - 1;

}  // namespace

KV_AVX512_BEGIN

namespace avx512 {

namespace {

// Rows r[i] (16 dwords each) to columns: r[c] holds element c of every row.
inline void transpose16(__m512i r[16]) {
    __m512i t[16], u[16];
    for (int k = 0; k < 8; ++k) {
        t[2 * k] = _mm512_unpacklo_epi32(r[2 * k], r[2 * k + 1]);
        t[2 * k + 1] = _mm512_unpackhi_epi32(r[2 * k], r[2 * k + 1]);
    }
    // u[4g + m], lane L: column 4L + m of rows 4g..4g+3.
    for (int g = 0; g < 4; ++g) {
        u[4 * g] = _mm512_unpacklo_epi64(t[4 * g], t[4 * g + 2]);
        u[4 * g + 1] = _mm512_unpackhi_epi64(t[4 * g], t[4 * g + 2]);
        u[4 * g + 2] = _mm512_unpacklo_epi64(t[4 * g + 1], t[4 * g + 3]);
        u[4 * g + 3] = _mm512_unpackhi_epi64(t[4 * g + 1], t[4 * g + 3]);
    }
    for (int m = 0; m < 4; ++m) {
        const __m512i a01 = _mm512_shuffle_i32x4(u[m], u[4 + m], 0x44), a23 = _mm512_shuffle_i32x4(u[m], u[4 + m], 0xEE);
        const __m512i b01 = _mm512_shuffle_i32x4(u[8 + m], u[12 + m], 0x44),
                      b23 = _mm512_shuffle_i32x4(u[8 + m], u[12 + m], 0xEE);
        r[m] = _mm512_shuffle_i32x4(a01, b01, 0x88);
        r[4 + m] = _mm512_shuffle_i32x4(a01, b01, 0xDD);
        r[8 + m] = _mm512_shuffle_i32x4(a23, b23, 0x88);
        r[12 + m] = _mm512_shuffle_i32x4(a23, b23, 0xDD);
    }
}

// 48 bytes of the first 16 dwords' low three bytes.
inline void store48(uint8_t* p, __m512i dwords) {
    const __m512i bytes = _mm512_permutexvar_epi8(_mm512_load_si512(kNarrow.i), dwords);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), _mm512_castsi512_si256(bytes));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 32), _mm512_extracti32x4_epi32(bytes, 2));
}

}  // namespace

void rotate3(const uint8_t* src, size_t src_step, int width, int height, int code, uint8_t* dst, size_t dst_step) {
    if (code == 2) {
        avx2::rotate3(src, src_step, width, height, code, dst, dst_step);
        return;
    }
    const int w16 = width & ~15, h16 = height & ~15;
    const __m512i widen = _mm512_load_si512(kWiden.i);
    for (int y0 = 0; y0 < h16; y0 += 16)
        for (int x0 = 0; x0 < w16; x0 += 16) {
            __m512i r[16];
            // A quarter turn clockwise (code 3) reads the rows bottom up, so
            // that each column comes out in destination order.
            for (int i = 0; i < 16; ++i) {
                const int y = code == 1 ? y0 + i : y0 + 15 - i;
                r[i] = _mm512_permutexvar_epi8(
                    widen, _mm512_maskz_loadu_epi8(kBytes48, src + size_t(y) * src_step + size_t(x0) * 3));
            }
            transpose16(r);
            for (int j = 0; j < 16; ++j) {
                const int x = x0 + j;
                uint8_t* d = code == 1 ? dst + size_t(width - 1 - x) * dst_step + size_t(y0) * 3
                                       : dst + size_t(x) * dst_step + size_t(height - 16 - y0) * 3;
                store48(d, r[j]);
            }
        }
    // The columns right of the tiles (every row), then the rows below them.
    // Destination offsets of a source rectangle [x0, x1) x [y0, y1): code 1
    // puts it at rows width - x1.., columns y0..; code 3 at rows x0..,
    // columns height - y1...
    const auto part = [&](int x0, int x1, int y0, int y1) {
        if (x1 <= x0 || y1 <= y0) return;
        const size_t row = size_t(code == 1 ? width - x1 : x0), column = size_t(code == 1 ? y0 : height - y1);
        avx2::rotate3(src + size_t(y0) * src_step + size_t(x0) * 3, src_step, x1 - x0, y1 - y0, code,
                      dst + row * dst_step + column * 3, dst_step);
    };
    part(w16, width, 0, height);
    part(0, w16, h16, height);
}

}  // namespace avx512

KV_AVX512_END

}  // namespace impl
}  // namespace kv
