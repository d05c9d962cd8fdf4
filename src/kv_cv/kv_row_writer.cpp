// RowWriter: hands out each destination row, with null slots on frame rows
// that share a subsampled plane's row.
#include "kv_cv/kv_row_writer.h"

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_row_writer"

namespace kv {

void RowWriter::clear() {
    for (int p = 0; p < 4; ++p) {
        _step[p] = 0;
        _mask[p] = 0;
    }
    _row = _height = 0;
}

void RowWriter::reuse(Frame& frame) {
    _data.plane[0] = nullptr;
    clear();
    if (!frame.initialized())
        KV_THROW_LINE(KV_STATUS_EMPTY_INPUT, "kv::RowWriter::reuse", 44,
                      "Failure in RowWriter::RowWriter(...) : frame is not initialized.");
    const FrameLayout& l = frame.layout();
    _height = l.size.height;
    for (uint32_t p = 0; p < 4; ++p) {
        if (p < l.planes) {
            _mask[p] = subsamplingMask(_height, l.plane[p].size.height);
            _data.plane[p] = _current[p] = frame.planeCpuData(p);
            _step[p] = l.plane[p].step;
        } else {
            _data.plane[p] = _current[p] = nullptr;
        }
    }
}

bool RowWriter::next() {
    if (_row >= _height) {
        for (auto& slot : _data.plane) slot = nullptr;
        return false;
    }
    for (int p = 0; p < 4; ++p) {
        if ((_mask[p] & _row) == _mask[p] && _current[p]) {
            _current[p] += _step[p];
            _data.plane[p] = _current[p];
        } else {
            _data.plane[p] = nullptr;
        }
    }
    ++_row;
    return _row < _height;
}

}  // namespace kv
