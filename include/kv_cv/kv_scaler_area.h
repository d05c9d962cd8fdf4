// Area scalers: box averaging with partial pixels weighted by their overlap,
// in fixed point set by ScalerPrecision. ScalerAreaX works along rows,
// ScalerAreaY along columns; scaleAreaXY reduces both axes of a frame in 16.16.
//
// Formats: 1; 4, 11, 14, 17 as 3-byte units; 12, 18 as 4-byte units; 16; 19
// (16-bit); 20 (as unsigned 32-bit integers); 5, 10, 15 and 6, 7 (three planes);
// 8, 9, 13 (luma plus an interleaved chroma plane). Anything else fails in
// produce() with status 8 (an unchanged width in ScalerAreaX is a plain copy).
//
// Reading and writing stay inside each row's bytes, whatever the source:
// - A sample at or past the end of a row counts as 0. An enlargement weights the
//   sample just past the last pixel with the table's small truncation deficit;
//   that sample is never read, so frames, producers and wrapped caller memory
//   give the same output (the vertical pass likewise drops the row below the
//   last one).
// - YUYV (11) rows are processed as 3-byte units and UYVY (12) rows as 4-byte
//   units; the units that would reach past the row's bytes are clipped: their
//   samples outside the row count as 0 and their outputs outside the row are
//   not written. The one row byte no unit covers (the fourth byte of a
//   one-pixel YUYV row) is written as 0. ScalerAreaY works sample by sample and
//   covers every byte of the row.
// - A chosen precision only rescales weights: a reuse that changes only the
//   precision keeps the table built for the old one (with the new shift).
#pragma once

#include <memory>

#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler_types.h"

namespace kv {

class KV_CV_API ScalerAreaX : public IRowProducer {
public:
    ScalerAreaX();
    ~ScalerAreaX() override;
    ScalerAreaX(const ScalerAreaX&) = delete;
    ScalerAreaX& operator=(const ScalerAreaX&) = delete;

    void reuse(const Frame& src_frame, int dst_width, ScalerPrecision precision);
    void reuse(IRowProducer& src_producer, int dst_width, ScalerPrecision precision);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

class KV_CV_API ScalerAreaY : public IRowProducer {
public:
    ScalerAreaY();
    ~ScalerAreaY() override;
    ScalerAreaY(const ScalerAreaY&) = delete;
    ScalerAreaY& operator=(const ScalerAreaY&) = delete;

    void reuse(const Frame& src_frame, int dst_height, ScalerPrecision precision);
    void reuse(IRowProducer& src_producer, int dst_height, ScalerPrecision precision);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

// Two-axis reduction of a frame; enlargement is rejected. The precision is
// checked but the arithmetic is always 16.16, with one division per output
// sample. For 4:2:0 formats the window holds three times the rows of an output
// row and starts at the first row that either the luma or the chroma of the
// current output row needs.
class KV_CV_API scaleAreaXY : public IRowProducer {
public:
    scaleAreaXY();
    ~scaleAreaXY() override;
    scaleAreaXY(const scaleAreaXY&) = delete;
    scaleAreaXY& operator=(const scaleAreaXY&) = delete;

    void reuse(const Frame& src_frame, Size dst_size, ScalerPrecision precision);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

}  // namespace kv
