// Lifetime of the timeout callback: created with one reference for the event that arms
// it, kept alive by the timer while armed, destroyed by whichever side releases last.
#include "oas/timeout_callback.h"

#include "framework/qeb/object_wrapper.h"
#include "oas/file_interceptor_event.h"

namespace nox::oas {

static_assert(sizeof(TimeoutCallback) == 24, "interface table, event pointer and count");

qeb::objptr_t<TimeoutCallback> TimeoutCallback::Create(FileInterceptorEvent* event) {
  return qeb::objptr_t<TimeoutCallback>::Attach(
      std::make_unique<TimeoutCallback>(Passkey{}, event).release());
}

TimeoutCallback::TimeoutCallback(Passkey, FileInterceptorEvent* event) noexcept : m_event(event) {
  qeb::module::IncrementObjectCount();
}

TimeoutCallback::~TimeoutCallback() { qeb::module::DecrementObjectCount(); }

uint32_t TimeoutCallback::AddRef() noexcept {
  return m_refs.fetch_add(1, std::memory_order_relaxed) + 1;
}

uint32_t TimeoutCallback::Release() noexcept {
  const uint32_t left = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) std::unique_ptr<TimeoutCallback> self(this);
  return left;
}

qeb::result_t TimeoutCallback::QueryInterface(qeb::iid_t iid, void** out) noexcept {
  if (!out) return qeb::res::InvalidArgument;
  *out = nullptr;
  if (!qeb::object::Implements<qeb::ITimerCallback>(iid)) return qeb::res::NoInterface;
  *out = static_cast<qeb::ITimerCallback*>(this);
  AddRef();
  return qeb::res::Ok;
}

qeb::result_t TimeoutCallback::OnTimer() noexcept { return m_event->OnTimeout(); }

}  // namespace nox::oas
