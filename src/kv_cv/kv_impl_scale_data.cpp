// ScaleData<T> and the weight computation of the convolutional scaler: kernel
// integration, rounding to fixed point, the weight-sum fix and border folding.
//
// Every float operation here is single precision in the order written; the
// results decide the last bit of each weight. The file is built for the
// baseline ISA (no FMA instructions exist there) and additionally forbids
// contraction, so a*b+c is never fused even if the flags change.
#pragma GCC optimize("fp-contract=off")

#include "kv_impl_scale_data.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_scale_data"

namespace kv {
namespace impl {

namespace {

constexpr const char* kComputeWeights = "kv::impl::_computeWeights";
constexpr const char* kReflectWeights = "kv::impl::_reflectWeights";
constexpr int kMaxWeightCapacity = 1073741823;  // 2^30 - 1

// Float to T as the hardware conversion does it: round, convert to 32 bits
// (out-of-range values give INT_MIN), keep the low bits. Defined for any input.
template <typename T>
T toWeight(float v) {
    const float r = std::round(v);
    const int32_t i = (r >= -2147483648.0f && r < 2147483648.0f) ? int32_t(r) : INT32_MIN;
    return T(uint32_t(i));
}

// ceil() of a float as an int: the integer part, plus one when positive and
// not whole; saturates instead of overflowing, NaN gives 0.
int ceilToInt(float v) {
    if (!(v == v)) return 0;
    if (v >= 2147483647.0f) return INT_MAX;
    if (v <= -2147483648.0f) return INT_MIN;
    int i = int(v);
    if (v > 0.0f && float(i) != v) ++i;
    return i;
}

template <typename T>
void fixWeightSum(T* weights, int n) {
    constexpr int kOne = FixedPoint<T>::kOne;
    int s = 0;
    for (int k = 0; k < n; ++k) s += weights[k];
    if (s == kOne) return;
    const int d = s < kOne ? 1 : -1;
    const int half = n / 2;
    const int odd = n % 2;
    if (odd) {
        weights[half] = T(weights[half] + d);
        s += d;
    }
    for (int j = 0; j < half; ++j) {
        if (s == kOne) return;
        T& left = weights[half + odd - 1 - j];
        left = T(left + d);
        s += d;
        if (s == kOne) return;
        T& right = weights[half + odd + j];
        right = T(right + d);
        s += d;
    }
}

template <typename T>
void computeWeights(IKernel* kernel, float* p_weight_buffer, T* p_weights, int weight_capacity, float phase,
                    int* aperture) {
    if (!kernel) KV_THROW(KV_STATUS_NULL_POINTER, kComputeWeights, "Parameter '_p_kernel' is null.");
    const float extent = kernel->aperture() + phase;
    const int taps = ceilToInt(extent);
    if (aperture) *aperture = taps;
    if (!p_weights)
        KV_THROW(KV_STATUS_NULL_POINTER, kComputeWeights, "Failure in _computeWeights(...): Parameter 'p_weights' is null.");
    if (!p_weight_buffer)
        KV_THROW(KV_STATUS_NULL_POINTER, kComputeWeights,
                 "Failure in _computeWeights(...): Parameter 'p_weight_buffer' is null.");
    if (weight_capacity < 1 || weight_capacity > kMaxWeightCapacity)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kComputeWeights,
                 "Failure in _computeWeights(...): Parameter 'weight_capacity' is out of range.");
    if (!(phase >= 0.0f && phase < 1.0f))
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kComputeWeights,
                 "Failure in _computeWeights(...): Parameter 'phase' is out of range.");
    if (taps > weight_capacity)
        KV_THROW(KV_STATUS_KERNEL_LIMIT, kComputeWeights,
                 "Failure in _computeWeights(...): Not enough capacity to fit the kernel.");
    if (taps > FixedPoint<T>::kMaxAperture)
        KV_THROW(KV_STATUS_KERNEL_LIMIT, kComputeWeights,
                 "Failure in _computeWeights(...): The kernel aperture is greater than MAX_FIXED_POINT_APERTURE");

    std::memset(p_weights, 0, size_t(weight_capacity) * sizeof(T));
    std::memset(p_weight_buffer, 0, size_t(weight_capacity) * sizeof(float));
    float sum = 0.0f;
    for (int k = 0; k < taps; ++k) {
        const float from = std::max(float(k), phase);
        const float to = std::min(float(k + 1), extent);
        const float w = _computeIntegral(kernel, phase, from, to);
        p_weight_buffer[k] = w;
        sum += w;
    }
    // NaN sums fail here too.
    if (taps < 1 || !(double(sum) >= 0.001))
        KV_THROW(KV_STATUS_NULL_POINTER, kComputeWeights, "Failure in computeWeights(...): Kernel has zero weight sum.");
    const float factor = float(FixedPoint<T>::kOne) / std::fabs(sum);
    for (int k = 0; k < taps; ++k) p_weights[k] = toWeight<T>(p_weight_buffer[k] * factor);
    fixWeightSum(p_weights, taps);
}

template <typename T>
void reflectWeights(const T* p_weights, int aperture, int src_size, int start, int* new_start,
                    T* p_borderWieghts) {
    if (!p_weights)
        KV_THROW(KV_STATUS_NULL_POINTER, kReflectWeights, "Failure in _reflectWeights(...) : Parameter 'p_weights' is null.");
    if (!p_borderWieghts)
        KV_THROW(KV_STATUS_NULL_POINTER, kReflectWeights,
                 "Failure in _reflectWeights(...) : Parameter 'p_borderWieghts' is null.");
    if (aperture < 1 || aperture > FixedPoint<T>::kMaxAperture)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kReflectWeights,
                 "Failure in _reflectWeights(...) : Parameter 'aperture' is out of range.");
    if (src_size < 1 || src_size > kMaxScaleSourceSize)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kReflectWeights,
                 "Failure in _reflectWeights(...) : Parameter 'src_size' is out of range.");
    const int64_t first = int64_t(start);
    const int out_start = (first + aperture > src_size) ? std::max(src_size - aperture, 0) : std::max(start, 0);
    std::memset(p_borderWieghts, 0, size_t(aperture) * sizeof(T));
    const int64_t period = 2 * int64_t(src_size);
    for (int k = 0; k < aperture; ++k) {
        const int64_t x = first + k;
        const int64_t m = x < 0 ? -(x + 1) : x;  // -1 -> 0, -2 -> 1
        const int64_t r = m % period;
        const int64_t idx = r < src_size ? r : period - 1 - r;
        const int64_t slot = idx - out_start;
        KV_ASSERT(0 <= slot && slot < aperture, kReflectWeights);
        p_borderWieghts[slot] = T(p_borderWieghts[slot] + p_weights[k]);
    }
    if (new_start) *new_start = out_start;
}

}  // namespace

void _fixWeightSum(signed char* weights, int n) { fixWeightSum(weights, n); }
void _fixWeightSum(short* weights, int n) { fixWeightSum(weights, n); }

void _computeWeights(IKernel* kernel, float* p_weight_buffer, signed char* p_weights, int weight_capacity,
                     float phase, int* aperture) {
    computeWeights(kernel, p_weight_buffer, p_weights, weight_capacity, phase, aperture);
}
void _computeWeights(IKernel* kernel, float* p_weight_buffer, short* p_weights, int weight_capacity, float phase,
                     int* aperture) {
    computeWeights(kernel, p_weight_buffer, p_weights, weight_capacity, phase, aperture);
}

void _reflectWeights(const signed char* p_weights, int aperture, int src_size, int start, int* new_start,
                     signed char* p_borderWieghts) {
    reflectWeights(p_weights, aperture, src_size, start, new_start, p_borderWieghts);
}
void _reflectWeights(const short* p_weights, int aperture, int src_size, int start, int* new_start,
                     short* p_borderWieghts) {
    reflectWeights(p_weights, aperture, src_size, start, new_start, p_borderWieghts);
}

float _computeIntegral(const IKernel* _p_kernel, float offset, float from, float to) {
    if (!_p_kernel) KV_THROW(KV_STATUS_NULL_POINTER, "kv::impl::_computeIntegral", "Parameter '_p_kernel' is null.");
    const float step = 0.0625f;
    const float centre = _p_kernel->aperture() * 0.5f + offset;
    float f0 = _p_kernel->value(from - centre);
    float f1 = _p_kernel->value(from + step - centre);
    float x = from + step;
    float prev = from;
    float acc = 0.0f;
    while (x < to) {
        acc += f0 + f1;
        const float f2 = _p_kernel->value(x + step - centre);
        prev = x;
        const float nx = x + step;
        if (nx == x) break;  // beyond float resolution: no further panels
        x = nx;
        f0 = f1;
        f1 = f2;
    }
    return (_p_kernel->value(to - centre) + f0) * (to - prev) * 0.5f + acc * 0.03125f;
}

template <typename T>
void ScaleData<T>::reuse(IKernel& kernel, int src_size, int dst_size) {
    constexpr const char* kFn = "kv::impl::ScaleData::reuse";
    constexpr int kMaxScale = FixedPoint<T>::kMaxScale;
    if (src_size < 1 || src_size > kMaxScaleSourceSize)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn, "Failure in ScaleData::reuse(...), parameter 'src_size' is out of range.");
    if (dst_size < 1 || dst_size > src_size)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn, "Failure in ScaleData::reuse(...), parameter 'dst_size' is out of range.");
    if (int64_t(dst_size) > int64_t(src_size) * kMaxScale || int64_t(src_size) > int64_t(dst_size) * kMaxScale)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn, "Failure in ScaleData::reuse(...), scale factor is out of range.");

    entries.clear();
    entries.reserve(size_t(dst_size));
    int a = src_size, b = dst_size;
    while (b != 0) {
        const int t = a % b;
        a = b;
        b = t;
    }
    const int period = dst_size / a;

    kernel.prepare();
    const float width = kernel.aperture();
    const int taps_max = ceilToInt(width + 1.0f);  // A: taps of any position, border rows
    // A kernel wider than the fixed-point limit fails at its first position;
    // report that before sizing tables for it.
    if (taps_max > FixedPoint<T>::kMaxAperture + 1) {
        if (taps_max > kMaxWeightCapacity)
            KV_THROW(KV_STATUS_OUT_OF_RANGE, kComputeWeights,
                     "Failure in _computeWeights(...): Parameter 'weight_capacity' is out of range.");
        KV_THROW(KV_STATUS_KERNEL_LIMIT, kComputeWeights,
                 "Failure in _computeWeights(...): The kernel aperture is greater than MAX_FIXED_POINT_APERTURE");
    }
    builder.reuse(taps_max);
    maxAperture = 0;
    scratch.resize(size_t(taps_max) * (sizeof(T) * 2 + 4));
    float* float_weights = reinterpret_cast<float*>(scratch.data());
    T* weights = reinterpret_cast<T*>(scratch.data() + size_t(taps_max) * sizeof(float));
    T* border = weights + taps_max;

    const float scale = float(src_size) / float(dst_size);
    for (int i = 0; i < dst_size; ++i) {
        const float centre = (float(i) + 0.5f) * scale - width * 0.5f;
        const float floor_centre = std::floor(centre);
        int start = int(floor_centre);
        float phase = centre - floor_centre;
        int row;
        if (start < 0 || start + taps_max > src_size) {
            int taps = 0;
            _computeWeights(&kernel, float_weights, weights, taps_max, phase, &taps);
            // Rows are copied whole: taps past this kernel's length must be 0.
            std::memset(border, 0, size_t(taps_max) * sizeof(T));
            _reflectWeights(weights, taps, src_size, start, &start, border);
            row = builder.addBorderKernel(border);
            maxAperture = std::max(maxAperture, taps);
        } else {
            if (period > 16) phase = std::floor(phase * 16.0f) * 0.0625f;
            row = builder.findInnerKernel(phase);
            if (row < 0) {
                int taps = 0;
                _computeWeights(&kernel, float_weights, weights, taps_max, phase, &taps);
                row = builder.addInnerKernel(phase, weights);
                maxAperture = std::max(maxAperture, taps);
            }
        }
        entries.push_back(ScaleEntry(uint16_t(int16_t(start))) | (ScaleEntry(row) << 16));
    }
    srcSize = src_size;
    dstSize = dst_size;
}

template class ScaleData<signed char>;
template class ScaleData<short>;

}  // namespace impl
}  // namespace kv
