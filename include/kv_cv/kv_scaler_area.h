// Area scalers: box averaging with partial pixels weighted by their overlap,
// in fixed point set by ScalerPrecision. ScalerAreaX works along rows,
// ScalerAreaY along columns; scaleAreaXY reduces both axes of a frame in 16.16.
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

// Two-axis reduction of a frame; enlargement is rejected.
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
