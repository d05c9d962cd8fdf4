// AVX-512 half to float row (kv_impl_fast_kernels.h): sixteen values per
// conversion. Outputs larger than a last-level cache stream the floats to
// memory (aligned non-temporal stores), which spares reading each destination
// line before it is overwritten; smaller ones are stored normally, since a
// streamed line leaves the caches it could have been served from (on a
// 2-core Zen 5 guest, 8 MB of output took 1.5 times as long streamed, 132 MB
// 0.78 times). Either way the floats are stored whole 64-byte lines at a time;
// the head up to the first line boundary and the tail of every row go to the
// AVX2 kernel, so every count gives the reference's bits.
#include <immintrin.h>

#include <algorithm>

#include "kv_cv/kv_impl_fast_kernels.h"

namespace kv {
namespace impl {

namespace {

// Outputs of at least this many bytes stream (streaming measured faster from
// 16 MB up, slower at 8 MB).
constexpr size_t kStreamBytes = size_t(16) << 20;

}  // namespace

KV_AVX512_BEGIN

namespace avx512 {

void halfToFloatRow(const uint16_t* src, float* dst, size_t count) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(dst);
    // Whole-line stores from the first 64-byte boundary on (a store across
    // two lines costs both), unless the floats are not even 4-byte aligned.
    const bool aligned = (address & 3) == 0;
    const size_t head = aligned ? std::min(count, ((64 - (address & 63)) & 63) / sizeof(float)) : 0;
    avx2::halfToFloatRow(src, dst, head);
    size_t i = head;
    if (count * sizeof(float) < kStreamBytes || !aligned) {
        for (; i + 32 <= count; i += 32) {
            const __m512 a = _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i)));
            const __m512 b = _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 16)));
            if (aligned) {
                _mm512_store_ps(dst + i, a);
                _mm512_store_ps(dst + i + 16, b);
            } else {
                _mm512_storeu_ps(dst + i, a);
                _mm512_storeu_ps(dst + i + 16, b);
            }
        }
    } else {
        for (; i + 16 <= count; i += 16)
            _mm512_stream_ps(dst + i, _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i))));
        _mm_sfence();  // the streamed stores are ordered before anything that follows
    }
    if (i < count) avx2::halfToFloatRow(src + i, dst + i, count - i);
}

}  // namespace avx512

KV_AVX512_END

}  // namespace impl
}  // namespace kv
