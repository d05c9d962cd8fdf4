// crop_and_resize: fills a batch tensor from regions of one frame through any
// backend. Each crop is resized and colour-converted by backend.convert
// straight into the tensor's memory (wrapped as a Frame) where the tensor
// holds bytes; float tensors go through one 8-bit image of the crop's output
// size, converted to float by the backend, then normalised with add and mul.
#include <cstring>
#include <memory>
#include <typeinfo>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_cv_backend.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_impl_parallel.h"
#include "kv_cv/kv_impl_unaligned.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_crop_and_resize"

namespace kv {

namespace {

constexpr const char* kFn = "kv::crop_and_resize";

struct TensorGeometry {
    int n = 0, c = 0, h = 0, w = 0;
    bool planar = false;   // NCHW
    bool is_float = false;
    TensorChannelOrder order = TENSOR_ORDER_UNDEFINED;
    size_t image_stride = 0, channel_stride = 0, row_stride = 0;
};

TensorGeometry describe(const Tensor& t) {
    if (!t.initialized())
        KV_THROW(KV_STATUS_INVALID_VALUE, kFn, "Failure in crop_and_resize(...) : parameter 'dst' is not initialized.");
    const TensorLayout& l = t.layout();
    const TensorSize& e = l.size();
    const TensorSize& s = l.strides();
    if (e.axisCount() != 4 || (l.format() != TENSOR_NCHW && l.format() != TENSOR_NHWC))
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn,
                 "Failure in crop_and_resize(...) : parameter 'dst' must be a 4-axis NCHW or NHWC tensor.");
    TensorGeometry g;
    g.is_float = l.dataType() == TENSOR_FLOAT_32;
    if (!g.is_float && l.dataType() != TENSOR_UINT_8)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn,
                 "Failure in crop_and_resize(...) : parameter 'dst' has an unsupported data type %d.",
                 int(l.dataType()));
    const size_t elem = g.is_float ? 4 : 1;
    g.planar = l.format() == TENSOR_NCHW;
    g.n = e[0];
    g.image_stride = size_t(s[0]);
    if (g.planar) {
        g.c = e[1], g.h = e[2], g.w = e[3];
        g.channel_stride = size_t(s[1]), g.row_stride = size_t(s[2]);
        if (size_t(s[3]) != elem)
            KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn,
                     "Failure in crop_and_resize(...) : parameter 'dst' must have packed columns.");
    } else {
        g.h = e[1], g.w = e[2], g.c = e[3];
        g.row_stride = size_t(s[1]);
        g.channel_stride = elem;
        if (size_t(s[3]) != elem || size_t(s[2]) != elem * size_t(g.c))
            KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn,
                     "Failure in crop_and_resize(...) : parameter 'dst' must have packed pixels.");
    }
    if (g.c != 1 && g.c != 3)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn,
                 "Failure in crop_and_resize(...) : parameter 'dst' has %d channels; 1 or 3 are supported.", g.c);
    g.order = l.channelOrder();
    const bool order_ok = g.c == 1 ? (g.order == TENSOR_ORDER_GRAY || g.order == TENSOR_ORDER_UNDEFINED)
                                   : (g.order == TENSOR_ORDER_BGR || g.order == TENSOR_ORDER_RGB);
    if (!order_ok)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn,
                 "Failure in crop_and_resize(...) : parameter 'dst' has an unsupported channel order %d.",
                 int(g.order));
    return g;
}

// Wraps rectangle `r` of image `i` of the tensor as a frame. Byte tensors get
// GRAY_8, BGR_8 / RGB_8 (NHWC) or BGR_8_PLANAR (NCHW; for RGB order the planes
// are handed over in reverse so that plane 0 is the tensor's B channel). Float
// tensors get FLOAT_32, FLOAT_32_C3 or FLOAT_32_C3_PLANAR in the tensor's own
// channel order.
Frame wrapImage(Tensor& t, const TensorGeometry& g, int i, const Rect& r) {
    uint8_t* image = static_cast<uint8_t*>(t.devicePtr().cpuData()) + size_t(i) * g.image_stride;
    const size_t elem = g.is_float ? 4 : 1;
    uint8_t* origin = image + size_t(r.y) * g.row_stride + size_t(r.x) * elem * (g.planar ? 1 : size_t(g.c));
    const Size size(r.width, r.height);
    if (g.c == 1) return Frame::wrap(g.is_float ? FRAME_FLOAT_32 : FRAME_GRAY_8, size, origin, g.row_stride);
    if (!g.planar) {
        const FrameFormat f = g.is_float ? FRAME_FLOAT_32_C3 : g.order == TENSOR_ORDER_RGB ? FRAME_RGB_8 : FRAME_BGR_8;
        return Frame::wrap(f, size, origin, g.row_stride);
    }
    void* planes[3];
    size_t steps[3] = {g.row_stride, g.row_stride, g.row_stride};
    const bool reverse = !g.is_float && g.order == TENSOR_ORDER_RGB;
    for (int c = 0; c < 3; ++c) planes[c] = origin + size_t(reverse ? 2 - c : c) * g.channel_stride;
    return Frame::wrap(g.is_float ? FRAME_FLOAT_32_C3_PLANAR : FRAME_BGR_8_PLANAR, size, planes, steps);
}

// Resizes and converts `crop` into `out` (8-bit, same size as wanted). Pairs
// that not every backend converts in one step go through BGR_8.
void convertInto(ICvBackend& backend, const Frame& crop, Frame& out, Frame& hub) {
    const FrameFormat want = out.format();
    const bool direct = want == crop.format() || want == FRAME_GRAY_8 || want == FRAME_BGR_8 ||
                        (crop.format() == FRAME_BGR_8 && (want == FRAME_RGB_8 || want == FRAME_BGR_8_PLANAR));
    if (direct) {
        backend.convert(crop, out, Rect());
        return;
    }
    hub.reuse(FRAME_BGR_8, out.size(), DeviceContext::cpuContext(), 0);
    backend.convert(crop, hub, Rect());
    backend.colorCvt(hub, out, Rect());
}

void bytesToFloat(const Frame& src, Frame& dst) {
    for (int y = 0; y < src.size().height; ++y) {
        const uint8_t* s = src.rowCpuData(0, y);
        float* d = reinterpret_cast<float*>(dst.rowCpuData(0, y));
        for (int x = 0; x < src.size().width; ++x) impl::storeSample(d, x, float(s[x]));
    }
}

// A backend of the same class and resize method as `backend` for the calling
// thread (one per thread, kept); null for classes other than the library's
// own two (a caller's class may hold state that cannot be duplicated).
ICvBackend* sameKind(ICvBackend& backend) {
    thread_local std::unique_ptr<CvBackendSimd> simd;
    thread_local std::unique_ptr<CvBackendBase> base;
    ICvBackend* b = nullptr;
    if (typeid(backend) == typeid(CvBackendSimd)) {
        if (!simd) simd.reset(new CvBackendSimd);
        b = simd.get();
    } else if (typeid(backend) == typeid(CvBackendBase)) {
        if (!base) base.reset(new CvBackendBase);
        b = base.get();
    } else {
        return nullptr;
    }
    b->setIntProperty(ICvBackend::kPropertyResizeMethod, backend.getIntProperty(ICvBackend::kPropertyResizeMethod));
    return b;
}

}  // namespace

void crop_and_resize(ICvBackend& backend, const Frame& src, Tensor& dst, const std::vector<Rect>& src_rois,
                     const std::vector<Rect>& dst_rois, float offset, float scale) {
    KV_ASSERT(src.initialized(), kFn);
    const TensorGeometry g = describe(dst);
    if (size_t(g.n) != src_rois.size())
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn,
                 "Failure in crop_and_resize(...) : parameter 'src_rois' holds %zu rectangles for a batch of %d.",
                 src_rois.size(), g.n);
    if (!dst_rois.empty() && dst_rois.size() != src_rois.size())
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn,
                 "Failure in crop_and_resize(...) : parameter 'dst_rois' holds %zu rectangles for a batch of %d.",
                 dst_rois.size(), g.n);
    if (!g.is_float && (offset != 0.0f || scale != 1.0f))
        KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn,
                 "Failure in crop_and_resize(...) : parameters 'offset' and 'scale' must be 0 and 1 for 8-bit tensors.");

    // Resolves crop i (clipped) and its target rectangle; every rectangle is
    // checked before anything is written.
    const Rect whole_plane(0, 0, g.w, g.h);
    auto resolve = [&](size_t i, Rect& crop, Rect& target) {
        crop = src_rois[i];
        if (crop.empty()) {
            crop = Rect(0, 0, src.size().width, src.size().height);
        } else {
            crop.crop(src.size());
            if (crop.empty())
                KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn,
                         "Failure in crop_and_resize(...) : parameter 'src_rois[%zu]' lies outside the frame.", i);
        }
        target = dst_rois.empty() || dst_rois[i].empty() ? whole_plane : dst_rois[i];
        if (target.x < 0 || target.y < 0 || int64_t(target.x) + target.width > g.w ||
            int64_t(target.y) + target.height > g.h)
            KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn,
                     "Failure in crop_and_resize(...) : parameter 'dst_rois[%zu]' lies outside the %dx%d plane.", i,
                     g.w, g.h);
    };
    for (size_t i = 0; i < src_rois.size(); ++i) {
        Rect crop_rect, t;
        resolve(i, crop_rect, t);
    }

    const FrameFormat byte_format = g.c == 1 ? FRAME_GRAY_8 : g.order == TENSOR_ORDER_RGB ? FRAME_RGB_8 : FRAME_BGR_8;
    auto item = [&](ICvBackend& b, size_t i) {
        // Per-thread scratch for the float path and two-step conversions:
        // kept, so repeated calls of the same shape allocate nothing.
        thread_local Frame hub, bytes;
        Rect crop_rect, t;
        resolve(i, crop_rect, t);
        if (t != whole_plane) {
            Frame image = wrapImage(dst, g, int(i), whole_plane);
            image.setZero();
        }
        Frame out = wrapImage(dst, g, int(i), t);
        const Frame crop = getRegion(src, crop_rect);
        if (!g.is_float) {
            convertInto(b, crop, out, hub);
            return;
        }
        bytes.reuse(byte_format, out.size(), DeviceContext::cpuContext(), 0);
        convertInto(b, crop, bytes, hub);
        if (g.c == 1) {
            bytesToFloat(bytes, out);
        } else {
            // Byte-to-float conversion keeps the byte order, so an RGB image is
            // handed over labelled as BGR.
            Frame relabelled = Frame::wrap(FRAME_BGR_8, bytes.size(), bytes.planeCpuData(0), bytes.layout().plane[0].step);
            b.colorCvt(relabelled, out, Rect());
        }
        if (offset != 0.0f) b.add(out, offset, Rect());
        if (scale != 1.0f) b.mul(out, scale, Rect());
    };

    // Several regions run side by side, each on one thread with its own
    // backend of the caller's kind; one region spreads its rows instead.
    const int bands = src_rois.size() > 1 && sameKind(backend)
                          ? impl::bandCount(int(src_rois.size()), int64_t(g.w) * g.h, 1, 1)
                          : 1;
    if (bands > 1) {
        impl::parallelBands(bands, [&](int band) {
            ICvBackend& b = *sameKind(backend);
            const std::pair<int, int> r = impl::bandRows(int(src_rois.size()), bands, band);
            for (int i = r.first; i < r.second; ++i) item(b, size_t(i));
        });
        return;
    }
    for (size_t i = 0; i < src_rois.size(); ++i) item(backend, i);
}

}  // namespace kv
