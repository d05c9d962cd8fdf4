// RowReader: walks the rows of a frame, four masked pointer additions a row.
#include "kv_cv/kv_row_reader.h"

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_row_reader"

namespace kv {

void RowReader::clear() {
    for (int p = 0; p < 4; ++p) {
        _step[p] = 0;
        _mask[p] = 0;
    }
    _row = _height = 0;
}

void RowReader::reuse(const Frame& frame) {
    clear();
    // The reader reports the writer's text on purpose: callers match one message.
    if (!frame.initialized())
        KV_THROW_LINE(KV_STATUS_EMPTY_INPUT, "kv::RowReader::reuse", 44,
                      "Failure in RowWriter::RowWriter(...) : frame is not initialized.");
    const FrameLayout& l = frame.layout();
    _height = l.size.height;
    for (uint32_t p = 0; p < l.planes; ++p) {
        _mask[p] = subsamplingMask(_height, l.plane[p].size.height);
        _data.plane[p] = const_cast<uint8_t*>(frame.planeCpuData(p));
        _step[p] = l.plane[p].step;
    }
    for (uint32_t p = l.planes; p < 4; ++p) _data.plane[p] = nullptr;
}

bool RowReader::next() {
    if (_row >= _height) return false;
    for (int p = 0; p < 4; ++p)
        if ((_mask[p] & _row) == _mask[p] && _data.plane[p]) _data.plane[p] += _step[p];
    ++_row;
    return _row < _height;
}

}  // namespace kv
