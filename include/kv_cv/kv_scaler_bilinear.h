// Bilinear scalers in 16.16 fixed point: ScalerBilinearX changes the width,
// ScalerBilinearY the height, ScalerBilinearXY both. Output pixel centres map
// onto source pixel centres (source = (i + 0.5) * src / dst - 0.5, clamped at
// 0 on the left and top; the right and bottom neighbours of the last source
// pixel are the pixel itself). Results truncate: no rounding term.
#pragma once

#include <memory>

#include "kv_cv/kv_row_producer.h"

namespace kv {

// Formats of all three: 1 to 20 except 21 to 23. Interleaved channels are
// interpolated independently; YUYV is moved as 3-byte units and UYVY as
// 4-byte units, as the other scalers do, and where those units would pass the
// end of a row the last ones are clipped (bytes past the row are neither read
// nor written; a one-pixel YUYV row of four bytes continues its single unit
// into the fourth byte). Subsampled planes take the first entries of the
// shared column table, clamped to their own width. FRAME_GRAY_FLOAT_32 is interpolated as unsigned 32-bit
// integers. Vertically, planes 1 and 2 of planar and semi-planar formats blend
// window rows r and r + 2, so with a window of two rows (every format without
// vertical chroma subsampling, or a source two rows high) they take the upper
// row only. An unsupported format fails at the first produce().

class KV_CV_API ScalerBilinearX : public IRowProducer {
public:
    ScalerBilinearX();
    ~ScalerBilinearX() override;
    ScalerBilinearX(const ScalerBilinearX&) = delete;
    ScalerBilinearX& operator=(const ScalerBilinearX&) = delete;

    void reuse(const Frame& src_frame, int dst_width);
    void reuse(IRowProducer& src_producer, int dst_width);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

class KV_CV_API ScalerBilinearY : public IRowProducer {
public:
    ScalerBilinearY();
    ~ScalerBilinearY() override;
    ScalerBilinearY(const ScalerBilinearY&) = delete;
    ScalerBilinearY& operator=(const ScalerBilinearY&) = delete;

    void reuse(const Frame& src_frame, int dst_height);
    // The window is two rows (four with vertically subsampled chroma) and is
    // not clamped: a producer with fewer rows is rejected.
    void reuse(IRowProducer& src_producer, int dst_height);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

class KV_CV_API ScalerBilinearXY : public IRowProducer {
public:
    ScalerBilinearXY();
    ~ScalerBilinearXY() override;
    ScalerBilinearXY(const ScalerBilinearXY&) = delete;
    ScalerBilinearXY& operator=(const ScalerBilinearXY&) = delete;

    void reuse(const Frame& src_frame, Size dst_size);
    // As for ScalerBilinearY, the window is not clamped to the producer's height.
    void reuse(IRowProducer& src_producer, Size dst_size);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

}  // namespace kv
