// Rotation geometry and in-place float arithmetic over plane regions.
// The arithmetic has an AVX2 path and a plain path; both perform one IEEE
// single-precision add or multiply per element, so results are identical.
#include "kv_core/kv_core_functions.h"

#include "kv_core/kv_core_impl.h"

#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

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
    const int bw = int(std::ceil(source.width * c + source.height * s - eps));
    const int bh = int(std::ceil(source.width * s + source.height * c - eps));
    const int dx = std::max(0, (bw - source.width + 1) / 2);
    const int dy = std::max(0, (bh - source.height + 1) / 2);
    bounding = Rect(source.x - dx, source.y - dy, source.width + dx, source.height + dy);
    size = Size(source.width + 2 * dx, source.height + 2 * dy);
    placed = Rect((size.width - bw) / 2, (size.height - bh) / 2, bw, bh);
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
        const int n = region.width * period;
        for (int i = 0; i < n; ++i) {
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
        const int n = region.width * period;
        int i = 0;
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
