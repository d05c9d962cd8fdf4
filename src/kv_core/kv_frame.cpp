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

// Checked size arithmetic: false when the result does not fit 64 bits.
bool mulOk(uint64_t a, uint64_t b, uint64_t& r) { return !__builtin_mul_overflow(a, b, &r); }
bool addOk(uint64_t a, uint64_t b, uint64_t& r) { return !__builtin_add_overflow(a, b, &r); }
bool roundUpOk(uint64_t v, uint64_t a, uint64_t& r) { return addOk(v, (a - v % a) % a, r); }

// Offsets are signed 64-bit, so a layout's bytes stay below 2^63.
constexpr uint64_t kMaxLayoutBytes = uint64_t(INT64_MAX);

[[noreturn]] void throwTooLarge(const char* function, const char* name, FrameFormat f, Size s, const char* what) {
    KV_THROW(KV_STATUS_OUT_OF_RANGE, function, "Failure in %s(...) : a %dx%d %s frame %s.", name, s.width, s.height,
             toString(f), what);
}

// Fills plane sizes and row bytes for `size`; leaves steps and offsets alone.
void fillPlanes(FrameLayout& l, const FormatDesc& d) {
    l.planes = d.planes;
    for (uint32_t p = 0; p < d.planes; ++p) {
        const PlaneDesc& pd = d.plane[p];
        FramePlane& fp = l.plane[p];
        // In 64 bits: a side of 2^31 - 1 plus the rounding term overflows an int.
        fp.size = Size(int32_t((int64_t(l.size.width) + pd.sub_x - 1) / pd.sub_x),
                       int32_t((int64_t(l.size.height) + pd.sub_y - 1) / pd.sub_y));
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
    uint64_t offset = 0;
    for (uint32_t p = 0; p < planes; ++p) {
        uint64_t step = 0, bytes = 0;
        if (!roundUpOk(plane[p].row_bytes, align, step) ||
            !mulOk(step, uint64_t(std::max(plane[p].size.height, 0)), bytes) || !addOk(offset, bytes, bytes) ||
            bytes > kMaxLayoutBytes)
            throwTooLarge("kv::FrameLayout::FrameLayout", "FrameLayout", f, s,
                          alignment ? "with this row alignment has more bytes than 64-bit offsets reach"
                                    : "has more bytes than 64-bit offsets reach");
        plane[p].step = step;
        plane[p].offset = int64_t(offset);
        offset = bytes;
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
        if (plane[p].size.height < 1) continue;
        const int64_t e = plane[p].offset + int64_t(plane[p].step * uint64_t(plane[p].size.height - 1) +
                                                    plane[p].row_bytes);
        end = std::max(end, e);
    }
    return uint64_t(end);
}

uint64_t FrameLayout::allocationSize() const {
    int64_t end = 0;
    for (uint32_t p = 0; p < planes; ++p)
        end = std::max(end, plane[p].offset + int64_t(plane[p].step * uint64_t(std::max(plane[p].size.height, 0))));
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
        // The plane's rows must fit the address space from where they start.
        uint64_t span = 0;
        if (!mulOk(steps[p], uint64_t(layout.plane[p].size.height - 1), span) ||
            !addOk(span, layout.plane[p].row_bytes, span) ||
            span > UINTPTR_MAX - reinterpret_cast<uintptr_t>(planes[p]))
            KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::Frame::wrap",
                     "Failure in Frame::wrap(...) : plane %u with row pitch %zu and %d rows reaches past the end of "
                     "the address space.",
                     p, steps[p], layout.plane[p].size.height);
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
    const uint64_t row0 = layout.plane[0].row_bytes;
    uint64_t offset = 0;
    for (uint32_t i = 0; i < layout.planes; ++i) {
        // step * row_bytes / row0 without the 64-bit product.
        const unsigned __int128 scaled =
            (static_cast<unsigned __int128>(step) * layout.plane[i].row_bytes + row0 - 1) / row0;
        if (scaled > SIZE_MAX) throwTooLarge("kv::Frame::wrap", "Frame::wrap", format, size, "has a row pitch past 64 bits");
        steps[i] = i == 0 ? step : size_t(scaled);
        if (i > 0 && steps[i] < layout.plane[i].row_bytes) steps[i] = layout.plane[i].row_bytes;
        planes[i] = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(data) + offset);
        uint64_t bytes = 0;
        if (i + 1 < layout.planes &&
            (!mulOk(steps[i], uint64_t(layout.plane[i].size.height), bytes) || !addOk(offset, bytes, offset) ||
             offset > UINTPTR_MAX - reinterpret_cast<uintptr_t>(data)))
            throwTooLarge("kv::Frame::wrap", "Frame::wrap", format, size,
                          "with this row pitch reaches past the end of the address space");
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
    // Every plane gets step x height bytes, the last row's padding included:
    // callers copy and clear planes by pitch.
    const uint64_t bytes = layout.allocationSize();
    if (bytes > Buffer::kMaxSize)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::Frame::reuse",
                 "Failure in Frame::reuse(...) : a %dx%d %s frame needs %llu bytes, more than an address space holds.",
                 size.width, size.height, toString(format), static_cast<unsigned long long>(bytes));
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
    // A view never reaches outside its frame's memory.
    if (!region.empty() && (region.x < 0 || region.y < 0 || int64_t(region.x) + region.width > parent.size.width ||
                            int64_t(region.y) + region.height > parent.size.height))
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::getRegion",
                 "Failure in getRegion(...) : region (%d, %d, %d, %d) lies outside the %dx%d frame.", region.x,
                 region.y, region.width, region.height, parent.size.width, parent.size.height);
    const FormatDesc& d = describe(parent.format);
    FrameLayout layout = parent;
    layout.size = region.size();
    fillPlanes(layout, d);
    // An empty region gives an uninitialised view at the frame's own planes.
    for (uint32_t p = 0; p < layout.planes && !region.empty(); ++p) {
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
