// RowReader: a read cursor over the rows of an existing frame.
#pragma once

#include <cstdint>

#include "kv_cv/kv_row_producer.h"

namespace kv {

// Every slot below the plane count is a valid row pointer; a half-height
// plane's slot stays on the same plane row for frame rows 2k and 2k+1.
class KV_CV_API RowReader {
public:
    RowReader() = default;
    void reuse(const Frame& frame);
    void clear();
    bool initialized() const { return _height != 0; }
    int32_t row() const { return _row; }
    const RowData& data() const { return _data; }
    bool next();

private:
    RowData _data;
    uint64_t _step[4] = {0, 0, 0, 0};
    int32_t _mask[4] = {0, 0, 0, 0};
    int32_t _row = 0;
    int32_t _height = 0;
};

}  // namespace kv
