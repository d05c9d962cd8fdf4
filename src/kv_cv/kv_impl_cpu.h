// Run-time instruction-set selection for the row kernels. Objects pick their
// kernels once, in reuse(), from activeIsa(); tests cap it to compare the
// vector kernels with their scalar references.
#pragma once

namespace kv {
namespace impl {

// kAvx512 is the AVX-512 of Ice Lake, Zen 4 and later: F, BW, DQ, VL plus
// VBMI (byte permutes across the register) and VNNI (byte dot products);
// processors with AVX-512 but without those two run the AVX2 kernels.
// Kernels without an AVX-512 version run their AVX2 version at kAvx512.
enum class Isa { kScalar = 0, kSse41 = 1, kAvx2 = 2, kAvx512 = 3 };

// The best instruction set the processor supports (detected once).
Isa detectedIsa();
// min(detectedIsa(), the cap set for testing).
Isa activeIsa();
// Test-only: caps activeIsa(). Not exported from the shared library.
void setMaxIsaForTesting(Isa isa);
const char* isaName(Isa isa);

}  // namespace impl
}  // namespace kv

// The code generation region of the kAvx512 kernels (open and close it around
// their namespace avx512). GCC 12 reads the "undefined" pass-through operand
// of many AVX-512 intrinsics as an uninitialised variable, hence the quieted
// warning. Clang ignores GCC's target pragma and takes the same features as
// an attribute on every function of the region.
#if defined(__clang__)
// clang-format off
#define KV_AVX512_BEGIN _Pragma("clang attribute push(__attribute__((target(\"avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,avx512vnni,fma,f16c\"))), apply_to = function)")
// clang-format on
#define KV_AVX512_END _Pragma("clang attribute pop")
#else
#define KV_AVX512_BEGIN                                                                              \
    _Pragma("GCC push_options")                                                                      \
    _Pragma("GCC target(\"avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,avx512vnni,fma,f16c\")")  \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wmaybe-uninitialized\"")
#define KV_AVX512_END _Pragma("GCC diagnostic pop") _Pragma("GCC pop_options")
#endif
