// The one place the clean-file caches read "now": the raw monotonic clock in
// nanoseconds. Owns only the process-wide source pointer that tests swap in to
// drive time by hand; callers never cache the value across operations.
#pragma once

#include <cstdint>

namespace nox::oas {

// Raw monotonic nanoseconds; 0 when the clock cannot be read.
int64_t RawMonotonicNow() noexcept;

// While a source is installed, RawMonotonicNow answers what it answers. Installing
// nullptr restores the system clock. Returns the source that was installed before.
using MonotonicSource = int64_t (*)() noexcept;
MonotonicSource InstallMonotonicSource(MonotonicSource source) noexcept;

}  // namespace nox::oas
