// Area scalers: ScalerAreaX (rows), ScalerAreaY (columns), scaleAreaXY (both
// axes of a frame, 16.16), and their row kernels. The separable scalers share
// one weight table per axis; their 8-bit kernels have AVX2 versions picked once
// per reuse() and checked bit for bit against the scalar references.
#include "kv_cv/kv_scaler_area.h"

#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_row_window.h"
#include "kv_impl_cpu.h"
#include "kv_impl_scale_area.h"
#include "kv_impl_unaligned.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler_area"

namespace kv {

namespace {

using impl::AreaRowX;
using impl::AreaRowsY;
using impl::AreaTableEntry;
using impl::AreaTaps;

// How the area scalers see a format: planes, channels per processed unit of
// each plane (packed 4:2:2 moves 3- or 4-byte units) and bytes per sample.
struct AreaFormat {
    int planes;
    int channels[3];
    int sample_bytes;
};

bool areaFormat(FrameFormat f, AreaFormat& a) {
    switch (f) {
        case FRAME_GRAY_8: a = {1, {1, 0, 0}, 1}; return true;
        case FRAME_BGR_8:
        case FRAME_YUYV:
        case FRAME_YUV444:
        case FRAME_C3_8: a = {1, {3, 0, 0}, 1}; return true;
        case FRAME_UYVY:
        case FRAME_C4_8: a = {1, {4, 0, 0}, 1}; return true;
        case FRAME_C2_8: a = {1, {2, 0, 0}, 1}; return true;
        case FRAME_GRAY_16: a = {1, {1, 0, 0}, 2}; return true;
        case FRAME_GRAY_FLOAT_32: a = {1, {1, 0, 0}, 4}; return true;
        case FRAME_BGR_8_PLANAR:
        case FRAME_YV16:
        case FRAME_YUV444_PLANAR:
        case FRAME_I420:
        case FRAME_YV12: a = {3, {1, 1, 1}, 1}; return true;
        case FRAME_NV12:
        case FRAME_NV21:
        case FRAME_NV16: a = {2, {1, 2, 0}, 1}; return true;
        default: return false;
    }
}

constexpr const char* kPrecisionText = "precision == KV_SCALER_FIXED_POINT_8S || precision == KV_SCALER_FIXED_POINT_16S";

inline bool validPrecision(ScalerPrecision precision) {
    return precision == KV_SCALER_FIXED_POINT_8S || precision == KV_SCALER_FIXED_POINT_16S;
}

int rowElements(const FramePlane& p, int sample_bytes) { return int(p.row_bytes / uint64_t(sample_bytes)); }

// Writes 0 to the output elements past the processed units (only a packed
// 4:2:2 row of one pixel has them: 3-byte units cover 3 of its 4 bytes).
void zeroTail(uint8_t* row, int done, int total, int sample_bytes) {
    if (done < total) std::memset(row + size_t(done) * size_t(sample_bytes), 0, size_t(total - done) * size_t(sample_bytes));
}

// The separable scalers' table holds source indices in 16 bits and the ratio
// step = (dst << shift) / src in a signed 32-bit integer: sizes beyond either
// are refused before anything changes. `what` names the side ("width" or
// "height") and `cls` the class in the message.
void checkAreaSides(int src, int dst, ScalerPrecision precision, const char* cls, const char* what, const char* fn) {
    const int shift = int(precision) - 1;
    if (src > 65535)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, fn,
                 "Failure in %s::reuse(...) : a source %s of %d is out of range (the area scalers take at most 65535).",
                 cls, what, src);
    if ((int64_t(dst) << shift) / src > INT32_MAX)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, fn,
                 "Failure in %s::reuse(...) : enlarging a %s of %d to %d is out of range (at most %d times at this "
                 "precision).",
                 cls, what, src, dst, int(INT32_MAX >> shift));
}

// Advances the window one row at a time until it starts at `target` or cannot move.
void advanceWindow(RowWindow& window, int target) {
    while (window.startRow() < target && window.next()) {
    }
}

}  // namespace

// ---- ScalerAreaX --------------------------------------------------------------

class ScalerAreaX::Impl {
public:
    void reuse(const Frame& src_frame, int dst_width, ScalerPrecision precision);
    void reuse(IRowProducer& src_producer, int dst_width, ScalerPrecision precision);
    void produce(RowData& dst);
    bool next();

    FrameLayout src_layout;
    FrameLayout out_layout;
    RowWindow window;
    std::vector<AreaTableEntry> table;
    int32_t shift = 16;
    uint16_t weight_max = 0;

private:
    void _reuse(const FrameLayout& src, int dst_width, ScalerPrecision precision);

    Size _cached_sizes{0, 0};  // (source width, output width) of the table
    FrameLayout _taps_layout;  // source layout the per-plane taps were built for
    int _planes = 0;
    int _sample_bytes = 1;
    AreaRowX _rows[3] = {};
    AreaTaps _taps[3];
    // Planes of one geometry (the three of planar RGB, the chroma planes of
    // 4:2:0) read one plane's taps, so a row's tables stay in the first-level cache.
    int _taps_of[3] = {0, 1, 2};
    int _row_elements[3] = {0, 0, 0};
    void (*_kernel8)(const uint8_t*, uint8_t*, const AreaRowX&, const AreaTaps&, int) = impl::ref::areaRowX8;
    void (*_kernel16)(const uint16_t*, uint16_t*, const AreaRowX&, const AreaTaps&, int) = impl::ref::areaRowX16;
    void (*_kernel32)(const uint32_t*, uint32_t*, const AreaRowX&, const AreaTaps&, int) = impl::ref::areaRowX32;
};

void ScalerAreaX::Impl::_reuse(const FrameLayout& src, int dst_width, ScalerPrecision precision) {
    shift = int32_t(precision) - 1;
    const int src_width = src.size.width;
    if (_cached_sizes != Size(src_width, dst_width) || table.empty()) {
        weight_max = impl::buildAreaTable(src_width, dst_width, shift, table);
        _cached_sizes = Size(src_width, dst_width);
        _taps_layout.clear();
    }
    src_layout = src;
    out_layout = FrameLayout(src.format, Size(dst_width, src.size.height), 64);
    AreaFormat f{};
    _planes = 0;
    if (areaFormat(src.format, f)) {
        _planes = f.planes;
        _sample_bytes = f.sample_bytes;
        const bool rebuild = _taps_layout.format != src.format || _taps_layout.size != src.size;
        for (int p = 0; p < f.planes; ++p) {
            AreaRowX& r = _rows[p];
            r.table = table.data();
            r.channels = f.channels[p];
            r.src_len = rowElements(src.plane[p], f.sample_bytes);
            _row_elements[p] = rowElements(out_layout.plane[p], f.sample_bytes);
            r.dst_len = std::min(out_layout.plane[p].size.width * r.channels, _row_elements[p]);
            r.weight_max = weight_max;
            r.shift = shift;
            r.reduce = dst_width < src_width;
            if (!rebuild) continue;
            int& q = _taps_of[p];
            for (q = 0; q < p; ++q)
                if (_rows[q].channels == r.channels && _rows[q].src_len == r.src_len && _rows[q].dst_len == r.dst_len)
                    break;
            if (q == p && dst_width != src_width) impl::buildAreaTaps(r, _taps[p], f.sample_bytes);
        }
        _taps_layout = src;
    }
    const bool avx2 = impl::activeIsa() >= impl::Isa::kAvx2;
    _kernel8 = impl::activeIsa() >= impl::Isa::kAvx512 ? impl::avx512::areaRowX8
               : avx2                                     ? impl::avx2::areaRowX8
                                                          : impl::ref::areaRowX8;
    _kernel16 = avx2 ? impl::avx2::areaRowX16 : impl::ref::areaRowX16;
    _kernel32 = avx2 ? impl::avx2::areaRowX32 : impl::ref::areaRowX32;
}

void ScalerAreaX::Impl::reuse(const Frame& src_frame, int dst_width, ScalerPrecision precision) {
    static constexpr const char* fn = "kv::ScalerAreaX::Impl::reuse";
    KV_ASSERT(src_frame.initialized(), fn);
    KV_ASSERT(0 < dst_width, fn);
    KV_ASSERT_TEXT_LINE(validPrecision(precision), kPrecisionText, fn, __LINE__);
    checkAreaSides(src_frame.size().width, dst_width, precision, "ScalerAreaX", "width", fn);
    _reuse(src_frame.layout(), dst_width, precision);
    window.reuse(src_frame, 1);
}

void ScalerAreaX::Impl::reuse(IRowProducer& src_producer, int dst_width, ScalerPrecision precision) {
    static constexpr const char* fn = "kv::ScalerAreaX::Impl::reuse";
    KV_ASSERT(!src_producer.layout().size.empty(), fn);
    KV_ASSERT(0 < dst_width, fn);
    KV_ASSERT_TEXT_LINE(validPrecision(precision), kPrecisionText, fn, __LINE__);
    checkAreaSides(src_producer.layout().size.width, dst_width, precision, "ScalerAreaX", "width", fn);
    _reuse(src_producer.layout(), dst_width, precision);
    window.reuse(src_producer, 1);
}

void ScalerAreaX::Impl::produce(RowData& dst) {
    const RowData& src = window.rowData(0);
    if (out_layout.plane[0].size.width == src_layout.plane[0].size.width) {
        copyRowData(out_layout, src, dst);
        return;
    }
    if (_planes == 0)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaX::Impl::produce",
                 "Failure in ScalerAreaX::produce(...) : unsupported frame format.");
    for (int p = 0; p < _planes; ++p) {
        if (!dst.plane[p]) continue;
        const AreaRowX& r = _rows[p];
        const AreaTaps& taps = _taps[_taps_of[p]];
        switch (_sample_bytes) {
            case 1: _kernel8(src.plane[p], dst.plane[p], r, taps, 0); break;
            case 2:
                _kernel16(reinterpret_cast<const uint16_t*>(src.plane[p]), reinterpret_cast<uint16_t*>(dst.plane[p]), r,
                          taps, 0);
                break;
            default:
                _kernel32(reinterpret_cast<const uint32_t*>(src.plane[p]), reinterpret_cast<uint32_t*>(dst.plane[p]), r,
                          taps, 0);
                break;
        }
        zeroTail(dst.plane[p], r.dst_len, _row_elements[p], _sample_bytes);
    }
}

bool ScalerAreaX::Impl::next() {
    if (window.startRow() + window.windowSize() < src_layout.size.height) return window.next();
    return false;
}

ScalerAreaX::ScalerAreaX() : _impl(new Impl) {}
ScalerAreaX::~ScalerAreaX() = default;
void ScalerAreaX::reuse(const Frame& src_frame, int dst_width, ScalerPrecision precision) {
    _impl->reuse(src_frame, dst_width, precision);
}
void ScalerAreaX::reuse(IRowProducer& src_producer, int dst_width, ScalerPrecision precision) {
    _impl->reuse(src_producer, dst_width, precision);
}
bool ScalerAreaX::initialized() const { return _impl->window.initialized(); }
const FrameLayout& ScalerAreaX::layout() { return _impl->out_layout; }
void ScalerAreaX::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerAreaX::next() { return _impl->next(); }

// ---- ScalerAreaY --------------------------------------------------------------

class ScalerAreaY::Impl {
public:
    template <typename Source>
    void reuse(Source& src, const FrameLayout& src_layout_in, int dst_height, ScalerPrecision precision);
    void produce(RowData& dst);
    bool next();

    FrameLayout src_layout;
    FrameLayout out_layout;
    RowWindow window;
    int32_t current = 0;
    std::vector<const uint8_t*> row_pointers;
    std::vector<AreaTableEntry> table;
    int32_t shift = 16;
    uint16_t weight_max = 0;
    Buffer accumulator;
    bool subsampled = false;

private:
    Size _cached_sizes{0, 0};  // (source height, output height) of the table
    std::vector<uint32_t> _weights;
    int _rows_needed = 0;
    void (*_kernel8)(const AreaRowsY&, uint8_t*, uint32_t*, int) = impl::ref::areaRowsY8;
    void (*_kernel16)(const AreaRowsY&, uint16_t*, uint64_t*, int) = impl::ref::areaRowsY16;
    void (*_kernel32)(const AreaRowsY&, uint32_t*, uint64_t*, int) = impl::ref::areaRowsY32;
};

template <typename Source>
void ScalerAreaY::Impl::reuse(Source& src, const FrameLayout& layout_in, int dst_height, ScalerPrecision precision) {
    shift = int32_t(precision) - 1;
    const int src_height = layout_in.size.height;
    if (_cached_sizes != Size(src_height, dst_height) || table.empty()) {
        weight_max = impl::buildAreaTable(src_height, dst_height, shift, table);
        _cached_sizes = Size(src_height, dst_height);
    }
    src_layout = layout_in;
    out_layout = FrameLayout(layout_in.format, Size(layout_in.size.width, dst_height), 64);
    subsampled = out_layout.planes >= 2 && out_layout.plane[1].size.height != out_layout.plane[0].size.height;
    _rows_needed = impl::areaRowsNeeded(src_height, dst_height, table, weight_max);
    row_pointers.resize(size_t(_rows_needed));
    _weights.resize(size_t(_rows_needed));
    // One row of plane 0 (the widest) in 32-bit or 64-bit elements.
    AreaFormat f{};
    const int sample_bytes = areaFormat(layout_in.format, f) ? f.sample_bytes : 1;
    const size_t elements = std::max<size_t>(size_t(out_layout.plane[0].size.width) * std::max<uint16_t>(out_layout.plane[0].channels, 1),
                                             size_t(out_layout.plane[0].row_bytes));
    const size_t bytes = elements * (sample_bytes == 1 ? 4 : 8);
    if (accumulator.size() < bytes) accumulator.resize(bytes);
    const int window_size = std::min(_rows_needed * (subsampled ? 2 : 1), src_height);
    window.reuse(src, window_size);
    current = 0;
    const bool avx2 = impl::activeIsa() >= impl::Isa::kAvx2;
    _kernel8 = impl::activeIsa() >= impl::Isa::kAvx512 ? impl::avx512::areaRowsY8
               : avx2                                     ? impl::avx2::areaRowsY8
                                                          : impl::ref::areaRowsY8;
    _kernel16 = avx2 ? impl::avx2::areaRowsY16 : impl::ref::areaRowsY16;
    _kernel32 = avx2 ? impl::avx2::areaRowsY32 : impl::ref::areaRowsY32;
}

void ScalerAreaY::Impl::produce(RowData& dst) {
    AreaFormat f{};
    if (!areaFormat(out_layout.format, f))
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaY::Impl::produce",
                 "Failure in ScalerAreaY::produce(...) : unsupported frame format.");
    const int start = window.startRow();
    const int wsize = window.windowSize();
    const uint32_t wm = weight_max;
    const bool reduce = out_layout.size.height < src_layout.size.height;
    for (int p = 0; p < f.planes; ++p) {
        if (!dst.plane[p]) continue;
        const int stride = subsampled && p > 0 ? 2 : 1;
        const int trow = stride == 2 ? current / 2 : current;
        const AreaTableEntry e0 = table[size_t(trow)];
        const AreaTableEntry e1 = table[size_t(trow) + 1];
        int count = 0;
        for (int k = 0; k < _rows_needed; ++k) {
            const int r = e0.first + k;
            uint32_t w;
            if (k == 0) w = e0.weight;
            else if (!reduce) w = k == 1 && e0.weight != wm ? wm - e0.weight : 0;
            else w = r < e1.first ? wm : r == e1.first && e1.weight != wm ? wm - e1.weight : 0;
            const int wrow = e0.first * stride - start + k * stride;
            // Rows outside the window (past the source's last row) count as 0.
            if (w == 0 || wrow < 0 || wrow >= wsize) continue;
            row_pointers[size_t(count)] = window.rowData(wrow).plane[p];
            _weights[size_t(count)] = w;
            ++count;
        }
        const AreaRowsY rows{row_pointers.data(), _weights.data(), count,
                             rowElements(out_layout.plane[p], f.sample_bytes), shift};
        uint8_t* acc = accumulator.data();
        switch (f.sample_bytes) {
            case 1: _kernel8(rows, dst.plane[p], reinterpret_cast<uint32_t*>(acc), 0); break;
            case 2: _kernel16(rows, reinterpret_cast<uint16_t*>(dst.plane[p]), reinterpret_cast<uint64_t*>(acc), 0); break;
            default: _kernel32(rows, reinterpret_cast<uint32_t*>(dst.plane[p]), reinterpret_cast<uint64_t*>(acc), 0); break;
        }
    }
}

bool ScalerAreaY::Impl::next() {
    if (current >= out_layout.size.height - 1) return false;
    ++current;
    const int target = subsampled ? 2 * table[size_t(current / 2)].first : table[size_t(current)].first;
    advanceWindow(window, target);
    return true;
}

ScalerAreaY::ScalerAreaY() : _impl(new Impl) {}
ScalerAreaY::~ScalerAreaY() = default;
void ScalerAreaY::reuse(const Frame& src_frame, int dst_height, ScalerPrecision precision) {
    static constexpr const char* fn = "kv::ScalerAreaY::Impl::reuse";
    KV_ASSERT(src_frame.initialized(), fn);
    KV_ASSERT(0 < dst_height, fn);
    KV_ASSERT_TEXT_LINE(validPrecision(precision), kPrecisionText, fn, __LINE__);
    checkAreaSides(src_frame.size().height, dst_height, precision, "ScalerAreaY", "height", fn);
    _impl->reuse(src_frame, src_frame.layout(), dst_height, precision);
}
void ScalerAreaY::reuse(IRowProducer& src_producer, int dst_height, ScalerPrecision precision) {
    static constexpr const char* fn = "kv::ScalerAreaY::Impl::reuse";
    KV_ASSERT(!src_producer.layout().size.empty(), fn);
    KV_ASSERT(0 < dst_height, fn);
    KV_ASSERT_TEXT_LINE(validPrecision(precision), kPrecisionText, fn, __LINE__);
    checkAreaSides(src_producer.layout().size.height, dst_height, precision, "ScalerAreaY", "height", fn);
    _impl->reuse(src_producer, src_producer.layout(), dst_height, precision);
}
bool ScalerAreaY::initialized() const { return _impl->window.initialized(); }
const FrameLayout& ScalerAreaY::layout() { return _impl->out_layout; }
void ScalerAreaY::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerAreaY::next() { return _impl->next(); }

// ---- scaleAreaXY --------------------------------------------------------------

struct AreaRowWeight {
    uint32_t weight;
    const uint8_t* row;
};

class scaleAreaXY::Impl {
public:
    void reuse(const Frame& src_frame, Size dst_size, ScalerPrecision precision);
    void produce(RowData& dst);
    bool next();

    FrameLayout src_layout;
    FrameLayout out_layout;
    RowWindow window;
    const int32_t shift = 16;
    const int32_t one = 65536;
    const int32_t mask = 65535;
    int32_t x_step = 0;
    int32_t y_step = 0;
    int32_t chroma_y_step = 0;
    int32_t current = 0;
    std::vector<AreaRowWeight> rows;

private:
    int _target() const;
    template <typename T>
    void _row(const AreaFormat& f, int p, T* dst);

    Size _cached_src{0, 0};
    Size _cached_dst{0, 0};
    int _rows = 0;
};

void scaleAreaXY::Impl::reuse(const Frame& src_frame, Size dst_size, ScalerPrecision precision) {
    static constexpr const char* fn = "kv::scaleAreaXY::Impl::reuse";
    KV_ASSERT(src_frame.initialized(), fn);
    KV_ASSERT(!dst_size.empty(), fn);
    KV_ASSERT_TEXT_LINE(validPrecision(precision), kPrecisionText, fn, __LINE__);
    const Size src_size = src_frame.size();
    if (!(src_size.width >= dst_size.width && src_size.height >= dst_size.height))
        KV_THROW(KV_STATUS_NOT_SUPPORTED, fn,
                 "Failure in scaleAreaXY::reuse(...) : the area method is implemented for down-scaling only.");
    // The 16.16 steps (src << 16) / dst are signed 32-bit: a ratio of 32768 or more does not fit.
    if ((int64_t(src_size.width) << shift) / dst_size.width > INT32_MAX ||
        (int64_t(src_size.height) << shift) / dst_size.height > INT32_MAX)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, fn,
                 "Failure in scaleAreaXY::reuse(...) : reducing %dx%d to %dx%d is out of range (at most 32767 times "
                 "per axis).",
                 src_size.width, src_size.height, dst_size.width, dst_size.height);
    const FrameLayout out(src_frame.format(), dst_size, 64);
    if (_cached_src != src_size || _cached_dst != dst_size || out_layout.format != out.format) {
        x_step = int32_t((int64_t(src_size.width) << shift) / dst_size.width);
        y_step = int32_t((int64_t(src_size.height) << shift) / dst_size.height);
        chroma_y_step = 0;
        const FrameFormat ff = src_frame.format();
        if (ff == FRAME_I420 || ff == FRAME_YV12 || ff == FRAME_NV12 || ff == FRAME_NV21)
            chroma_y_step = int32_t((int64_t(src_frame.layout().plane[1].size.height) << shift) /
                                    out.plane[1].size.height);
        _cached_src = src_size;
        _cached_dst = dst_size;
    }
    src_layout = src_frame.layout();
    out_layout = out;
    _rows = (y_step & mask) ? (y_step >> shift) + 2 : y_step >> shift;
    rows.resize(size_t(_rows));
    window.reuse(src_frame, chroma_y_step ? 3 * _rows : _rows);
    current = 0;
}

// The window starts at the first row that either plane of the current output
// row needs (the chroma target alone can lie below the first luma row).
int scaleAreaXY::Impl::_target() const {
    const int luma = int((int64_t(current) * y_step) >> shift);
    if (!chroma_y_step) return luma;
    const int chroma = int((int64_t(current / 2) * chroma_y_step) >> shift) * 2;
    return std::min(luma, chroma);
}

bool scaleAreaXY::Impl::next() {
    if (current >= out_layout.size.height - 1) return false;
    ++current;
    advanceWindow(window, _target());
    return true;
}

template <typename T>
void scaleAreaXY::Impl::_row(const AreaFormat& f, int p, T* dst) {
    const int C = f.channels[p];
    const int src_len = rowElements(src_layout.plane[p], f.sample_bytes);
    const int row_len = rowElements(out_layout.plane[p], f.sample_bytes);
    const int dst_len = std::min(out_layout.plane[p].size.width * C, row_len);
    const bool chroma = chroma_y_step && p > 0;
    const int64_t ys = chroma ? chroma_y_step : y_step;
    const uint64_t denom = uint64_t(x_step) * uint64_t(ys);
    for (int o = 0; o < dst_len; ++o) {
        const int x = o / C, c = o % C;
        const int64_t x0 = int64_t(x) * x_step, x1 = x0 + x_step;
        uint64_t sum = 0;
        for (const AreaRowWeight& rw : rows) {
            if (!rw.weight || !rw.row) continue;
            const T* v = reinterpret_cast<const T*>(rw.row);
            auto at = [&](int64_t k) -> uint64_t {
                const int64_t e = k * C + c;
                return e < src_len ? uint64_t(impl::loadSample(v, e)) : 0u;
            };
            uint64_t h = at(x0 >> shift);
            if (x0 & mask) h = (uint64_t(one - (x0 & mask)) * h) >> shift;
            if (x1 & mask) h += (uint64_t(x1 & mask) * at(x1 >> shift)) >> shift;
            for (int64_t k = (x0 >> shift) + 1; k < (x1 >> shift); ++k) h += at(k);
            sum += (uint64_t(rw.weight) * h) >> shift;
        }
        impl::storeSample(dst, o, (sum << 32) / denom);
    }
    zeroTail(reinterpret_cast<uint8_t*>(dst), dst_len, row_len, f.sample_bytes);
}

void scaleAreaXY::Impl::produce(RowData& dst) {
    AreaFormat f{};
    if (!areaFormat(out_layout.format, f))
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::scaleAreaXY::Impl::produce",
                 "Failure in scaleAreaXY::produce(...) : unsupported frame format.");
    const int start = window.startRow();
    const int wsize = window.windowSize();
    for (int p = 0; p < f.planes; ++p) {
        if (!dst.plane[p]) continue;
        const bool chroma = chroma_y_step && p > 0;
        const int stride = chroma ? 2 : 1;
        const int64_t ys = chroma ? chroma_y_step : y_step;
        const int64_t y0 = chroma ? int64_t(current / 2) * chroma_y_step : int64_t(current) * y_step;
        const int64_t first = y0 >> shift, last = (y0 + ys) >> shift;
        for (int k = 0; k < _rows; ++k) {
            const int64_t r = first + k;
            uint32_t w = 0;
            if (k == 0) w = uint32_t(one - (y0 & mask));
            else if (r < last) w = uint32_t(one);
            else if (r == last) w = uint32_t((y0 + ys) & mask);
            const int64_t wrow = first * stride - start + int64_t(k) * stride;
            const bool inside = wrow >= 0 && wrow < wsize;
            rows[size_t(k)] = {w, w && inside ? window.rowData(int(wrow)).plane[p] : nullptr};
        }
        switch (f.sample_bytes) {
            case 1: _row<uint8_t>(f, p, dst.plane[p]); break;
            case 2: _row<uint16_t>(f, p, reinterpret_cast<uint16_t*>(dst.plane[p])); break;
            default: _row<uint32_t>(f, p, reinterpret_cast<uint32_t*>(dst.plane[p])); break;
        }
    }
}

scaleAreaXY::scaleAreaXY() : _impl(new Impl) {}
scaleAreaXY::~scaleAreaXY() = default;
void scaleAreaXY::reuse(const Frame& src_frame, Size dst_size, ScalerPrecision precision) {
    _impl->reuse(src_frame, dst_size, precision);
}
bool scaleAreaXY::initialized() const { return _impl->window.initialized(); }
const FrameLayout& scaleAreaXY::layout() { return _impl->out_layout; }
void scaleAreaXY::produce(RowData& dst) { _impl->produce(dst); }
bool scaleAreaXY::next() { return _impl->next(); }

}  // namespace kv
