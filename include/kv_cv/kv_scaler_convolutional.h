// ScalerConvolutional: a row producer that reduces an image with a
// caller-supplied interpolation kernel, separably (a horizontal pass feeding a
// vertical one) in 8-bit or 16-bit fixed-point weights.
//
// Each axis may keep or reduce its length (source at most 8192), by at most 32
// times with 8-bit and 8192 times with 16-bit weights. The scaler keeps its
// weight tables while the kernel object, the format and the sizes repeat; the
// kernel is compared by address, so a kernel changed in place must be passed
// as another object (or the sizes changed) for the tables to be rebuilt.
#pragma once

#include <memory>

#include "kv_cv/kv_kernel.h"
#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler_types.h"

namespace kv {

class KV_CV_API ScalerConvolutional : public IRowProducer {
public:
    ScalerConvolutional();
    ~ScalerConvolutional() override;
    ScalerConvolutional(const ScalerConvolutional&) = delete;
    ScalerConvolutional& operator=(const ScalerConvolutional&) = delete;

    // The caller keeps the kernel and the source alive while the scaler is used.
    void reuse(IKernel& kernel, const Frame& src, Size dst_size, ScalerPrecision precision);
    void reuse(IKernel& kernel, IRowProducer& src, Size dst_size, ScalerPrecision precision);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& row) override;
    bool next() override;

    class Impl;

private:
    std::unique_ptr<Impl> _impl;
};

}  // namespace kv
