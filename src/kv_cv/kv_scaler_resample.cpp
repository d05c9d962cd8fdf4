// ScalerResample: antialiased resampling with the shipped kernels, as a row
// producer. Each plane has its own pair of tables (so subsampled chroma is
// resampled in its own geometry), a ring of horizontally filtered rows and,
// over an upstream producer, a staging block of source rows.
//
// Rows flow lazily: produce() asks each requested plane for the rows its
// vertical taps need; missing rows are filtered horizontally in blocks of up
// to 16 (from the frame directly, or from rows staged as the upstream
// producer hands them out). An upstream row is pulled once and staged for
// every plane that needs it, so the planes share one pass over the source.
#include "kv_cv/kv_scaler_resample.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_parallel.h"
#include "kv_impl_cpu.h"
#include "kv_impl_resample_rows.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler_resample"

namespace kv {

namespace {

constexpr const char* kNames[] = {"box", "triangle", "cubic", "lanczos2", "lanczos3", "mitchell"};

bool validFilter(ResampleFilter f) { return f >= KV_RESAMPLE_BOX && f <= KV_RESAMPLE_MITCHELL; }

// Pillow's sinc: exactly 1 at 0.
double sinc(double x) {
    if (x == 0.0) return 1.0;
    x = x * M_PI;
    return std::sin(x) / x;
}

}  // namespace

const char* toString(ResampleFilter filter) { return validFilter(filter) ? kNames[filter] : "unknown"; }

bool parseResampleFilter(const char* name, ResampleFilter& filter) {
    if (!name) return false;
    for (int i = 0; i <= KV_RESAMPLE_MITCHELL; ++i)
        if (std::strcmp(name, kNames[i]) == 0) {
            filter = ResampleFilter(i);
            return true;
        }
    return false;
}

double resampleFilterSupport(ResampleFilter filter) {
    switch (filter) {
        case KV_RESAMPLE_BOX: return 0.5;
        case KV_RESAMPLE_TRIANGLE: return 1.0;
        case KV_RESAMPLE_CUBIC:
        case KV_RESAMPLE_LANCZOS2:
        case KV_RESAMPLE_MITCHELL: return 2.0;
        case KV_RESAMPLE_LANCZOS3: return 3.0;
    }
    KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::resampleFilterSupport", "Parameter 'filter' is out of range.");
}

// The expressions (and their evaluation order) of Pillow's filters, so that
// the weights round to the same integers.
double resampleFilterValue(ResampleFilter filter, double x) {
    switch (filter) {
        case KV_RESAMPLE_BOX: return x > -0.5 && x <= 0.5 ? 1.0 : 0.0;
        case KV_RESAMPLE_TRIANGLE:
            if (x < 0.0) x = -x;
            return x < 1.0 ? 1.0 - x : 0.0;
        case KV_RESAMPLE_CUBIC: {
            const double a = -0.5;
            if (x < 0.0) x = -x;
            if (x < 1.0) return ((a + 2.0) * x - (a + 3.0)) * x * x + 1;
            if (x < 2.0) return (((x - 5) * x + 8) * x - 4) * a;
            return 0.0;
        }
        case KV_RESAMPLE_LANCZOS2: return -2.0 <= x && x < 2.0 ? sinc(x) * sinc(x / 2) : 0.0;
        case KV_RESAMPLE_LANCZOS3: return -3.0 <= x && x < 3.0 ? sinc(x) * sinc(x / 3) : 0.0;
        case KV_RESAMPLE_MITCHELL: {
            const double b = 1.0 / 3.0, c = 1.0 / 3.0;
            if (x < 0.0) x = -x;
            if (x < 1.0)
                return ((12.0 - 9.0 * b - 6.0 * c) * x * x * x + (-18.0 + 12.0 * b + 6.0 * c) * x * x + (6.0 - 2.0 * b)) /
                       6.0;
            if (x < 2.0)
                return ((-b - 6.0 * c) * x * x * x + (6.0 * b + 30.0 * c) * x * x + (-12.0 * b - 48.0 * c) * x +
                        (8.0 * b + 24.0 * c)) /
                       6.0;
            return 0.0;
        }
    }
    KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::resampleFilterValue", "Parameter 'filter' is out of range.");
}

ResampleKernel::ResampleKernel(ResampleFilter filter, float stretch) : _filter(filter), _stretch(stretch) {
    if (!validFilter(filter))
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::ResampleKernel::ResampleKernel", "Parameter 'filter' is out of range.");
    if (!(stretch >= 1.f) || !std::isfinite(stretch))
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::ResampleKernel::ResampleKernel", "Parameter 'stretch' is out of range.");
}

float ResampleKernel::value(float x) const { return float(resampleFilterValue(_filter, double(x) / _stretch)); }
float ResampleKernel::aperture() const { return float(2.0 * resampleFilterSupport(_filter) * _stretch); }

// ---- ScalerResample -------------------------------------------------------------

namespace {

// One plane as resampled: a plane of the layout, or one of the two sample
// sets of a packed 4:2:2 row (luma; chroma pairs).
struct Plane {
    int channels = 1;
    int sample_bytes = 1;
    Size src_size, dst_size;
    int src_height = 0;
    size_t src_row_bytes = 0;
    size_t mid_row_bytes = 0;
    size_t dst_row_bytes = 0;
    int src_mask = 0, dst_mask = 0;  // subsampling masks of the source and output layouts
    impl::ResampleAxis ax, ay;
    impl::ResampleX8 xplan;
    impl::ResampleY8 yplan;
    int h_first = 0, h_end = 0;  // source plane rows the vertical pass reads
    int h_done = 0;              // rows below this are filtered (rows from h_first on)
    Buffer ring;
    int ring_rows = 0;
    size_t ring_pitch = 0;
    Buffer stage;  // source rows h_done .. h_done + staged - 1 (over a producer, or unpacked)
    size_t stage_pitch = 0;
    int staged = 0;
    std::vector<const uint8_t*> taps;

    // First source row and count of the vertical taps of output plane row q.
    int first(int q) const { return ay.copies() ? q : ay.start[size_t(q)]; }
    int count(int q) const { return ay.copies() ? 1 : ay.count[size_t(q)]; }
};

size_t round64(size_t v) { return (v + 63) / 64 * 64; }

bool packed422(FrameFormat f) { return f == FRAME_YUYV || f == FRAME_UYVY; }

// Byte offsets in a 4-byte group of two pixels: Y0, U, Y1, V.
struct PackedOrder {
    int y0, u, y1, v;
};
PackedOrder packedOrder(FrameFormat f) { return f == FRAME_YUYV ? PackedOrder{0, 1, 2, 3} : PackedOrder{1, 0, 3, 2}; }

// Luma (part 0, `width` samples) or chroma pairs (part 1, UV per group) of a packed row.
void unpackRow(const uint8_t* row, int width, PackedOrder o, int part, uint8_t* out) {
    const int groups = (width + 1) / 2;
    if (part == 0) {
        for (int x = 0; x < width; ++x) out[x] = row[(x / 2) * 4 + (x % 2 ? o.y1 : o.y0)];
        return;
    }
    for (int g = 0; g < groups; ++g) {
        out[2 * g] = row[g * 4 + o.u];
        out[2 * g + 1] = row[g * 4 + o.v];
    }
}

// The inverse; an odd width's missing second luma repeats the first.
void packRow(const uint8_t* luma, const uint8_t* chroma, int width, PackedOrder o, uint8_t* row) {
    for (int g = 0; g < (width + 1) / 2; ++g) {
        row[g * 4 + o.y0] = luma[2 * g];
        row[g * 4 + o.y1] = luma[2 * g + 1 < width ? 2 * g + 1 : 2 * g];
        row[g * 4 + o.u] = chroma[2 * g];
        row[g * 4 + o.v] = chroma[2 * g + 1];
    }
}

bool supported(const FrameLayout& l) {
    return l.format != FRAME_UNDEFINED && l.planes >= 1 && l.planes <= 3 && l.plane[0].channels >= 1 &&
           l.plane[0].channels <= 4;
}

}  // namespace

class ScalerResample::Impl {
public:
    void reuse(const FrameLayout& src, Size dst_size, ResampleFilter filter, const Frame* frame, IRowProducer* producer);
    void clear();
    void produce(RowData& dst);
    bool next();

    bool initialized() const { return _out.initialized(); }
    const FrameLayout& layout() const { return _out; }
    ResampleFilter filter() const { return _filter; }

private:
    void _buildTables();
    void _sizeRings();
    void _ensureFiltered(int p, int upto);
    void _pullRow();
    void _flushStage(int p);
    void _filterRows(int p, const uint8_t* const* src, int rows);
    void _producePlane(int p, int q, uint8_t* out);
    const uint8_t* _midRow(int p, int r);

    FrameLayout _src;
    FrameLayout _out;
    ResampleFilter _filter = KV_RESAMPLE_BOX;
    Frame _frame;
    IRowProducer* _producer = nullptr;
    int _pulled = 0;  // upstream frame rows taken since reuse
    int _row = 0;
    int _planes = 0;
    bool _packed = false;  // packed 4:2:2: planes 0 and 1 are the luma and chroma of plane 0's rows
    PackedOrder _order{0, 1, 2, 3};
    Buffer _packed_rows;  // one upstream packed row; the two unpacked output rows
    Plane _plane[3];
    FrameFormat _table_format = FRAME_UNDEFINED;  // key of the tables
    Size _table_src, _table_dst;
    ResampleFilter _table_filter = KV_RESAMPLE_BOX;
    void (*_rowsX8)(const uint8_t* const*, uint8_t* const*, int, impl::ResampleX8&) = impl::ref::resampleRowsX8;
    void (*_rowY8)(const impl::ResampleRowsY&, uint8_t*, const impl::ResampleY8&) = impl::ref::resampleRowY8;
};

void ScalerResample::Impl::_buildTables() {
    for (int p = 0; p < _planes; ++p) {
        Plane& pl = _plane[p];
        impl::buildResampleAxis(_filter, pl.src_size.width, pl.dst_size.width, pl.ax);
        impl::buildResampleAxis(_filter, pl.src_size.height, pl.dst_size.height, pl.ay);
        if (pl.sample_bytes == 1) {
            if (!pl.ax.copies()) impl::prepareResampleX8(pl.ax, pl.channels, pl.xplan);
            if (!pl.ay.copies()) impl::prepareResampleY8(pl.ay, pl.yplan);
        }
        pl.taps.assign(size_t(pl.ay.taps) + 1, nullptr);
    }
    _table_format = _src.format;
    _table_src = _src.size;
    _table_dst = _out.size;
    _table_filter = _filter;
}

// Ring rows per plane: the rows one output row reads, plus a block, plus (over
// a producer) the rows other planes pull ahead of this plane's needs.
void ScalerResample::Impl::_sizeRings() {
    int need[3] = {0, 0, 0};
    if (_producer) {
        int pulled = 0;
        for (int y = 0; y < _out.size.height; ++y) {
            for (int q = 0; q < _planes; ++q) {
                const Plane& pl = _plane[q];
                const int row = y / (pl.dst_mask + 1);
                const int t = std::min(pl.first(row) + pl.count(row) + impl::kResampleBlock, pl.h_end);
                if (t > 0) pulled = std::max(pulled, (t - 1) * (pl.src_mask + 1) + 1);
            }
            for (int p = 0; p < _planes; ++p) {
                const Plane& pl = _plane[p];
                const int arrived = std::min((pulled + pl.src_mask) / (pl.src_mask + 1), pl.h_end);
                need[p] = std::max(need[p], arrived - pl.first(y / (pl.dst_mask + 1)));
            }
        }
    }
    for (int p = 0; p < _planes; ++p) {
        Plane& pl = _plane[p];
        const int taps = pl.ay.copies() ? 1 : pl.ay.taps;
        pl.ring_rows = std::max(need[p], taps + impl::kResampleBlock) + impl::kResampleBlock;
        pl.ring_pitch = round64(pl.mid_row_bytes);
        if (!_producer && !_packed && pl.ax.copies()) pl.ring_rows = 0;  // rows read straight from the frame
        pl.ring.resize(size_t(pl.ring_rows) * pl.ring_pitch);
        pl.stage_pitch = round64(pl.src_row_bytes);
        pl.stage.resize(_producer || _packed ? size_t(impl::kResampleBlock) * pl.stage_pitch : 0);
    }
    _packed_rows.resize(_packed ? round64(_src.plane[0].row_bytes) + 2 * round64(_plane[0].dst_row_bytes) + 64 : 0);
}

void ScalerResample::Impl::reuse(const FrameLayout& src, Size dst_size, ResampleFilter filter, const Frame* frame,
                                 IRowProducer* producer) {
    constexpr const char* kFn = "kv::ScalerResample::Impl::reuse";
    if (!src.initialized())
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in ScalerResample::reuse(...) : source is not initialized.");
    if (dst_size.width < 1 || dst_size.height < 1)
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in ScalerResample::reuse(...) : parameter 'dst_size' is empty.");
    if (!validFilter(filter)) KV_THROW(KV_STATUS_INVALID_VALUE, kFn, "Parameter 'filter' is incorrect.");
    if (!supported(src))
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn, "Failure in ScalerResample::reuse(...) : unsupported frame format %s.",
                 toString(src.format));
    _filter = filter;
    _src = src;
    _out = FrameLayout(src.format, dst_size, 64);
    _packed = packed422(src.format);
    _order = packedOrder(src.format);
    _planes = _packed ? 2 : int(src.planes);
    for (int p = 0; p < _planes; ++p) {
        Plane& pl = _plane[p];
        if (_packed) {
            const int src_w = p == 0 ? src.size.width : (src.size.width + 1) / 2;
            const int dst_w = p == 0 ? dst_size.width : (dst_size.width + 1) / 2;
            pl.channels = p == 0 ? 1 : 2;
            pl.sample_bytes = 1;
            pl.src_size = Size(src_w, src.size.height);
            pl.dst_size = Size(dst_w, dst_size.height);
            pl.src_mask = pl.dst_mask = 0;
        } else {
            pl.channels = src.plane[p].channels;
            pl.sample_bytes = src.plane[p].bits_per_channel / 8;
            pl.src_size = src.plane[p].size;
            pl.dst_size = _out.plane[p].size;
            pl.src_mask = subsamplingMask(src.size.height, src.plane[p].size.height);
            pl.dst_mask = subsamplingMask(dst_size.height, _out.plane[p].size.height);
        }
        pl.src_height = pl.src_size.height;
        pl.src_row_bytes = size_t(pl.src_size.width) * size_t(pl.channels) * size_t(pl.sample_bytes);
        pl.mid_row_bytes = size_t(pl.dst_size.width) * size_t(pl.channels) * size_t(pl.sample_bytes);
        pl.dst_row_bytes = pl.mid_row_bytes;
    }
    if (_table_format != src.format || _table_src != src.size || _table_dst != dst_size || _table_filter != filter)
        _buildTables();
    for (int p = 0; p < _planes; ++p) {
        Plane& pl = _plane[p];
        if (pl.ay.copies()) {
            pl.h_first = 0;
            pl.h_end = pl.src_height;
        } else {
            const size_t last = size_t(pl.ay.dst) - 1;
            pl.h_first = pl.ay.start[0];
            pl.h_end = pl.ay.start[last] + pl.ay.count[last];
        }
        pl.h_done = pl.h_first;
        pl.staged = 0;
    }
    _frame = frame ? *frame : Frame();
    _producer = producer;
    _pulled = 0;
    _row = 0;
    _sizeRings();
    const bool vector = impl::activeIsa() >= impl::Isa::kAvx2;
    _rowsX8 = vector ? impl::avx2::resampleRowsX8 : impl::ref::resampleRowsX8;
    _rowY8 = vector ? impl::avx2::resampleRowY8 : impl::ref::resampleRowY8;
}

void ScalerResample::Impl::clear() {
    _src.clear();
    _out.clear();
    _frame.clear();
    _producer = nullptr;
    _row = _pulled = _planes = 0;
    _packed = false;
    _packed_rows.clear();
    for (Plane& pl : _plane) pl = Plane();
    _table_format = FRAME_UNDEFINED;
}

const uint8_t* ScalerResample::Impl::_midRow(int p, int r) {
    const Plane& pl = _plane[p];
    if (pl.ring_rows == 0) return _frame.rowCpuData(size_t(p), r);
    return pl.ring.data() + size_t(r % pl.ring_rows) * pl.ring_pitch;
}

// Filters source rows h_done .. h_done + rows - 1 of plane p into the ring.
void ScalerResample::Impl::_filterRows(int p, const uint8_t* const* src, int rows) {
    Plane& pl = _plane[p];
    uint8_t* dst[impl::kResampleBlock];
    for (int i = 0; i < rows; ++i) dst[i] = pl.ring.data() + size_t((pl.h_done + i) % pl.ring_rows) * pl.ring_pitch;
    if (pl.ax.copies()) {
        for (int i = 0; i < rows; ++i) std::memcpy(dst[i], src[i], pl.mid_row_bytes);
    } else if (pl.sample_bytes == 1) {
        _rowsX8(src, dst, rows, pl.xplan);
    } else if (pl.sample_bytes == 2) {
        for (int i = 0; i < rows; ++i)
            impl::ref::resampleRowX16(reinterpret_cast<const uint16_t*>(src[i]), reinterpret_cast<uint16_t*>(dst[i]),
                                      pl.ax, pl.channels);
    } else {
        for (int i = 0; i < rows; ++i)
            impl::ref::resampleRowXF(reinterpret_cast<const float*>(src[i]), reinterpret_cast<float*>(dst[i]), pl.ax,
                                     pl.channels);
    }
    pl.h_done += rows;
}

void ScalerResample::Impl::_flushStage(int p) {
    Plane& pl = _plane[p];
    const uint8_t* src[impl::kResampleBlock];
    for (int i = 0; i < pl.staged; ++i) src[i] = pl.stage.data() + size_t(i) * pl.stage_pitch;
    const int rows = pl.staged;
    pl.staged = 0;
    _filterRows(p, src, rows);
}

// Takes the upstream producer's next frame row, staging the plane rows that
// some vertical tap will read (a packed row is unpacked into both planes).
void ScalerResample::Impl::_pullRow() {
    RowData dst;
    bool take[3] = {false, false, false};
    bool any = false;
    for (int q = 0; q < _planes; ++q) {
        Plane& pl = _plane[q];
        if ((_pulled & pl.src_mask) != 0) continue;  // the plane row came with the previous frame row
        const int row = _pulled / (pl.src_mask + 1);
        if (row < pl.h_done + pl.staged || row >= pl.h_end) continue;
        if (pl.staged == impl::kResampleBlock) _flushStage(q);
        take[q] = any = true;
        if (!_packed) dst.plane[q] = pl.stage.data() + size_t(pl.staged) * pl.stage_pitch;
    }
    if (_packed && any) dst.plane[0] = _packed_rows.data();
    if (any) _producer->produce(dst);
    _producer->next();
    ++_pulled;
    for (int q = 0; q < _planes; ++q) {
        if (!take[q]) continue;
        Plane& pl = _plane[q];
        if (_packed)
            unpackRow(_packed_rows.data(), _src.size.width, _order, q, pl.stage.data() + size_t(pl.staged) * pl.stage_pitch);
        ++pl.staged;
    }
}

// Makes source rows up to `upto` - 1 of plane p available as filtered rows.
void ScalerResample::Impl::_ensureFiltered(int p, int upto) {
    Plane& pl = _plane[p];
    upto = std::min(upto, pl.h_end);
    if (pl.ring_rows == 0) return;  // read straight from the frame
    while (pl.h_done < upto) {
        const int want = std::min(pl.h_done + impl::kResampleBlock, pl.h_end);
        if (!_producer) {
            const uint8_t* src[impl::kResampleBlock];
            for (int i = 0; pl.h_done + i < want; ++i) {
                const uint8_t* row = _frame.rowCpuData(_packed ? 0 : size_t(p), pl.h_done + i);
                if (_packed) {
                    uint8_t* unpacked = pl.stage.data() + size_t(i) * pl.stage_pitch;
                    unpackRow(row, _src.size.width, _order, p, unpacked);
                    row = unpacked;
                }
                src[i] = row;
            }
            _filterRows(p, src, want - pl.h_done);
            continue;
        }
        while (pl.h_done + pl.staged < want) _pullRow();
        _flushStage(p);
    }
}

// Output row q of plane p into `out` (the plane's row bytes).
void ScalerResample::Impl::_producePlane(int p, int q, uint8_t* out) {
    Plane& pl = _plane[p];
    const int first = pl.first(q), n = pl.count(q);
    _ensureFiltered(p, first + n);
    if (pl.ay.copies()) {
        std::memcpy(out, _midRow(p, q), pl.dst_row_bytes);
        return;
    }
    for (int k = 0; k < n; ++k) pl.taps[size_t(k)] = _midRow(p, first + k);
    pl.taps[size_t(n)] = pl.taps[size_t(std::max(n - 1, 0))];
    const impl::ResampleRowsY in{pl.taps.data(), q, pl.dst_row_bytes / size_t(pl.sample_bytes)};
    if (pl.sample_bytes == 1)
        _rowY8(in, out, pl.yplan);
    else if (pl.sample_bytes == 2)
        impl::ref::resampleRowY16(in, reinterpret_cast<uint16_t*>(out), pl.ay);
    else
        impl::ref::resampleRowYF(in, reinterpret_cast<float*>(out), pl.ay);
}

void ScalerResample::Impl::produce(RowData& dst) {
    if (!initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::ScalerResample::Impl::produce",
                 "Failure in ScalerResample::produce(...) : instance not initialized");
    if (_row >= _out.size.height) return;
    if (_packed) {
        if (!dst.plane[0]) return;
        uint8_t* luma = _packed_rows.data() + round64(_src.plane[0].row_bytes);
        uint8_t* chroma = luma + round64(_plane[0].dst_row_bytes);
        _producePlane(0, _row, luma);
        _producePlane(1, _row, chroma);
        packRow(luma, chroma, _out.size.width, _order, dst.plane[0]);
        return;
    }
    for (int p = 0; p < _planes; ++p)
        if (dst.plane[p]) _producePlane(p, _row / (_plane[p].dst_mask + 1), dst.plane[p]);
}

bool ScalerResample::Impl::next() {
    if (!initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::ScalerResample::Impl::next",
                 "Failure in ScalerResample::next(...) : instance not initialized");
    if (_row >= _out.size.height) return false;
    ++_row;
    return _row < _out.size.height;
}

ScalerResample::ScalerResample() : _impl(new Impl) {}
ScalerResample::~ScalerResample() = default;

void ScalerResample::reuse(const Frame& src, Size dst_size, ResampleFilter filter) {
    if (!src.initialized())
        KV_THROW(KV_STATUS_EMPTY_INPUT, "kv::ScalerResample::Impl::reuse",
                 "Failure in ScalerResample::reuse(...) : source is not initialized.");
    _impl->reuse(src.layout(), dst_size, filter, &src, nullptr);
}

void ScalerResample::reuse(IRowProducer& src, Size dst_size, ResampleFilter filter) {
    _impl->reuse(src.layout(), dst_size, filter, nullptr, &src);
}

void ScalerResample::clear() { _impl->clear(); }
bool ScalerResample::initialized() const { return _impl->initialized(); }
ResampleFilter ScalerResample::filter() const { return _impl->filter(); }

const FrameLayout& ScalerResample::layout() {
    if (!_impl->initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::ScalerResample::Impl::layout", "instance not initialized");
    return _impl->layout();
}

void ScalerResample::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerResample::next() { return _impl->next(); }

namespace {

// Drains `scaler` (reused on `src`) into `dst`, in row bands over the
// library's threads when they are set: each band runs its own resampler over
// the whole source and produces only its rows, the same bytes as one run.
void produceResampled(ScalerResample& scaler, const Frame& src, Frame& dst, ResampleFilter filter) {
    const FrameLayout& l = scaler.layout();
    const int bands = impl::bandCount(l.size.height, l.size.width, 2);
    if (bands > 1) {
        if (!dst.initialized() || dst.size() != l.size || dst.format() != l.format)
            dst.reuse(l.format, l.size, DeviceContext::cpuContext(), 0);
        try {
            impl::parallelBands(bands, [&](int b) {
                const std::pair<int, int> r = impl::bandRows(l.size.height, bands, b, 2);
                if (b == 0) {
                    impl::produceRows(scaler, dst, r.first, r.second);
                    return;
                }
                ScalerResample own;
                own.reuse(src, l.size, filter);
                impl::produceRows(own, dst, r.first, r.second);
            });
            return;
        } catch (const Exception&) {
            scaler.reuse(src, l.size, filter);  // once more on one thread, for the call's own error
        }
    }
    produceFrame(scaler, dst);
}

}  // namespace

void resampleFrame(const Frame& src, Frame& dst, ResampleFilter filter) {
    constexpr const char* kFn = "kv::resampleFrame";
    if (!src.initialized()) KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in resampleFrame(...) : source is not initialized.");
    if (!dst.initialized())
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in resampleFrame(...) : destination is not initialized.");
    if (dst.format() != src.format())
        KV_THROW(KV_STATUS_NOT_SUPPORTED, kFn, "Failure in resampleFrame(...) : destination format %s differs from %s.",
                 toString(dst.format()), toString(src.format()));
    ScalerResample scaler;
    scaler.reuse(src, dst.size(), filter);
    produceResampled(scaler, src, dst, filter);
}

void resampleFrame(const Frame& src, const Size& size, Frame& dst, ResampleFilter filter) {
    ScalerResample scaler;
    scaler.reuse(src, size, filter);
    produceResampled(scaler, src, dst, filter);
}

}  // namespace kv
