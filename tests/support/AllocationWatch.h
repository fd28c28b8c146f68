// Counts how often one watched address is given back to operator delete.
//
// A test binary that links AllocationWatch.cpp replaces the global operator
// new and delete (forwarding to malloc and free) so that a test can tell that
// a block was freed, and freed exactly once.
#pragma once

#include <cstdint>

namespace ZOR::test {

// Starts watching address (null stops watching) and resets the count.
void watchFrees(const void* address);
// How many times the watched address was deleted since watchFrees().
int64_t watchedFrees();

}  // namespace ZOR::test
