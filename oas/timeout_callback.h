// The timer's handle on an interceptor event: 24 bytes holding its interface table, a
// plain pointer back to the event and its own reference count. It never owns the event;
// the event cancels the timer before it dies, so the pointer is valid whenever it fires.
// The callback frees itself on its last release and counts as a module object meanwhile.
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

 private:
  friend struct std::default_delete<TimeoutCallback>;
  ~TimeoutCallback();

  FileInterceptorEvent* m_event;
  std::atomic<uint32_t> m_refs{1};
};

}  // namespace nox::oas
