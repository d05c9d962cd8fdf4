// ScaleY<T>: the vertical pass of the convolutional scaler, its scalar row
// kernel and the AVX2 counterpart.
#include "kv_impl_scale_conv_y.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "kv_core/kv_exception.h"
#include "kv_impl_cpu.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_scale_conv_y"

namespace kv {
namespace impl {

namespace ref {

namespace {
inline uint8_t clampDiv(int32_t sum, int one) {
    const int32_t q = sum / one;  // truncates toward zero
    return uint8_t(q < 0 ? 0 : q > 255 ? 255 : q);
}
}  // namespace

// Bytes [i_begin, bytes) one at a time; the tail of the vector kernel too.
template <typename T>
void scaleBytesY(const uint8_t* const* rows, const T* w, int taps, int i_begin, int bytes, uint8_t* dst) {
    for (int i = i_begin; i < bytes; ++i) {
        uint32_t sum = 0;  // wraps like the 32-bit accumulator it models
        for (int k = 0; k < taps; ++k) sum += uint32_t(int32_t(rows[k][i]) * int32_t(w[k]));
        dst[i] = clampDiv(int32_t(sum), FixedPoint<T>::kOne);
    }
}

template <typename T>
void scaleRowY(const uint8_t* const* rows, const T* w, int taps, int bytes, int32_t* acc, uint8_t* dst) {
    for (int i = 0; i < bytes; ++i) acc[i] = int32_t(rows[0][i]) * int32_t(w[0]);
    for (int k = 1; k < taps; ++k) {
        const uint8_t* r = rows[k];
        const int32_t wk = w[k];
        for (int i = 0; i < bytes; ++i) acc[i] = int32_t(uint32_t(acc[i]) + uint32_t(int32_t(r[i]) * wk));
    }
    for (int i = 0; i < bytes; ++i) dst[i] = clampDiv(acc[i], FixedPoint<T>::kOne);
}

template void scaleRowY<signed char>(const uint8_t* const*, const signed char*, int, int, int32_t*, uint8_t*);
template void scaleRowY<short>(const uint8_t* const*, const short*, int, int, int32_t*, uint8_t*);

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

// 8 sums of 16 bytes (in the lane order of unpacklo/unpackhi) into 16 bytes.
template <typename T>
inline __m128i finish16(__m256i lo, __m256i hi) {
    constexpr int kShift = FixedPoint<T>::kShift;
    const __m256i round = _mm256_set1_epi32(FixedPoint<T>::kOne - 1);
    lo = _mm256_srai_epi32(_mm256_add_epi32(lo, _mm256_and_si256(_mm256_srai_epi32(lo, 31), round)), kShift);
    hi = _mm256_srai_epi32(_mm256_add_epi32(hi, _mm256_and_si256(_mm256_srai_epi32(hi, 31), round)), kShift);
    const __m256i w = _mm256_packs_epi32(lo, hi);  // bytes 0..7 | 8..15 as words
    const __m256i b = _mm256_packus_epi16(w, w);
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(b, 0x08));
}

inline __m256i weightPair(int w0, int w1) { return _mm256_set1_epi32(int32_t(uint32_t(uint16_t(w0)) | (uint32_t(w1) << 16))); }

}  // namespace

template <typename T>
void scaleRowY(const uint8_t* const* rows, const T* w, int taps, int bytes, int32_t* acc, uint8_t* dst) {
    (void)acc;
    int i = 0;
    // Two taps per madd: rows k and k+1 interleaved as words, products exact in 32 bits.
    for (; i + 32 <= bytes; i += 32) {
        __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
        for (int k = 0; k < taps; k += 2) {
            const bool pair = k + 1 < taps;
            const __m256i wp = weightPair(w[k], pair ? w[k + 1] : 0);
            const __m256i r0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[k] + i));
            const __m256i r1 =
                pair ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[k + 1] + i)) : _mm256_setzero_si256();
            const __m256i x0 = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(r0));
            const __m256i y0 = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(r1));
            const __m256i x1 = _mm256_cvtepu8_epi16(_mm256_extracti128_si256(r0, 1));
            const __m256i y1 = _mm256_cvtepu8_epi16(_mm256_extracti128_si256(r1, 1));
            a0 = _mm256_add_epi32(a0, _mm256_madd_epi16(_mm256_unpacklo_epi16(x0, y0), wp));
            a1 = _mm256_add_epi32(a1, _mm256_madd_epi16(_mm256_unpackhi_epi16(x0, y0), wp));
            a2 = _mm256_add_epi32(a2, _mm256_madd_epi16(_mm256_unpacklo_epi16(x1, y1), wp));
            a3 = _mm256_add_epi32(a3, _mm256_madd_epi16(_mm256_unpackhi_epi16(x1, y1), wp));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), finish16<T>(a0, a1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i + 16), finish16<T>(a2, a3));
    }
    for (; i + 16 <= bytes; i += 16) {
        __m256i a0 = _mm256_setzero_si256(), a1 = a0;
        for (int k = 0; k < taps; k += 2) {
            const bool pair = k + 1 < taps;
            const __m256i wp = weightPair(w[k], pair ? w[k + 1] : 0);
            const __m256i x = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[k] + i)));
            const __m256i y = pair ? _mm256_cvtepu8_epi16(
                                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[k + 1] + i)))
                                   : _mm256_setzero_si256();
            a0 = _mm256_add_epi32(a0, _mm256_madd_epi16(_mm256_unpacklo_epi16(x, y), wp));
            a1 = _mm256_add_epi32(a1, _mm256_madd_epi16(_mm256_unpackhi_epi16(x, y), wp));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), finish16<T>(a0, a1));
    }
    ref::scaleBytesY<T>(rows, w, taps, i, bytes, dst);
}

template void scaleRowY<signed char>(const uint8_t* const*, const signed char*, int, int, int32_t*, uint8_t*);
template void scaleRowY<short>(const uint8_t* const*, const short*, int, int, int32_t*, uint8_t*);

}  // namespace avx2

#pragma GCC pop_options

template <typename T>
void ScaleY<T>::_reuseScaleData(IKernel& kernel, const FrameLayout& src, int dst_height) {
    if (_valid && _kernel == &kernel && _format == src.format && _src_height == src.size.height &&
        _dst_height == dst_height)
        return;
    _valid = false;
    _kernel = &kernel;
    _format = src.format;
    _src_height = src.size.height;
    _dst_height = dst_height;
    _layout = FrameLayout(src.format, Size(src.size.width, dst_height), 64);
    if (!src.initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::impl::ScaleY::_reuseScaleData",
                 "Failure in ScaleY::reuse(...) : source frame is not initialized.");
    for (uint32_t p = 0; p < src.planes; ++p)
        _scale_data[p].reuse(kernel, src.plane[p].size.height, _layout.plane[p].size.height);
    _valid = true;
}

template <typename T>
void ScaleY<T>::reuse(IKernel& kernel, IRowProducer& src, int dst_height) {
    const FrameLayout& src_layout = src.layout();
    _reuseScaleData(kernel, src_layout, dst_height);
    _index.reuse(_layout);
    _src_layout = src_layout;
    int n = 0;
    for (uint32_t p = 0; p < _layout.planes; ++p) n = std::max(n, _scale_data[p].maxAperture);
    _window.reuse(src, n);
    uint64_t widest = 0;
    for (uint32_t p = 0; p < src_layout.planes; ++p) widest = std::max(widest, src_layout.plane[p].rowBytes());
    _accumulator.resize(size_t(widest) * sizeof(int32_t));
    _rows.resize(size_t(n));
    _fn = activeIsa() >= Isa::kAvx2 ? avx2::scaleRowY<T> : ref::scaleRowY<T>;
    _previous_start = 0;
    const int first = entryStart(_scale_data[0].entries[0]);
    _advance(first);
    _previous_start = first;
}

template <typename T>
void ScaleY<T>::_advance(int delta) {
    for (int i = 0; i < delta; ++i) {
        _window.rowData(0);
        if (!_window.next()) break;
    }
}

template <typename T>
bool ScaleY<T>::next() {
    _index.next();
    const int row = _index.row(0);
    if (row >= _layout.size.height || !initialized()) return false;
    const int start = entryStart(_scale_data[0].entries[size_t(row)]);
    const int delta = start - _previous_start;
    if (delta > 0) _advance(delta);
    _previous_start = start;
    return true;
}

template <typename T>
void ScaleY<T>::produce(RowData& row) {
    if (!initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::impl::ScaleY::produce", "The scaler is not initialized.");
    const FrameFormat f = _layout.format;
    const bool supported = f == FRAME_GRAY_8 || f == FRAME_BGR_8 || (f >= FRAME_I420 && f <= FRAME_YUV444_PLANAR) ||
                           f == FRAME_C2_8 || f == FRAME_C3_8 || f == FRAME_C4_8;
    if (!supported)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::impl::ScaleY::produce",
                 "Failure in ScaleY::produce(...) : unsupported frame format.");
    const FrameLayout& src = _window.layout();
    for (uint32_t p = 0; p < _layout.planes; ++p) {
        if (!row.plane[p]) continue;
        const ScaleData<T>& table = _scale_data[p];
        const int plane_row = _index.row(int(p));
        KV_ASSERT(0 <= plane_row && plane_row < int(table.entries.size()), "kv::impl::ScaleY::produce");
        const T* w = table.weights(table.entries[size_t(plane_row)]);
        for (int k = 0; k < table.maxAperture; ++k) _rows[size_t(k)] = _window.rowData(k).plane[p];
        const int bytes = int(_layout.plane[p].rowBytes());
        const int in_bytes = std::min(bytes, int(src.plane[p].rowBytes()));
        _fn(_rows.data(), w, table.maxAperture, in_bytes, reinterpret_cast<int32_t*>(_accumulator.data()),
            row.plane[p]);
        if (in_bytes < bytes) std::memset(row.plane[p] + in_bytes, 0, size_t(bytes - in_bytes));
    }
}

template class ScaleY<signed char>;
template class ScaleY<short>;

}  // namespace impl
}  // namespace kv
