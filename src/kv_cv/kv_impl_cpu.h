// Run-time instruction-set selection for the row kernels. Objects pick their
// kernels once, in reuse(), from activeIsa(); tests cap it to compare the
// vector kernels with their scalar references.
#pragma once

namespace kv {
namespace impl {

enum class Isa { kScalar = 0, kSse41 = 1, kAvx2 = 2 };

// The best instruction set the processor supports (detected once).
Isa detectedIsa();
// min(detectedIsa(), the cap set for testing).
Isa activeIsa();
// Test-only: caps activeIsa(). Not exported from the shared library.
void setMaxIsaForTesting(Isa isa);
const char* isaName(Isa isa);

}  // namespace impl
}  // namespace kv
