// FormatConverter: the converting row producer. Same-format requests pass
// through a RowCopier; otherwise a RowWindow of one or two source rows feeds
// the kernel that ImplFormatConverter selected.
#include "kv_cv/kv_format_converter.h"

#include <algorithm>

#include "kv_core/kv_exception.h"
#include "kv_impl_format_converter.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_format_converter"

namespace kv {

namespace {
constexpr const char* kReuse = "kv::FormatConverter::reuse";
}

FormatConverter::FormatConverter() : _impl(new Impl::ImplFormatConverter()) {}

FormatConverter::~FormatConverter() { delete _impl; }

bool FormatConverter::initialized() const { return _copier.initialized() || _ready; }

const FrameLayout& FormatConverter::layout() { return _copier.initialized() ? _copier.layout() : _layout; }

void FormatConverter::reuse(const Frame& frame, FrameFormat dst_format) {
    if (!frame.initialized())
        KV_THROW_LINE(KV_STATUS_INVALID_VALUE, kReuse, 81, "Parameter 'frame' is not initialized.");
    if (dst_format == FRAME_UNDEFINED)
        KV_THROW_LINE(KV_STATUS_FORMAT_ERROR, kReuse, 88, "Invalid value for parameter 'dst_format'.");
    if (frame.format() == dst_format) {
        _copier.reuse(frame);
        return;
    }
    _reuseConverting(frame.format(), dst_format, &frame, nullptr);
}

void FormatConverter::reuse(IRowProducer& producer, FrameFormat dst_format) {
    const FrameLayout& src = producer.layout();
    if (!src.initialized())
        KV_THROW_LINE(KV_STATUS_INVALID_VALUE, kReuse, 119, "Parameter 'producer' is not initialized.");
    if (dst_format == FRAME_UNDEFINED)
        KV_THROW_LINE(KV_STATUS_FORMAT_ERROR, kReuse, 126, "Invalid value for parameter 'dst_format'.");
    if (src.format == dst_format) {
        _copier.reuse(producer);
        return;
    }
    _reuseConverting(src.format, dst_format, nullptr, &producer);
}

void FormatConverter::_reuseConverting(FrameFormat src_format, FrameFormat dst_format, const Frame* frame,
                                       IRowProducer* producer) {
    _copier.clear();
    try {
        const FrameLayout& src = frame ? frame->layout() : producer->layout();
        int window_size = 0;
        _impl->reuse(src_format, dst_format, src.size.width, &window_size);
        // A frame lower than the window (one row into 4:2:0) uses what it has.
        window_size = std::min(window_size, src.size.height);
        if (frame) {
            _window.reuse(*frame, window_size);
            // The window's copy outlives a temporary frame handle.
            _source_layout = &_window.layout();
        } else {
            _window.reuse(*producer, window_size);
            _source_layout = &producer->layout();
        }
        _layout = FrameLayout(dst_format, src.size, 64);
        _row = 0;
        _ready = _impl->ready();
    } catch (...) {
        _source_layout = nullptr;
        _ready = false;
        throw;
    }
}

void FormatConverter::produce(RowData& dst) {
    if (_copier.initialized()) {
        _copier.produce(dst);
        return;
    }
    if (!_source_layout)
        KV_THROW_LINE(KV_STATUS_NOT_INITIALIZED, "kv::FormatConverter::produce", 166,
                      "FormatConverter is not initialized. Call FormatConverter::reuse(...) first.");
    const int height = _source_layout->size.height;
    if (_row >= height) return;  // past the last row: nothing to deliver
    const int ws = _window.windowSize();
    _window_rows[0] = _window_rows[1] = nullptr;
    if (_row + ws > height) {
        // The window rests on the last rows; hand over only those that exist.
        const int count = height - _row;
        for (int k = 0; k < count; ++k) _window_rows[k] = &_window.rowData(ws + _row - height + k);
    } else {
        for (int k = 0; k < ws; ++k) _window_rows[k] = &_window.rowData(k);
    }
    _impl->convertRow(_window_rows, dst, _row);
}

bool FormatConverter::next() {
    if (_copier.initialized()) return _copier.next();
    if (!_source_layout) return false;
    const int height = _source_layout->size.height;
    if (_row >= height) return false;
    ++_row;
    // Slide only while the window can move; the last rows are read from its end.
    if (_window.windowSize() + _window.startRow() < height) _window.next();
    return true;
}

}  // namespace kv
