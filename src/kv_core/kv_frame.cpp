// Frame formats, plane layouts, frames and regions.
#include "kv_core/kv_frame.h"

#include <cstring>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_core/kv_frame"

namespace kv {

namespace {

struct PlaneDesc {
    uint8_t sub_x, sub_y;  // 1 or 2
    uint8_t channels;
};

struct FormatDesc {
    const char* name;
    uint8_t planes;
    uint8_t bits;
    bool packed422;  // rows hold (W+1)/2 pairs of 4 bytes
    PlaneDesc plane[3];
};

constexpr FormatDesc kUnknown{"FRAME_UNKNOWN", 0, 0, false, {}};

const FormatDesc& describe(FrameFormat f) {
    static const FormatDesc table[27] = {
        {"FRAME_UNDEFINED", 0, 0, false, {}},
        {"FRAME_GRAY_8", 1, 8, false, {{1, 1, 1}}},
        {"FRAME_RGB_8", 1, 8, false, {{1, 1, 3}}},
        {"FRAME_RGB_8_PLANAR", 3, 8, false, {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}},
        {"FRAME_BGR_8", 1, 8, false, {{1, 1, 3}}},
        {"FRAME_BGR_8_PLANAR", 3, 8, false, {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}},
        {"FRAME_I420", 3, 8, false, {{1, 1, 1}, {2, 2, 1}, {2, 2, 1}}},
        {"FRAME_YV12", 3, 8, false, {{1, 1, 1}, {2, 2, 1}, {2, 2, 1}}},
        {"FRAME_NV12", 2, 8, false, {{1, 1, 1}, {2, 2, 2}}},
        {"FRAME_NV21", 2, 8, false, {{1, 1, 1}, {2, 2, 2}}},
        {"FRAME_YV16", 3, 8, false, {{1, 1, 1}, {2, 1, 1}, {2, 1, 1}}},
        {"FRAME_YUYV", 1, 8, true, {{1, 1, 2}}},
        {"FRAME_UYVY", 1, 8, true, {{1, 1, 2}}},
        {"FRAME_NV16", 2, 8, false, {{1, 1, 1}, {2, 1, 2}}},
        {"FRAME_YUV444", 1, 8, false, {{1, 1, 3}}},
        {"FRAME_YUV444_PLANAR", 3, 8, false, {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}},
        {"FRAME_C2_8", 1, 8, false, {{1, 1, 2}}},
        {"FRAME_C3_8", 1, 8, false, {{1, 1, 3}}},
        {"FRAME_C4_8", 1, 8, false, {{1, 1, 4}}},
        {"FRAME_GRAY_16", 1, 16, false, {{1, 1, 1}}},
        {"FRAME_GRAY_FLOAT_32", 1, 32, false, {{1, 1, 1}}},
        kUnknown, kUnknown, kUnknown,
        {"FRAME_FLOAT_32", 1, 32, false, {{1, 1, 1}}},
        {"FRAME_FLOAT_32_C3", 1, 32, false, {{1, 1, 3}}},
        {"FRAME_FLOAT_32_C3_PLANAR", 3, 32, false, {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}},
    };
    const auto i = static_cast<uint32_t>(f);
    return i < 27 ? table[i] : kUnknown;
}

uint64_t roundUp(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

// Fills plane sizes and row bytes for `size`; leaves steps and offsets alone.
void fillPlanes(FrameLayout& l, const FormatDesc& d) {
    l.planes = d.planes;
    for (uint32_t p = 0; p < d.planes; ++p) {
        const PlaneDesc& pd = d.plane[p];
        FramePlane& fp = l.plane[p];
        fp.size = Size((l.size.width + pd.sub_x - 1) / pd.sub_x, (l.size.height + pd.sub_y - 1) / pd.sub_y);
        fp.channels = pd.channels;
        fp.bits_per_channel = d.bits;
        const uint64_t w = fp.size.width > 0 ? uint64_t(fp.size.width) : 0;
        fp.row_bytes = d.packed422 ? (w + 1) / 2 * 4 : w * pd.channels * (d.bits / 8);
    }
}

}  // namespace

const char* toString(FrameFormat format) { return describe(format).name; }

int bytesPerPixel(FrameFormat format) {
    const FormatDesc& d = describe(format);
    return d.planes ? d.plane[0].channels * d.bits / 8 : 0;
}

FrameLayout::FrameLayout(FrameFormat f, Size s, size_t alignment) : format(f), size(s) {
    const FormatDesc& d = describe(f);
    if (d.planes == 0) {
        format = FRAME_UNDEFINED;
        return;
    }
    fillPlanes(*this, d);
    const uint64_t align = alignment ? alignment : kDefaultAlignment;
    int64_t offset = 0;
    for (uint32_t p = 0; p < planes; ++p) {
        plane[p].step = roundUp(plane[p].row_bytes, align);
        plane[p].offset = offset;
        offset += int64_t(plane[p].step * uint64_t(std::max(plane[p].size.height, 0)));
    }
}

bool FrameLayout::isContinuous() const {
    for (uint32_t p = 0; p < planes; ++p) {
        if (plane[p].step != plane[p].row_bytes) return false;
        if (p + 1 < planes &&
            plane[p + 1].offset != plane[p].offset + int64_t(plane[p].step * uint64_t(plane[p].size.height)))
            return false;
    }
    return true;
}

uint64_t FrameLayout::byteSize() const {
    int64_t end = 0;
    for (uint32_t p = 0; p < planes; ++p) {
        const int64_t e = plane[p].offset + int64_t(plane[p].step * uint64_t(plane[p].size.height - 1) +
                                                    plane[p].row_bytes);
        end = std::max(end, e);
    }
    return uint64_t(end);
}

Frame::Frame(FrameFormat format, Size size, size_t alignment, const DeviceContext& context) {
    reuse(format, size, context, alignment);
}

Frame Frame::wrap(FrameFormat format, Size size, void* const* planes, const size_t* steps,
                  const DeviceContext& context) {
    Frame f;
    FrameLayout layout(format, size, 1);
    if (!layout.initialized()) return f;
    for (uint32_t p = 0; p < layout.planes; ++p) {
        if (!planes[p])
            KV_THROW(KV_STATUS_NULL_POINTER, "kv::Frame::wrap", "Parameter 'planes[%u]' is null.", p);
        if (steps[p] < layout.plane[p].row_bytes)
            KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::Frame::wrap", "Parameter 'steps[%u]' is out of range: %zu.", p,
                     steps[p]);
    }
    const auto base = reinterpret_cast<uintptr_t>(planes[0]);
    for (uint32_t p = 0; p < layout.planes; ++p) {
        layout.plane[p].step = steps[p];
        layout.plane[p].offset = int64_t(reinterpret_cast<uintptr_t>(planes[p]) - base);
    }
    f._layout = layout;
    f._context = context;
    f._base = static_cast<uint8_t*>(planes[0]);
    return f;
}

Frame Frame::wrap(FrameFormat format, Size size, void* data, size_t step, const DeviceContext& context) {
    // One block: the planes follow each other with the same pitch scaled by
    // each plane's share of the row (chroma planes of I420 use step / 2).
    FrameLayout layout(format, size, 1);
    if (!layout.initialized()) return Frame();
    void* planes[FrameLayout::kMaxPlanes] = {};
    size_t steps[FrameLayout::kMaxPlanes] = {};
    auto* p = static_cast<uint8_t*>(data);
    const uint64_t row0 = layout.plane[0].row_bytes;
    for (uint32_t i = 0; i < layout.planes; ++i) {
        steps[i] = i == 0 ? step : size_t((step * layout.plane[i].row_bytes + row0 - 1) / row0);
        if (i > 0 && steps[i] < layout.plane[i].row_bytes) steps[i] = layout.plane[i].row_bytes;
        planes[i] = p;
        p += steps[i] * size_t(layout.plane[i].size.height);
    }
    return wrap(format, size, planes, steps, context);
}

void Frame::reuse(FrameFormat format, Size size, const DeviceContext& context, size_t alignment) {
    if (format == FRAME_UNDEFINED || size.empty()) {
        clear();
        return;
    }
    FrameLayout layout(format, size, alignment);
    if (!layout.initialized())
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::Frame::reuse", "Unsupported frame format %d.", int(format));
    if (_owned && _memory && _layout.format == format && _layout.size == size && _context == context &&
        _layout.plane[0].step == layout.plane[0].step && _base == _memory->data())
        return;
    const uint64_t bytes = layout.byteSize();
    if (!(_owned && _memory && _memory.use_count() == 1 && _memory->capacity() >= bytes)) {
        _memory = std::make_shared<Buffer>(context);
    }
    _memory->resize(size_t(bytes));
    _layout = layout;
    _context = context;
    _base = _memory->data();
    _owned = true;
}

void Frame::setZero() {
    for (uint32_t p = 0; p < _layout.planes; ++p)
        for (int y = 0; y < _layout.plane[p].size.height; ++y)
            std::memset(rowCpuData(p, y), 0, _layout.plane[p].row_bytes);
}

void Frame::copyTo(Frame& dst) const {
    if (!initialized()) {
        dst.clear();
        return;
    }
    if (&dst == this) return;
    if (dst.format() != format() || dst.size() != size()) dst.reuse(format(), size(), _context, 0);
    for (uint32_t p = 0; p < _layout.planes; ++p) {
        const size_t n = _layout.plane[p].row_bytes;
        for (int y = 0; y < _layout.plane[p].size.height; ++y) {
            const uint8_t* s = rowCpuData(p, y);
            uint8_t* d = dst.rowCpuData(p, y);
            if (s != d) std::memmove(d, s, n);
        }
    }
}

void Frame::clear() {
    _layout.clear();
    _context = DeviceContext();
    _memory.reset();
    _base = nullptr;
    _owned = false;
}

Frame getRegion(const Frame& frame, Rect region) {
    Frame view = frame;
    if (!frame.initialized()) return view;
    const FrameLayout& parent = frame._layout;
    const FormatDesc& d = describe(parent.format);
    FrameLayout layout = parent;
    layout.size = region.size();
    fillPlanes(layout, d);
    for (uint32_t p = 0; p < layout.planes; ++p) {
        const PlaneDesc& pd = d.plane[p];
        const int64_t x = region.x / pd.sub_x, y = region.y / pd.sub_y;
        const int64_t xbytes = d.packed422 ? (x / 2) * 4 : x * pd.channels * (d.bits / 8);
        layout.plane[p].offset = parent.plane[p].offset + y * int64_t(parent.plane[p].step) + xbytes;
    }
    view._layout = layout;
    view._owned = false;
    return view;
}

Frame getRegion(Frame& frame, Rect region) { return getRegion(static_cast<const Frame&>(frame), region); }

}  // namespace kv
