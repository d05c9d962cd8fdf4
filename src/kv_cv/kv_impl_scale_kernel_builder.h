// ScaleKernelBuilder<T>: the store of fixed-point weight rows of one axis
// table. Rows 0..15 hold the inner kernels (shared by positions of the same
// sub-pixel phase), rows 16 onward the border kernels (one per position near
// an end of the axis). Rows are 64-byte aligned and zero past their taps, so
// the passes may load whole vectors of weights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kv_core/kv_buffer.h"

namespace kv {
namespace impl {

// Fixed-point constants per weight type. Weights sum to kOne; with 8-bit
// weights a tap weight is at most 127 = ~2 units, with 16-bit ones 32767.
template <typename T>
struct FixedPoint;
template <>
struct FixedPoint<signed char> {
    static constexpr int kOne = 64;           // FIXED_POINT_ONE, shift 6
    static constexpr int kShift = 6;
    static constexpr int kMaxAperture = 64;   // MAX_FIXED_POINT_APERTURE
    static constexpr int kMaxScale = 32;      // largest reduction factor
};
template <>
struct FixedPoint<short> {
    static constexpr int kOne = 16384;        // FIXED_POINT_ONE, shift 14
    static constexpr int kShift = 14;
    static constexpr int kMaxAperture = 16384;
    static constexpr int kMaxScale = 8192;
};

template <typename T>
class ScaleKernelBuilder {
public:
    static constexpr int kInnerCapacity = 16;

    // Clears the store for kernels of `aperture` taps: 16 inner rows and
    // `aperture` border rows, all zero.
    void reuse(int aperture);
    // Stores kernelLength weights in the next inner row; returns the row.
    int addInnerKernel(float phase, const T* weights);
    // Stores kernelLength weights in the next border row; returns the row.
    int addBorderKernel(const T* weights);
    // The first inner row whose phase is within 0.001 of `phase`, or -1.
    int findInnerKernel(float phase) const;

    const T* row(int index) const { return reinterpret_cast<const T*>(buffer.data() + size_t(index) * stride); }

    Buffer buffer;
    std::vector<float> phases;
    int innerCount = 0;
    int innerCapacity = kInnerCapacity;
    int borderCount = 0;
    int borderCapacity = 0;
    int kernelLength = 0;
    size_t stride = 0;  // bytes per row, a multiple of 64
};

extern template class ScaleKernelBuilder<signed char>;
extern template class ScaleKernelBuilder<short>;

}  // namespace impl
}  // namespace kv
