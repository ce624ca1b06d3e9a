// The host's timer service: one thread and a deadline-ordered table of armed callbacks,
// keyed by the callback object. The service holds one reference per armed callback and
// drops it (outside its lock) when a one-shot fires or a timer is cancelled. Callbacks run
// on the timer thread without the lock; CancelTimer waits out a running call of the same
// callback unless it is made from the timer thread itself.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "interfaces/qeb/timer.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

class TimerService : public qeb::object::Ifaces<qeb::ITimerService> {
 public:
  explicit TimerService(qeb::objptr_t<qeb::ITracer> tracer);
  ~TimerService();

  qeb::result_t SetUp() noexcept { return qeb::res::Ok; }
  // Starts the timer thread; timers armed before then fire once it runs.
  void Start();
  // Stops and joins the thread and drops every armed callback; later arming fails. Idempotent.
  void TearDown() noexcept;

  qeb::result_t SetTimer(qeb::ITimerCallback* callback, qeb::timer_duration_t timeout) noexcept override;
  qeb::result_t SetPeriodicTimer(qeb::ITimerCallback* callback,
                                 qeb::timer_duration_t period) noexcept override;
  qeb::result_t GetTimeLeft(qeb::ITimerCallback* callback, qeb::timer_duration_t& left) noexcept override;
  qeb::result_t RestartTimer(qeb::ITimerCallback* callback) noexcept override;
  qeb::result_t CancelTimer(qeb::ITimerCallback* callback) noexcept override;

 private:
  using Clock = std::chrono::steady_clock;
  using Deadlines = std::multimap<Clock::time_point, qeb::ITimerCallback*>;
  struct Armed {
    qeb::objptr_t<qeb::ITimerCallback> callback;
    qeb::timer_duration_t interval = 0;
    bool periodic = false;
    Deadlines::iterator deadline;
  };

  qeb::result_t Arm(qeb::ITimerCallback* callback, qeb::timer_duration_t interval, bool periodic);
  // Puts the entry at now + interval; true when the timer thread must be woken to keep
  // that deadline. m_mutex held.
  bool Schedule(Armed& entry);
  // The callback to fire now, taken off the table (one-shot) or rescheduled (periodic);
  // null when none is due. m_mutex held.
  qeb::objptr_t<qeb::ITimerCallback> TakeDue(Clock::time_point now);
  void Run();
  void Fire(qeb::objptr_t<qeb::ITimerCallback> callback);

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  std::mutex m_mutex;
  std::condition_variable m_wake;      // a deadline came before m_wakeAt, or stop
  // When the timer thread next looks at the table by itself: the deadline it sleeps until,
  // max() when it sleeps with nothing armed, min() while it is awake (it looks before it
  // sleeps again). Arming a later deadline wakes nobody: most timers are cancelled long
  // before they are due, and waking the thread for each would cost every event a switch.
  Clock::time_point m_wakeAt = Clock::time_point::min();
  std::condition_variable m_finished;  // a callback returned
  std::map<qeb::ITimerCallback*, Armed> m_armed;
  Deadlines m_deadlines;
  qeb::ITimerCallback* m_running = nullptr;  // the callback the timer thread is in
  std::thread::id m_timerThread;
  bool m_stopping = false;
  bool m_stopped = false;
  std::thread m_thread;
};

}  // namespace oasd
