// AVX-512 half to float row (kv_impl_fast_kernels.h): sixteen values per
// conversion; long runs stream the floats to memory past the caches, which
// spares reading each destination line before it is overwritten. The head
// up to the first 64-byte boundary of the destination and the tail go to the
// AVX2 kernel, so every count gives the reference's bits.
#include <immintrin.h>

#include "kv_cv/kv_impl_fast_kernels.h"

namespace kv {
namespace impl {

namespace {

// Outputs of at least this many bytes stream; shorter ones are likely read
// again soon and stay in the caches.
constexpr size_t kStreamBytes = size_t(1) << 20;

}  // namespace

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512vl,avx512dq,f16c")
// GCC 12 reads the "undefined" pass-through operand of many AVX-512
// intrinsics as an uninitialised variable.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace avx512 {

void halfToFloatRow(const uint16_t* src, float* dst, size_t count) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(dst);
    if (count * sizeof(float) < kStreamBytes || (address & 3) != 0) {
        size_t i = 0;
        for (; i + 16 <= count; i += 16)
            _mm512_storeu_ps(dst + i, _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i))));
        if (i < count) avx2::halfToFloatRow(src + i, dst + i, count - i);
        return;
    }
    const size_t head = ((64 - (address & 63)) & 63) / sizeof(float);
    avx2::halfToFloatRow(src, dst, head);
    size_t i = head;
    for (; i + 16 <= count; i += 16)
        _mm512_stream_ps(dst + i, _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i))));
    _mm_sfence();  // the streamed stores are ordered before anything that follows
    if (i < count) avx2::halfToFloatRow(src + i, dst + i, count - i);
}

}  // namespace avx512

#pragma GCC diagnostic pop
#pragma GCC pop_options

}  // namespace impl
}  // namespace kv
