// CvBackendSimd: the fast ICvBackend. Whole planes go to vectorised library
// code (libyuv, OpenCV and the module's own AVX2 kernels) instead of the
// module's row pipeline.
//
// - YUV is BT.601 limited range throughout; BGR to 4:2:0 averages each 2x2
//   chroma block. Odd BGR to I420/NV12 regions convert their even part in one
//   call and the odd last column and row through 4:4:4, averaging the two
//   chroma samples each destination chroma sample covers (rounding half up).
// - Gray is the BT.601 luma of the bytes, rounded; float to byte clamps to
//   0..255 and rounds half to even.
// - Resizing and warping are centre-aligned (pixel centres at x + 0.5).
// - Float planes may be resized and warped too (as floats). resize rejects
//   16-bit planes (status 2); warpAffine does not check the sample size and
//   is meant for 8-bit and float planes only (a 16-bit plane is warped as the
//   bytes of the first half of each row).
// - Bilinear resizing of byte planes runs the module's own 16.16 row kernels
//   (truncating, like the bilinear scalers); it differs from OpenCV's
//   INTER_LINEAR (11-bit weights, rounded) by at most 2 levels. Float planes
//   go to OpenCV.
// - One object serves one thread at a time (its temporary frames and resize
//   tables are shared state). Library calls run on the calling thread: the
//   first call that reaches OpenCV sets its process-wide thread count to 1.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kv_cv/kv_cv_backend.h"
#include "kv_cv/kv_cv_export.h"

namespace kv {

namespace impl {
namespace fast {
struct ResizeCache;
}  // namespace fast
}  // namespace impl

// Values of property 1 (resize method) and property 2 (warp interpolation;
// area warps bilinearly).
enum ResizeMethod : int32_t {
    ResizeNearestNeighbour = 0,
    ResizeBilinear = 1,
    ResizeArea = 2,
};

class KV_CV_API CvBackendSimd : public ICvBackend {
public:
    static constexpr int kPropertyWarpInterpolation = 2;

    CvBackendSimd();
    // Copies share the temporary frames' memory, as Frame copies do. The
    // resize tables are a per-object cache: a copy starts without them and
    // an assignment keeps the target's own.
    CvBackendSimd(const CvBackendSimd& other);
    CvBackendSimd& operator=(const CvBackendSimd& other);
    ~CvBackendSimd() override;

    void colorCvt(const Frame& src, Frame& dst, Rect src_roi) override;
    void resize(const Frame& src, Frame& dst, Rect src_roi, Rect dst_roi) override;
    void convert(const Frame& src, Frame& dst, Rect src_roi) override;
    void add(Frame& src_dst, float value, Rect roi) override;
    void mul(Frame& src_dst, float value, Rect roi) override;
    void warpAffine(const Frame& src, Frame& dst, const float matrix[2][3], Rect src_roi, bool flag) override;
    void cropAndResize(const Frame& src, Tensor& dst, const std::vector<Rect>& first,
                       const std::vector<Rect>& second) override;
    bool setIntProperty(int id, int value) override;
    int getIntProperty(int id) const override;
    void setDeviceContext(const DeviceContext& context) override;
    DeviceContext getDeviceContext() const override;

private:
    // Converts `rect` of the BGR region `src` to FRAME_YUV444_PLANAR in _temp.
    void roiToYuv444(Frame& src, const Rect& rect);
    // Writes the odd last column or row `rect` of a BGR region into 4:2:0
    // chroma: planar (u, v) or interleaved (uv, with v null).
    void _oddStripTo420(Frame& src, const Rect& rect, Frame& dst, bool interleaved);
    void _twoStep(const Frame& region, FrameFormat via, Frame& dst);
    void _arithmetic(Frame& src_dst, float value, Rect roi, bool multiply);

    DeviceContext _context;
    int32_t _resize_method = ResizeBilinear;
    int32_t _warp_method = ResizeBilinear;
    Frame _temp;   // convert's resize target; roiToYuv444's output
    Frame _temp2;  // intermediate image of two-step conversions
    // Per-plane bilinear tables and rows, made on the first bilinear resize
    // and rebuilt only when a plane's sizes change.
    std::unique_ptr<impl::fast::ResizeCache> _resize_cache;
    // With setNumThreads(n > 1) a call is split into row bands; band 0 runs
    // on this object, the others on these, made on first use and kept (never
    // copied: each holds its own scratch frames).
    struct Bands;
    std::vector<std::unique_ptr<CvBackendSimd>> _band_backends;
};

}  // namespace kv
