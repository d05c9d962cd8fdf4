// Row kernels of the format converter: scalar references and their AVX2
// versions (the YUV layout kernels' AVX2 versions live in
// kv_impl_convert_yuv.cpp, the AVX-512 ones in kv_impl_convert_avx512.cpp).
// The scalar span helpers take a start column so that the vector kernels
// finish their rows with exactly the reference code.
#include "kv_impl_convert_rows.h"

#include <immintrin.h>

#include <cstring>

namespace kv {
namespace impl {

namespace {

using Impl::YuvFormatInfo;

inline uint8_t grayOf(uint32_t b, uint32_t g, uint32_t r) { return uint8_t((76 * (r + 2 * g) + 28 * b) >> 8); }
// g 0.587 * 219 = 128.6 -> 129; r uses 65 and no rounding term is added.
inline uint8_t yOf(uint32_t b, uint32_t g, uint32_t r) { return uint8_t((25 * b + 129 * g + 65 * r + 4096) >> 8); }
// Chroma terms carry their 128 offset scaled by 256; unsigned wrap-around in
// the intermediate steps cancels out (every term is positive).
inline uint32_t uTerm(uint32_t b, uint32_t g, uint32_t r) { return 112 * b - 74 * g - 38 * r + 32768; }
inline uint32_t vTerm(uint32_t b, uint32_t g, uint32_t r) { return 112 * r - 94 * g - 18 * b + 32768; }

inline uint8_t clamp255(int v) { return uint8_t(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Float to int32 as the vector conversion does it: truncation toward zero,
// and INT32_MIN for values outside the int32 range and NaN.
inline int32_t truncToInt(float f) {
    return (f > -2147483904.0f && f < 2147483648.0f) ? int32_t(f) : INT32_MIN;
}

inline float loadFloat(const uint8_t* p) {
    float f;
    std::memcpy(&f, p, sizeof f);
    return f;
}
inline void storeFloat(uint8_t* p, float f) { std::memcpy(p, &f, sizeof f); }

void bgrToGraySpan(const uint8_t* s, uint8_t* d, int x, int width) {
    for (; x < width; ++x) d[x] = grayOf(s[3 * x], s[3 * x + 1], s[3 * x + 2]);
}

void bgrToYSpan(const uint8_t* s, uint8_t* y, int y_step, int x, int width) {
    for (; x < width; ++x) y[x * y_step] = yOf(s[3 * x], s[3 * x + 1], s[3 * x + 2]);
}

// 4:2:0 chroma from columns x.. of one or two rows (x even). u and v point at
// the sample of column 0.
void bgrToChroma420Span(const uint8_t* s0, const uint8_t* s1, uint8_t* u, int u_step, uint8_t* v, int v_step,
                        int x, int width) {
    const int pair_shift = s1 ? 10 : 9;
    for (; x + 1 < width; x += 2) {
        const uint8_t* a = s0 + 3 * x;
        uint32_t su = uTerm(a[0], a[1], a[2]) + uTerm(a[3], a[4], a[5]);
        uint32_t sv = vTerm(a[0], a[1], a[2]) + vTerm(a[3], a[4], a[5]);
        if (s1) {
            const uint8_t* b = s1 + 3 * x;
            su += uTerm(b[0], b[1], b[2]) + uTerm(b[3], b[4], b[5]);
            sv += vTerm(b[0], b[1], b[2]) + vTerm(b[3], b[4], b[5]);
        }
        u[(x / 2) * u_step] = uint8_t(su >> pair_shift);
        v[(x / 2) * v_step] = uint8_t(sv >> pair_shift);
    }
    if (x < width) {  // odd width: the last column alone
        const uint8_t* a = s0 + 3 * x;
        uint32_t su = uTerm(a[0], a[1], a[2]);
        uint32_t sv = vTerm(a[0], a[1], a[2]);
        if (s1) {
            const uint8_t* b = s1 + 3 * x;
            su += uTerm(b[0], b[1], b[2]);
            sv += vTerm(b[0], b[1], b[2]);
        }
        u[(x / 2) * u_step] = uint8_t(su >> (pair_shift - 1));
        v[(x / 2) * v_step] = uint8_t(sv >> (pair_shift - 1));
    }
}

// 4:4:4 chroma from column x on.
void bgrToChroma444Span(const uint8_t* s, uint8_t* u, int u_step, uint8_t* v, int v_step, int x, int width) {
    for (; x < width; ++x) {
        const uint8_t* a = s + 3 * x;
        u[x * u_step] = uint8_t(uTerm(a[0], a[1], a[2]) >> 8);
        v[x * v_step] = uint8_t(vTerm(a[0], a[1], a[2]) >> 8);
    }
}

// YUV to BGR (or RGB) from column x on; y, u, v point at the samples of column 0.
template <bool kRgb = false>
void yuvToBgrSpan(const uint8_t* y, int y_step, const uint8_t* u, int u_step, const uint8_t* v, int v_step,
                  int x_sub, uint8_t* d, int x, int width) {
    for (; x < width; ++x) {
        const int c = (int(y[x * y_step]) - 16) * 297;
        const int uu = u[(x / x_sub) * u_step];
        const int vv = v[(x / x_sub) * v_step];
        d[3 * x + (kRgb ? 2 : 0)] = clamp255(((uu - 128) * 516 + c) / 256);
        d[3 * x + 1] = clamp255((c - 100 * uu - 207 * vv + 39296) / 256);
        d[3 * x + (kRgb ? 0 : 2)] = clamp255(((vv - 128) * 408 + c) / 256);
    }
}

// Chroma layouts of the plain-pointer YUV kernels: samples per chroma step
// (x_sub) and bytes per chroma step.
enum class Chroma { kHalf, kPairs, kFull };
constexpr int chromaSub(Chroma c) { return c == Chroma::kFull ? 1 : 2; }
constexpr int chromaStep(Chroma c) { return c == Chroma::kPairs ? 2 : 1; }

void bytesToFloatSpan(const uint8_t* s, uint8_t* d, int i, int n) {
    for (; i < n; ++i) storeFloat(d + 4 * i, float(s[i]));
}

void floatToBytesSpan(const uint8_t* s, uint8_t* d, int i, int n) {
    for (; i < n; ++i) d[i] = uint8_t(truncToInt(loadFloat(s + 4 * i)));
}

void swapRbSpan(const uint8_t* s, uint8_t* d, int x, int width) {
    for (; x < width; ++x) {
        const uint8_t a = s[3 * x], b = s[3 * x + 1], c = s[3 * x + 2];
        d[3 * x] = c;
        d[3 * x + 1] = b;
        d[3 * x + 2] = a;
    }
}

void interleave3Span(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2, uint8_t* d, int x, int width) {
    for (; x < width; ++x) {
        d[3 * x] = p0[x];
        d[3 * x + 1] = p1[x];
        d[3 * x + 2] = p2[x];
    }
}

void deinterleave3Span(const uint8_t* s, uint8_t* p0, uint8_t* p1, uint8_t* p2, int x, int width) {
    for (; x < width; ++x) {
        p0[x] = s[3 * x];
        p1[x] = s[3 * x + 1];
        p2[x] = s[3 * x + 2];
    }
}

void bytesToPlanarFloatSpan(const uint8_t* s, uint8_t* p0, uint8_t* p1, uint8_t* p2, int x, int width) {
    for (; x < width; ++x) {
        storeFloat(p0 + 4 * x, float(s[3 * x]));
        storeFloat(p1 + 4 * x, float(s[3 * x + 1]));
        storeFloat(p2 + 4 * x, float(s[3 * x + 2]));
    }
}

// Packed 4:2:2 rows of odd width end with half a pair: its Y byte is 0.
void zeroMissingY(const YuvFormatInfo& di, uint8_t* y, int width) {
    if ((width & 1) && di.xSub == 2 && di.yPlane == di.uPlane && di.yStep == 2) y[width * di.yStep] = 0;
}

const uint8_t* srcSample(const RowData& row, int plane, int offset) { return row.plane[plane] + offset; }

}  // namespace

// ---- scalar references ------------------------------------------------------

namespace ref {

void bgrToGrayRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    bgrToGraySpan(rows[0]->plane[0], dst.plane[0], 0, width);
}

void bgrToYuv420PlanarRow(const RowData* const* rows, RowData& dst, int width,
                          const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* s0 = rows[0]->plane[0];
    bgrToYSpan(s0, dst.plane[di.yPlane] + di.yOffset, di.yStep, 0, width);
    uint8_t* u = dst.plane[di.uPlane];
    uint8_t* v = dst.plane[di.vPlane];
    if (u && v)
        bgrToChroma420Span(s0, rows[1] ? rows[1]->plane[0] : nullptr, u + di.uOffset, di.uStep, v + di.vOffset,
                           di.vStep, 0, width);
}

void bgrToYuv420SemiRow(const RowData* const* rows, RowData& dst, int width,
                        const Impl::ImplFormatConverter& conv) {
    bgrToYuv420PlanarRow(rows, dst, width, conv);  // the description places the samples
}

void bgrToYuv420PlanarPairRow(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width,
                              const Impl::ImplFormatConverter& conv) {
    bgrToYuv420PlanarRow(rows, dst, width, conv);
    bgrToYSpan(rows[1]->plane[0], next_y, 1, 0, width);
}

void bgrToYuv420SemiPairRow(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width,
                            const Impl::ImplFormatConverter& conv) {
    bgrToYuv420PlanarPairRow(rows, dst, next_y, width, conv);
}

void yuv420PlanarToBgrRow(const RowData* const* rows, RowData& dst, int width,
                          const Impl::ImplFormatConverter& conv) {
    yuvToBgrRow(rows, dst, width, conv);
}

void yuv420SemiToBgrRow(const RowData* const* rows, RowData& dst, int width,
                        const Impl::ImplFormatConverter& conv) {
    yuvToBgrRow(rows, dst, width, conv);
}

void yuv444PlanarToBgrRow(const RowData* const* rows, RowData& dst, int width,
                          const Impl::ImplFormatConverter& conv) {
    yuvToBgrRow(rows, dst, width, conv);
}

void yuvHalfToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToBgrSpan<false>(y, 1, u, 1, v, 1, 2, dst, 0, width);
}
void yuvHalfToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToBgrSpan<true>(y, 1, u, 1, v, 1, 2, dst, 0, width);
}
void yuvPairsToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToBgrSpan<false>(y, 1, u, 2, v, 2, 2, dst, 0, width);
}
void yuvPairsToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToBgrSpan<true>(y, 1, u, 2, v, 2, 2, dst, 0, width);
}
void yuvFullToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToBgrSpan<false>(y, 1, u, 1, v, 1, 1, dst, 0, width);
}
void yuvFullToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToBgrSpan<true>(y, 1, u, 1, v, 1, 1, dst, 0, width);
}

void bytesToFloatRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    bytesToFloatSpan(rows[0]->plane[0], dst.plane[0], 0, 3 * width);
}

void bytesToPlanarFloat3Row(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width) {
    bytesToPlanarFloatSpan(src, p0, p1, p2, 0, width);
}

void floatToBytesRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    floatToBytesSpan(rows[0]->plane[0], dst.plane[0], 0, 3 * width);
}

void swap3Row(const uint8_t* src, uint8_t* dst, int width) { swapRbSpan(src, dst, 0, width); }


void grayToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    const uint8_t* s = rows[0]->plane[0];
    uint8_t* d = dst.plane[0];
    for (int x = 0; x < width; ++x) d[3 * x] = d[3 * x + 1] = d[3 * x + 2] = s[x];
}

void grayToYuvRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* s = rows[0]->plane[0];
    uint8_t* y = dst.plane[di.yPlane] + di.yOffset;
    for (int x = 0; x < width; ++x) y[x * di.yStep] = s[x];
    zeroMissingY(di, y, width);
    uint8_t* u = dst.plane[di.uPlane];
    uint8_t* v = dst.plane[di.vPlane];
    if (!u || !v) return;
    u += di.uOffset;
    v += di.vOffset;
    // Chroma of gray is written as 0, not as the neutral 128.
    const int n = (width + di.xSub - 1) / di.xSub;
    for (int i = 0; i < n; ++i) u[i * di.uStep] = v[i * di.vStep] = 0;
}

void bgrToYuv422Row(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* s = rows[0]->plane[0];
    uint8_t* y = dst.plane[di.yPlane] + di.yOffset;
    bgrToYSpan(s, y, di.yStep, 0, width);
    zeroMissingY(di, y, width);
    uint8_t* u = dst.plane[di.uPlane];
    uint8_t* v = dst.plane[di.vPlane];
    if (u && v) bgrToChroma420Span(s, nullptr, u + di.uOffset, di.uStep, v + di.vOffset, di.vStep, 0, width);
}

void bgrToYuv444Row(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* s = rows[0]->plane[0];
    bgrToYSpan(s, dst.plane[di.yPlane] + di.yOffset, di.yStep, 0, width);
    uint8_t* u = dst.plane[di.uPlane];
    uint8_t* v = dst.plane[di.vPlane];
    if (u && v) bgrToChroma444Span(s, u + di.uOffset, di.uStep, v + di.vOffset, di.vStep, 0, width);
}

void split3Row(const uint8_t* src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width) {
    deinterleave3Span(src, p0, p1, p2, 0, width);
}

void merge3Row(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2, uint8_t* dst, int width) {
    interleave3Span(p0, p1, p2, dst, 0, width);
}

void bgrToYuv422PlanarRow(const uint8_t* bgr, uint8_t* y, uint8_t* u, uint8_t* v, int width) {
    bgrToYSpan(bgr, y, 1, 0, width);
    bgrToChroma420Span(bgr, nullptr, u, 1, v, 1, 0, width);
}

void bgrToYuv444PlanarRow(const uint8_t* bgr, uint8_t* y, uint8_t* u, uint8_t* v, int width) {
    bgrToYSpan(bgr, y, 1, 0, width);
    bgrToChroma444Span(bgr, u, 1, v, 1, 0, width);
}

void yuvToGrayRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& si = conv.srcInfo();
    const uint8_t* y = srcSample(*rows[0], si.yPlane, si.yOffset);
    uint8_t* d = dst.plane[0];
    for (int x = 0; x < width; ++x) d[x] = y[x * si.yStep];
}

void yuvToBgrRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& si = conv.srcInfo();
    const RowData& s = *rows[0];
    yuvToBgrSpan(srcSample(s, si.yPlane, si.yOffset), si.yStep, srcSample(s, si.uPlane, si.uOffset), si.uStep,
                 srcSample(s, si.vPlane, si.vOffset), si.vStep, si.xSub, dst.plane[0], 0, width);
}

void yuvToYuvRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& si = conv.srcInfo();
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* sy = srcSample(*rows[0], si.yPlane, si.yOffset);
    uint8_t* dy = dst.plane[di.yPlane] + di.yOffset;
    uint8_t* dv = dst.plane[di.vPlane];
    uint8_t* du = dst.plane[di.uPlane];
    if (!dv || !du) {
        for (int x = 0; x < width; ++x) dy[x * di.yStep] = sy[x * si.yStep];
        return;
    }
    dv += di.vOffset;
    du += di.uOffset;
    // Chroma cursors of the source rows this output row covers.
    const uint8_t* cv[2] = {nullptr, nullptr};
    const uint8_t* cu[2] = {nullptr, nullptr};
    int gathered = 0;
    for (int k = 0; k < di.ySub && k < 2 && rows[k]; ++k, ++gathered) {
        cv[k] = srcSample(*rows[k], si.vPlane, si.vOffset);
        cu[k] = srcSample(*rows[k], si.uPlane, si.uOffset);
    }
    // Counters instead of x % sub keep an empty description (sub 0) harmless.
    uint32_t sum_v = 0, sum_u = 0, count = 0;
    int src_phase = 0, dst_phase = 0;
    for (int x = 0; x < width; ++x) {
        dy[x * di.yStep] = sy[x * si.yStep];
        for (int k = 0; k < gathered; ++k) {
            sum_v += *cv[k];
            sum_u += *cu[k];
            ++count;
        }
        if (++src_phase == si.xSub) {
            src_phase = 0;
            for (int k = 0; k < gathered; ++k) {
                cv[k] += si.vStep;
                cu[k] += si.uStep;
            }
        }
        if (++dst_phase == di.xSub && count) {
            dst_phase = 0;
            *dv = uint8_t(sum_v / count);
            *du = uint8_t(sum_u / count);
            dv += di.vStep;
            du += di.uStep;
            sum_v = sum_u = count = 0;
        }
    }
    if (count) {  // an incomplete last group (odd width into 2:1 chroma)
        *dv = uint8_t(sum_v / count);
        *du = uint8_t(sum_u / count);
    }
    zeroMissingY(di, dy, width);
}

}  // namespace ref

// ---- AVX2 -------------------------------------------------------------------

namespace {

// A byte permutation of 48 bytes held as three 16-byte lanes (one lane of each
// of three registers), done with pshufb: output lane o collects from input
// lane i the bytes mask[o][i] selects (-128 selects zero).
struct alignas(32) Shuffle48 {
    int8_t mask[3][3][32];
    bool used[3][3];
};

template <typename F>
constexpr Shuffle48 makeShuffle48(F source_of) {
    Shuffle48 t{};
    for (int o = 0; o < 3; ++o)
        for (int i = 0; i < 3; ++i) {
            t.used[o][i] = false;
            for (int k = 0; k < 16; ++k) {
                const int src = source_of(16 * o + k);
                const bool here = src / 16 == i;
                t.mask[o][i][k] = t.mask[o][i][k + 16] = here ? int8_t(src % 16) : int8_t(-128);
                t.used[o][i] = t.used[o][i] || here;
            }
        }
    return t;
}

// Pixel j/3, channel j%3 of 16 interleaved pixels.
constexpr Shuffle48 kSwapRb = makeShuffle48([](int j) { return 3 * (j / 3) + 2 - j % 3; });
constexpr Shuffle48 kDeinterleave = makeShuffle48([](int j) { return 3 * (j % 16) + j / 16; });
constexpr Shuffle48 kInterleave = makeShuffle48([](int j) { return 16 * (j % 3) + j / 3; });

// Shuffle of four 3-byte pixels in a lane to B, G, R, G quadruples; the second
// register of a 16-pixel group is loaded 4 bytes early in its upper lane so
// that no load passes the end of the group.
struct alignas(32) BgrgMasks {
    int8_t first[32];
    int8_t second[32];
};

constexpr BgrgMasks makeBgrgMasks() {
    BgrgMasks m{};
    const int order[4] = {0, 1, 2, 1};
    for (int lane = 0; lane < 2; ++lane)
        for (int i = 0; i < 16; ++i) {
            const int base = 3 * (i / 4) + order[i % 4];
            m.first[16 * lane + i] = int8_t(base);
            m.second[16 * lane + i] = int8_t(base + (lane ? 4 : 0));
        }
    return m;
}

constexpr BgrgMasks kBgrg = makeBgrgMasks();

constexpr int32_t weights4(int a, int b, int c, int d) {
    return int32_t(uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
                   uint32_t(uint8_t(d)) << 24);
}

// Weights on B, G, R, G for pmaddubsw. Each pair sum stays below 32768 so the
// instruction never saturates:
//   gray: 14, 76, 38 = half of 28, 152, 76 (the >> 8 becomes >> 7);
//   Y: 129 G split as 66 + 63 ((B,G) <= 23205, (R,G) <= 32640; the sum wraps
//   in 16 bits and is read back unsigned);
//   U, V: half weights (56, -37, -19) and (-9, -47, 56), so that two rows of
//   a pixel still fit 16 bits; the shifts drop by one accordingly.
constexpr int32_t kWeightsGray = weights4(14, 76, 38, 0);
constexpr int32_t kWeightsY = weights4(25, 66, 65, 63);
constexpr int32_t kWeightsU = weights4(56, -37, -19, 0);
constexpr int32_t kWeightsV = weights4(-9, -47, 56, 0);

constexpr int32_t kPackOrder[8] = {0, 4, 1, 5, 2, 6, 3, 7};

// The 4:2:0 kernel packs the chroma of 8 blocks per lane as U0 U1 V0 V1
// U2 U3 V2 V3 ... (two blocks per step); these reorder each lane to U0..U7
// V0..V7 (planar) or to U, V pairs (NV12) or V, U pairs (NV21).
struct alignas(32) ChromaMask {
    int8_t m[32];
};
constexpr int chromaByte(bool v, int block) { return 4 * (block / 2) + (v ? 2 : 0) + block % 2; }
constexpr ChromaMask makeChromaMask(int kind) {  // 0 planar, 1 UV pairs, 2 VU pairs
    ChromaMask c{};
    for (int i = 0; i < 32; ++i) {
        const int k = i % 16;
        c.m[i] = int8_t(kind == 0 ? chromaByte(k >= 8, k % 8) : chromaByte((k % 2 == 1) == (kind == 1), k / 2));
    }
    return c;
}
constexpr ChromaMask kChromaPlanar = makeChromaMask(0);
constexpr ChromaMask kChromaUv = makeChromaMask(1);
constexpr ChromaMask kChromaVu = makeChromaMask(2);

}  // namespace

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

inline __m256i load2x128(const uint8_t* lo, const uint8_t* hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
}
inline __m256i loadu(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline void storeu(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
inline __m256i maskOf(const int8_t* m) { return _mm256_load_si256(reinterpret_cast<const __m256i*>(m)); }
inline __m256i packOrder() { return _mm256_load_si256(reinterpret_cast<const __m256i*>(kPackOrder)); }

// 32 interleaved 3-byte pixels: lane 0 of the three registers holds pixels
// 0..15, lane 1 pixels 16..31.
inline void load3(const uint8_t* p, __m256i v[3]) {
    v[0] = load2x128(p, p + 48);
    v[1] = load2x128(p + 16, p + 64);
    v[2] = load2x128(p + 32, p + 80);
}

inline void store3(uint8_t* p, const __m256i v[3]) {
    storeu(p, _mm256_permute2x128_si256(v[0], v[1], 0x20));
    storeu(p + 32, _mm256_permute2x128_si256(v[2], v[0], 0x30));
    storeu(p + 64, _mm256_permute2x128_si256(v[1], v[2], 0x31));
}

inline void shuffle48(const Shuffle48& t, const __m256i in[3], __m256i out[3]) {
    for (int o = 0; o < 3; ++o) {
        __m256i acc = _mm256_setzero_si256();
        for (int i = 0; i < 3; ++i)
            if (t.used[o][i]) acc = _mm256_or_si256(acc, _mm256_shuffle_epi8(in[i], maskOf(t.mask[o][i])));
        out[o] = acc;
    }
}

// 16 BGR pixels as two registers of B, G, R, G quadruples: pixels 0..3 and
// 4..7 in the lanes of the first, 8..11 and 12..15 in the second.
inline void loadBgrg(const uint8_t* p, __m256i& a, __m256i& b) {
    a = _mm256_shuffle_epi8(load2x128(p, p + 12), maskOf(kBgrg.first));
    b = _mm256_shuffle_epi8(load2x128(p + 24, p + 32), maskOf(kBgrg.second));
}

// Per-pixel weighted sums of 16 pixels (words; lanes hold pixels 0..3, 8..11 | 4..7, 12..15).
inline __m256i weighted16(__m256i a, __m256i b, __m256i w) {
    return _mm256_hadd_epi16(_mm256_maddubs_epi16(a, w), _mm256_maddubs_epi16(b, w));
}

// Two registers of words from weighted16 to 32 bytes in pixel order.
inline __m256i packPixels(__m256i lo, __m256i hi) {
    return _mm256_permutevar8x32_epi32(_mm256_packus_epi16(lo, hi), packOrder());
}

inline void floatsFromBytes(__m128i bytes16, uint8_t* d) {
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes16)));
    _mm256_storeu_ps(reinterpret_cast<float*>(d + 32),
                     _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_srli_si128(bytes16, 8))));
}

inline __m256 floatsFromBytes8(const uint8_t* s) {
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s))));
}

inline void floatsFromBytes32(__m256i bytes32, uint8_t* d) {
    floatsFromBytes(_mm256_castsi256_si128(bytes32), d);
    floatsFromBytes(_mm256_extracti128_si256(bytes32, 1), d + 64);
}

// Four 3-byte pixels per lane as B, G, R, G quadruples, from the 32 pixels at
// p: quarter k holds pixels 4k..4k+3 | 16+4k..19+4k. The last quarter's upper
// lane is loaded 4 bytes early so that no load passes the 96 bytes.
inline __m256i loadQuarter(const uint8_t* p, int k) {
    return k < 3 ? _mm256_shuffle_epi8(load2x128(p + 12 * k, p + 48 + 12 * k), maskOf(kBgrg.first))
                 : _mm256_shuffle_epi8(load2x128(p + 36, p + 80), maskOf(kBgrg.second));
}

// Luma of 32 pixels from their quarters' weighted pairs: hadd of quarters 0, 1
// (and of 2, 3) gives the words of pixels 0..7 | 16..23 (8..15 | 24..31),
// which packus puts in order. s = 25 B + 129 G + 65 R < 65536 (the pairs wrap
// in 16 bits and are read unsigned) and Y = (s + 4096) >> 8 = (s >> 8) + 16.
inline __m256i lumaWords(__m256i m0, __m256i m1) { return _mm256_srli_epi16(_mm256_hadd_epi16(m0, m1), 8); }
inline __m256i lumaBytes(__m256i lo, __m256i hi) {
    return _mm256_add_epi8(_mm256_packus_epi16(lo, hi), _mm256_set1_epi8(16));
}

// 4:2:0 luma of row 0 (and with kLuma1 of row 1 into y1) and chroma of the
// 2x2 blocks, 32 columns a step. Chroma words hold half terms without their
// offsets (56 B - 37 G - 19 R and 56 R - 47 G - 9 B): a pixel's two-row sum
// stays within +-28560, and a block's sum S gives the reference
// (2 S + 131072) >> 10 = (S >> 9) + 128 for two rows, (S >> 8) + 128 for one;
// S >> shift lies within -112..111, so the 128 is a flip of the packed bytes' top bit.
template <bool kTwoRows, bool kSemi, bool kLuma1 = false>
int bgrToYuv420Bulk(const uint8_t* s0, const uint8_t* s1, uint8_t* y, uint8_t* u, uint8_t* v, bool u_first,
                    int width, uint8_t* y1 = nullptr) {
    const __m256i wy = _mm256_set1_epi32(kWeightsY);
    const __m256i wu = _mm256_set1_epi32(kWeightsU);
    const __m256i wv = _mm256_set1_epi32(kWeightsV);
    const __m256i ones = _mm256_set1_epi16(1);
    const __m256i flip = _mm256_set1_epi8(-128);
    const __m256i order = maskOf(kSemi ? (u_first ? kChromaUv.m : kChromaVu.m) : kChromaPlanar.m);
    const int shift = kTwoRows ? 9 : 8;
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        // Two quarters a step: luma words of rows 0 and 1, chroma words U, V
        // of blocks 4h..4h+3 | 8+4h..11+4h.
        __m256i luma0[2], luma1[2], c[2];
        for (int h = 0; h < 2; ++h) {
            __m256i m0[2], m1[2], cq[2];
            for (int j = 0; j < 2; ++j) {
                const int k = 2 * h + j;
                const __m256i q0 = loadQuarter(s0 + 3 * x, k);
                m0[j] = _mm256_maddubs_epi16(q0, wy);
                __m256i cu = _mm256_maddubs_epi16(q0, wu);
                __m256i cv = _mm256_maddubs_epi16(q0, wv);
                if (kTwoRows) {
                    const __m256i q1 = loadQuarter(s1 + 3 * x, k);
                    if (kLuma1) m1[j] = _mm256_maddubs_epi16(q1, wy);
                    cu = _mm256_add_epi16(cu, _mm256_maddubs_epi16(q1, wu));
                    cv = _mm256_add_epi16(cv, _mm256_maddubs_epi16(q1, wv));
                }
                // Per-pixel sums, then blocks: U 2k, 2k+1, V 2k, 2k+1 | the same for blocks 8+2k, 9+2k.
                cq[j] = _mm256_srai_epi32(_mm256_madd_epi16(_mm256_hadd_epi16(cu, cv), ones), shift);
            }
            luma0[h] = lumaWords(m0[0], m0[1]);
            if (kLuma1) luma1[h] = lumaWords(m1[0], m1[1]);
            c[h] = _mm256_packs_epi32(cq[0], cq[1]);
        }
        storeu(y + x, lumaBytes(luma0[0], luma0[1]));
        if (kLuma1) storeu(y1 + x, lumaBytes(luma1[0], luma1[1]));
        const __m256i packed = _mm256_xor_si256(_mm256_packs_epi16(c[0], c[1]), flip);
        const __m256i ordered = _mm256_shuffle_epi8(packed, order);
        if (kSemi) {
            storeu(u + x, ordered);
        } else {
            const __m256i planes = _mm256_permute4x64_epi64(ordered, 0xD8);  // U 0..15 | V 0..15
            _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x / 2), _mm256_castsi256_si128(planes));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x / 2), _mm256_extracti128_si256(planes, 1));
        }
    }
    return x;
}

int bgrToYBulk(const uint8_t* s, uint8_t* y, int width) {
    const __m256i wy = _mm256_set1_epi32(kWeightsY);
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i m[4];
        for (int k = 0; k < 4; ++k) m[k] = _mm256_maddubs_epi16(loadQuarter(s + 3 * x, k), wy);
        storeu(y + x, lumaBytes(lumaWords(m[0], m[1]), lumaWords(m[2], m[3])));
    }
    return x;
}

template <bool kSemi>
void bgrToYuv420(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* s0 = rows[0]->plane[0];
    const uint8_t* s1 = rows[1] ? rows[1]->plane[0] : nullptr;
    uint8_t* y = dst.plane[di.yPlane] + di.yOffset;
    uint8_t* u = dst.plane[di.uPlane];
    uint8_t* v = dst.plane[di.vPlane];
    if (!u || !v) {
        bgrToYSpan(s0, y, 1, bgrToYBulk(s0, y, width), width);
        return;
    }
    u += di.uOffset;
    v += di.vOffset;
    const bool u_first = di.uOffset < di.vOffset;
    uint8_t* pairs = u_first ? u : v;
    int x;
    if (s1)
        x = bgrToYuv420Bulk<true, kSemi>(s0, s1, y, kSemi ? pairs : u, v, u_first, width);
    else
        x = bgrToYuv420Bulk<false, kSemi>(s0, s1, y, kSemi ? pairs : u, v, u_first, width);
    bgrToYSpan(s0, y, 1, x, width);
    bgrToChroma420Span(s0, s1, u, di.uStep, v, di.vStep, x, width);
}

template <bool kSemi>
void bgrToYuv420Pair(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width,
                     const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& di = conv.dstInfo();
    const uint8_t* s0 = rows[0]->plane[0];
    const uint8_t* s1 = rows[1]->plane[0];
    uint8_t* y = dst.plane[di.yPlane] + di.yOffset;
    uint8_t* u = dst.plane[di.uPlane] + di.uOffset;
    uint8_t* v = dst.plane[di.vPlane] + di.vOffset;
    const bool u_first = di.uOffset < di.vOffset;
    const int x = bgrToYuv420Bulk<true, kSemi, true>(s0, s1, y, kSemi ? (u_first ? u : v) : u, v, u_first, width,
                                                     next_y);
    bgrToYSpan(s0, y, 1, x, width);
    bgrToYSpan(s1, next_y, 1, x, width);
    bgrToChroma420Span(s0, s1, u, di.uStep, v, di.vStep, x, width);
}

// YUV to BGR or RGB, 32 pixels a step. Chroma is first brought to one byte
// per pixel (duplicated for half-width layouts), then each half of the row is
// unpacked into (Y, U) and (Y, V) byte pairs, on which pmaddubsw forms the
// products exactly in 16 bits. The reference numerators split as
//   297 (Y-16) + 516 (U-128)                = 256 (Y + 2U - 277)  + (41Y + 4U + 112)
//   297 (Y-16) - 100 U - 207 V + 39296      = 256 (Y - V + 134)   + (41Y + 49V - 100U + 240)
//   297 (Y-16) + 408 (V-128)                = 256 (Y + 2V - 223)  + (41Y - 104V + 112)
// with every pair sum and remainder within int16; flooring the remainder
// equals the reference's truncation wherever the clamp does not turn both
// into 0, and packus does the clamp.
struct YuvToRgbConsts {
    __m256i int_br, frac_b, frac_r, int_g, frac_g_yv, frac_g_yu, add_br, add_g, off_b, off_r, off_g;
};

inline __m256i pairWeights(int first, int second) {
    return _mm256_set1_epi16(int16_t(uint16_t(uint8_t(first)) | uint16_t(uint16_t(uint8_t(second)) << 8)));
}

inline YuvToRgbConsts yuvToRgbConsts() {
    return {pairWeights(1, 2),        pairWeights(41, 4),       pairWeights(41, -104),   pairWeights(1, -1),
            pairWeights(41, 49),      pairWeights(0, -100),     _mm256_set1_epi16(112),  _mm256_set1_epi16(240),
            _mm256_set1_epi16(-277),  _mm256_set1_epi16(-223),  _mm256_set1_epi16(134)};
}

// B, G, R words of 16 pixels from their (Y, U) and (Y, V) byte pairs.
inline void yuvPairsToWords(__m256i yu, __m256i yv, const YuvToRgbConsts& k, __m256i& b, __m256i& g, __m256i& r) {
    b = _mm256_add_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(yu, k.int_br), k.off_b),
                         _mm256_srai_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(yu, k.frac_b), k.add_br), 8));
    r = _mm256_add_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(yv, k.int_br), k.off_r),
                         _mm256_srai_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(yv, k.frac_r), k.add_br), 8));
    const __m256i frac_g =
        _mm256_add_epi16(_mm256_maddubs_epi16(yv, k.frac_g_yv), _mm256_maddubs_epi16(yu, k.frac_g_yu));
    g = _mm256_add_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(yv, k.int_g), k.off_g),
                         _mm256_srai_epi16(_mm256_add_epi16(frac_g, k.add_g), 8));
}

// pshufb masks that spread chroma to one byte per pixel: `half` on 16
// half-width samples loaded into both lanes (lane 0 takes samples 0..7, lane 1
// samples 8..15), `even` / `odd` on 16 (first, second) pairs.
struct alignas(32) DupMasks {
    int8_t half[32];
    int8_t even[32];
    int8_t odd[32];
};
constexpr DupMasks makeDupMasks() {
    DupMasks m{};
    for (int i = 0; i < 32; ++i) {
        m.half[i] = int8_t((i / 16) * 8 + (i % 16) / 2);
        m.even[i] = int8_t(2 * ((i % 16) / 2));
        m.odd[i] = int8_t(2 * ((i % 16) / 2) + 1);
    }
    return m;
}
constexpr DupMasks kDup = makeDupMasks();

template <Chroma kChroma, bool kRgb>
int yuvToRgbBulk(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* d, int width) {
    const YuvToRgbConsts k = yuvToRgbConsts();
    // Pair order (kPairs only: u and v are one byte apart in the same row).
    const bool u_first = reinterpret_cast<uintptr_t>(u) < reinterpret_cast<uintptr_t>(v);
    const uint8_t* pairs = u_first ? u : v;
    const __m256i dup_u = maskOf(kChroma == Chroma::kPairs ? (u_first ? kDup.even : kDup.odd) : kDup.half);
    const __m256i dup_v = maskOf(kChroma == Chroma::kPairs ? (u_first ? kDup.odd : kDup.even) : kDup.half);
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        const __m256i yy = loadu(y + x);
        __m256i uu, vv;  // one chroma byte per pixel, pixel order
        if (kChroma == Chroma::kPairs) {
            const __m256i p = loadu(pairs + x);
            uu = _mm256_shuffle_epi8(p, dup_u);
            vv = _mm256_shuffle_epi8(p, dup_v);
        } else if (kChroma == Chroma::kHalf) {
            uu = _mm256_shuffle_epi8(
                _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(u + x / 2))), dup_u);
            vv = _mm256_shuffle_epi8(
                _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(v + x / 2))), dup_v);
        } else {
            uu = loadu(u + x);
            vv = loadu(v + x);
        }
        // Pixels 0..7 | 16..23 (lo) and 8..15 | 24..31 (hi); packus restores the order.
        __m256i b[2], g[2], r[2];
        yuvPairsToWords(_mm256_unpacklo_epi8(yy, uu), _mm256_unpacklo_epi8(yy, vv), k, b[0], g[0], r[0]);
        yuvPairsToWords(_mm256_unpackhi_epi8(yy, uu), _mm256_unpackhi_epi8(yy, vv), k, b[1], g[1], r[1]);
        const __m256i pb = _mm256_packus_epi16(b[0], b[1]);
        const __m256i pg = _mm256_packus_epi16(g[0], g[1]);
        const __m256i pr = _mm256_packus_epi16(r[0], r[1]);
        const __m256i planes[3] = {kRgb ? pr : pb, pg, kRgb ? pb : pr};
        __m256i out[3];
        shuffle48(kInterleave, planes, out);
        store3(d + 3 * x, out);
    }
    return x;
}

template <Chroma kChroma, bool kRgb>
void yuvToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* d, int width) {
    const int x = yuvToRgbBulk<kChroma, kRgb>(y, u, v, d, width);
    yuvToBgrSpan<kRgb>(y, 1, u, chromaStep(kChroma), v, chromaStep(kChroma), chromaSub(kChroma), d, x, width);
}

// Planar or semi-planar YUV (any vertical subsampling: one row at a time).
template <Chroma kChroma>
void yuvToBgr(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter& conv) {
    const YuvFormatInfo& si = conv.srcInfo();
    const RowData& s = *rows[0];
    yuvToRgbRow<kChroma, false>(s.plane[si.yPlane] + si.yOffset, s.plane[si.uPlane] + si.uOffset,
                                s.plane[si.vPlane] + si.vOffset, dst.plane[0], width);
}

}  // namespace

void bgrToGrayRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    const uint8_t* s = rows[0]->plane[0];
    uint8_t* d = dst.plane[0];
    const __m256i w = _mm256_set1_epi32(kWeightsGray);
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i a, b, c, e;
        loadBgrg(s + 3 * x, a, b);
        loadBgrg(s + 3 * x + 48, c, e);
        storeu(d + x, packPixels(_mm256_srli_epi16(weighted16(a, b, w), 7), _mm256_srli_epi16(weighted16(c, e, w), 7)));
    }
    bgrToGraySpan(s, d, x, width);
}

void bgrToYuv420PlanarRow(const RowData* const* rows, RowData& dst, int width,
                          const Impl::ImplFormatConverter& conv) {
    bgrToYuv420<false>(rows, dst, width, conv);
}

void bgrToYuv420SemiRow(const RowData* const* rows, RowData& dst, int width,
                        const Impl::ImplFormatConverter& conv) {
    bgrToYuv420<true>(rows, dst, width, conv);
}

void bgrToYuv420PlanarPairRow(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width,
                              const Impl::ImplFormatConverter& conv) {
    bgrToYuv420Pair<false>(rows, dst, next_y, width, conv);
}

void bgrToYuv420SemiPairRow(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width,
                            const Impl::ImplFormatConverter& conv) {
    bgrToYuv420Pair<true>(rows, dst, next_y, width, conv);
}

void yuv420PlanarToBgrRow(const RowData* const* rows, RowData& dst, int width,
                          const Impl::ImplFormatConverter& conv) {
    yuvToBgr<Chroma::kHalf>(rows, dst, width, conv);
}

void yuv420SemiToBgrRow(const RowData* const* rows, RowData& dst, int width,
                        const Impl::ImplFormatConverter& conv) {
    yuvToBgr<Chroma::kPairs>(rows, dst, width, conv);
}

void yuv444PlanarToBgrRow(const RowData* const* rows, RowData& dst, int width,
                          const Impl::ImplFormatConverter& conv) {
    yuvToBgr<Chroma::kFull>(rows, dst, width, conv);
}

void yuvHalfToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kHalf, false>(y, u, v, dst, width);
}
void yuvHalfToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kHalf, true>(y, u, v, dst, width);
}
void yuvPairsToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kPairs, false>(y, u, v, dst, width);
}
void yuvPairsToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kPairs, true>(y, u, v, dst, width);
}
void yuvFullToBgrRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kFull, false>(y, u, v, dst, width);
}
void yuvFullToRgbRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst, int width) {
    yuvToRgbRow<Chroma::kFull, true>(y, u, v, dst, width);
}

void bytesToFloatRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    const uint8_t* s = rows[0]->plane[0];
    uint8_t* d = dst.plane[0];
    const int n = 3 * width;
    int i = 0;
    // 8 bytes a step, widened straight from memory; rows of library frames
    // start 32-byte aligned and take aligned stores.
    if ((reinterpret_cast<uintptr_t>(d) & 31) == 0) {
        for (; i + 32 <= n; i += 32)
            for (int k = 0; k < 32; k += 8)
                _mm256_store_ps(reinterpret_cast<float*>(d + 4 * (i + k)), floatsFromBytes8(s + i + k));
    }
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(reinterpret_cast<float*>(d + 4 * i), floatsFromBytes8(s + i));
    bytesToFloatSpan(s, d, i, n);
}

void bytesToPlanarFloat3Row(const uint8_t* s, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width) {
    uint8_t* const planes_out[3] = {p0, p1, p2};
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i in[3], planes[3];
        load3(s + 3 * x, in);
        shuffle48(kDeinterleave, in, planes);
        for (int p = 0; p < 3; ++p) floatsFromBytes32(planes[p], planes_out[p] + 4 * x);
    }
    bytesToPlanarFloatSpan(s, p0, p1, p2, x, width);
}

void floatToBytesRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {
    const uint8_t* s = rows[0]->plane[0];
    uint8_t* d = dst.plane[0];
    const int n = 3 * width;
    const __m256i low_byte = _mm256_set1_epi32(0xFF);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i q[4];
        for (int k = 0; k < 4; ++k)
            q[k] = _mm256_and_si256(
                _mm256_cvttps_epi32(_mm256_loadu_ps(reinterpret_cast<const float*>(s + 4 * (i + 8 * k)))), low_byte);
        const __m256i w = _mm256_packus_epi16(_mm256_packus_epi32(q[0], q[1]), _mm256_packus_epi32(q[2], q[3]));
        storeu(d + i, _mm256_permutevar8x32_epi32(w, packOrder()));
    }
    floatToBytesSpan(s, d, i, n);
}

void swap3Row(const uint8_t* s, uint8_t* d, int width) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i in[3], out[3];
        load3(s + 3 * x, in);
        shuffle48(kSwapRb, in, out);
        store3(d + 3 * x, out);
    }
    swapRbSpan(s, d, x, width);
}

void merge3Row(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2, uint8_t* d, int width) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        const __m256i in[3] = {loadu(p0 + x), loadu(p1 + x), loadu(p2 + x)};
        __m256i out[3];
        shuffle48(kInterleave, in, out);
        store3(d + 3 * x, out);
    }
    interleave3Span(p0, p1, p2, d, x, width);
}

void split3Row(const uint8_t* s, uint8_t* p0, uint8_t* p1, uint8_t* p2, int width) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i in[3], out[3];
        load3(s + 3 * x, in);
        shuffle48(kDeinterleave, in, out);
        storeu(p0 + x, out[0]);
        storeu(p1 + x, out[1]);
        storeu(p2 + x, out[2]);
    }
    deinterleave3Span(s, p0, p1, p2, x, width);
}


void bgrToYuv422PlanarRow(const uint8_t* bgr, uint8_t* y, uint8_t* u, uint8_t* v, int width) {
    const int x = bgrToYuv420Bulk<false, false>(bgr, nullptr, y, u, v, true, width);
    bgrToYSpan(bgr, y, 1, x, width);
    bgrToChroma420Span(bgr, nullptr, u, 1, v, 1, x, width);
}

// 4:4:4: full weights, since each pixel's term stands alone: the pair sums
// of (112, -74 | -38, 0) and (-18, -94 | 112, 0) and their totals stay within
// +-28560, and (term + 32768) >> 8 = (term >> 8) + 128, the 128 a flip of
// the top bit of the packed byte.
void bgrToYuv444PlanarRow(const uint8_t* bgr, uint8_t* y, uint8_t* u, uint8_t* v, int width) {
    const __m256i wy = _mm256_set1_epi32(kWeightsY);
    const __m256i wu = _mm256_set1_epi32(weights4(112, -74, -38, 0));
    const __m256i wv = _mm256_set1_epi32(weights4(-18, -94, 112, 0));
    const __m256i flip = _mm256_set1_epi8(-128);
    const auto chroma = [flip](const __m256i q[4], __m256i w) {
        const __m256i lo = _mm256_srai_epi16(
            _mm256_hadd_epi16(_mm256_maddubs_epi16(q[0], w), _mm256_maddubs_epi16(q[1], w)), 8);
        const __m256i hi = _mm256_srai_epi16(
            _mm256_hadd_epi16(_mm256_maddubs_epi16(q[2], w), _mm256_maddubs_epi16(q[3], w)), 8);
        return _mm256_xor_si256(_mm256_packs_epi16(lo, hi), flip);
    };
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i q[4];
        for (int k = 0; k < 4; ++k) q[k] = loadQuarter(bgr + 3 * x, k);
        storeu(y + x, lumaBytes(lumaWords(_mm256_maddubs_epi16(q[0], wy), _mm256_maddubs_epi16(q[1], wy)),
                                lumaWords(_mm256_maddubs_epi16(q[2], wy), _mm256_maddubs_epi16(q[3], wy))));
        storeu(u + x, chroma(q, wu));
        storeu(v + x, chroma(q, wv));
    }
    bgrToYSpan(bgr, y, 1, x, width);
    bgrToChroma444Span(bgr, u, 1, v, 1, x, width);
}

}  // namespace avx2

#pragma GCC pop_options

// The byte moves of every instruction set on converter rows.
#define KV_BYTE_MOVE_ROWS                                                                                          \
    void bytesToPlanarFloatRow(const RowData* const* rows, RowData& dst, int width,                                \
                               const Impl::ImplFormatConverter&) {                                                 \
        bytesToPlanarFloat3Row(rows[0]->plane[0], dst.plane[0], dst.plane[1], dst.plane[2], width);                \
    }                                                                                                              \
    void swapRbRow(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {       \
        swap3Row(rows[0]->plane[0], dst.plane[0], width);                                                          \
    }                                                                                                              \
    void interleave3Row(const RowData* const* rows, RowData& dst, int width, const Impl::ImplFormatConverter&) {  \
        const RowData& s = *rows[0];                                                                               \
        merge3Row(s.plane[0], s.plane[1], s.plane[2], dst.plane[0], width);                                        \
    }                                                                                                              \
    void deinterleave3Row(const RowData* const* rows, RowData& dst, int width,                                     \
                          const Impl::ImplFormatConverter&) {                                                      \
        split3Row(rows[0]->plane[0], dst.plane[0], dst.plane[1], dst.plane[2], width);                             \
    }

namespace ref {
KV_BYTE_MOVE_ROWS
}  // namespace ref
namespace avx2 {
KV_BYTE_MOVE_ROWS
}  // namespace avx2
namespace avx512 {
KV_BYTE_MOVE_ROWS
}  // namespace avx512
#undef KV_BYTE_MOVE_ROWS

}  // namespace impl
}  // namespace kv
