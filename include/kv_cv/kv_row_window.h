// RowWindow: random access to `window_size` consecutive source rows while the
// source itself is read strictly forward. Over a frame the window points into
// the frame; over a producer it owns a ring of row buffers per plane.
#pragma once

#include <cstdint>

#include "kv_core/kv_buffer.h"
#include "kv_cv/kv_row_reader.h"

namespace kv {

// The window never reads outside rows 0..height-1 and replicates no edges:
// consumers clamp their own row indices into the window. Pointers from
// rowData() stay valid until the next next(), reuse() or clear().
class KV_CV_API RowWindow {
public:
    RowWindow() = default;
    ~RowWindow();
    RowWindow(const RowWindow&) = delete;
    RowWindow& operator=(const RowWindow&) = delete;

    void reuse(const Frame& frame, int window_size);
    void reuse(IRowProducer& producer, int window_size);
    void clear();
    bool initialized() const { return _rows != nullptr; }
    const FrameLayout& layout() const { return _layout; }
    int startRow() const { return _start_row; }
    int windowSize() const { return _window_size; }
    // Slides the window down one row; false when it already ends at the last row.
    bool next();
    // Frame row startRow() + row_index_in_window; fills the window lazily.
    const RowData& rowData(int row_index_in_window);
    // Rows taken from producers so far; kept across reuse() and clear().
    int pulled() const { return _pulled; }

private:
    void _update();

    IRowProducer* _producer = nullptr;
    int32_t _pulled = 0;
    // The attached producer's current row: rows it has moved past since it
    // was attached. Rows the window jumps over are skipped from here.
    int32_t _source_row = 0;
    RowReader _reader;
    FrameLayout _layout;
    int32_t _window_size = 0;
    RowData* _rows = nullptr;
    RowData* _spare = nullptr;
    int32_t _start_row = 0;
    int32_t _end_row = 0;
    Buffer _table_buffer;
    Buffer _plane_buffers[4];
    uint64_t _row_pitch[4] = {0, 0, 0, 0};
    int32_t _ring_pos[4] = {0, 0, 0, 0};
    int32_t _mask[4] = {0, 0, 0, 0};
};

}  // namespace kv
