// CvBackendBase: whole-frame operations driven through the row pipeline.
#include "kv_cv/kv_cv_backend_base.h"

#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_regions.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_cv_backend_base"

namespace kv {

namespace {

bool given(const Rect& r) { return r.width >= 1 && r.height >= 1; }

// Clips a given region to the frame (it must stay non-empty), or takes the
// whole frame when none is given.
Rect arithmeticRegion(const Frame& f, Rect roi, const char* function, int line) {
    if (!given(roi)) return Rect(0, 0, f.size().width, f.size().height);
    Rect src_roi = roi;
    src_roi.crop(f.size());
    KV_ASSERT_TEXT_LINE(!src_roi.empty(), "!src_roi.empty()", function, line);
    return src_roi;
}

// The one-channel core functions take int pitches.
template <bool kAdd>
bool applyConstant(Frame& f, float value, const Rect& r, const char* function) {
    const FrameLayout& l = f.layout();
    if (f.format() == FRAME_FLOAT_32 || f.format() == FRAME_FLOAT_32_C3_PLANAR)
        impl::requireIntPitches(f, function, KV_SOURCE_FILE, __LINE__, "src_dst");
    switch (f.format()) {
        case FRAME_FLOAT_32:
            kAdd ? addConstant_32f_C1(value, f.planeCpuData(0), int(l.plane[0].step), r)
                 : mulConstant_32f_C1(value, f.planeCpuData(0), int(l.plane[0].step), r);
            return true;
        case FRAME_FLOAT_32_C3: {
            const float v[3] = {value, value, value};
            kAdd ? addConstant_32f_C3(v, f.planeCpuData(0), l.plane[0].step, r)
                 : mulConstant_32f_C3(v, f.planeCpuData(0), l.plane[0].step, r);
            return true;
        }
        case FRAME_FLOAT_32_C3_PLANAR:
            for (size_t p = 0; p < 3; ++p)
                kAdd ? addConstant_32f_C1(value, f.planeCpuData(p), int(l.plane[p].step), r)
                     : mulConstant_32f_C1(value, f.planeCpuData(p), int(l.plane[p].step), r);
            return true;
        default: return false;
    }
}

}  // namespace

CvBackendBase::CvBackendBase() = default;

// Members are released in reverse order: the temporary frame, the scaler, the converter.
CvBackendBase::~CvBackendBase() = default;

void CvBackendBase::colorCvt(const Frame& src, Frame& dst, Rect src_roi) {
    KV_ASSERT_LINE(src.initialized(), "kv::CvBackendBase::colorCvt", 42);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   "kv::CvBackendBase::colorCvt", 45);
    // The size check reads the region's size before the region is taken, so
    // that it comes first; a region outside the frame is refused after it.
    const Size temp_size = given(src_roi) ? src_roi.size() : src.size();
    KV_ASSERT_TEXT_LINE(temp_size == dst.size(), "temp.size() == dst.size()", "kv::CvBackendBase::colorCvt", 52);
    impl::requireRegionInside(src, src_roi, "kv::CvBackendBase::colorCvt", KV_SOURCE_FILE, __LINE__, "src_roi");
    const Frame temp = given(src_roi) ? getRegion(src, src_roi) : src;
    _converter.reuse(temp, dst.format());
    produceFrame(_converter, dst);
}

void CvBackendBase::resize(const Frame& src, Frame& dst, Rect src_roi, Rect dst_roi) {
    KV_ASSERT_LINE(src.initialized() && src.format() == dst.format(), "kv::CvBackendBase::resize", 77);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   "kv::CvBackendBase::resize", 80);
    impl::requireRegionInside(src, src_roi, "kv::CvBackendBase::resize", KV_SOURCE_FILE, __LINE__, "src_roi");
    impl::requireRegionInside(dst, dst_roi, "kv::CvBackendBase::resize", KV_SOURCE_FILE, __LINE__, "dst_roi");
    const Frame from = given(src_roi) ? getRegion(src, src_roi) : src;
    Frame to = given(dst_roi) ? getRegion(dst, dst_roi) : dst;
    _scaler.reuse(from, to.size(), ScaleMethod(_method));
    produceFrame(_scaler, to);
}

void CvBackendBase::convert(const Frame& src, Frame& dst, Rect src_roi) {
    KV_ASSERT_LINE(src.initialized() && dst.initialized(), "kv::CvBackendBase::convert", 100);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   "kv::CvBackendBase::convert", 103);
    impl::requireRegionInside(src, src_roi, "kv::CvBackendBase::convert", KV_SOURCE_FILE, __LINE__, "src_roi");
    const Frame from = given(src_roi) ? getRegion(src, src_roi) : src;
    if (from.format() == dst.format()) {
        _scaler.reuse(from, dst.size(), ScaleMethod(_method));
        produceFrame(_scaler, dst);
        return;
    }
    // Scale first, in the source format (fewer pixels to convert when
    // reducing), and convert the scaler's rows as they come: one pass, no
    // intermediate image.
    _scaler.reuse(from, dst.size(), ScaleMethod(_method));
    try {
        _converter.reuse(_scaler, dst.format());
    } catch (const Exception&) {
        // An unsupported pair: scale into the temporary frame first, so that a
        // scaler that cannot take this format reports that before the pair.
        _temp.reuse(from.format(), dst.size(), from.deviceContext(), 0);
        produceFrame(_scaler, _temp);
        _converter.reuse(_temp, dst.format());
    }
    produceFrame(_converter, dst);
}

void CvBackendBase::add(Frame& src_dst, float value, Rect roi) {
    KV_ASSERT_LINE(src_dst.initialized(), "kv::CvBackendBase::add", 132);
    KV_ASSERT_LINE(src_dst.deviceContext() == DeviceContext::cpuContext(), "kv::CvBackendBase::add", 133);
    const Rect r = arithmeticRegion(src_dst, roi, "kv::CvBackendBase::add", 138);
    if (!applyConstant<true>(src_dst, value, r, "kv::CvBackendBase::add"))
        KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, "kv::CvBackendBase::add", 165, "ADD error, unsupported data type.");
}

void CvBackendBase::mul(Frame& src_dst, float value, Rect roi) {
    KV_ASSERT_LINE(src_dst.initialized(), "kv::CvBackendBase::mul", 172);
    KV_ASSERT_LINE(src_dst.deviceContext() == DeviceContext::cpuContext(), "kv::CvBackendBase::mul", 173);
    const Rect r = arithmeticRegion(src_dst, roi, "kv::CvBackendBase::mul", 178);
    if (!applyConstant<false>(src_dst, value, r, "kv::CvBackendBase::mul"))
        KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, "kv::CvBackendBase::mul", 205, "MUL error, unsupported data type.");
}

void CvBackendBase::warpAffine(const Frame&, Frame&, const float[2][3], Rect, bool) {
    KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, "kv::CvBackendBase::warpAffine", 212, "Operation is not implemented");
}

void CvBackendBase::cropAndResize(const Frame& src, Tensor& dst, const std::vector<Rect>& first,
                                  const std::vector<Rect>& second) {
    crop_and_resize(*this, src, dst, first, second, 0.0f, 1.0f);
}

bool CvBackendBase::setIntProperty(int id, int value) {
    if (id != kPropertyResizeMethod) return false;
    _method = value;
    return true;
}

int CvBackendBase::getIntProperty(int id) const { return id == kPropertyResizeMethod ? _method : -1; }

void CvBackendBase::setDeviceContext(const DeviceContext&) {}

DeviceContext CvBackendBase::getDeviceContext() const { return DeviceContext::cpuContext(); }

}  // namespace kv
