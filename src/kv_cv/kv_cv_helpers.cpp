// Frame helpers: resize, colour conversion and rotation through a CvBackendSimd
// on the stack or the fast adapter; affine inversion; half-float conversion.
#include "kv_cv/kv_cv_helpers.h"

#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_helper_bands.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_cv_helpers"

namespace kv {

const Rect& emptyRoi() {
    static const Rect empty;
    return empty;
}

const Frame& emptyFrame() {
    static const Frame empty;
    return empty;
}

void resizeFrame(const Frame& src, const Size& size, Frame& dst, ResizeMethod method) {
    if (!src.initialized() || size.empty()) {
        dst.clear();
        return;
    }
    if (size == src.size()) {
        src.copyTo(dst);
        return;
    }
    CvBackendSimd backend;
    backend.setIntProperty(ICvBackend::kPropertyResizeMethod, method);
    dst.reuse(src.format(), size, DeviceContext::cpuContext(), 0);
    backend.resize(src, dst, Rect(), Rect());
}

void colorConvert(const Frame& src, FrameFormat format, Frame& dst) {
    if (!src.initialized() || format == FRAME_UNDEFINED) {
        dst.clear();
        return;
    }
    if (src.format() == format) {
        src.copyTo(dst);
        return;
    }
    CvBackendSimd backend;
    dst.reuse(format, src.size(), DeviceContext::cpuContext(), 0);
    backend.colorCvt(src, dst, Rect());
}

void rotateFrame(const Frame& src, FixedRotation rotation, Frame& dst) {
    static constexpr const char* kFn = "kv::rotateFrame";
    KV_ASSERT(src.initialized(), kFn);
    KV_ASSERT(src.deviceContext() == DeviceContext::cpuContext(), kFn);
    KV_ASSERT(src.layout().plane[0].bits_per_channel == 8, kFn);
    Size size;
    int code;
    switch (rotation) {
        case Rotate0:
            src.copyTo(dst);
            return;
        case Rotate90:
            size = Size(src.size().height, src.size().width);
            code = 3;
            break;
        case Rotate180:
            size = src.size();
            code = 2;
            break;
        case Rotate270:
            size = Size(src.size().height, src.size().width);
            code = 1;
            break;
        default:
            KV_THROW(KV_STATUS_INVALID_VALUE, kFn, "Invalid fixed rotation %d", int(rotation));
    }
    // Chroma subsampled in one direction only would need resampling, and the
    // pixel pairs of packed 4:2:2 cannot be turned as units.
    const FrameFormat f = src.format();
    if (f == FRAME_YUYV || f == FRAME_UYVY || (code != 2 && (f == FRAME_YV16 || f == FRAME_NV16)))
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn, "rotateFrame: Unsupported format %s for rotation %d.", toString(f),
                 int(rotation));
    dst.reuse(f, size, DeviceContext::cpuContext(), 0);
    // Every plane through the adapter's rotation, by bands of destination
    // rows when threads are set (impl::rotatePlanes, kv_impl_helper_bands):
    // a band is a strip of the source, so the bytes do not depend on the
    // number of threads. The errors below carry their source lines: this
    // function keeps its line count.
    impl::rotatePlanes(src, code, dst);
}

void rotateFrame(const Frame& src, const Rect& rect, float angle, Frame& dst, Rect& placed) {
    static constexpr const char* kFn = "kv::rotateFrame";
    KV_ASSERT(src.initialized(), kFn);
    KV_ASSERT(src.deviceContext() == DeviceContext::cpuContext(), kFn);
    KV_ASSERT(!rect.empty(), kFn);
    Rect roi;
    Size size;
    getRotationRoi(angle, rect, roi, size, placed);
    // The rectangle sits at this offset inside the region the rotation reads.
    const int ox = roi.width - rect.width, oy = roi.height - rect.height;
    Frame region;
    const Size fs = src.size();
    const bool inside = roi.x >= 0 && roi.y >= 0 && int64_t(roi.x) + roi.width <= fs.width &&
                        int64_t(roi.y) + roi.height <= fs.height;
    if (inside) {
        region = getRegion(src, roi);
    } else {
        // The region leaves the frame: a zero frame holding the part of the
        // rectangle that lies inside the frame, at the rectangle's offset.
        region.reuse(src.format(), roi.size(), DeviceContext::cpuContext(), 0);
        region.setZero();
        Rect part = rect;
        part.crop(fs);
        if (!part.empty()) {
            Frame inner = getRegion(region, Rect(ox + part.x - rect.x, oy + part.y - rect.y, part.width, part.height));
            getRegion(src, part).copyTo(inner);
        }
    }
    dst.reuse(src.format(), size, DeviceContext::cpuContext(), 0);
    float matrix[2][3];
    getRotationMatrix2D(angle, Point(float(rect.width / 2 + ox), float(rect.height / 2 + oy)), matrix, 1.0f);
    CvBackendSimd backend;
    backend.warpAffine(region, dst, matrix, Rect(), false);
}

bool invertAffineTransform(const float* M, float* iM) {
    const double det = double(M[0] * M[4] - M[1] * M[3]);  // single-precision products, as given
    const bool ok = det != 0.0 && det == det;
    const double inv = ok ? 1.0 / det : 0.0;
    const double a11 = M[4] * inv, a12 = -M[1] * inv, a21 = -M[3] * inv, a22 = M[0] * inv;
    const double b1 = -a11 * M[2] - a12 * M[5];
    const double b2 = -a21 * M[2] - a22 * M[5];
    iM[0] = float(a11);
    iM[1] = float(a12);
    iM[2] = float(b1);
    iM[3] = float(a21);
    iM[4] = float(a22);
    iM[5] = float(b2);
    return ok;
}

void convertFp16ToFp32(const uint16_t* src, size_t count, float* dst) { impl::halfToFloatInBands(src, count, dst); }

void convertFp32ToFp16(const float* src, size_t count, uint16_t* dst) { impl::floatToHalfInBands(src, count, dst); }

void tensorFp16ToFp32(const Tensor& src, Tensor& dst) {
    static constexpr const char* kFn = "kv::tensorFp16ToFp32";
    KV_ASSERT(src.initialized() && src.layout().dataType() == TENSOR_FLOAT_16, kFn);
    KV_ASSERT(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(), kFn);
    const TensorLayout& l = src.layout();
    TensorSize strides = l.strides();
    for (size_t i = 0; i < strides.axisCount(); ++i) strides[i] *= 2;
    dst.reuse(TensorLayout(TENSOR_FLOAT_32, l.format(), l.size(), strides, l.channelOrder()),
              DeviceContext::cpuContext());
    convertFp16ToFp32(static_cast<const uint16_t*>(src.devicePtr().cpuData()), src.byteSize() / 2,
                      static_cast<float*>(dst.devicePtr().cpuData()));
}

}  // namespace kv
