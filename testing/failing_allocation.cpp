// The replacement lives beside FailAllocation, so only binaries that use it link it in.
#include "testing/failing_allocation.h"

#include <cstdlib>
#include <new>

namespace {
thread_local long t_allocationsBeforeFailure = -1;
}  // namespace

namespace qeb::testing {

void FailAllocation(size_t after) noexcept { t_allocationsBeforeFailure = static_cast<long>(after); }

}  // namespace qeb::testing

void* operator new(std::size_t size) {
  if (t_allocationsBeforeFailure >= 0 && t_allocationsBeforeFailure-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
