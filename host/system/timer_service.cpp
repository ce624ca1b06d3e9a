// The timer thread and the table it serves. Every reference the table drops is released
// after the lock: releasing may destroy a callback whose owner cancels or re-arms timers
// from its destructor. A periodic timer is rescheduled before it fires, so a cancel made
// while it runs removes the next firing too.
#include "host/system/timer_service.h"

#include <utility>
#include <vector>

#include "nox_tracing/tracing.h"

namespace oasd {
namespace {

using Ms = std::chrono::milliseconds;

// Milliseconds left, rounded up so an armed timer never reports 0 before it is due.
qeb::timer_duration_t MillisecondsLeft(std::chrono::steady_clock::duration left) {
  if (left <= left.zero()) return 0;
  const auto ms = std::chrono::ceil<Ms>(left).count();
  return static_cast<qeb::timer_duration_t>(ms);
}

}  // namespace

TimerService::TimerService(qeb::objptr_t<qeb::ITracer> tracer) : m_tracer(std::move(tracer)) {}

TimerService::~TimerService() { TearDown(); }

void TimerService::Start() {
  std::lock_guard lock(m_mutex);
  if (m_thread.joinable() || m_stopped) return;
  m_thread = std::thread([this] { Run(); });
  m_timerThread = m_thread.get_id();
}

void TimerService::TearDown() noexcept {
  std::map<qeb::ITimerCallback*, Armed> dropped;
  std::thread thread;
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
    m_stopped = true;
    thread = std::move(m_thread);
    dropped.swap(m_armed);
    m_deadlines.clear();
  }
  m_wake.notify_all();
  if (thread.joinable()) {
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();  // torn down from a callback: the thread ends on its own
    else
      thread.join();
  }
}

qeb::result_t TimerService::SetTimer(qeb::ITimerCallback* callback, qeb::timer_duration_t timeout) noexcept {
  return Arm(callback, timeout, false);
}

qeb::result_t TimerService::SetPeriodicTimer(qeb::ITimerCallback* callback,
                                             qeb::timer_duration_t period) noexcept {
  if (period == 0) return qeb::res::InvalidArgument;
  return Arm(callback, period, true);
}

qeb::result_t TimerService::Arm(qeb::ITimerCallback* callback, qeb::timer_duration_t interval,
                                bool periodic) {
  if (!callback) return qeb::res::InvalidArgument;
  bool wake = false;
  try {
    std::lock_guard lock(m_mutex);
    if (m_stopped) return qeb::res::NotReady;
    auto [it, inserted] = m_armed.try_emplace(callback);
    Armed& entry = it->second;
    if (inserted)
      entry.callback = qeb::objptr_t<qeb::ITimerCallback>(callback);
    else
      m_deadlines.erase(entry.deadline);
    entry.interval = interval;
    entry.periodic = periodic;
    wake = Schedule(entry);
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
  if (wake) m_wake.notify_one();
  return qeb::res::Ok;
}

bool TimerService::Schedule(Armed& entry) {
  const auto due = Clock::now() + Ms(entry.interval);
  entry.deadline = m_deadlines.emplace(due, entry.callback.Get());
  return due < m_wakeAt;
}

qeb::result_t TimerService::GetTimeLeft(qeb::ITimerCallback* callback,
                                        qeb::timer_duration_t& left) noexcept {
  std::lock_guard lock(m_mutex);
  auto it = m_armed.find(callback);
  if (it == m_armed.end()) return qeb::res::NotFound;
  left = MillisecondsLeft(it->second.deadline->first - Clock::now());
  return qeb::res::Ok;
}

qeb::result_t TimerService::RestartTimer(qeb::ITimerCallback* callback) noexcept {
  bool wake = false;
  try {
    std::lock_guard lock(m_mutex);
    auto it = m_armed.find(callback);
    if (it == m_armed.end()) return qeb::res::NotFound;
    m_deadlines.erase(it->second.deadline);
    wake = Schedule(it->second);
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
  if (wake) m_wake.notify_one();
  return qeb::res::Ok;
}

qeb::result_t TimerService::CancelTimer(qeb::ITimerCallback* callback) noexcept {
  qeb::objptr_t<qeb::ITimerCallback> removed;
  std::unique_lock lock(m_mutex);
  auto it = m_armed.find(callback);
  const bool wasArmed = it != m_armed.end();
  if (wasArmed) {
    m_deadlines.erase(it->second.deadline);
    removed = std::move(it->second.callback);
    m_armed.erase(it);
  }
  if (std::this_thread::get_id() != m_timerThread)
    m_finished.wait(lock, [&] { return m_running != callback; });
  lock.unlock();
  return wasArmed ? qeb::res::Ok : qeb::res::False;
}

qeb::objptr_t<qeb::ITimerCallback> TimerService::TakeDue(Clock::time_point now) {
  if (m_deadlines.empty() || m_deadlines.begin()->first > now) return nullptr;
  auto it = m_armed.find(m_deadlines.begin()->second);
  m_deadlines.erase(m_deadlines.begin());
  Armed& entry = it->second;
  if (entry.periodic) {
    Schedule(entry);
    return entry.callback;
  }
  qeb::objptr_t<qeb::ITimerCallback> due = std::move(entry.callback);
  m_armed.erase(it);
  return due;
}

void TimerService::Run() {
  std::unique_lock lock(m_mutex);
  while (!m_stopping) {
    qeb::objptr_t<qeb::ITimerCallback> due = TakeDue(Clock::now());
    if (due) {
      m_running = due.Get();
      lock.unlock();
      Fire(std::move(due));
      lock.lock();
      m_running = nullptr;
      m_finished.notify_all();
    } else {
      // A copy: the entry may be erased while the lock is released inside the wait.
      const Clock::time_point next =
          m_deadlines.empty() ? Clock::time_point::max() : m_deadlines.begin()->first;
      m_wakeAt = next;
      if (next == Clock::time_point::max())
        m_wake.wait(lock);
      else
        m_wake.wait_until(lock, next);
      m_wakeAt = Clock::time_point::min();
    }
  }
}

void TimerService::Fire(qeb::objptr_t<qeb::ITimerCallback> callback) {
  const qeb::result_t result = callback->OnTimer();
  if (QEB_FAILED(result)) {
    QEB_TRACE(m_tracer, qeb::trace::LevelDetail) << "Timer callback failed: " << result;
  }
  callback.Reset();  // may be the last reference: released before the lock is taken again
}

}  // namespace oasd
