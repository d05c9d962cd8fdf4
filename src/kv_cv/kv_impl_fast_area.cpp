// OpenCV's INTER_AREA decimation reproduced (see kv_impl_fast_area.h): the
// tables in OpenCV's double arithmetic, a scalar reference that follows its
// loops, and AVX2 row kernels with the same float operations in the same
// order per value (vector lanes are values; nothing is fused, so the
// processor's FMA is never used).
#include "kv_cv/kv_impl_fast_area.h"

#include <immintrin.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "kv_cv/kv_impl_unaligned.h"

namespace kv {
namespace impl {

namespace {

// OpenCV's scale factors: inverse of the ratio, in double.
double cvScale(int src, int dst) { return 1. / (double(dst) / double(src)); }

bool nearInteger(double v) { return std::abs(v - double(std::lround(v))) < DBL_EPSILON; }

}  // namespace

bool cvAreaDecimates(int src_width, int src_height, int dst_width, int dst_height) {
    const double sx = cvScale(src_width, dst_width), sy = cvScale(src_height, dst_height);
    return sx >= 1 && sy >= 1 && !(nearInteger(sx) && nearInteger(sy));
}

void buildCvAreaTable(int src_size, int dst_size, std::vector<CvAreaTap>& table) {
    const double scale = cvScale(src_size, dst_size);
    table.clear();
    for (int dx = 0; dx < dst_size; ++dx) {
        const double fsx1 = dx * scale;
        const double fsx2 = fsx1 + scale;
        const double cell = std::min(scale, src_size - fsx1);
        int sx1 = int(std::ceil(fsx1)), sx2 = int(std::floor(fsx2));
        sx2 = std::min(sx2, src_size - 1);
        sx1 = std::min(sx1, sx2);
        if (sx1 - fsx1 > 1e-3) table.push_back({dx, sx1 - 1, float((sx1 - fsx1) / cell)});
        for (int sx = sx1; sx < sx2; ++sx) table.push_back({dx, sx, float(1.0 / cell)});
        if (fsx2 - sx2 > 1e-3) table.push_back({dx, sx2, float(std::min(std::min(fsx2 - sx2, 1.), cell) / cell)});
    }
}

void buildCvAreaRowPlan(CvAreaRowPlan& plan, const std::vector<CvAreaTap>& xtab, int dst_width, int channels,
                        int src_elements) {
    const int C = channels;
    std::vector<int> count(size_t(dst_width), 0);
    for (const CvAreaTap& t : xtab) ++count[size_t(t.dst)];
    const int T = *std::max_element(count.begin(), count.end());
    plan.values = dst_width * C;
    plan.taps = T;
    plan.element.assign(size_t(plan.values) * size_t(T), 0);
    plan.alpha.assign(size_t(plan.values) * size_t(T), 0.f);
    // Each pixel's taps fill the end of its slots, in table order.
    std::vector<int> filled(size_t(dst_width), 0);
    for (const CvAreaTap& t : xtab) {
        const int slot = T - count[size_t(t.dst)] + filled[size_t(t.dst)]++;
        for (int c = 0; c < C; ++c) {
            const size_t at = (size_t(t.dst) * size_t(C) + size_t(c)) * size_t(T) + size_t(slot);
            plan.element[at] = t.src * C + c;
            plan.alpha[at] = t.alpha;
        }
    }
    plan.blocks = plan.values / 8;
    plan.start.resize(size_t(plan.blocks));
    plan.index.assign(size_t(plan.blocks) * size_t(T) * 8, 0);
    plan.weight.assign(size_t(plan.blocks) * size_t(T) * 8, 0.f);
    for (int b = 0; b < plan.blocks; ++b) {
        plan.start[size_t(b)] = 8 * b;
        for (int t = 0; t < T; ++t)
            for (int j = 0; j < 8; ++j) {
                const size_t v = size_t(8 * b + j) * size_t(T) + size_t(t);
                plan.index[(size_t(b) * size_t(T) + size_t(t)) * 8 + size_t(j)] = plan.element[v];
                plan.weight[(size_t(b) * size_t(T) + size_t(t)) * 8 + size_t(j)] = plan.alpha[v];
            }
    }
    // Byte rows: per lane the span of its four values' taps, in 16-byte loads.
    plan.chunks = 0;
    plan.base.clear();
    plan.select.clear();
    if (plan.blocks == 0) return;
    std::vector<int32_t> lo(size_t(plan.blocks) * 2);
    int chunks = 1;
    for (int b = 0; b < plan.blocks; ++b)
        for (int h = 0; h < 2; ++h) {
            int l = src_elements, u = -1;
            for (int j = 0; j < 4; ++j)
                for (int t = 0; t < T; ++t) {
                    const size_t v = size_t(8 * b + 4 * h + j) * size_t(T) + size_t(t);
                    if (plan.alpha[v] == 0.f) continue;
                    l = std::min(l, plan.element[v]);
                    u = std::max(u, plan.element[v]);
                }
            if (u < 0) l = u = 0;
            lo[size_t(2 * b + h)] = l;
            chunks = std::max(chunks, (u - l) / 16 + 1);
        }
    if (chunks > 8 || src_elements < 16 * chunks) return;
    plan.base.resize(size_t(plan.blocks) * 2);
    plan.select.assign(size_t(plan.blocks) * size_t(T) * size_t(chunks) * 32, 0x80);
    for (int b = 0; b < plan.blocks; ++b)
        for (int h = 0; h < 2; ++h) {
            const int base = std::min(lo[size_t(2 * b + h)], src_elements - 16 * chunks);
            plan.base[size_t(2 * b + h)] = base;
            for (int j = 0; j < 4; ++j)
                for (int t = 0; t < T; ++t) {
                    const size_t v = size_t(8 * b + 4 * h + j) * size_t(T) + size_t(t);
                    if (plan.alpha[v] == 0.f) continue;
                    const int rel = plan.element[v] - base;
                    uint8_t* sel = &plan.select[((size_t(b) * size_t(T) + size_t(t)) * size_t(chunks) + size_t(rel / 16)) * 32];
                    sel[16 * h + 4 * j] = uint8_t(rel % 16);
                }
        }
    plan.chunks = chunks;
}

void buildCvAreaPlan(CvAreaPlan& plan, int src_width, int src_height, int dst_width, int dst_height, int channels,
                     bool bytes) {
    if (plan.src_width == src_width && plan.src_height == src_height && plan.dst_width == dst_width &&
        plan.dst_height == dst_height && plan.channels == channels && plan.bytes == bytes)
        return;
    std::vector<CvAreaTap> xtab, ytab;
    buildCvAreaTable(src_width, dst_width, xtab);
    buildCvAreaTable(src_height, dst_height, ytab);
    buildCvAreaRowPlan(plan.row, xtab, dst_width, channels, src_width * channels);
    // Source rows in table order; a row that ends one output row and starts
    // the next is one entry with two contributions.
    plan.source_rows.clear();
    plan.contributions.clear();
    plan.counts.clear();
    for (size_t k = 0; k < ytab.size(); ++k) {
        const CvAreaTap& e = ytab[k];
        const bool first = k == 0 || ytab[k - 1].dst != e.dst;
        const bool last = k + 1 == ytab.size() || ytab[k + 1].dst != e.dst;
        const CvAreaContribution c{e.dst, e.alpha, first, k == 0, last};
        if (!plan.source_rows.empty() && plan.source_rows.back() == e.src && plan.counts.back() == 1) {
            plan.contributions.back() = c;  // the second slot of the previous entry
            plan.counts.back() = 2;
            continue;
        }
        plan.source_rows.push_back(e.src);
        plan.contributions.push_back(c);
        plan.contributions.push_back(CvAreaContribution{});
        plan.counts.push_back(1);
    }
    plan.src_width = src_width;
    plan.src_height = src_height;
    plan.dst_width = dst_width;
    plan.dst_height = dst_height;
    plan.channels = channels;
    plan.bytes = bytes;
}

namespace {

// OpenCV's saturate_cast<uchar>(float): round half to even, then clamp (NaN gives 0).
inline uint8_t toByte(float v) {
    if (!(v == v)) return 0;
    const float r = std::nearbyint(v);
    return uint8_t(r <= 0.f ? 0.f : r >= 255.f ? 255.f : r);
}

inline void storeValue(void* row, int o, float v, uint8_t) { static_cast<uint8_t*>(row)[o] = toByte(v); }
inline void storeValue(void* row, int o, float v, float) { storeSample(static_cast<float*>(row), o, v); }

// Values [from, values) of a source row: the horizontal taps in slot order
// (unused slots skipped), then each contribution's sum, stored where it ends.
template <typename T>
void refRow(const CvAreaRowArgs& a, int from) {
    const CvAreaRowPlan& p = *a.plan;
    const T* src = static_cast<const T*>(a.src);
    for (int o = from; o < p.values; ++o) {
        float buf = 0.f;
        for (int t = 0; t < p.taps; ++t) {
            const size_t v = size_t(o) * size_t(p.taps) + size_t(t);
            if (p.alpha[v] == 0.f) continue;
            buf = buf + float(loadSample(src, p.element[v])) * p.alpha[v];
        }
        for (int k = 0; k < a.count; ++k) {
            const CvAreaContribution& c = a.contributions[k];
            float* sum = a.sums[c.dst_row & 1] + o;
            const float q = c.beta * buf;
            const float v = c.first ? (c.zero_start ? 0.f + q : q) : *sum + q;
            if (c.last)
                storeValue(a.dst_rows[k], o, v, T());
            else
                *sum = v;
        }
    }
}

}  // namespace

namespace ref {

void cvAreaRow8(const CvAreaRowArgs& a) { refRow<uint8_t>(a, 0); }
void cvAreaRow32f(const CvAreaRowArgs& a) { refRow<float>(a, 0); }

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

// The contributions of eight values whose horizontal result is `buf`.
template <bool kBytes>
inline void contribute8(const CvAreaRowArgs& a, int o, __m256 buf) {
    for (int k = 0; k < a.count; ++k) {
        const CvAreaContribution& c = a.contributions[k];
        float* sum = a.sums[c.dst_row & 1] + o;
        const __m256 q = _mm256_mul_ps(_mm256_set1_ps(c.beta), buf);
        const __m256 v = c.first ? (c.zero_start ? _mm256_add_ps(_mm256_setzero_ps(), q) : q)
                                 : _mm256_add_ps(_mm256_loadu_ps(sum), q);
        if (!c.last) {
            _mm256_storeu_ps(sum, v);
        } else if (kBytes) {
            // Round half to even (the default rounding mode), clamp by saturating packs.
            const __m256i i = _mm256_cvtps_epi32(v);
            const __m256i w = _mm256_packus_epi32(i, i);
            const __m256i b = _mm256_packus_epi16(w, w);
            const __m256i d = _mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(0, 4, 0, 4, 0, 4, 0, 4));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(static_cast<uint8_t*>(a.dst_rows[k]) + o),
                             _mm256_castsi256_si128(d));
        } else {
            _mm256_storeu_ps(static_cast<float*>(a.dst_rows[k]) + o, v);
        }
    }
}

template <int K>
void rowBlocks8(const CvAreaRowArgs& a) {
    const CvAreaRowPlan& p = *a.plan;
    const uint8_t* src = static_cast<const uint8_t*>(a.src);
    const int T = p.taps;
    const __m256i* sel = reinterpret_cast<const __m256i*>(p.select.data());
    const float* w = p.weight.data();
    for (int b = 0; b < p.blocks; ++b) {
        const uint8_t* s0 = src + p.base[size_t(2 * b)];
        const uint8_t* s1 = src + p.base[size_t(2 * b + 1)];
        __m256i c[K];
        for (int k = 0; k < K; ++k)
            c[k] = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + 16 * k))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + 16 * k)), 1);
        __m256 buf = _mm256_setzero_ps();
        for (int t = 0; t < T; ++t, sel += K, w += 8) {
            __m256i v = _mm256_shuffle_epi8(c[0], _mm256_loadu_si256(sel));
            for (int k = 1; k < K; ++k) v = _mm256_or_si256(v, _mm256_shuffle_epi8(c[k], _mm256_loadu_si256(sel + k)));
            buf = _mm256_add_ps(buf, _mm256_mul_ps(_mm256_cvtepi32_ps(v), _mm256_loadu_ps(w)));
        }
        contribute8<true>(a, 8 * b, buf);
    }
}

}  // namespace

void cvAreaRow8(const CvAreaRowArgs& a) {
    const CvAreaRowPlan& p = *a.plan;
    switch (p.blocks ? p.chunks : 0) {
        case 1: rowBlocks8<1>(a); break;
        case 2: rowBlocks8<2>(a); break;
        case 3: rowBlocks8<3>(a); break;
        case 4: rowBlocks8<4>(a); break;
        case 5: rowBlocks8<5>(a); break;
        case 6: rowBlocks8<6>(a); break;
        case 7: rowBlocks8<7>(a); break;
        case 8: rowBlocks8<8>(a); break;
        default: refRow<uint8_t>(a, 0); return;
    }
    refRow<uint8_t>(a, 8 * p.blocks);
}

void cvAreaRow32f(const CvAreaRowArgs& a) {
    const CvAreaRowPlan& p = *a.plan;
    const float* src = static_cast<const float*>(a.src);
    const int T = p.taps;
    const int32_t* idx = p.index.data();
    const float* w = p.weight.data();
    const __m256 zero = _mm256_setzero_ps();
    for (int b = 0; b < p.blocks; ++b) {
        __m256 buf = zero;
        for (int t = 0; t < T; ++t, idx += 8, w += 8) {
            const __m256 alpha = _mm256_loadu_ps(w);
            // Unused slots (alpha 0) load nothing and add +0 * 0.
            const __m256 used = _mm256_cmp_ps(alpha, zero, _CMP_NEQ_OQ);
            const __m256 s = _mm256_mask_i32gather_ps(zero, src, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(idx)),
                                                      used, 4);
            buf = _mm256_add_ps(buf, _mm256_mul_ps(s, alpha));
        }
        contribute8<false>(a, 8 * b, buf);
    }
    refRow<float>(a, 8 * p.blocks);
}

}  // namespace avx2

#pragma GCC pop_options

void cvAreaResize(const CvAreaPlan& plan, const void* src, size_t src_step, void* dst, size_t dst_step, float* sums,
                  Isa isa) {
    const bool vec = isa >= Isa::kAvx2;
    const CvAreaRowFn row = plan.bytes ? (vec ? avx2::cvAreaRow8 : ref::cvAreaRow8)
                                       : (vec ? avx2::cvAreaRow32f : ref::cvAreaRow32f);
    const auto* s = static_cast<const uint8_t*>(src);
    auto* d = static_cast<uint8_t*>(dst);
    CvAreaRowArgs args{};
    args.plan = &plan.row;
    args.sums[0] = sums;
    args.sums[1] = sums + plan.row.values;
    for (size_t i = 0; i < plan.source_rows.size(); ++i) {
        args.src = s + size_t(plan.source_rows[i]) * src_step;
        args.contributions = &plan.contributions[2 * i];
        args.count = plan.counts[i];
        for (int k = 0; k < args.count; ++k) args.dst_rows[k] = d + size_t(args.contributions[k].dst_row) * dst_step;
        row(args);
    }
}

}  // namespace impl
}  // namespace kv
