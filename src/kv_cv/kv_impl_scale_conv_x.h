// ScaleX<T>: the horizontal pass of the convolutional scaler. A row producer
// that filters each source row (one-row window) down to the destination width
// with the fixed-point tables of ScaleData<T>, one table per plane.
//
// Row kernels come in pairs with one signature: impl::ref::scaleRowX (the
// definition of the result) and impl::avx2::scaleRowX (8-bit samples, 1 to 4
// channels, the same bits). A pixel is sum_k src[(start+k)*ch+c] * w[k] over
// the table's maxAperture taps, divided by FIXED_POINT_ONE truncating toward
// zero and clamped to the sample range; the sum is a wrapping signed 32-bit
// integer (64-bit for 32-bit samples).
//
// The table cache is keyed by kernel address, format and destination width
// only: a source of another width keeps the tables (and the output layout) of
// the first set-up. Taps that would then fall past the end of the current
// source row are not read and count as 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kv_cv/kv_kernel.h"
#include "kv_cv/kv_row_window.h"
#include "kv_impl_scale_data.h"

namespace kv {
namespace impl {

// One plane row of the horizontal filter; everything but the source pointer is
// fixed per reuse().
struct ScaleRowXArgs {
    const uint8_t* src = nullptr;
    int src_width = 0;                 // samples per channel in the source row
    const ScaleEntry* entries = nullptr;
    const uint8_t* weights = nullptr;  // builder row 0
    size_t stride = 0;                 // bytes per builder row
    int taps = 0;                      // maxAperture
    int dst_width = 0;
    // Positions [0, vector_end) may load whole 16-byte blocks at
    // (start + k) * channels for their taps rounded up to the vector step
    // without leaving the source row.
    int vector_end = 0;
};

using ScaleRowXFn = void (*)(const ScaleRowXArgs& args, uint8_t* dst);

namespace ref {
// S: sample type (uint8_t, uint16_t, uint32_t); CH: channels per pixel.
template <typename T, typename S, int CH>
void scaleRowX(const ScaleRowXArgs& args, uint8_t* dst);
}  // namespace ref

namespace avx2 {
template <typename T, int CH>
void scaleRowX(const ScaleRowXArgs& args, uint8_t* dst);
// Taps covered by one 16-byte load for CH channels (4, 8 or 16).
constexpr int stepTaps(int ch) { return ch == 1 ? 16 : ch == 2 ? 8 : 4; }
// The 8-bit weight kernel sums tap pairs in saturating 16 bits: usable only
// when no pair of (even, odd) taps can reach beyond int16 for any sample.
template <typename T>
bool pairSumsFit(const ScaleData<T>& table);
}  // namespace avx2

template <typename T>
class ScaleX : public IRowProducer {
public:
    ScaleX() = default;
    ~ScaleX() override = default;
    ScaleX(const ScaleX&) = delete;
    ScaleX& operator=(const ScaleX&) = delete;

    void reuse(IKernel& kernel, IRowProducer& src, int dst_width);
    void reuse(IKernel& kernel, const Frame& src, int dst_width);
    void _reuseScaleData(IKernel& kernel, const FrameLayout& src, int dst_width);
    bool initialized() const { return _valid && _window.initialized(); }

    const FrameLayout& layout() override { return _layout; }
    void produce(RowData& row) override;
    bool next() override { return _window.next(); }

    const ScaleData<T>& scaleData(int plane) const { return _scale_data[plane]; }

private:
    void _selectKernels();

    const IKernel* _kernel = nullptr;
    FrameFormat _format = FRAME_UNDEFINED;
    int _dst_width = 0;
    bool _valid = false;  // the tables were built completely for the key above
    FrameLayout _layout;
    RowWindow _window;
    ScaleData<T> _scale_data[4];

    bool _supported = false;  // the format has a horizontal filter
    ScaleRowXFn _fn[4] = {nullptr, nullptr, nullptr, nullptr};
    ScaleRowXArgs _args[4];
};

extern template class ScaleX<signed char>;
extern template class ScaleX<short>;

}  // namespace impl
}  // namespace kv
