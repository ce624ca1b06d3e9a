// Allocation failure on demand, for the paths that must survive std::bad_alloc. Including
// this header replaces the global operator new of the test binary (so only one file of a
// binary may include it, and no other binary gets the replacement): FailAllocation makes
// one allocation on the calling thread fail, after the given number succeeded.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace qeb::testing {

inline thread_local long t_allocationsBeforeFailure = -1;

inline void FailAllocation(size_t after = 0) noexcept {
  t_allocationsBeforeFailure = static_cast<long>(after);
}

}  // namespace qeb::testing

// Out of line, so that no caller's code sees malloc and free behind new and delete.
[[gnu::noinline]] void* operator new(std::size_t size) {
  long& countdown = qeb::testing::t_allocationsBeforeFailure;
  if (countdown >= 0 && countdown-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }
