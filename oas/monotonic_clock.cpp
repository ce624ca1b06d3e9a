// The installed source is an atomic pointer so that a test may swap it while worker
// threads read the clock; the system clock path costs one relaxed load more.
#include "oas/monotonic_clock.h"

#include <time.h>

#include <atomic>

namespace nox::oas {
namespace {

std::atomic<MonotonicSource> g_source{nullptr};

int64_t SystemRawMonotonic() noexcept {
  timespec ts{};
  if (clock_gettime(CLOCK_MONOTONIC_RAW, &ts) != 0) return 0;
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

}  // namespace

int64_t RawMonotonicNow() noexcept {
  const MonotonicSource source = g_source.load(std::memory_order_acquire);
  return source ? source() : SystemRawMonotonic();
}

MonotonicSource InstallMonotonicSource(MonotonicSource source) noexcept {
  return g_source.exchange(source, std::memory_order_acq_rel);
}

}  // namespace nox::oas
