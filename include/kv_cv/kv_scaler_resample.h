// Antialiased resampling with shipped kernels: box, triangle, cubic, Lanczos
// and Mitchell-Netravali filters, applied separably (a horizontal pass, then a
// vertical one). Shrinking stretches the kernel by the reduction factor, so
// every output pixel averages its whole footprint; enlarging interpolates at
// the kernel's own width.
//
// The arithmetic is that of Pillow's Image.resize: for output pixel x the
// kernel is centred on source position (x + 0.5) * scale, with support =
// kernel support * max(scale, 1); taps falling outside the image are dropped
// and the rest renormalised to sum to one; 8-bit weights are 22-bit fixed
// point, the rounding offset is seeded in the accumulator, and each pass rounds
// to 8 bits. box, triangle, cubic and lanczos3 therefore give Pillow's BOX,
// BILINEAR, BICUBIC and LANCZOS results sample for sample.
//
// Formats: every 8-bit format (gray, RGB/BGR packed and planar, C2/C3/C4,
// YUV 4:2:0, 4:2:2 and 4:4:4 planar and semi-planar, packed YUYV/UYVY),
// FRAME_GRAY_16 (16-bit samples, the same weights, 64-bit sums) and the float
// formats (FRAME_GRAY_FLOAT_32 and FRAME_FLOAT_32 as one float channel,
// FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR; float weights and sums, no
// rounding or clamping). Every plane is resampled in its own geometry: a 4:2:0
// chroma plane of (W+1)/2 x (H+1)/2 goes to (W'+1)/2 x (H'+1)/2 with its own
// tables. Packed 4:2:2 rows are resampled as their luma and chroma pairs. An
// axis whose length does not change is copied, not filtered.
#pragma once

#include <memory>

#include "kv_cv/kv_kernel.h"
#include "kv_cv/kv_row_producer.h"

namespace kv {

enum ResampleFilter : int32_t {
    KV_RESAMPLE_BOX = 0,       // support 0.5: the area average when shrinking
    KV_RESAMPLE_TRIANGLE = 1,  // support 1: linear interpolation (Pillow's BILINEAR)
    KV_RESAMPLE_CUBIC = 2,     // support 2: Keys cubic, a = -0.5 (Pillow's BICUBIC)
    KV_RESAMPLE_LANCZOS2 = 3,  // support 2: sinc(x) sinc(x / 2)
    KV_RESAMPLE_LANCZOS3 = 4,  // support 3: sinc(x) sinc(x / 3) (Pillow's LANCZOS)
    KV_RESAMPLE_MITCHELL = 5,  // support 2: Mitchell-Netravali, B = C = 1/3
};

// "box", "triangle", "cubic", "lanczos2", "lanczos3", "mitchell"; "unknown"
// for values outside the enumeration.
KV_CV_API const char* toString(ResampleFilter filter);
// Reads the names above (lower case); false for anything else.
KV_CV_API bool parseResampleFilter(const char* name, ResampleFilter& filter);
// The kernel's value at offset x (in source pixels at scale 1) and its
// half-width. Status 5 for a value outside the enumeration.
KV_CV_API double resampleFilterValue(ResampleFilter filter, double x);
KV_CV_API double resampleFilterSupport(ResampleFilter filter);

// A shipped kernel as an IKernel for ScalerConvolutional, stretched by
// `stretch` (a reduction factor, at least 1) so that it antialiases too.
class KV_CV_API ResampleKernel : public IKernel {
public:
    explicit ResampleKernel(ResampleFilter filter, float stretch = 1.f);
    void prepare() override {}
    float value(float x) const override;
    float aperture() const override;

private:
    ResampleFilter _filter;
    float _stretch;
};

// A row producer over a frame or an upstream producer. reuse() checks the
// source, the size and the filter and builds the tables (kept while the
// format, the sizes and the filter repeat); rows the vertical pass needs are
// filtered horizontally as the output advances, in blocks of up to 16 rows,
// into a ring sized in reuse(), so nothing allocates per row.
class KV_CV_API ScalerResample : public IRowProducer {
public:
    ScalerResample();
    ~ScalerResample() override;
    ScalerResample(const ScalerResample&) = delete;
    ScalerResample& operator=(const ScalerResample&) = delete;

    // The caller keeps the source alive and unmoved while the scaler is used.
    void reuse(const Frame& src, Size dst_size, ResampleFilter filter);
    void reuse(IRowProducer& src, Size dst_size, ResampleFilter filter);
    void clear();
    bool initialized() const;
    ResampleFilter filter() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

// dst = src resampled to dst's size. dst must be initialised with src's
// format; its rows are written in place (a region of a larger frame works).
KV_CV_API void resampleFrame(const Frame& src, Frame& dst, ResampleFilter filter);
// dst = src resampled to `size`, dst reallocated unless it already has src's
// format and that size.
KV_CV_API void resampleFrame(const Frame& src, const Size& size, Frame& dst, ResampleFilter filter);

}  // namespace kv
