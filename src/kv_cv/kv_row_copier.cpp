// RowCopier: the pass-through producer.
#include "kv_cv/kv_row_copier.h"

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_row_copier"

namespace kv {

RowCopier::~RowCopier() = default;

void RowCopier::reuse(const Frame& src_frame) {
    KV_ASSERT_LINE(src_frame.initialized(), "kv::RowCopier::reuse", 39);
    _layout = src_frame.layout();
    _reader.reuse(src_frame);
    _producer = nullptr;
}

void RowCopier::reuse(IRowProducer& src_producer) {
    KV_ASSERT_LINE(!src_producer.layout().size.empty(), "kv::RowCopier::reuse", 49);
    _layout = src_producer.layout();
    _producer = &src_producer;
    _reader.clear();
}

void RowCopier::clear() {
    _layout.clear();
    _reader.clear();
    _producer = nullptr;
}

void RowCopier::produce(RowData& dst) {
    if (_producer)
        _producer->produce(dst);
    else
        copyRowData(_layout, _reader.data(), dst);
}

bool RowCopier::next() { return _producer ? _producer->next() : _reader.next(); }

}  // namespace kv
