// The producer contract's free functions and RowIndex.
#include "kv_cv/kv_row_producer.h"

#include <cstring>

#include "kv_cv/kv_row_writer.h"

namespace kv {

IRowProducer::~IRowProducer() = default;

void RowIndex::reuse(const FrameLayout& layout) {
    for (int p = 0; p < 4; ++p) _row[p] = _mask[p] = 0;
    _height = layout.size.height;
    for (uint32_t p = 1; p < layout.planes; ++p) _mask[p] = subsamplingMask(_height, layout.plane[p].size.height);
    _planes = int32_t(layout.planes);
}

bool RowIndex::next() {
    if (_row[0] >= _height) return false;
    for (int p = 1; p < _planes; ++p)
        if ((_row[0] & _mask[p]) == _mask[p]) ++_row[p];
    ++_row[0];
    return _row[0] < _height;
}

void produceFrame(IRowProducer& producer, Frame& frame) {
    const FrameLayout& l = producer.layout();
    if (!frame.initialized() || frame.size() != l.size || frame.format() != l.format)
        frame.reuse(l.format, l.size, DeviceContext::cpuContext(), 0);
    RowWriter writer;
    writer.reuse(frame);
    do {
        producer.produce(writer.data());
        producer.next();
    } while (writer.next());
}

void copyRowData(const FrameLayout& layout, const RowData& src, RowData& dst) {
    for (uint32_t p = 0; p < layout.planes; ++p)
        if (dst.plane[p]) std::memcpy(dst.plane[p], src.plane[p], layout.plane[p].row_bytes);
}

}  // namespace kv
