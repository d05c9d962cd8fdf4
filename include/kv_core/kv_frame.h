// Frames: pixel formats, the layout of a frame's planes, and the Frame itself
// (a layout plus reference-counted pixel memory, or a view into another's).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kv_core/kv_buffer.h"
#include "kv_core/kv_core_export.h"
#include "kv_core/kv_types.h"

namespace kv {

enum FrameFormat : int32_t {
    FRAME_UNDEFINED = 0,
    FRAME_GRAY_8 = 1,
    FRAME_RGB_8 = 2,
    FRAME_RGB_8_PLANAR = 3,
    FRAME_BGR_8 = 4,
    FRAME_BGR_8_PLANAR = 5,
    FRAME_I420 = 6,
    FRAME_YV12 = 7,
    FRAME_NV12 = 8,
    FRAME_NV21 = 9,
    FRAME_YV16 = 10,
    FRAME_YUYV = 11,
    FRAME_UYVY = 12,
    FRAME_NV16 = 13,
    FRAME_YUV444 = 14,
    FRAME_YUV444_PLANAR = 15,
    FRAME_C2_8 = 16,
    FRAME_C3_8 = 17,
    FRAME_C4_8 = 18,
    FRAME_GRAY_16 = 19,
    FRAME_GRAY_FLOAT_32 = 20,
    // 21..23 are reserved; every operation rejects them.
    FRAME_FLOAT_32 = 24,
    FRAME_FLOAT_32_C3 = 25,
    FRAME_FLOAT_32_C3_PLANAR = 26,
};

// "FRAME_BGR_8" and so on; "FRAME_UNKNOWN" for values outside the table.
KV_CORE_API const char* toString(FrameFormat format);

struct FramePlane {
    Size size;                     // in pixels (for packed 4:2:2, pixels, not pairs)
    uint16_t channels = 0;         // bytes-or-floats per pixel unit
    uint16_t bits_per_channel = 0;
    uint64_t step = 0;             // row pitch in bytes
    int64_t offset = 0;            // first byte of the plane relative to the frame's base
    uint64_t row_bytes = 0;        // bytes of pixel data in one row

    uint64_t rowBytes() const { return row_bytes; }
};

// Odd sizes round chroma planes up: a 4:2:0 chroma plane of W x H is
// (W+1)/2 x (H+1)/2, a 4:2:2 one (W+1)/2 x H; packed 4:2:2 rows hold (W+1)/2
// pixel pairs. Alignment 0 means the default row alignment of 64 bytes.
// A format and size whose bytes do not fit 63 bits throw kv::Exception (status 5).
class KV_CORE_API FrameLayout {
public:
    static constexpr size_t kMaxPlanes = 4;
    static constexpr size_t kDefaultAlignment = 64;

    FrameFormat format = FRAME_UNDEFINED;
    uint32_t planes = 0;
    Size size;
    FramePlane plane[kMaxPlanes];

    FrameLayout() = default;
    FrameLayout(FrameFormat format, Size size, size_t alignment = 0);

    bool initialized() const { return format != FRAME_UNDEFINED && !size.empty(); }
    bool isContinuous() const;
    void clear() { *this = FrameLayout(); }
    // Bytes from the first plane's first byte to the end of the last plane's last row.
    uint64_t byteSize() const;
    // Bytes from the first plane's first byte to the end of the last plane's
    // last row pitch: what an owned frame holds (every plane step x height).
    uint64_t allocationSize() const;
};

// A Frame owns its memory (shared by its copies, reference counted), is a view
// into another frame's memory (getRegion), or wraps caller memory (wrap). Copies
// are cheap and never copy pixels; deep copies are the named copyTo().
class KV_CORE_API Frame {
public:
    Frame() = default;
    Frame(FrameFormat format, Size size, size_t alignment = 0,
          const DeviceContext& context = DeviceContext::cpuContext());

    // Wraps caller-owned memory without copying: one pointer and row pitch per
    // plane of `format`. The caller keeps the memory alive; nothing reads or
    // writes past the rows the layout describes.
    static Frame wrap(FrameFormat format, Size size, void* const* planes, const size_t* steps,
                      const DeviceContext& context = DeviceContext::cpuContext());
    static Frame wrap(FrameFormat format, Size size, void* data, size_t step,
                      const DeviceContext& context = DeviceContext::cpuContext());

    bool initialized() const { return _layout.initialized(); }
    FrameFormat format() const { return _layout.format; }
    Size size() const { return _layout.size; }
    const FrameLayout& layout() const { return _layout; }
    DeviceContext deviceContext() const { return _context; }

    uint8_t* planeCpuData(size_t plane) { return _base + _layout.plane[plane].offset; }
    const uint8_t* planeCpuData(size_t plane) const { return _base + _layout.plane[plane].offset; }
    uint8_t* rowCpuData(size_t plane, int row) {
        return planeCpuData(plane) + size_t(row) * _layout.plane[plane].step;
    }
    const uint8_t* rowCpuData(size_t plane, int row) const {
        return planeCpuData(plane) + size_t(row) * _layout.plane[plane].step;
    }

    // Makes the frame hold an owned image of this format and size. Owned memory
    // that is large enough (and not shared with another frame) is kept.
    void reuse(FrameFormat format, Size size, const DeviceContext& context, size_t alignment = 0);
    void setZero();
    // Copies the pixels into `dst`; `dst` is reallocated unless it already has
    // this format and size (its row pitches may differ).
    void copyTo(Frame& dst) const;
    void clear();

    // True when the frame owns its memory (made by reuse or the sizing constructor).
    bool ownsMemory() const { return _owned; }

private:
    friend KV_CORE_API Frame getRegion(Frame& frame, Rect region);
    friend KV_CORE_API Frame getRegion(const Frame& frame, Rect region);

    FrameLayout _layout;
    DeviceContext _context;
    std::shared_ptr<Buffer> _memory;  // null for wrapped caller memory
    uint8_t* _base = nullptr;
    bool _owned = false;
};

// A view onto `region` of the frame (same format, the region's size); chroma
// planes take the region scaled down by their subsampling. A non-empty region
// that does not lie inside an initialised frame throws kv::Exception (status
// 5). The view shares the memory and must not outlive wrapped memory.
KV_CORE_API Frame getRegion(Frame& frame, Rect region);
KV_CORE_API Frame getRegion(const Frame& frame, Rect region);

// Bytes per pixel unit of plane 0 of a byte-or-float format (0 for 0 and 21..23).
KV_CORE_API int bytesPerPixel(FrameFormat format);

}  // namespace kv
