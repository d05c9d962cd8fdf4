// RowCopier: the pass-through producer, over a frame or another producer.
#pragma once

#include "kv_cv/kv_row_reader.h"

namespace kv {

class KV_CV_API RowCopier : public IRowProducer {
public:
    RowCopier() = default;
    ~RowCopier() override;
    // Delivers the frame's rows unchanged (row bytes only, never the padding).
    void reuse(const Frame& src_frame);
    // Passes on the rows of `src_producer`, which the caller has reused and keeps alive.
    void reuse(IRowProducer& src_producer);
    void clear();
    bool initialized() const { return _producer != nullptr || _reader.initialized(); }

    const FrameLayout& layout() override { return _layout; }
    void produce(RowData& dst) override;
    bool next() override;

private:
    FrameLayout _layout;
    RowReader _reader;
    IRowProducer* _producer = nullptr;
};

}  // namespace kv
