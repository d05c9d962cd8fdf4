// RowWindow: a sliding window of source rows, over a frame (pointers into it)
// or over a producer (a ring of row buffers per plane, each row produced once).
#include "kv_cv/kv_row_window.h"

#include <cstring>
#include <new>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_row_window"

namespace kv {

namespace {
constexpr uint64_t round64(uint64_t v) { return (v + 63) / 64 * 64; }
constexpr const char* kReuse = "kv::RowWindow::reuse";
}  // namespace

RowWindow::~RowWindow() = default;

void RowWindow::clear() {
    _producer = nullptr;
    _rows = _spare = nullptr;
    _window_size = 0;
    _layout.clear();
    _start_row = _end_row = 0;
    _reader.clear();
    _table_buffer.clear();
    for (auto& b : _plane_buffers) b.clear();
}

void RowWindow::reuse(IRowProducer& producer, int window_size) {
    const FrameLayout& l = producer.layout();
    if (!l.initialized()) KV_THROW_LINE(KV_STATUS_EMPTY_INPUT, kReuse, 50, "Row producer is not initialized.");
    if (l.format == _layout.format && l.size == _layout.size && _producer && window_size == _window_size) {
        _producer = &producer;
        _source_row = 0;
        _start_row = _end_row = 0;
        return;
    }
    if (window_size < 1 || window_size > l.size.height)
        KV_THROW_LINE(KV_STATUS_OUT_OF_RANGE, kReuse, 59, "Parameter 'window_size' is out of range.");
    const uint64_t half = round64(uint64_t(window_size) * sizeof(RowData));
    try {
        _table_buffer.resize(size_t(2 * half));
    } catch (const Exception& e) {
        clear();
        throw Exception(&e, e.status(), kReuse, KV_SOURCE_FILE, 71, "Data buffer allocation failure: %s",
                        e.message().c_str());
    }
    _rows = reinterpret_cast<RowData*>(_table_buffer.data());
    _spare = reinterpret_cast<RowData*>(_table_buffer.data() + half);
    try {
        for (uint32_t p = 0; p < 4; ++p) {
            _ring_pos[p] = 0;
            _mask[p] = 0;
            _row_pitch[p] = 0;
            if (p >= l.planes) continue;
            _mask[p] = subsamplingMask(l.size.height, l.plane[p].size.height);
            _row_pitch[p] = round64(l.plane[p].step);
            _plane_buffers[p].resize(size_t(uint64_t(window_size) * _row_pitch[p]));
            _plane_buffers[p].setZero();
        }
    } catch (const Exception& e) {
        clear();
        throw Exception(&e, e.status(), kReuse, KV_SOURCE_FILE, 94, "Data buffer allocation failure: %s",
                        e.message().c_str());
    }
    _layout = l;
    _window_size = window_size;
    _reader.clear();
    _producer = &producer;
    _source_row = 0;
    _start_row = _end_row = 0;
}

void RowWindow::reuse(const Frame& frame, int window_size) {
    const FrameLayout& l = frame.layout();
    if (!l.initialized()) KV_THROW_LINE(KV_STATUS_EMPTY_INPUT, kReuse, 114, "Frame is not initialized.");
    const bool same = l.format == _layout.format && l.size == _layout.size && window_size == _window_size &&
                      _rows != nullptr;
    if (!same) {
        if (window_size < 1 || window_size > l.size.height)
            KV_THROW_LINE(KV_STATUS_OUT_OF_RANGE, kReuse, 123, "Parameter 'window_size' is out of range.");
        const uint64_t half = round64(uint64_t(window_size) * sizeof(RowData));
        try {
            _table_buffer.resize(size_t(2 * half));
            _table_buffer.setZero();
        } catch (const Exception& e) {
            clear();
            throw Exception(&e, e.status(), kReuse, KV_SOURCE_FILE, 137, "Buffer allocation failure: %s",
                            e.message().c_str());
        }
        _rows = reinterpret_cast<RowData*>(_table_buffer.data());
        _spare = reinterpret_cast<RowData*>(_table_buffer.data() + half);
        _layout = l;
        _window_size = window_size;
    }
    // A region of another frame may share format and size but not pitches.
    _layout = l;
    try {
        _producer = nullptr;
        _start_row = _end_row = 0;
        _reader.reuse(frame);
    } catch (const Exception& e) {
        clear();
        throw Exception(&e, e.status(), kReuse, KV_SOURCE_FILE, 160, "%s", e.message().c_str());
    }
}

bool RowWindow::next() {
    if (_window_size + _start_row >= _layout.size.height) return false;
    ++_start_row;
    return true;
}

const RowData& RowWindow::rowData(int row_index_in_window) {
    KV_ASSERT_TEXT_LINE(0 <= row_index_in_window && row_index_in_window < _window_size,
                        "0 <= row_index_in_window && row_index_in_window < _window_size", "kv::RowWindow::rowData",
                        184);
    if (_end_row <= _start_row + _window_size) _update();
    return _rows[row_index_in_window];
}

void RowWindow::_update() {
    KV_ASSERT_TEXT_LINE(_rows != nullptr, "initialized()", "kv::RowWindow::_update", 193);
    int kept = 0;
    if (_start_row < _end_row) {
        kept = _end_row - _start_row;
        const int dropped = _window_size - kept;
        if (dropped > 0) {
            std::memcpy(_spare, _rows, sizeof(RowData) * size_t(dropped));
            std::memmove(_rows, _rows + dropped, sizeof(RowData) * size_t(kept));
            std::memcpy(_rows + kept, _spare, sizeof(RowData) * size_t(dropped));
        }
    }
    if (kept == _window_size) return;
    if (!_producer) {
        while (_reader.row() < _start_row) _reader.next();
        for (int k = kept; k < _window_size; ++k) {
            _rows[k] = _reader.data();
            _reader.next();
        }
    } else {
        while (_source_row < _start_row) {
            // Rows jumped over are skipped without produce, except that a
            // subsampled plane row beginning on the row just above the window
            // is still needed by the window's first row: produce that plane
            // alone (every other slot null) into the slot the first row reads.
            if (_source_row == _start_row - 1) {
                RowData dst;
                bool shared = false;
                for (uint32_t p = 0; p < _layout.planes; ++p)
                    if (_mask[p] != 0 && (_source_row & _mask[p]) == 0) {
                        dst.plane[p] = _plane_buffers[p].data() + uint64_t(_ring_pos[p]) * _row_pitch[p];
                        shared = true;
                    }
                if (shared) _producer->produce(dst);
            }
            _producer->next();
            ++_source_row;
            ++_pulled;
        }
        for (int k = kept; k < _window_size; ++k) {
            const int r = _start_row + k;
            RowData dst;
            for (uint32_t p = 0; p < _layout.planes; ++p) {
                uint8_t* ptr = _plane_buffers[p].data() + uint64_t(_ring_pos[p]) * _row_pitch[p];
                _rows[k].plane[p] = ptr;
                dst.plane[p] = (r & _mask[p]) == 0 ? ptr : nullptr;
                if ((r & _mask[p]) == _mask[p] && ++_ring_pos[p] == _window_size) _ring_pos[p] = 0;
            }
            _producer->produce(dst);
            _producer->next();
            ++_source_row;
            ++_pulled;
        }
    }
    _end_row = _start_row + _window_size;
}

}  // namespace kv
