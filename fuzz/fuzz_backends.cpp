// Both compute backends on random but typed calls: formats (the reserved ones
// too), sizes 1..300, exact or padded pitches over exactly sized heap blocks,
// source and destination regions inside, across and outside the frames, and
// every operation with its parameters (resize with each method, colorCvt,
// convert, add, mul, warpAffine with any matrix, cropAndResize into a small
// tensor). A few calls run on the same backend objects so that their kept
// scratch frames and tables meet new shapes.
#include <memory>
#include <vector>

#include "fuzz_common.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"

namespace {

kv::FrameFormat sometimesSame(FuzzedDataProvider& in, kv::FrameFormat f) {
    return in.ConsumeIntegralInRange<int>(0, 3) ? f : kvfuzz::anyFormat(in);
}

kv::Size sometimesSame(FuzzedDataProvider& in, kv::Size s) {
    return in.ConsumeBool() ? s : kvfuzz::anySize(in);
}

float anyFloat(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0: return in.ConsumeFloatingPoint<float>();  // any value, NaN and infinities included
        case 1: return float(in.ConsumeIntegralInRange<int>(-4, 4));
        default: return in.ConsumeFloatingPointInRange<float>(-2.f, 2.f);
    }
}

// A small 4-axis tensor with a random type, axis order, channel order and
// strides (packed, padded or too small).
kv::Tensor anyTensor(FuzzedDataProvider& in, int batch) {
    const kv::TensorDataType type =
        kv::TensorDataType(in.ConsumeIntegralInRange<int>(0, 7));
    const bool nchw = in.ConsumeBool();
    const int c = in.ConsumeBool() ? 3 : in.ConsumeIntegralInRange<int>(0, 4);
    const int h = in.ConsumeIntegralInRange<int>(1, 64), w = in.ConsumeIntegralInRange<int>(1, 64);
    const kv::TensorSize extents = nchw ? kv::TensorSize{batch, c, h, w} : kv::TensorSize{batch, h, w, c};
    kv::TensorSize strides;
    if (in.ConsumeBool()) {
        const int e = int(kv::tensorElementSize(type));
        const int pad = in.ConsumeIntegralInRange<int>(-2, 5);
        const int row = nchw ? w * e + pad : w * c * e + pad;
        strides = nchw ? kv::TensorSize{c * h * row, h * row, row, e} : kv::TensorSize{h * row, row, c * e, e};
        for (size_t i = 0; i < 4; ++i)
            if (in.ConsumeIntegralInRange<int>(0, 15) == 0) strides[i] = in.ConsumeIntegralInRange<int>(0, 1 << 16);
    }
    const kv::TensorChannelOrder order = kv::TensorChannelOrder(in.ConsumeIntegralInRange<int>(0, 3));
    kv::Tensor t;
    kvfuzz::guarded([&] {
        t.reuse(kv::TensorLayout(type, nchw ? kv::TENSOR_NCHW : kv::TENSOR_NHWC, extents, strides, order));
    });
    return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    kv::CvBackendBase base;
    kv::CvBackendSimd fast;
    const int calls = in.ConsumeIntegralInRange<int>(1, 3);
    for (int call = 0; call < calls && in.remaining_bytes() > 0; ++call) {
        kv::ICvBackend& backend = in.ConsumeBool() ? static_cast<kv::ICvBackend&>(fast) : base;
        // Valid methods mostly; invalid ones reach the assertions.
        const int method = in.ConsumeIntegralInRange<int>(0, 7) == 0 ? in.ConsumeIntegral<int>()
                                                                     : in.ConsumeIntegralInRange<int>(0, 2);
        kvfuzz::guarded([&] { backend.setIntProperty(in.ConsumeIntegralInRange<int>(0, 3), method); });

        const kv::FrameFormat sf = kvfuzz::anyFormat(in);
        const kv::Size ss = kvfuzz::anySize(in);
        kvfuzz::ExactFrame src = kvfuzz::exactFrame(in, sf, ss);
        const int op = in.ConsumeIntegralInRange<int>(0, 6);
        if (op == 6) {
            // cropAndResize: a batch of regions (any, inside, outside, empty) and optional targets.
            const int n = in.ConsumeIntegralInRange<int>(0, 3);
            kv::Tensor t = anyTensor(in, std::max(n, 1));
            std::vector<kv::Rect> rois, targets;
            for (int i = 0; i < n; ++i) rois.push_back(kvfuzz::anyRegion(in, ss));
            const int targets_n = in.ConsumeIntegralInRange<int>(0, 3);
            for (int i = 0; i < targets_n; ++i) targets.push_back(kvfuzz::anyRegion(in, kv::Size(64, 64)));
            kvfuzz::guarded([&] { backend.cropAndResize(src.frame, t, rois, targets); });
            continue;
        }
        const kv::Rect src_roi = kvfuzz::anyRegion(in, ss);
        if (op == 3 || op == 4) {
            // add and mul work in place.
            const float v = anyFloat(in);
            kvfuzz::guarded([&] { op == 3 ? backend.add(src.frame, v, src_roi) : backend.mul(src.frame, v, src_roi); });
            continue;
        }
        const kv::FrameFormat df = op == 1 || op == 5 ? sometimesSame(in, sf) : kvfuzz::anyFormat(in);
        // The destination may take the region's size (colorCvt wants it), within 1..300.
        const bool small_region = src_roi.width >= 1 && src_roi.height >= 1 && src_roi.width <= 300 &&
                                  src_roi.height <= 300;
        const kv::Size region_size = small_region ? src_roi.size() : ss;
        const kv::Size ds = op == 0 ? (in.ConsumeBool() ? region_size : kvfuzz::anySize(in)) : sometimesSame(in, ss);
        kvfuzz::ExactFrame dst = kvfuzz::exactFrame(in, df, ds);
        switch (op) {
            case 0: kvfuzz::guarded([&] { backend.colorCvt(src.frame, dst.frame, src_roi); }); break;
            case 1: {
                const kv::Rect dst_roi = kvfuzz::anyRegion(in, ds);
                kvfuzz::guarded([&] { backend.resize(src.frame, dst.frame, src_roi, dst_roi); });
                break;
            }
            case 2: kvfuzz::guarded([&] { backend.convert(src.frame, dst.frame, src_roi); }); break;
            case 5: {
                float m[2][3];
                for (auto& row : m)
                    for (float& v : row) v = anyFloat(in);
                if (in.ConsumeBool()) {
                    // Near the identity: plain shifts, scales and rotations.
                    m[0][0] = 1 + m[0][0] / 8, m[1][1] = 1 + m[1][1] / 8, m[0][1] /= 8, m[1][0] /= 8;
                }
                const bool invert = in.ConsumeBool();
                kvfuzz::guarded([&] { backend.warpAffine(src.frame, dst.frame, m, src_roi, invert); });
                break;
            }
            default: break;
        }
    }
    return 0;
}
