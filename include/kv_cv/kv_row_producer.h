// The row-streaming contract: a producer hands out an image one frame row at a
// time into memory the consumer owns. RowData is one row's plane pointers,
// RowIndex follows subsampled planes, produceFrame drains a producer into a frame.
#pragma once

#include <cstdint>

#include "kv_core/kv_frame.h"
#include "kv_cv/kv_cv_export.h"

namespace kv {

// Four plane pointers of one frame row. In a destination, a null slot means
// the plane is not written on this row (a subsampled plane's shared row).
struct KV_CV_API RowData {
    uint8_t* plane[4] = {nullptr, nullptr, nullptr, nullptr};
};

// Producer protocol: after reuse() the producer stands on row 0; produce()
// writes the current row (exactly each non-null plane's row bytes) without
// advancing, at most once per row; next() moves one row and returns false once
// the last row has been passed. Consumers count rows; they never wait for false.
class KV_CV_API IRowProducer {
public:
    IRowProducer() = default;
    IRowProducer(const IRowProducer&) {}
    IRowProducer& operator=(const IRowProducer&) { return *this; }
    virtual const FrameLayout& layout() = 0;
    virtual void produce(RowData& dst) = 0;
    virtual bool next() = 0;
    virtual ~IRowProducer();
};

// The vertical subsampling mask of a plane of height `plane_height` in a frame
// of height `height`: (H + H mod 2) / h - 1. The plane moves to its next row
// after frame row r when (r & mask) == mask.
inline int32_t subsamplingMask(int32_t height, int32_t plane_height) {
    return (height + height % 2) / plane_height - 1;
}

// Follows which row of each plane belongs to the current frame row.
class KV_CV_API RowIndex {
public:
    void reuse(const FrameLayout& layout);
    // Advances one frame row; false (and nothing changes) once past the last.
    bool next();
    // p = 0 gives the frame row; p > 0 the current row of plane p (no range check).
    int32_t row(int p) const { return _row[p]; }
    int32_t mask(int p) const { return _mask[p]; }
    int32_t height() const { return _height; }
    int32_t planes() const { return _planes; }

private:
    int32_t _row[4] = {0, 0, 0, 0};
    int32_t _mask[4] = {0, 0, 0, 0};  // _mask[0] is unused
    int32_t _height = 0;
    int32_t _planes = 0;
};

// Runs `producer` to completion into `frame`; reallocates the frame unless it
// already has the producer's format and size (then it is written in place).
KV_CV_API void produceFrame(IRowProducer& producer, Frame& frame);

// Copies each plane's row bytes from src to every non-null slot of dst.
KV_CV_API void copyRowData(const FrameLayout& layout, const RowData& src, RowData& dst);

}  // namespace kv
