// AVX2 versions of the format converter's kernels on YUV layouts (gray to
// BGR and YUV, BGR to 4:2:2 and 4:4:4, YUV to gray, BGR and YUV). Each row is
// handled in strips of kStrip pixels: the source samples are brought to
// planar strips (split out of pairs, packed 4:2:2 or packed 4:4:4 rows), the
// chroma is averaged or replicated to the destination's resolution with the
// references' truncating means, and the strips are written into the
// destination layout. Every step runs whole vectors on its bulk and plain
// code on its tail, and reads and writes only the samples of the row, so the
// results are the references' bytes at every width.
#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "kv_impl_convert_rows.h"
#include "kv_impl_fast_kernels.h"

namespace kv {
namespace impl {

namespace {

using Impl::YuvFormatInfo;

// Pixels per strip; even, so that every strip starts on a chroma pair.
constexpr int kStrip = 512;

int ceilDiv(int a, int b) { return (a + b - 1) / b; }

}  // namespace

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

inline __m256i loadu(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline __m128i loadu16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void storeu(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// Bytes 0, 2, 4, ... of a 64-byte block and bytes 1, 3, 5, ..., each 32 in order.
inline __m256i evenBytes(__m256i a, __m256i b) {
    const __m256i low = _mm256_set1_epi16(0xFF);
    return _mm256_permute4x64_epi64(_mm256_packus_epi16(_mm256_and_si256(a, low), _mm256_and_si256(b, low)), 0xD8);
}
inline __m256i oddBytes(__m256i a, __m256i b) {
    return _mm256_permute4x64_epi64(_mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8)), 0xD8);
}

// n byte pairs at s into their first and second bytes (either may be null).
void splitPairs(const uint8_t* s, uint8_t* first, uint8_t* second, int n) {
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i a = loadu(s + 2 * i), b = loadu(s + 2 * i + 32);
        if (first) storeu(first + i, evenBytes(a, b));
        if (second) storeu(second + i, oddBytes(a, b));
    }
    for (; i < n; ++i) {
        if (first) first[i] = s[2 * i];
        if (second) second[i] = s[2 * i + 1];
    }
}

// n pairs (first[i], second[i]) into d.
void mergePairs(const uint8_t* first, const uint8_t* second, uint8_t* d, int n) {
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i f = loadu(first + i), s = loadu(second + i);
        const __m256i lo = _mm256_unpacklo_epi8(f, s), hi = _mm256_unpackhi_epi8(f, s);
        storeu(d + 2 * i, _mm256_permute2x128_si256(lo, hi, 0x20));
        storeu(d + 2 * i + 32, _mm256_permute2x128_si256(lo, hi, 0x31));
    }
    for (; i < n; ++i) {
        d[2 * i] = first[i];
        d[2 * i + 1] = second[i];
    }
}

// A packed 4:2:2 row (Y U Y V, or U Y V Y when !y_first) of `width` pixels
// into Y (width samples) and U, V (ceil(width / 2) each; y may be null).
void splitPacked422(const uint8_t* s, uint8_t* y, uint8_t* u, uint8_t* v, int width, bool y_first) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        const __m256i a = loadu(s + 2 * x), b = loadu(s + 2 * x + 32);
        if (y) storeu(y + x, y_first ? evenBytes(a, b) : oddBytes(a, b));
        const __m256i c = y_first ? oddBytes(a, b) : evenBytes(a, b);  // U V U V ...
        const __m256i low = _mm256_set1_epi16(0xFF);
        const __m256i uv = _mm256_permute4x64_epi64(
            _mm256_packus_epi16(_mm256_and_si256(c, low), _mm256_srli_epi16(c, 8)), 0xD8);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x / 2), _mm256_castsi256_si128(uv));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x / 2), _mm256_extracti128_si256(uv, 1));
    }
    const int yo = y_first ? 0 : 1, co = y_first ? 1 : 0;
    for (; x < width; ++x) {
        if (y) y[x] = s[2 * x + yo];
        if ((x & 1) == 0) {
            u[x / 2] = s[2 * x + co];
            v[x / 2] = s[2 * x + co + 2];
        }
    }
}

// The inverse: `width` pixels; with an odd width the last pair's second Y is 0.
void mergePacked422(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* d, int width, bool y_first) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        const __m128i cu = loadu16(u + x / 2), cv = loadu16(v + x / 2);
        const __m256i uv = _mm256_set_m128i(_mm_unpackhi_epi8(cu, cv), _mm_unpacklo_epi8(cu, cv));
        const __m256i yy = loadu(y + x);
        const __m256i lo = y_first ? _mm256_unpacklo_epi8(yy, uv) : _mm256_unpacklo_epi8(uv, yy);
        const __m256i hi = y_first ? _mm256_unpackhi_epi8(yy, uv) : _mm256_unpackhi_epi8(uv, yy);
        storeu(d + 2 * x, _mm256_permute2x128_si256(lo, hi, 0x20));
        storeu(d + 2 * x + 32, _mm256_permute2x128_si256(lo, hi, 0x31));
    }
    const int yo = y_first ? 0 : 1, co = y_first ? 1 : 0;
    for (; x < width; x += 2) {
        uint8_t* g = d + 2 * x;
        g[yo] = y[x];
        g[yo + 2] = x + 1 < width ? y[x + 1] : 0;
        g[co] = u[x / 2];
        g[co + 2] = v[x / 2];
    }
}

// (a + b) >> 1 per byte: the rounding-up average less the dropped half.
void meanRows(const uint8_t* a, const uint8_t* b, uint8_t* d, int n) {
    const __m256i one = _mm256_set1_epi8(1);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i x = loadu(a + i), y = loadu(b + i);
        storeu(d + i, _mm256_sub_epi8(_mm256_avg_epu8(x, y), _mm256_and_si256(_mm256_xor_si256(x, y), one)));
    }
    for (; i < n; ++i) d[i] = uint8_t((a[i] + b[i]) >> 1);
}

// Means of horizontal pairs of n samples of one row (a) or two (a, b),
// truncated; an odd last sample stands alone. Writes ceil(n / 2).
void halveRows(const uint8_t* a, const uint8_t* b, uint8_t* d, int n) {
    const __m256i ones = _mm256_set1_epi8(1);
    const int shift = b ? 2 : 1;
    int i = 0;
    for (; i + 64 <= n; i += 64) {
        __m256i s[2];
        for (int h = 0; h < 2; ++h) {
            s[h] = _mm256_maddubs_epi16(loadu(a + i + 32 * h), ones);
            if (b) s[h] = _mm256_add_epi16(s[h], _mm256_maddubs_epi16(loadu(b + i + 32 * h), ones));
            s[h] = _mm256_srli_epi16(s[h], shift);
        }
        storeu(d + i / 2, _mm256_permute4x64_epi64(_mm256_packus_epi16(s[0], s[1]), 0xD8));
    }
    for (; i + 1 < n; i += 2)
        d[i / 2] = uint8_t((a[i] + a[i + 1] + (b ? b[i] + b[i + 1] : 0)) >> shift);
    if (i < n) d[i / 2] = uint8_t((a[i] + (b ? b[i] : 0)) >> (shift - 1));
}

// d[x] = s[x / 2] for x < n.
void doubleRow(const uint8_t* s, uint8_t* d, int n) {
    int x = 0;
    for (; x + 32 <= n; x += 32) {
        const __m256i w = _mm256_cvtepu8_epi16(loadu16(s + x / 2));
        storeu(d + x, _mm256_or_si256(w, _mm256_slli_epi16(w, 8)));
    }
    for (; x < n; ++x) d[x] = s[x / 2];
}

// Strip buffers of one kernel call, on the stack.
struct alignas(32) Strips {
    uint8_t y[kStrip];
    uint8_t u[2][kStrip];  // source chroma of up to two rows
    uint8_t v[2][kStrip];
    uint8_t du[kStrip];    // destination chroma
    uint8_t dv[kStrip];
    uint8_t tmp[kStrip];
};

const uint8_t kZeros[kStrip] = {};

// Writes a planar strip (n pixels from column x0; u, v at the destination's
// chroma resolution, null for luma only) into the destination row.
void writeStrip(const YuvFormatInfo& di, RowData& dst, int x0, int n, const uint8_t* y, const uint8_t* u,
                const uint8_t* v) {
    if (di.yStep == 2) {
        mergePacked422(y, u, v, dst.plane[0] + 2 * x0, n, di.yOffset == 0);
        return;
    }
    if (di.yStep == 3) {
        merge3Row(y, u, v, dst.plane[0] + 3 * x0, n);
        return;
    }
    uint8_t* dy = dst.plane[di.yPlane] + di.yOffset + x0;
    if (dy != y) std::memcpy(dy, y, size_t(n));
    if (!u) return;
    const int cx = x0 / di.xSub, cn = ceilDiv(n, di.xSub);
    if (di.uStep == 2) {
        const bool u_first = di.uOffset < di.vOffset;
        mergePairs(u_first ? u : v, u_first ? v : u, dst.plane[di.uPlane] + 2 * cx, cn);
        return;
    }
    uint8_t* du = dst.plane[di.uPlane] + di.uOffset + cx;
    uint8_t* dv = dst.plane[di.vPlane] + di.vOffset + cx;
    if (du != u) std::memcpy(du, u, size_t(cn));
    if (dv != v) std::memcpy(dv, v, size_t(cn));
}

// Where a strip's planar samples should go: straight into planar destination
// rows, else into the strip buffers.
uint8_t* lumaTarget(const YuvFormatInfo& di, RowData& dst, int x0, Strips& s) {
    return di.yStep == 1 ? dst.plane[di.yPlane] + di.yOffset + x0 : s.y;
}
uint8_t* chromaTarget(const YuvFormatInfo& di, RowData& dst, bool v, int x0, Strips& s) {
    if (di.yStep != 1 || di.uStep != 1) return v ? s.dv : s.du;
    const int plane = v ? di.vPlane : di.uPlane, offset = v ? di.vOffset : di.uOffset;
    return dst.plane[plane] + offset + x0 / di.xSub;
}

bool wantsChroma(const YuvFormatInfo& di, const RowData& dst) {
    return dst.plane[di.uPlane] && dst.plane[di.vPlane];
}

// The planar Y, U and V of source row `row`, pixels [x0, x0 + n): pointers
// into the row where its samples are planar, else split into `y`, `u`, `v`
// (y null: luma not wanted; u null: chroma not wanted).
void readStrip(const YuvFormatInfo& si, const RowData& row, int x0, int n, const uint8_t** y, const uint8_t** u,
               const uint8_t** v, uint8_t* ybuf, uint8_t* ubuf, uint8_t* vbuf) {
    const uint8_t* base = row.plane[0];
    if (si.yStep != 1) {
        if (si.yStep == 2)
            splitPacked422(base + 2 * x0, y ? ybuf : nullptr, ubuf, vbuf, n, si.yOffset == 0);
        else
            split3Row(base + 3 * x0, ybuf, ubuf, vbuf, n);
        if (y) *y = ybuf;
        if (u) {
            *u = ubuf;
            *v = vbuf;
        }
        return;
    }
    if (y) *y = row.plane[si.yPlane] + si.yOffset + x0;
    if (!u) return;
    const int cx = x0 / si.xSub, cn = ceilDiv(n, si.xSub);
    if (si.uStep == 2) {
        const bool u_first = si.uOffset < si.vOffset;
        splitPairs(row.plane[si.uPlane] + 2 * cx, u_first ? ubuf : vbuf, u_first ? vbuf : ubuf, cn);
        *u = ubuf;
        *v = vbuf;
        return;
    }
    *u = row.plane[si.uPlane] + si.uOffset + cx;
    *v = row.plane[si.vPlane] + si.vOffset + cx;
}

// Chroma of a strip of n pixels from one or two source rows (b null: one) at
// source subsampling sx to destination subsampling dx, into d (returned), or
// the source row itself when nothing changes.
const uint8_t* resampleChroma(const uint8_t* a, const uint8_t* b, int sx, int dx, int n, uint8_t* d, uint8_t* tmp) {
    if (sx == dx) {
        if (!b) return a;
        meanRows(a, b, d, ceilDiv(n, sx));
        return d;
    }
    if (sx == 1) {  // 4:4:4 to 2:1
        halveRows(a, b, d, n);
        return d;
    }
    if (b) {  // 2:1 to 4:4:4
        meanRows(a, b, tmp, ceilDiv(n, 2));
        a = tmp;
    }
    doubleRow(a, d, n);
    return d;
}

template <typename Strip>
void forStrips(int width, Strip strip) {
    for (int x0 = 0; x0 < width; x0 += kStrip) strip(x0, std::min(kStrip, width - x0));
}

}  // namespace

void grayToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    grayToBgrRow(rows[0]->plane[0], dst.plane[0], width);
}

void grayToYuvRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* g = rows[0]->plane[0];
    if (di.yStep == 1) {
        std::memcpy(dst.plane[di.yPlane] + di.yOffset, g, size_t(width));
        if (!wantsChroma(di, dst)) return;
        // Chroma of gray is written as 0, not as the neutral 128.
        const size_t cn = size_t(ceilDiv(width, di.xSub));
        if (di.uStep == 2) {
            std::memset(dst.plane[di.uPlane] + std::min(di.uOffset, di.vOffset), 0, 2 * cn);
        } else {
            std::memset(dst.plane[di.uPlane] + di.uOffset, 0, cn);
            std::memset(dst.plane[di.vPlane] + di.vOffset, 0, cn);
        }
        return;
    }
    forStrips(width, [&](int x0, int n) { writeStrip(di, dst, x0, n, g + x0, kZeros, kZeros); });
}

namespace {

// BGR to a YUV destination through a plain kernel that writes planar Y, U, V.
void bgrToYuv(const RowData* const* rows, RowData& dst, int width, const YuvFormatInfo& di,
              void (*planar)(const uint8_t*, uint8_t*, uint8_t*, uint8_t*, int)) {
    const uint8_t* bgr = rows[0]->plane[0];
    const bool chroma = wantsChroma(di, dst);
    Strips s;
    forStrips(width, [&](int x0, int n) {
        uint8_t* y = lumaTarget(di, dst, x0, s);
        uint8_t* u = chroma ? chromaTarget(di, dst, false, x0, s) : s.du;
        uint8_t* v = chroma ? chromaTarget(di, dst, true, x0, s) : s.dv;
        planar(bgr + 3 * x0, y, u, v, n);
        writeStrip(di, dst, x0, n, y, chroma ? u : nullptr, chroma ? v : nullptr);
    });
}

}  // namespace

void bgrToYuv422Row(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    bgrToYuv(rows, dst, width, conv.dstInfo(), bgrToYuv422PlanarRow);
}

void bgrToYuv444Row(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    bgrToYuv(rows, dst, width, conv.dstInfo(), bgrToYuv444PlanarRow);
}

void yuvToGrayRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& si = conv.srcInfo();
    const RowData& row = *rows[0];
    uint8_t* g = dst.plane[0];
    if (si.yStep == 1) {
        std::memcpy(g, row.plane[si.yPlane] + si.yOffset, size_t(width));
    } else if (si.yStep == 2) {
        splitPairs(row.plane[0], si.yOffset == 0 ? g : nullptr, si.yOffset == 0 ? nullptr : g, width);
    } else {
        Strips s;
        forStrips(width, [&](int x0, int n) { split3Row(row.plane[0] + 3 * x0, g + x0, s.u[0], s.v[0], n); });
    }
}

void yuvToBgrWith(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv,
                  YuvToRgbRowFn half, YuvToRgbRowFn pairs, YuvToRgbRowFn full) {
    const YuvFormatInfo& si = conv.srcInfo();
    const RowData& row = *rows[0];
    if (si.yStep == 1) {
        const YuvToRgbRowFn planar = si.xSub == 1 ? full : si.uStep == 2 ? pairs : half;
        planar(row.plane[si.yPlane] + si.yOffset, row.plane[si.uPlane] + si.uOffset, row.plane[si.vPlane] + si.vOffset,
               dst.plane[0], width);
        return;
    }
    Strips s;
    const YuvToRgbRowFn strip = si.yStep == 2 ? half : full;
    forStrips(width, [&](int x0, int n) {
        const uint8_t *y, *u, *v;
        readStrip(si, row, x0, n, &y, &u, &v, s.y, s.u[0], s.v[0]);
        strip(y, u, v, dst.plane[0] + 3 * x0, n);
    });
}

void yuvToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    yuvToBgrWith(rows, dst, width, conv, yuvHalfToBgrRow, yuvPairsToBgrRow, yuvFullToBgrRow);
}

void yuvToYuvRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& si = conv.srcInfo();
    const YuvFormatInfo& di = conv.dstInfo();
    const bool chroma = wantsChroma(di, dst);
    // Source rows whose chroma this row averages (up to the destination's ySub).
    int gathered = 0;
    if (chroma)
        while (gathered < di.ySub && gathered < 2 && rows[gathered]) ++gathered;
    // Two rows on one chroma row (4:2:0 sources) average to that row.
    if (gathered == 2 && rows[1]->plane[si.uPlane] == rows[0]->plane[si.uPlane] &&
        rows[1]->plane[si.vPlane] == rows[0]->plane[si.vPlane])
        gathered = 1;
    Strips s;
    forStrips(width, [&](int x0, int n) {
        const uint8_t* y;
        const uint8_t* u[2] = {nullptr, nullptr};
        const uint8_t* v[2] = {nullptr, nullptr};
        // Luma of the first row goes straight into a planar destination row.
        uint8_t* direct_y = di.yStep == 1 ? dst.plane[di.yPlane] + di.yOffset + x0 : nullptr;
        uint8_t* ybuf = direct_y ? direct_y : s.y;
        readStrip(si, *rows[0], x0, n, &y, gathered ? &u[0] : nullptr, &v[0], ybuf, s.u[0], s.v[0]);
        if (gathered > 1) readStrip(si, *rows[1], x0, n, nullptr, &u[1], &v[1], s.tmp, s.u[1], s.v[1]);
        const uint8_t *du = nullptr, *dv = nullptr;
        if (gathered) {
            uint8_t* tu = chromaTarget(di, dst, false, x0, s);
            uint8_t* tv = chromaTarget(di, dst, true, x0, s);
            du = resampleChroma(u[0], u[1], si.xSub, di.xSub, n, tu, s.tmp);
            dv = resampleChroma(v[0], v[1], si.xSub, di.xSub, n, tv, s.tmp);
        }
        writeStrip(di, dst, x0, n, y, du, dv);
    });
}

}  // namespace avx2

#pragma GCC pop_options

}  // namespace impl
}  // namespace kv
