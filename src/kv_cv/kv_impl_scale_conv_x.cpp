// ScaleX<T>: the horizontal pass of the convolutional scaler, its scalar row
// kernels and their AVX2 counterparts.
#include "kv_impl_scale_conv_x.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

#include "kv_core/kv_exception.h"
#include "kv_impl_cpu.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_scale_conv_x"

namespace kv {
namespace impl {

namespace ref {

namespace {
template <typename S>
inline S loadSample(const uint8_t* p) {
    S v;
    std::memcpy(&v, p, sizeof(S));
    return v;
}
}  // namespace

// Positions [x_begin, x_end) of the row; the tail of the vector kernel too.
template <typename T, typename S, int CH>
void scalePixelsX(const ScaleRowXArgs& a, uint8_t* dst, int x_begin, int x_end) {
    using Acc = std::conditional_t<sizeof(S) == 4, int64_t, int32_t>;
    using UAcc = std::make_unsigned_t<Acc>;
    constexpr Acc kOne = FixedPoint<T>::kOne;
    constexpr Acc kMax = Acc(std::numeric_limits<S>::max());
    for (int x = x_begin; x < x_end; ++x) {
        const ScaleEntry e = a.entries[x];
        const int start = entryStart(e);
        const T* w = reinterpret_cast<const T*>(a.weights + size_t(entryRow(e)) * a.stride);
        // Only a table kept for a wider source reaches past the row.
        const int n = std::max(0, std::min(a.taps, a.src_width - start));
        const uint8_t* s = a.src + size_t(std::max(start, 0)) * CH * sizeof(S);
        for (int c = 0; c < CH; ++c) {
            UAcc sum = 0;  // wraps like the 32-bit accumulator it models
            for (int k = 0; k < n; ++k)
                sum += UAcc(Acc(loadSample<S>(s + (size_t(k) * CH + c) * sizeof(S))) * Acc(w[k]));
            const Acc q = Acc(sum) / kOne;  // truncates toward zero
            const S out = S(q < 0 ? 0 : q > kMax ? kMax : q);
            std::memcpy(dst + (size_t(x) * CH + c) * sizeof(S), &out, sizeof(S));
        }
    }
}

template <typename T, typename S, int CH>
void scaleRowX(const ScaleRowXArgs& args, uint8_t* dst) {
    scalePixelsX<T, S, CH>(args, dst, 0, args.dst_width);
}

#define KV_SCALE_ROW_X(T)                                                   \
    template void scaleRowX<T, uint8_t, 1>(const ScaleRowXArgs&, uint8_t*); \
    template void scaleRowX<T, uint8_t, 2>(const ScaleRowXArgs&, uint8_t*); \
    template void scaleRowX<T, uint8_t, 3>(const ScaleRowXArgs&, uint8_t*); \
    template void scaleRowX<T, uint8_t, 4>(const ScaleRowXArgs&, uint8_t*); \
    template void scaleRowX<T, uint16_t, 1>(const ScaleRowXArgs&, uint8_t*); \
    template void scaleRowX<T, uint32_t, 1>(const ScaleRowXArgs&, uint8_t*);
KV_SCALE_ROW_X(signed char)
KV_SCALE_ROW_X(short)
#undef KV_SCALE_ROW_X

}  // namespace ref

namespace avx2 {

template <typename T>
bool pairSumsFit(const ScaleData<T>& table) {
    if (!std::is_same<T, signed char>::value) return true;
    const auto& b = table.builder;
    const int taps = (table.maxAperture + 1) & ~1;
    auto rowFits = [&](int r) {
        const T* w = b.row(r);
        for (int k = 0; k < taps; k += 2) {
            const int pos = std::max(int(w[k]), 0) + std::max(int(w[k + 1]), 0);
            const int neg = std::max(-int(w[k]), 0) + std::max(-int(w[k + 1]), 0);
            if (255 * pos > 32767 || 255 * neg > 32768) return false;
        }
        return true;
    };
    for (int r = 0; r < b.innerCount; ++r)
        if (!rowFits(r)) return false;
    for (int r = 0; r < b.borderCount; ++r)
        if (!rowFits(b.innerCapacity + r)) return false;
    return true;
}

template bool pairSumsFit<signed char>(const ScaleData<signed char>&);
template bool pairSumsFit<short>(const ScaleData<short>&);

}  // namespace avx2

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

template <int NB>
inline __m128i broadcastBytes(const void* p) {
    if constexpr (NB == 4) {
        int32_t v;
        std::memcpy(&v, p, 4);
        return _mm_set1_epi32(v);
    } else if constexpr (NB == 8) {
        long long v;
        std::memcpy(&v, p, 8);
        return _mm_set1_epi64x(v);
    } else {
        return _mm_loadu_si128(static_cast<const __m128i*>(p));
    }
}

inline __m256i combine(__m128i lo, __m128i hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

// Byte shuffle that gathers, from 16 source bytes at tap k0, channel c's taps
// into slot c. 8-bit weights: slots of STEP bytes. 16-bit weights: slots of
// STEP/2 zero-extended words for taps group*STEP/2 onward.
template <typename T, int CH>
__m256i tapMask(int group) {
    constexpr int kSlots = CH == 3 ? 4 : CH;
    constexpr int kStep = stepTaps(CH);
    alignas(16) uint8_t m[16];
    if (std::is_same<T, signed char>::value) {
        for (int j = 0; j < 16; ++j) {
            const int c = j / kStep, t = j % kStep;
            m[j] = c < CH ? uint8_t(t * CH + c) : 0x80;
        }
    } else {
        constexpr int kGroup = kStep / 2;
        for (int i = 0; i < 8; ++i) {
            const int c = i / kGroup, t = group * kGroup + i % kGroup;
            m[2 * i] = c < CH ? uint8_t(t * CH + c) : 0x80;
            m[2 * i + 1] = 0x80;
        }
    }
    (void)kSlots;
    const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i*>(m));
    return combine(v, v);
}

}  // namespace

template <typename T, int CH>
void scaleRowX(const ScaleRowXArgs& a, uint8_t* dst) {
    constexpr int kSlots = CH == 3 ? 4 : CH;
    constexpr int kStep = stepTaps(CH);
    constexpr int kOne = FixedPoint<T>::kOne;
    constexpr int kShift = FixedPoint<T>::kShift;
    constexpr bool kBytes = std::is_same<T, signed char>::value;
    const __m256i mask0 = tapMask<T, CH>(0);
    const __m256i mask1 = tapMask<T, CH>(1);
    const __m256i ones = _mm256_set1_epi16(1);
    const __m256i round = _mm256_set1_epi32(kOne - 1);
    const int taps = a.taps;
    int x = 0;
    for (; x + 2 <= a.vector_end; x += 2) {
        const ScaleEntry e0 = a.entries[x], e1 = a.entries[x + 1];
        const uint8_t* s0 = a.src + size_t(entryStart(e0)) * CH;
        const uint8_t* s1 = a.src + size_t(entryStart(e1)) * CH;
        const T* w0 = reinterpret_cast<const T*>(a.weights + size_t(entryRow(e0)) * a.stride);
        const T* w1 = reinterpret_cast<const T*>(a.weights + size_t(entryRow(e1)) * a.stride);
        __m256i acc = _mm256_setzero_si256();
        for (int k = 0; k < taps; k += kStep) {
            const __m256i v = combine(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + k * CH)),
                                      _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + k * CH)));
            if constexpr (kBytes) {
                // Pair sums fit in int16 (checked in reuse), so maddubs is exact.
                const __m256i wv = combine(broadcastBytes<kStep>(w0 + k), broadcastBytes<kStep>(w1 + k));
                const __m256i p = _mm256_maddubs_epi16(_mm256_shuffle_epi8(v, mask0), wv);
                acc = _mm256_add_epi32(acc, _mm256_madd_epi16(p, ones));
            } else {
                constexpr int kGroup = kStep / 2;
                const __m256i wa = combine(broadcastBytes<kGroup * 2>(w0 + k), broadcastBytes<kGroup * 2>(w1 + k));
                const __m256i wb = combine(broadcastBytes<kGroup * 2>(w0 + k + kGroup),
                                           broadcastBytes<kGroup * 2>(w1 + k + kGroup));
                acc = _mm256_add_epi32(acc, _mm256_madd_epi16(_mm256_shuffle_epi8(v, mask0), wa));
                acc = _mm256_add_epi32(acc, _mm256_madd_epi16(_mm256_shuffle_epi8(v, mask1), wb));
            }
        }
        if constexpr (kSlots <= 2) acc = _mm256_hadd_epi32(acc, acc);
        if constexpr (kSlots == 1) acc = _mm256_hadd_epi32(acc, acc);
        // Division truncating toward zero: negative sums get kOne - 1 added.
        const __m256i q =
            _mm256_srai_epi32(_mm256_add_epi32(acc, _mm256_and_si256(_mm256_srai_epi32(acc, 31), round)), kShift);
        const __m256i p = _mm256_packus_epi16(_mm256_packs_epi32(q, q), q);
        const int32_t r0 = _mm256_cvtsi256_si32(p);
        const int32_t r1 = _mm256_extract_epi32(p, 4);
        std::memcpy(dst + size_t(x) * CH, &r0, CH);
        std::memcpy(dst + size_t(x + 1) * CH, &r1, CH);
    }
    (void)mask1;
    (void)ones;
    ref::scalePixelsX<T, uint8_t, CH>(a, dst, x, a.dst_width);
}

template void scaleRowX<signed char, 1>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<signed char, 2>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<signed char, 3>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<signed char, 4>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<short, 1>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<short, 2>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<short, 3>(const ScaleRowXArgs&, uint8_t*);
template void scaleRowX<short, 4>(const ScaleRowXArgs&, uint8_t*);

}  // namespace avx2

#pragma GCC pop_options

namespace {

// Channel layout of each plane the horizontal pass filters.
struct PlaneFilter {
    int sample_bytes;
    int channels;
};

// Plane filters of a format; 0 planes when the pass does not accept it.
int planeFilters(FrameFormat format, PlaneFilter out[3]) {
    switch (format) {
        case FRAME_GRAY_8: out[0] = {1, 1}; return 1;
        case FRAME_BGR_8:
        case FRAME_YUV444:
        case FRAME_C3_8: out[0] = {1, 3}; return 1;
        case FRAME_I420:
        case FRAME_YV12:
        case FRAME_YV16:
        case FRAME_YUV444_PLANAR: out[0] = out[1] = out[2] = {1, 1}; return 3;
        case FRAME_NV12:
        case FRAME_NV21:
        case FRAME_NV16: out[0] = {1, 1}; out[1] = {1, 2}; return 2;
        case FRAME_C2_8: out[0] = {1, 2}; return 1;
        case FRAME_C4_8: out[0] = {1, 4}; return 1;
        case FRAME_GRAY_16: out[0] = {2, 1}; return 1;
        case FRAME_GRAY_FLOAT_32: out[0] = {4, 1}; return 1;
        default: return 0;
    }
}

template <typename T>
ScaleRowXFn refKernel(PlaneFilter f) {
    if (f.sample_bytes == 2) return ref::scaleRowX<T, uint16_t, 1>;
    if (f.sample_bytes == 4) return ref::scaleRowX<T, uint32_t, 1>;
    switch (f.channels) {
        case 1: return ref::scaleRowX<T, uint8_t, 1>;
        case 2: return ref::scaleRowX<T, uint8_t, 2>;
        case 3: return ref::scaleRowX<T, uint8_t, 3>;
        default: return ref::scaleRowX<T, uint8_t, 4>;
    }
}

template <typename T>
ScaleRowXFn avx2Kernel(PlaneFilter f) {
    if (f.sample_bytes != 1) return nullptr;
    switch (f.channels) {
        case 1: return avx2::scaleRowX<T, 1>;
        case 2: return avx2::scaleRowX<T, 2>;
        case 3: return avx2::scaleRowX<T, 3>;
        default: return avx2::scaleRowX<T, 4>;
    }
}

}  // namespace

template <typename T>
void ScaleX<T>::_reuseScaleData(IKernel& kernel, const FrameLayout& src, int dst_width) {
    if (_valid && _kernel == &kernel && _format == src.format && _dst_width == dst_width) return;
    _valid = false;
    _kernel = &kernel;
    _format = src.format;
    _dst_width = dst_width;
    _layout = FrameLayout(src.format, Size(dst_width, src.size.height), 64);
    if (!src.initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::impl::ScaleX::_reuseScaleData",
                 "Failure in ScaleX::reuse(...) : source frame is not initialized.");
    for (uint32_t p = 0; p < src.planes; ++p)
        _scale_data[p].reuse(kernel, src.plane[p].size.width, _layout.plane[p].size.width);
    _layout = FrameLayout(src.format, Size(dst_width, src.size.height), 64);
    _valid = true;
}

template <typename T>
void ScaleX<T>::_selectKernels() {
    const FrameLayout& src = _window.layout();
    PlaneFilter filters[3];
    const int planes = planeFilters(src.format, filters);
    _supported = planes > 0;
    const bool vector = activeIsa() >= Isa::kAvx2;
    for (int p = 0; p < 4; ++p) {
        _fn[p] = nullptr;
        _args[p] = ScaleRowXArgs();
        if (p >= planes || uint32_t(p) >= _layout.planes) continue;
        const PlaneFilter f = filters[p];
        const ScaleData<T>& table = _scale_data[p];
        ScaleRowXArgs& a = _args[p];
        a.src_width = src.plane[p].size.width;
        a.entries = table.entries.data();
        a.weights = table.builder.buffer.data();
        a.stride = table.builder.stride;
        a.taps = table.maxAperture;
        a.dst_width = std::min(_layout.plane[p].size.width, int(table.entries.size()));
        _fn[p] = refKernel<T>(f);
        ScaleRowXFn fast = vector && avx2::pairSumsFit(table) ? avx2Kernel<T>(f) : nullptr;
        if (!fast) continue;
        // The prefix of positions whose vector loads stay inside the row.
        const int step = avx2::stepTaps(f.channels);
        const int64_t last_tap = int64_t((a.taps + step - 1) / step - 1) * step;
        const int64_t row_bytes = int64_t(a.src_width) * f.channels;
        int end = 0;
        while (end < a.dst_width && (entryStart(a.entries[end]) + last_tap) * f.channels + 16 <= row_bytes) ++end;
        a.vector_end = end;
        _fn[p] = fast;
    }
}

template <typename T>
void ScaleX<T>::reuse(IKernel& kernel, IRowProducer& src, int dst_width) {
    _reuseScaleData(kernel, src.layout(), dst_width);
    _window.reuse(src, 1);
    _selectKernels();
}

template <typename T>
void ScaleX<T>::reuse(IKernel& kernel, const Frame& src, int dst_width) {
    _reuseScaleData(kernel, src.layout(), dst_width);
    _window.reuse(src, 1);
    _selectKernels();
}

template <typename T>
void ScaleX<T>::produce(RowData& row) {
    if (!initialized())
        KV_THROW(KV_STATUS_NOT_INITIALIZED, "kv::impl::ScaleX::produce",
                 "Failure in ScaleX::produce(...): the scaler is not initialized.");
    if (!_supported)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::impl::ScaleX::produce",
                 "Failure in ScaleX::produce(...) : unsupported format.");
    const RowData& src = _window.rowData(0);
    for (int p = 0; p < 4; ++p) {
        if (!row.plane[p] || !_fn[p]) continue;
        ScaleRowXArgs a = _args[p];
        a.src = src.plane[p];
        _fn[p](a, row.plane[p]);
    }
}

template class ScaleX<signed char>;
template class ScaleX<short>;

}  // namespace impl
}  // namespace kv
