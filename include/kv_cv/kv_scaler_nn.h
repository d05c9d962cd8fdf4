// ScalerNearestNeighbor: resizes by picking, for every output pixel, the source
// pixel under its centre (source = floor((i + 0.5) * src / dst) in 16.16).
#pragma once

#include <memory>

#include "kv_cv/kv_row_producer.h"

namespace kv {

// Formats: 1, 4, 11, 12, 14, 16 to 20 as single planes of 1-, 2-, 3- or
// 4-byte units, and the planar formats 5 to 10, 13 and 15. YUYV moves as
// 3-byte units and UYVY as 4-byte units; where those units would pass the end
// of a row the last ones are clipped (no byte outside a row is read or
// written), and a one-pixel YUYV row of four bytes continues its single unit
// into the fourth byte. Subsampled planes take the first entries of the
// shared column table, clamped to their own width. Another format fails at
// the first produce() that has to remap columns; a height-only change copies
// rows whatever the format. Source dimensions must stay below 32768.
class KV_CV_API ScalerNearestNeighbor : public IRowProducer {
public:
    ScalerNearestNeighbor();
    ~ScalerNearestNeighbor() override;
    ScalerNearestNeighbor(const ScalerNearestNeighbor&) = delete;
    ScalerNearestNeighbor& operator=(const ScalerNearestNeighbor&) = delete;

    void reuse(const Frame& src_frame, Size dst_size);
    // The caller has reused `src_producer` and keeps it alive and unmoved.
    void reuse(IRowProducer& src_producer, Size dst_size);
    // True once a source is attached.
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

}  // namespace kv
