// Lifetime of the timeout callback: created with one reference for the event that arms
// it, kept alive by the timer while armed, destroyed by whichever side releases last.
#include "oas/timeout_callback.h"

#include "framework/qeb/object_wrapper.h"
#include "oas/file_interceptor_event.h"

namespace nox::oas {

static_assert(sizeof(TimeoutCallback) == 24, "interface table, event pointer and two counts");

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

// The firing count is raised before the pointer is read, and Detach clears the pointer
// before it reads the count (both sequentially consistent): a firing either sees no
// event or is seen, and waited for, by Detach.
qeb::result_t TimeoutCallback::OnTimer() noexcept {
  m_firing.fetch_add(1);
  FileInterceptorEvent* event = m_event.load();
  const qeb::result_t result = event ? event->OnTimeout() : qeb::res::False;
  if (m_firing.fetch_sub(1) == 1) m_firing.notify_all();
  return result;
}

void TimeoutCallback::Detach() noexcept {
  m_event.store(nullptr);
  for (uint32_t firing = m_firing.load(); firing != 0; firing = m_firing.load()) m_firing.wait(firing);
}

}  // namespace nox::oas
