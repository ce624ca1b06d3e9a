// The timer's handle on an interceptor event: 24 bytes holding its interface table, a
// non-owning pointer back to the event, its reference count and a count of firings in
// progress. The event cancels the timer and then detaches the callback before it dies, so
// a timer that refused the cancel finds nothing to call. The callback frees itself on its
// last release and counts as a module object meanwhile.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "framework/qeb/objptr.h"
#include "interfaces/qeb/timer.h"

namespace nox::oas {

class FileInterceptorEvent;

class TimeoutCallback final : public qeb::ITimerCallback {
  struct Passkey {};

 public:
  static qeb::objptr_t<TimeoutCallback> Create(FileInterceptorEvent* event);
  TimeoutCallback(Passkey, FileInterceptorEvent* event) noexcept;
  TimeoutCallback(const TimeoutCallback&) = delete;
  TimeoutCallback& operator=(const TimeoutCallback&) = delete;

  uint32_t AddRef() noexcept override;
  uint32_t Release() noexcept override;
  qeb::result_t QueryInterface(qeb::iid_t iid, void** out) noexcept override;
  qeb::result_t OnTimer() noexcept override;

  // No firing reaches the event once this returns; a firing already inside it is waited for.
  void Detach() noexcept;

 private:
  friend struct std::default_delete<TimeoutCallback>;
  ~TimeoutCallback();

  std::atomic<FileInterceptorEvent*> m_event;
  std::atomic<uint32_t> m_refs{1};
  std::atomic<uint32_t> m_firing{0};
};

}  // namespace nox::oas
