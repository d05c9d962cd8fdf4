// ScaleY<T>: the vertical pass of the convolutional scaler. A row producer
// that combines a window of upstream rows (the horizontal pass) into each
// destination row with the fixed-point tables of ScaleData<T>, one per plane.
//
// Plane 0's table positions the window for every plane; each plane reads the
// window from its first row with its own weights. The filter works per byte,
// whatever the channel layout: out[i] = clamp(sum_k rows[k][i] * w[k] / ONE)
// with a wrapping signed 32-bit sum, division truncating toward zero, clamp
// to 0..255. impl::ref::scaleRowY defines it, impl::avx2::scaleRowY gives the
// same bits 16 and 32 bytes at a time.
//
// The table cache is keyed by kernel address, format, source height and
// destination height: a source of another width keeps the output layout of
// the first set-up; output bytes beyond the current source row are written 0.
// The window is placed on the first destination row's start in reuse(), and
// rows the window passes over are pulled through the upstream pass rather
// than skipped, so the result does not depend on how often the window (whose
// skip count survives reuse) was used before.
#pragma once

#include <cstdint>
#include <vector>

#include "kv_core/kv_buffer.h"
#include "kv_cv/kv_kernel.h"
#include "kv_cv/kv_row_window.h"
#include "kv_impl_scale_data.h"

namespace kv {
namespace impl {

// rows[k] for k < taps, each at least `bytes` long; acc holds `bytes` sums.
template <typename T>
using ScaleRowYFn = void (*)(const uint8_t* const* rows, const T* weights, int taps, int bytes, int32_t* acc,
                             uint8_t* dst);

namespace ref {
template <typename T>
void scaleRowY(const uint8_t* const* rows, const T* weights, int taps, int bytes, int32_t* acc, uint8_t* dst);
}  // namespace ref

namespace avx2 {
template <typename T>
void scaleRowY(const uint8_t* const* rows, const T* weights, int taps, int bytes, int32_t* acc, uint8_t* dst);
}  // namespace avx2

template <typename T>
class ScaleY : public IRowProducer {
public:
    ScaleY() = default;
    ~ScaleY() override = default;
    ScaleY(const ScaleY&) = delete;
    ScaleY& operator=(const ScaleY&) = delete;

    void reuse(IKernel& kernel, IRowProducer& src, int dst_height);
    void _reuseScaleData(IKernel& kernel, const FrameLayout& src, int dst_height);
    bool initialized() const { return _valid && _window.initialized(); }

    const FrameLayout& layout() override { return _layout; }
    void produce(RowData& row) override;
    bool next() override;

    const ScaleData<T>& scaleData(int plane) const { return _scale_data[plane]; }
    int windowSize() const { return _window.windowSize(); }

private:
    // Moves the window down `delta` rows (as far as it can go), filling it
    // before each step so that no upstream row is skipped.
    void _advance(int delta);

    RowIndex _index;
    Buffer _accumulator;
    int _previous_start = 0;
    FrameLayout _src_layout;
    const IKernel* _kernel = nullptr;
    FrameFormat _format = FRAME_UNDEFINED;
    int _src_height = 0;
    int _dst_height = 0;
    bool _valid = false;  // the tables were built completely for the key above
    FrameLayout _layout;
    RowWindow _window;
    ScaleData<T> _scale_data[4];

    ScaleRowYFn<T> _fn = nullptr;
    std::vector<const uint8_t*> _rows;  // plane rows of the window, per produce
};

extern template class ScaleY<signed char>;
extern template class ScaleY<short>;

}  // namespace impl
}  // namespace kv
