// Rotation geometry and in-place float arithmetic over plane regions.
// The arithmetic has an AVX2 path and a plain path; both perform one IEEE
// single-precision add or multiply per element, so results are identical.
#include "kv_core/kv_core_functions.h"

#include "kv_core/kv_core_impl.h"

#include <immintrin.h>

#include <algorithm>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_core/kv_core_functions"

namespace kv {

void getRotationMatrix2D(float angle, Point centre, float (*m)[3], float scale) {
    const double r = double(angle) * M_PI / 180.0;
    const double a = std::cos(r) * scale, b = std::sin(r) * scale;
    m[0][0] = float(a);
    m[0][1] = float(b);
    m[0][2] = float((1.0 - a) * centre.x - b * centre.y);
    m[1][0] = float(-b);
    m[1][1] = float(a);
    m[1][2] = float(b * centre.x + (1.0 - a) * centre.y);
}

void getRotationRoi(float angle, const Rect& source, Rect& bounding, Size& size, Rect& placed) {
    const double r = double(angle) * M_PI / 180.0;
    const double c = std::fabs(std::cos(r)), s = std::fabs(std::sin(r));
    // Shave a rounding hair so that 90 degrees gives exact integer boxes.
    const double eps = 1e-6;
    const double bw_d = std::ceil(source.width * c + source.height * s - eps);
    const double bh_d = std::ceil(source.width * s + source.height * c - eps);
    // In 64 bits, then checked: every result must be a 32-bit Rect or Size
    // (a NaN or infinite angle fails the same test).
    auto fits = [](double v) { return v >= double(INT32_MIN) && v <= double(INT32_MAX); };
    auto fits64 = [](int64_t v) { return v >= INT32_MIN && v <= INT32_MAX; };
    bool ok = fits(bw_d) && fits(bh_d);
    const int64_t bw = ok ? int64_t(bw_d) : 0, bh = ok ? int64_t(bh_d) : 0;
    const int64_t dx = std::max<int64_t>(0, (bw - source.width + 1) / 2);
    const int64_t dy = std::max<int64_t>(0, (bh - source.height + 1) / 2);
    const int64_t sw = source.width + 2 * dx, sh = source.height + 2 * dy;
    ok = ok && fits64(source.x - dx) && fits64(source.y - dy) && fits64(source.width + dx) &&
         fits64(source.height + dy) && fits64(sw) && fits64(sh);
    if (!ok)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::getRotationRoi",
                 "Failure in getRotationRoi(...) : the %dx%d rectangle at (%d, %d) turned by %g degrees does not fit "
                 "32-bit coordinates.",
                 source.width, source.height, source.x, source.y, double(angle));
    bounding = Rect(int32_t(source.x - dx), int32_t(source.y - dy), int32_t(source.width + dx),
                    int32_t(source.height + dy));
    size = Size(int32_t(sw), int32_t(sh));
    placed = Rect(int32_t((sw - bw) / 2), int32_t((sh - bh) / 2), int32_t(bw), int32_t(bh));
}

namespace impl {

// Float rows of caller frames may sit at any byte address: samples move
// through memcpy (a plain load or store) instead of typed access.
inline float loadFloat(const float* p) {
    float v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void storeFloat(float* p, float v) { std::memcpy(p, &v, sizeof v); }

namespace ref {

template <bool kAdd>
void apply(const float* pattern, int period, unsigned char* data, size_t step, Rect region) {
    for (int y = 0; y < region.height; ++y) {
        float* row = reinterpret_cast<float*>(data + size_t(region.y + y) * step) + size_t(region.x) * period;
        const int64_t n = int64_t(region.width) * period;
        for (int64_t i = 0; i < n; ++i) {
            const float v = loadFloat(row + i);
            storeFloat(row + i, kAdd ? v + pattern[i % period] : v * pattern[i % period]);
        }
    }
}

void arithConstant(bool add, const float* pattern, int period, unsigned char* data, size_t step, Rect region) {
    if (add)
        apply<true>(pattern, period, data, step, region);
    else
        apply<false>(pattern, period, data, step, region);
}

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {

// `period` is 1 or 3 floats; 24 floats (three vectors) hold a whole number of periods.
template <bool kAdd>
void apply(const float* pattern, int period, unsigned char* data, size_t step, Rect region) {
    alignas(32) float rep[24];
    for (int i = 0; i < 24; ++i) rep[i] = pattern[i % period];
    const __m256 v0 = _mm256_load_ps(rep), v1 = _mm256_load_ps(rep + 8), v2 = _mm256_load_ps(rep + 16);
    for (int y = 0; y < region.height; ++y) {
        float* row = reinterpret_cast<float*>(data + size_t(region.y + y) * step) + size_t(region.x) * period;
        const int64_t n = int64_t(region.width) * period;
        int64_t i = 0;
        for (; i + 24 <= n; i += 24) {
            __m256 a = _mm256_loadu_ps(row + i), b = _mm256_loadu_ps(row + i + 8), c = _mm256_loadu_ps(row + i + 16);
            if (kAdd) {
                a = _mm256_add_ps(a, v0); b = _mm256_add_ps(b, v1); c = _mm256_add_ps(c, v2);
            } else {
                a = _mm256_mul_ps(a, v0); b = _mm256_mul_ps(b, v1); c = _mm256_mul_ps(c, v2);
            }
            _mm256_storeu_ps(row + i, a); _mm256_storeu_ps(row + i + 8, b); _mm256_storeu_ps(row + i + 16, c);
        }
        for (; i < n; ++i) {
            const float v = loadFloat(row + i);
            storeFloat(row + i, kAdd ? v + rep[i % 24] : v * rep[i % 24]);
        }
    }
}

void arithConstant(bool add, const float* pattern, int period, unsigned char* data, size_t step, Rect region) {
    if (add)
        apply<true>(pattern, period, data, step, region);
    else
        apply<false>(pattern, period, data, step, region);
}

}  // namespace avx2
#pragma GCC pop_options

bool cpuHasAvx2() {
    static const bool v = __builtin_cpu_supports("avx2");
    return v;
}

}  // namespace impl

namespace {

template <bool kAdd>
void dispatch(const float* pattern, int period, unsigned char* data, size_t step, Rect region) {
    if (region.empty() || !data) return;
    if (impl::cpuHasAvx2())
        impl::avx2::arithConstant(kAdd, pattern, period, data, step, region);
    else
        impl::ref::arithConstant(kAdd, pattern, period, data, step, region);
}

}  // namespace

void addConstant_32f_C1(float value, unsigned char* data, int step, Rect region) {
    dispatch<true>(&value, 1, data, size_t(step), region);
}
void mulConstant_32f_C1(float value, unsigned char* data, int step, Rect region) {
    dispatch<false>(&value, 1, data, size_t(step), region);
}
void addConstant_32f_C3(const float values[3], unsigned char* data, size_t step, Rect region) {
    dispatch<true>(values, 3, data, step, region);
}
void mulConstant_32f_C3(const float values[3], unsigned char* data, size_t step, Rect region) {
    dispatch<false>(values, 3, data, step, region);
}

}  // namespace kv
