// Processor feature detection for kernel dispatch.
#include "kv_cv/kv_impl_cpu.h"

#include <atomic>

// The fuzz build defines __builtin_cpu_supports to 1 for the names clang does
// not know; every name tested here is one it knows, and the AVX-512 answer
// must be the processor's.
#ifdef __builtin_cpu_supports
#undef __builtin_cpu_supports
#endif

namespace kv {
namespace impl {

namespace {
std::atomic<int> g_max_isa{int(Isa::kAvx512)};
}

Isa detectedIsa() {
    static const Isa isa = [] {
        __builtin_cpu_init();
        // The compiler's checks include the operating system's support for
        // the wider register state.
        if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
            __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
            __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vnni") &&
            __builtin_cpu_supports("fma"))
            return Isa::kAvx512;
        if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return Isa::kAvx2;
        if (__builtin_cpu_supports("sse4.1")) return Isa::kSse41;
        return Isa::kScalar;
    }();
    return isa;
}

Isa activeIsa() {
    const int cap = g_max_isa.load(std::memory_order_relaxed);
    const int det = int(detectedIsa());
    return Isa(det < cap ? det : cap);
}

void setMaxIsaForTesting(Isa isa) { g_max_isa.store(int(isa), std::memory_order_relaxed); }

const char* isaName(Isa isa) {
    switch (isa) {
        case Isa::kScalar: return "scalar";
        case Isa::kSse41: return "sse41";
        case Isa::kAvx2: return "avx2";
        case Isa::kAvx512: return "avx512";
    }
    return "unknown";
}

}  // namespace impl
}  // namespace kv
