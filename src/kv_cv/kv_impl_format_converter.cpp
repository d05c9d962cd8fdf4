// ImplFormatConverter: format descriptions and the choice of row kernel and
// window size for each supported pair of formats.
#include "kv_impl_format_converter.h"

#include <algorithm>
#include <cstring>

#include "kv_core/kv_exception.h"
#include "kv_impl_convert_rows.h"
#include "kv_impl_cpu.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_format_converter"

namespace kv {
namespace Impl {

namespace {
constexpr const char* kUnsupported = "Failure in ImplFormatConverter::get_context(...) : unsupported format.";
constexpr const char* kGetContext = "kv::Impl::ImplFormatConverter::get_context";

bool isYuv(FrameFormat f) { return f >= FRAME_I420 && f <= FRAME_YUV444_PLANAR; }
}  // namespace

void ImplFormatConverter::reuse(FrameFormat src, FrameFormat dst, int width, int* window_size) {
    if (!window_size)
        KV_THROW_LINE(KV_STATUS_FORMAT_ERROR, "kv::Impl::ImplFormatConverter::reuse", 41,
                      "Failure in ImplFormatConverter::reuse(...) : Null pointer to window size.");
    _convert = nullptr;
    _convert_pair = nullptr;
    _next_luma_row = -1;
    _ready = false;
    get_context(src, dst, window_size);
    _width = width;
    if (_convert_pair) _next_luma.resize(size_t(width < 1 ? 1 : width));
    const FrameLayout out(dst, Size(width < 1 ? 1 : width, 2), 64);
    _dst_planes = out.planes;
    _chroma_planes = 0;
    _scratch_step = 0;
    for (uint32_t p = 0; p < out.planes; ++p) {
        _scratch_step = std::max(_scratch_step, out.plane[p].step);
        if (isYuv(dst) && int32_t(p) != _dst_info.yPlane) _chroma_planes |= 1u << p;
    }
    _ready = true;
}

void ImplFormatConverter::convertRow(const RowData* const* rows, const RowData& asked, int row) {
    if (!_convert) return;
    RowData dst = asked;
    bool any = false, chroma_asked = false;
    for (uint32_t p = 0; p < _dst_planes; ++p) {
        any = any || dst.plane[p];
        chroma_asked = chroma_asked || (dst.plane[p] && (_chroma_planes >> p & 1u));
    }
    if (!any) return;
    for (uint32_t p = 0; p < _dst_planes; ++p) {
        if (dst.plane[p] || ((_chroma_planes >> p & 1u) && !chroma_asked)) continue;
        if (_scratch.size() < _dst_planes * _scratch_step) _scratch.resize(size_t(_dst_planes * _scratch_step));
        dst.plane[p] = _scratch.data() + p * _scratch_step;
    }
    const bool chroma = dst.plane[_dst_info.uPlane] && dst.plane[_dst_info.vPlane];
    if (_convert_pair && chroma && rows[1]) {
        _convert_pair(rows, dst, _next_luma.data(), _width, *this);
        _next_luma_row = row + 1;
        return;
    }
    if (row == _next_luma_row && !chroma) {
        std::memcpy(dst.plane[_dst_info.yPlane] + _dst_info.yOffset, _next_luma.data(), size_t(_width));
        _next_luma_row = -1;
        return;
    }
    _convert(rows, dst, _width, *this);
}

void ImplFormatConverter::getFormatInfo(FrameFormat f, YuvFormatInfo& info) {
    if ((f >= FRAME_GRAY_8 && f <= FRAME_BGR_8_PLANAR) || f == FRAME_FLOAT_32_C3 ||
        f == FRAME_FLOAT_32_C3_PLANAR)
        return;
    if (!isYuv(f))
        KV_THROW_LINE(KV_STATUS_FORMAT_ERROR, "kv::Impl::ImplFormatConverter::getFormatInfo", 143, "%s",
                      kUnsupported);
    // Start from I420 and adjust.
    info = YuvFormatInfo();
    info.xSub = info.ySub = 2;
    info.yPlane = 0;
    info.vPlane = 2;
    info.uPlane = 1;
    info.yStep = info.vStep = info.uStep = 1;
    switch (f) {
        case FRAME_YV12:
            info.vPlane = 1;
            info.uPlane = 2;
            break;
        case FRAME_NV12:
            info.vPlane = 1;
            info.vOffset = 1;
            info.uStep = info.vStep = 2;
            break;
        case FRAME_NV21:
            info.vPlane = 1;
            info.uOffset = 1;
            info.uStep = info.vStep = 2;
            break;
        case FRAME_YV16:
            info.vPlane = 1;
            info.uPlane = 2;
            info.ySub = 1;
            break;
        case FRAME_YUYV:
        case FRAME_UYVY: {
            const bool yuyv = f == FRAME_YUYV;
            info.yPlane = info.uPlane = info.vPlane = 0;
            info.yOffset = yuyv ? 0 : 1;
            info.uOffset = yuyv ? 1 : 0;
            info.vOffset = yuyv ? 3 : 2;
            info.yStep = 2;
            info.uStep = info.vStep = 4;
            info.ySub = 1;
            break;
        }
        case FRAME_NV16:
            info.vPlane = 1;
            info.vOffset = 1;
            info.uStep = info.vStep = 2;
            info.ySub = 1;
            break;
        case FRAME_YUV444:
            info.yPlane = info.uPlane = info.vPlane = 0;
            info.uOffset = 1;
            info.vOffset = 2;
            info.yStep = info.uStep = info.vStep = 3;
            info.xSub = info.ySub = 1;
            break;
        case FRAME_YUV444_PLANAR:
            info.xSub = info.ySub = 1;
            break;
        default:  // FRAME_I420
            break;
    }
}

void ImplFormatConverter::get_context(FrameFormat src, FrameFormat dst, int* window_size) {
    // Formats without a YUV description keep an empty one.
    _src_info = YuvFormatInfo();
    _dst_info = YuvFormatInfo();
    getFormatInfo(src, _src_info);
    getFormatInfo(dst, _dst_info);
    *window_size = 1;
    const impl::Isa isa = impl::activeIsa();
    const bool simd = isa >= impl::Isa::kAvx2;
#define KV_PICK(name) (simd ? &impl::avx2::name : &impl::ref::name)
#define KV_PICK3(name) (isa >= impl::Isa::kAvx512 ? &impl::avx512::name : KV_PICK(name))
    switch (src) {
        case FRAME_GRAY_8:
            if (dst == FRAME_BGR_8)
                _convert = KV_PICK(grayToBgrRow);
            else if (isYuv(dst))
                _convert = KV_PICK(grayToYuvRow);
            else
                KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kGetContext, 183, "%s", kUnsupported);
            return;
        case FRAME_RGB_8:
            if (dst == FRAME_RGB_8_PLANAR)
                _convert = KV_PICK3(deinterleave3Row);
            else if (dst == FRAME_BGR_8)
                _convert = KV_PICK3(swapRbRow);
            else if (dst == FRAME_FLOAT_32_C3_PLANAR)
                _convert = KV_PICK3(bytesToPlanarFloatRow);
            else
                KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kGetContext, 273, "%s", kUnsupported);
            return;
        case FRAME_RGB_8_PLANAR:
            if (dst != FRAME_RGB_8) KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kGetContext, 288, "%s", kUnsupported);
            _convert = KV_PICK3(interleave3Row);
            return;
        case FRAME_BGR_8:
            switch (dst) {
                case FRAME_GRAY_8: _convert = KV_PICK(bgrToGrayRow); return;
                case FRAME_RGB_8: _convert = KV_PICK3(swapRbRow); return;
                case FRAME_BGR_8_PLANAR: _convert = KV_PICK3(deinterleave3Row); return;
                case FRAME_I420:
                case FRAME_YV12:
                    _convert = KV_PICK(bgrToYuv420PlanarRow);
                    _convert_pair = KV_PICK(bgrToYuv420PlanarPairRow);
                    *window_size = 2;
                    return;
                case FRAME_NV12:
                case FRAME_NV21:
                    _convert = KV_PICK(bgrToYuv420SemiRow);
                    _convert_pair = KV_PICK(bgrToYuv420SemiPairRow);
                    *window_size = 2;
                    return;
                case FRAME_YV16:
                case FRAME_YUYV:
                case FRAME_UYVY:
                case FRAME_NV16: _convert = KV_PICK(bgrToYuv422Row); return;
                case FRAME_YUV444:
                case FRAME_YUV444_PLANAR: _convert = KV_PICK(bgrToYuv444Row); return;
                case FRAME_FLOAT_32_C3: _convert = KV_PICK(bytesToFloatRow); return;
                case FRAME_FLOAT_32_C3_PLANAR: _convert = KV_PICK3(bytesToPlanarFloatRow); return;
                default: KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kGetContext, 237, "%s", kUnsupported);
            }
        case FRAME_BGR_8_PLANAR:
            if (dst != FRAME_BGR_8) KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kGetContext, 252, "%s", kUnsupported);
            _convert = KV_PICK3(interleave3Row);
            return;
        case FRAME_FLOAT_32_C3:
            if (dst != FRAME_BGR_8) KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kGetContext, 417, "%s", kUnsupported);
            _convert = KV_PICK(floatToBytesRow);
            return;
        default:
            break;
    }
    if (!isYuv(src)) KV_THROW_LINE(KV_STATUS_FORMAT_ERROR, kGetContext, 425, "%s", kUnsupported);
    if (dst == FRAME_GRAY_8) {
        _convert = KV_PICK(yuvToGrayRow);
    } else if (dst == FRAME_BGR_8) {
        // The 4:2:0 row kernels serve the 4:2:2 layouts too: a row only
        // sees its own chroma row.
        if (src == FRAME_I420 || src == FRAME_YV12 || src == FRAME_YV16)
            _convert = KV_PICK3(yuv420PlanarToBgrRow);
        else if (src == FRAME_NV12 || src == FRAME_NV21 || src == FRAME_NV16)
            _convert = KV_PICK3(yuv420SemiToBgrRow);
        else if (src == FRAME_YUV444_PLANAR)
            _convert = KV_PICK3(yuv444PlanarToBgrRow);
        else
            _convert = KV_PICK3(yuvToBgrRow);
    } else {
        // Includes destinations without a description (ySub 0): no window
        // can hold 0 rows, so the owner's window rejects them.
        _convert = isYuv(dst) ? KV_PICK(yuvToYuvRow) : &impl::ref::yuvToYuvRow;
        *window_size = _dst_info.ySub;
    }
#undef KV_PICK3
#undef KV_PICK
}

}  // namespace Impl
}  // namespace kv
