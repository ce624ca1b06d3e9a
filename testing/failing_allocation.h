// Allocation failure on demand, for the paths that must survive std::bad_alloc. A test
// binary that calls FailAllocation gets a replacement of the global operator new that
// fails once, on the calling thread, after the given number of allocations succeeded.
#pragma once

#include <cstddef>

namespace qeb::testing {

void FailAllocation(size_t after = 0) noexcept;

}  // namespace qeb::testing
