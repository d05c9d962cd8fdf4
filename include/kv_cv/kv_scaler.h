// Scaler: the one-stop resizing row producer. It owns one scaler of each kind
// and a row copier, and forwards to the one that the method and the changed
// dimensions select; all of them keep their tables between reuses.
#pragma once

#include <memory>

#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler_types.h"

namespace kv {

// Selection: equal sizes copy rows (whatever the method); KV_SCALE_NEAREST
// picks ScalerNearestNeighbor; KV_SCALE_BILINEAR ScalerBilinearXY, -X or -Y
// by the dimensions that change; KV_SCALE_AREA ScalerAreaX, ScalerAreaY or
// ScalerAreaX followed by ScalerAreaY, at KV_SCALER_FIXED_POINT_16S.
class KV_CV_API Scaler : public IRowProducer {
public:
    Scaler();
    ~Scaler() override;
    Scaler(const Scaler&) = delete;
    Scaler& operator=(const Scaler&) = delete;

    void reuse(const Frame& src_frame, Size dst_size, ScaleMethod method);
    void reuse(IRowProducer& src_producer, Size dst_size, ScaleMethod method);
    // True exactly while no scaler is selected: a configured Scaler reports
    // false. Callers rely on this inverted sense.
    bool initialized() const;

    // Forwarded to the selected scaler; undefined before the first reuse.
    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

}  // namespace kv
