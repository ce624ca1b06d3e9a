// Hand-driven time for the clean-file caches: while an override lives, the module's
// raw monotonic clock reads the value the test sets. The value is process-wide and
// atomic; a nested override saves and restores the one it replaced.
#pragma once

#include <cstdint>

#include "oas/monotonic_clock.h"

namespace qeb::testing {

class ScopedClockOverride {
 public:
  // Far from 0, so that "0 = clock unreadable" never looks like a real reading.
  static constexpr int64_t DefaultStart = 1'000'000'000'000;

  explicit ScopedClockOverride(int64_t now = DefaultStart) noexcept;
  ~ScopedClockOverride();
  ScopedClockOverride(const ScopedClockOverride&) = delete;
  ScopedClockOverride& operator=(const ScopedClockOverride&) = delete;

  void Set(int64_t now) noexcept;
  void Advance(int64_t nanoseconds) noexcept;
  int64_t Now() const noexcept;

 private:
  nox::oas::MonotonicSource m_previousSource;
  int64_t m_previousValue;
};

}  // namespace qeb::testing
