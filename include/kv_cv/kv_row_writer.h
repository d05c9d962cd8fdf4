// RowWriter: a write cursor over the rows of a destination frame.
#pragma once

#include <cstdint>

#include "kv_cv/kv_row_producer.h"

namespace kv {

// data() is the record a producer fills for the current row: a subsampled
// plane's slot is non-null only on the first frame row of each plane row, so
// every plane row is written exactly once.
class KV_CV_API RowWriter {
public:
    RowWriter() = default;
    void reuse(Frame& frame);
    void clear();
    bool initialized() const { return _height != 0; }
    int32_t row() const { return _row; }
    RowData& data() { return _data; }
    bool next();

private:
    RowData _data;
    uint8_t* _current[4] = {nullptr, nullptr, nullptr, nullptr};
    uint64_t _step[4] = {0, 0, 0, 0};
    int32_t _mask[4] = {0, 0, 0, 0};
    int32_t _row = 0;
    int32_t _height = 0;
};

}  // namespace kv
