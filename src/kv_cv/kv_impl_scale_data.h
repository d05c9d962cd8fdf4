// ScaleData<T>: the fixed-point table of one axis of one plane for the
// convolutional scaler. For every destination position it holds the first
// source sample and the builder row of its weights; weights are integers of T
// (signed char: unit 64, short: unit 16384) summing to one unit.
//
// Inner positions share one kernel per sub-pixel phase (quantised to
// sixteenths when the phases cycle through more than 16 values); positions
// near the ends get border kernels whose out-of-range taps are folded back
// into the source by mirroring with the edge sample repeated. The float
// arithmetic is single precision and written out step by step: it decides the
// last bit of every weight, so this file must not be built with FMA
// contraction or reassociation.
#pragma once

#include <cstdint>
#include <vector>

#include "kv_core/kv_buffer.h"
#include "kv_cv/kv_kernel.h"
#include "kv_impl_scale_kernel_builder.h"

namespace kv {
namespace impl {

// Low 16 bits: signed source start; high 16 bits: builder row.
using ScaleEntry = uint32_t;
inline int entryStart(ScaleEntry e) { return int(int16_t(uint16_t(e & 0xFFFF))); }
inline int entryRow(ScaleEntry e) { return int(e >> 16); }

constexpr int kMaxScaleSourceSize = 8192;

template <typename T>
class ScaleData {
public:
    // Builds the table for `src_size` samples reduced to `dst_size`.
    void reuse(IKernel& kernel, int src_size, int dst_size);

    const T* weights(ScaleEntry e) const { return builder.row(entryRow(e)); }

    // Three arrays of `aperture` elements: float weights, T weights, T border
    // weights (floats first so that they are aligned).
    Buffer scratch;
    ScaleKernelBuilder<T> builder;
    std::vector<ScaleEntry> entries;
    int maxAperture = 0;  // taps every position is run over
    int srcSize = 0;
    int dstSize = 0;
};

extern template class ScaleData<signed char>;
extern template class ScaleData<short>;

// Weights of one kernel position: the kernel integrated over each source cell
// of its support [phase, aperture + phase), scaled to FIXED_POINT_ONE, rounded
// and corrected to sum exactly to one unit. Writes the tap count to *aperture.
void _computeWeights(IKernel* kernel, float* p_weight_buffer, signed char* p_weights, int weight_capacity,
                     float phase, int* aperture);
void _computeWeights(IKernel* kernel, float* p_weight_buffer, short* p_weights, int weight_capacity, float phase,
                     int* aperture);

// Unit steps from the middle outward until the weights sum to FIXED_POINT_ONE
// (one pass; the odd centre is stepped twice and weight 0 never).
void _fixWeightSum(signed char* weights, int n);
void _fixWeightSum(short* weights, int n);

// Folds a kernel starting at `start` into the source 0..src_size-1 (mirror,
// edge repeated); the folded row starts at *new_start. Rejects a fold that
// would land outside the `aperture` output taps (only possible with a start
// no table produces) with status 2.
void _reflectWeights(const signed char* p_weights, int aperture, int src_size, int start, int* new_start,
                     signed char* p_borderWieghts);
void _reflectWeights(const short* p_weights, int aperture, int src_size, int start, int* new_start,
                     short* p_borderWieghts);

// Trapezoidal integral of the kernel centred at aperture/2 + offset over
// [from, to], panels of 1/16, in single precision.
float _computeIntegral(const IKernel* _p_kernel, float offset, float from, float to);

}  // namespace impl
}  // namespace kv
