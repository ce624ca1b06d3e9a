// The host's timer service: one-shot and periodic timers keyed by the callback object.
// The service holds a reference on each armed callback until it fires or is cancelled;
// a cancel returns only once no call into that callback is still running.
#pragma once

#include <cstdint>

#include "interfaces/qeb/object.h"

namespace qeb {

// Timer intervals are milliseconds.
using timer_duration_t = uint32_t;

struct ITimerCallback : IObject {
  static constexpr iid_t IID = 0x5e2d9c31;
  using BaseInterface = IObject;

  virtual result_t OnTimer() noexcept = 0;

 protected:
  ~ITimerCallback() = default;
};

struct ITimerService : IObject {
  static constexpr iid_t IID = 0xccd50778;
  using BaseInterface = IObject;

  // Fires the callback once after timeout; arming an armed callback restarts it.
  virtual result_t SetTimer(ITimerCallback* callback, timer_duration_t timeout) noexcept = 0;
  // Fires the callback every period until cancelled.
  virtual result_t SetPeriodicTimer(ITimerCallback* callback, timer_duration_t period) noexcept = 0;
  // Time left before the callback fires; NotFound when it is not armed.
  virtual result_t GetTimeLeft(ITimerCallback* callback, timer_duration_t& left) noexcept = 0;
  // Restarts an armed callback with the interval it was armed with.
  virtual result_t RestartTimer(ITimerCallback* callback) noexcept = 0;
  // Disarms the callback; 1 when it was not armed.
  virtual result_t CancelTimer(ITimerCallback* callback) noexcept = 0;

 protected:
  ~ITimerService() = default;
};

}  // namespace qeb
