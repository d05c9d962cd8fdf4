// CvBackendBase: the generic backend, written entirely on the library's own row
// pipeline (Scaler, FormatConverter, produceFrame).
#pragma once

#include <memory>
#include <vector>

#include "kv_cv/kv_cv_backend.h"
#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_scaler.h"

namespace kv {

// colorCvt supports every pair the FormatConverter supports; resize every
// format and method the Scaler supports; convert scales first, in the source
// format, then converts. add and mul work on the three float formats; there is
// no affine warp here. Members are kept between calls, so repeated calls with
// the same shapes allocate nothing; one object serves one thread at a time.
class KV_CV_API CvBackendBase : public ICvBackend {
public:
    CvBackendBase();
    ~CvBackendBase() override;
    CvBackendBase(const CvBackendBase&) = delete;
    CvBackendBase& operator=(const CvBackendBase&) = delete;

    void colorCvt(const Frame& src, Frame& dst, Rect src_roi) override;
    void resize(const Frame& src, Frame& dst, Rect src_roi, Rect dst_roi) override;
    void convert(const Frame& src, Frame& dst, Rect src_roi) override;
    void add(Frame& src_dst, float value, Rect roi) override;
    void mul(Frame& src_dst, float value, Rect roi) override;
    // Always throws "Operation is not implemented" (status 8).
    void warpAffine(const Frame& src, Frame& dst, const float matrix[2][3], Rect src_roi, bool flag) override;
    void cropAndResize(const Frame& src, Tensor& dst, const std::vector<Rect>& first,
                       const std::vector<Rect>& second) override;
    // Property 1 is the resize method (a ScaleMethod value, checked when used).
    bool setIntProperty(int id, int value) override;
    int getIntProperty(int id) const override;
    void setDeviceContext(const DeviceContext& context) override;
    DeviceContext getDeviceContext() const override;

private:
    FormatConverter _converter;
    Scaler _scaler;
    int32_t _method = KV_SCALE_BILINEAR;
    Frame _temp;
    // With setNumThreads(n > 1) a call is split into row bands; band 0 runs
    // on this object, the others on these, made on first use and kept.
    struct Bands;
    std::vector<std::unique_ptr<CvBackendBase>> _band_backends;
};

}  // namespace kv
