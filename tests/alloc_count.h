// Heap allocation counter for tests that check steady-state calls allocate nothing.
#pragma once

#include <cstddef>

namespace kvtest {

// Number of global operator new calls so far in this process.
size_t allocationCount();

}  // namespace kvtest
