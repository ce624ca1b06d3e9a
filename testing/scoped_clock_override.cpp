// The override's value lives in one atomic that the installed source reads.
#include "testing/scoped_clock_override.h"

#include <atomic>

namespace qeb::testing {
namespace {

std::atomic<int64_t> g_now{0};

int64_t OverriddenNow() noexcept { return g_now.load(std::memory_order_acquire); }

}  // namespace

ScopedClockOverride::ScopedClockOverride(int64_t now) noexcept
    : m_previousSource(nox::oas::InstallMonotonicSource(&OverriddenNow)),
      m_previousValue(g_now.exchange(now, std::memory_order_acq_rel)) {}

ScopedClockOverride::~ScopedClockOverride() {
  g_now.store(m_previousValue, std::memory_order_release);
  nox::oas::InstallMonotonicSource(m_previousSource);
}

void ScopedClockOverride::Set(int64_t now) noexcept { g_now.store(now, std::memory_order_release); }

void ScopedClockOverride::Advance(int64_t nanoseconds) noexcept {
  g_now.fetch_add(nanoseconds, std::memory_order_acq_rel);
}

int64_t ScopedClockOverride::Now() const noexcept { return g_now.load(std::memory_order_acquire); }

}  // namespace qeb::testing
