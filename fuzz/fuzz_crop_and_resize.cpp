// crop_and_resize through either backend: random tensor layouts (data type,
// axis format, 1 to 8 axes, channel counts, channel orders, extents and byte
// strides, padded, overlapping or huge), region lists (empty, negative,
// outside, zero-sized, huge, of the wrong length), letterboxed targets or
// arbitrary ones, and offsets and scales (8-bit tensors refuse all but 0 and
// 1). Layouts too large to hold are only described, never allocated.
#include <algorithm>
#include <cmath>
#include <vector>

#include "fuzz_common.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"

namespace {

// The fuzz target allocates at most this much per tensor.
constexpr size_t kMaxTensorBytes = size_t(4) << 20;

int32_t anyExtent(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0: return in.ConsumeIntegral<int32_t>();
        case 1: return in.ConsumeIntegralInRange<int32_t>(-1, 0);
        case 2: return 3;
        default: return in.ConsumeIntegralInRange<int32_t>(1, 48);
    }
}

kv::Rect anyRect(FuzzedDataProvider& in, kv::Size frame) {
    switch (in.ConsumeIntegralInRange<int>(0, 5)) {
        case 0: return kv::Rect(in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>(),
                                in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>());
        case 1: return kv::Rect(in.ConsumeIntegralInRange<int>(-400, 400), in.ConsumeIntegralInRange<int>(-400, 400),
                                in.ConsumeIntegralInRange<int>(-2, 400), in.ConsumeIntegralInRange<int>(-2, 400));
        default: return kvfuzz::anyRegion(in, frame);
    }
}

// A target of `region`'s aspect ratio centred in `size`, as a letterboxing
// caller makes it (integer arithmetic, at least one pixel).
kv::Rect letterbox(kv::Size region, kv::Size size) {
    const int64_t rw = region.width, rh = region.height;
    int64_t w = size.width, h = size.height;
    if (rw * h > rh * w)
        h = std::max<int64_t>(1, rh * w / rw);
    else
        w = std::max<int64_t>(1, rw * h / rh);
    return kv::Rect(int((size.width - w) / 2), int((size.height - h) / 2), int(w), int(h));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    kv::CvBackendBase base;
    kv::CvBackendSimd fast;
    kv::ICvBackend& backend = in.ConsumeBool() ? static_cast<kv::ICvBackend&>(fast) : base;
    if (in.ConsumeBool()) kvfuzz::guarded([&] { backend.setIntProperty(1, in.ConsumeIntegralInRange<int>(0, 2)); });

    // The tensor.
    const auto type = kv::TensorDataType(in.ConsumeIntegralInRange<int>(0, 8));
    const auto format = kv::TensorFormat(in.ConsumeIntegralInRange<int>(0, 4));
    const auto order = kv::TensorChannelOrder(in.ConsumeIntegralInRange<int>(0, 4));
    const size_t axes = in.ConsumeIntegralInRange<size_t>(0, 7) == 0 ? in.ConsumeIntegralInRange<size_t>(0, 8) : 4;
    std::vector<int32_t> e(axes), s;
    for (size_t i = 0; i < axes; ++i) e[i] = anyExtent(in);
    if (axes == 4 && in.ConsumeBool()) e[format == kv::TENSOR_NHWC ? 3 : 1] = in.ConsumeBool() ? 3 : 1;
    const int stride_kind = in.ConsumeIntegralInRange<int>(0, 3);
    if (stride_kind == 1) {
        // Packed strides with some padding on one axis, or an arbitrary stride.
        int64_t stride = int64_t(kv::tensorElementSize(type));
        s.assign(axes, 0);
        for (size_t i = axes; i-- > 0;) {
            s[i] = int32_t(std::min<int64_t>(stride, INT32_MAX));
            stride = std::min<int64_t>(stride * std::max(e[i], 1) + in.ConsumeIntegralInRange<int>(0, 3), INT32_MAX);
        }
        if (axes > 0 && in.ConsumeBool())
            s[in.ConsumeIntegralInRange<size_t>(0, axes - 1)] = in.ConsumeIntegral<int32_t>();
    } else if (stride_kind == 2) {
        for (size_t i = 0; i < axes; ++i) s.push_back(in.ConsumeIntegral<int32_t>());
    }
    // TensorSize takes an initializer list; build it axis by axis.
    auto toSize = [](const std::vector<int32_t>& v) {
        switch (v.size()) {
            case 0: return kv::TensorSize();
            case 1: return kv::TensorSize{v[0]};
            case 2: return kv::TensorSize{v[0], v[1]};
            case 3: return kv::TensorSize{v[0], v[1], v[2]};
            case 4: return kv::TensorSize{v[0], v[1], v[2], v[3]};
            case 5: return kv::TensorSize{v[0], v[1], v[2], v[3], v[4]};
            case 6: return kv::TensorSize{v[0], v[1], v[2], v[3], v[4], v[5]};
            case 7: return kv::TensorSize{v[0], v[1], v[2], v[3], v[4], v[5], v[6]};
            default: return kv::TensorSize{v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]};
        }
    };
    kv::Tensor tensor;
    kvfuzz::guarded([&] {
        const kv::TensorLayout layout(type, format, toSize(e), toSize(s), order);
        if (layout.byteSize() <= kMaxTensorBytes) tensor.reuse(layout);
    });

    // The source frame and the region lists.
    const kv::FrameFormat sf = in.ConsumeIntegralInRange<int>(0, 3) ? kv::FRAME_BGR_8 : kvfuzz::anyFormat(in);
    const kv::Size ss = kvfuzz::anySize(in, 200);
    kvfuzz::ExactFrame src = kvfuzz::exactFrame(in, sf, ss);
    const int batch = axes >= 1 && e[0] >= 1 && e[0] <= 16 ? e[0] : 1;
    const int n = in.ConsumeIntegralInRange<int>(0, 7) == 0 ? in.ConsumeIntegralInRange<int>(0, 20) : batch;
    std::vector<kv::Rect> rois, targets;
    for (int i = 0; i < n; ++i) rois.push_back(anyRect(in, ss));
    const int h = axes == 4 ? std::max(1, e[format == kv::TENSOR_NHWC ? 1 : 2]) : 1;
    const int w = axes == 4 ? std::max(1, e[format == kv::TENSOR_NHWC ? 2 : 3]) : 1;
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0:
            for (const kv::Rect& r : rois) {
                kv::Rect c = r;
                c.crop(ss);
                targets.push_back(letterbox(c.empty() ? ss : c.size(), kv::Size(w, h)));
            }
            break;
        case 1: {
            const int m = in.ConsumeIntegralInRange<int>(0, 20);
            for (int i = 0; i < m; ++i) targets.push_back(anyRect(in, kv::Size(w, h)));
            break;
        }
        default: break;
    }
    const bool normalise = in.ConsumeBool();
    const float offset = normalise ? in.ConsumeFloatingPoint<float>() : 0.f;
    const float scale = normalise ? in.ConsumeFloatingPoint<float>() : 1.f;
    kvfuzz::guarded([&] { kv::crop_and_resize(backend, src.frame, tensor, rois, targets, offset, scale); });
    return 0;
}
