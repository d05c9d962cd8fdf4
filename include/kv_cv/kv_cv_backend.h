// ICvBackend: whole-frame image operations on CPU memory behind one interface.
// Every Rect argument whose width or height is below 1 means the whole frame.
#pragma once

#include <vector>

#include "kv_core/kv_buffer.h"
#include "kv_core/kv_frame.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_export.h"

namespace kv {

class KV_CV_API ICvBackend {
public:
    // Integer property ids.
    static constexpr int kPropertyResizeMethod = 1;

    virtual void colorCvt(const Frame& src, Frame& dst, Rect src_roi) = 0;
    virtual void resize(const Frame& src, Frame& dst, Rect src_roi, Rect dst_roi) = 0;
    // Resize and colour-convert in one.
    virtual void convert(const Frame& src, Frame& dst, Rect src_roi) = 0;
    virtual void add(Frame& src_dst, float value, Rect roi) = 0;
    virtual void mul(Frame& src_dst, float value, Rect roi) = 0;
    // `matrix` maps source to destination coordinates; `flag` true inverts it first.
    virtual void warpAffine(const Frame& src, Frame& dst, const float matrix[2][3], Rect src_roi, bool flag) = 0;
    virtual void cropAndResize(const Frame& src, Tensor& dst, const std::vector<Rect>& first,
                               const std::vector<Rect>& second) = 0;
    virtual bool setIntProperty(int id, int value) = 0;
    virtual int getIntProperty(int id) const = 0;
    virtual void setDeviceContext(const DeviceContext& context) = 0;
    virtual DeviceContext getDeviceContext() const = 0;
    virtual ~ICvBackend();
};

// Fills the batch tensor `dst` from regions of `src` through `backend`: crop i
// is src_rois[i] (empty: whole frame; clipped to the frame), resized and
// colour-converted into dst_rois[i] of image i's plane (empty list or rect:
// the whole plane; the rest of the image is zero). Float tensors receive
// (v + offset) * scale; 8-bit tensors need offset 0 and scale 1.
KV_CV_API void crop_and_resize(ICvBackend& backend, const Frame& src, Tensor& dst, const std::vector<Rect>& src_rois,
                               const std::vector<Rect>& dst_rois, float offset, float scale);

}  // namespace kv
