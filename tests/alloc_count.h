// Heap allocation counting for tests: the test binary replaces the global
// operator new (tests/test_alloc_count.cpp), so a test can assert that code
// under test allocated nothing between two readings.
#pragma once

#include <cstddef>

namespace kvtest {

// Calls of any global operator new so far, on any thread.
size_t allocationCount();

}  // namespace kvtest
