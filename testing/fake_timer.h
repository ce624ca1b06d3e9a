// The fake host's timer: one-shot timers that never fire by themselves. Tests fire the
// armed callbacks by hand, from any thread; a fired timer is disarmed, as a real one-shot
// timer is. A cancel waits for a firing of the same callback that is still running, so
// the owner of a callback may die right after cancelling it. It keeps what it holds bounded
// (the armed timers and a recent history), so benchmarks may arm millions of timers.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/qeb/timer.h"

namespace qeb::testing {

struct TimerArm {
  const ITimerCallback* callback;
  timer_duration_t timeout;
};

class FakeTimer : public object::Ifaces<ITimerService> {
 public:
  result_t SetTimer(ITimerCallback* callback, timer_duration_t timeout) noexcept override;
  result_t CancelTimer(ITimerCallback* callback) noexcept override;

  // The module arms one-shot timers and cancels them, nothing else: the other operations
  // answer NotImplemented, so a module that started to use them would see it at once.
  result_t SetPeriodicTimer(ITimerCallback*, timer_duration_t) noexcept override { return res::NotImplemented; }
  result_t GetTimeLeft(ITimerCallback*, timer_duration_t&) noexcept override { return res::NotImplemented; }
  result_t RestartTimer(ITimerCallback*) noexcept override { return res::NotImplemented; }

  // Fires every armed callback once and disarms it; returns how many fired.
  size_t FireAll();
  // Disarms everything without firing, as a timer service that stops does.
  void DisarmAll();

  // The history keeps the most recent calls only.
  static constexpr size_t HistoryLength = 4096;

  size_t ArmedCount() const;
  std::vector<TimerArm> Arms() const;  // SetTimer calls, in order

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_fired;
  std::map<const ITimerCallback*, objptr_t<ITimerCallback>> m_armed;
  std::map<const ITimerCallback*, size_t> m_inFlight;
  std::deque<TimerArm> m_arms;
};

}  // namespace qeb::testing
