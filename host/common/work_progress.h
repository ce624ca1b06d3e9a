// Whether the threads that answer the kernel are moving, for the systemd watchdog. Each
// stage notes when a piece of work starts and finishes (lock-free, on the hot path); only
// the watchdog reads. Owned by HostMetrics' owner; stages keep a pointer, never a copy.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

namespace oasd {

class StageProgress {
 public:
  static int64_t NowMs() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  }
  // Work that starts when none was in flight starts the clock; otherwise a finish does.
  void Started() noexcept {
    if (m_inFlight.load(std::memory_order_relaxed) == 0) m_lastMoveMs.store(NowMs());
    m_inFlight.fetch_add(1);
  }
  void Finished() noexcept {
    m_lastMoveMs.store(NowMs());
    m_inFlight.fetch_sub(1);
  }
  // Work in flight and nothing finished for longer than limitMs: an idle stage never stalls.
  bool Stalled(int64_t limitMs, int64_t nowMs) const noexcept {
    return m_inFlight.load() > 0 && nowMs - m_lastMoveMs.load() > limitMs;
  }

 private:
  std::atomic<int64_t> m_inFlight{0};
  std::atomic<int64_t> m_lastMoveMs{0};
};

struct WorkProgress {
  StageProgress reader;   // the readers of local filesystems (a server lane may wait on its server)
  StageProgress workers;  // the worker pools' tasks
};

}  // namespace oasd
