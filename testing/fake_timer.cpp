// Every callback handed to SetTimer is held by one reference while armed; a firing marks
// it in flight under the lock, so CancelTimer knows to wait for it.
#include "testing/fake_timer.h"

#include "testing/fault_injection.h"

namespace qeb::testing {
namespace {

template <class T>
void Remember(std::deque<T>& history, T item) {
  history.push_back(item);
  if (history.size() > FakeTimer::HistoryLength) history.pop_front();
}

}  // namespace

result_t FakeTimer::SetTimer(ITimerCallback* callback, timer_duration_t timeout) noexcept {
  if (!callback) return res::InvalidArgument;
  OAS_FAULT_POINT("timer SetTimer");
  objptr_t<ITimerCallback> previous;
  std::lock_guard lock(m_mutex);
  Remember(m_arms, TimerArm{callback, timeout});
  auto& slot = m_armed[callback];
  previous = std::exchange(slot, objptr_t<ITimerCallback>(callback));
  return res::Ok;
}

result_t FakeTimer::CancelTimer(ITimerCallback* callback) noexcept {
  OAS_FAULT_POINT("timer CancelTimer");
  objptr_t<ITimerCallback> removed;
  std::unique_lock lock(m_mutex);
  auto it = m_armed.find(callback);
  const bool wasArmed = it != m_armed.end();
  if (wasArmed) {
    removed = std::move(it->second);
    m_armed.erase(it);
  }
  m_fired.wait(lock, [&] { return m_inFlight.count(callback) == 0; });
  return wasArmed ? res::Ok : res::False;
}

size_t FakeTimer::FireAll() {
  std::vector<objptr_t<ITimerCallback>> due;
  {
    std::lock_guard lock(m_mutex);
    for (auto& [key, callback] : m_armed) {
      ++m_inFlight[key];
      due.push_back(std::move(callback));
    }
    m_armed.clear();
  }
  for (auto& callback : due) {
    callback->OnTimer();
    std::lock_guard lock(m_mutex);
    if (--m_inFlight[callback.Get()] == 0) m_inFlight.erase(callback.Get());
    m_fired.notify_all();
  }
  return due.size();
}

void FakeTimer::DisarmAll() {
  std::map<const ITimerCallback*, objptr_t<ITimerCallback>> dropped;
  std::lock_guard lock(m_mutex);
  dropped.swap(m_armed);
}

size_t FakeTimer::ArmedCount() const {
  std::lock_guard lock(m_mutex);
  return m_armed.size();
}

std::vector<TimerArm> FakeTimer::Arms() const {
  std::lock_guard lock(m_mutex);
  return {m_arms.begin(), m_arms.end()};
}

}  // namespace qeb::testing
