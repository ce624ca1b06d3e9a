// Receivers are called outside the provider's lock, as a real provider's intake threads
// would call them, so tests can deliver from several threads at once.
#include "testing/fake_events_provider.h"

#include "testing/fault_injection.h"

namespace qeb::testing {

result_t FakeEventsProvider::Subscribe(nox::IFileEventsReceiver* receiver,
                                       const nox::FileEventsSubscription& subscription) noexcept {
  OAS_FAULT_POINT("events provider Subscribe");
  // Like oasd's provider, one receiver at a time: a second is refused while the first
  // is held, so no event is ever offered to two receivers.
  if (m_receivers.Count() != 0) return res::InvalidState;
  const result_t r = m_receivers.Add(receiver);
  if (QEB_SUCCEEDED(r)) {
    std::lock_guard lock(m_mutex);
    m_subscriptions.push_back(subscription);
  }
  return r;
}

result_t FakeEventsProvider::Resubscribe(nox::IFileEventsReceiver*,
                                         const nox::FileEventsSubscription& subscription) noexcept {
  OAS_FAULT_POINT("events provider Resubscribe");
  ++m_resubscribeCalls;
  const result_t refusal = m_resubscribeRefusal;
  if (QEB_FAILED(refusal)) return refusal;
  std::lock_guard lock(m_mutex);
  m_subscriptions.push_back(subscription);
  return res::Ok;
}

result_t FakeEventsProvider::Unsubscribe(nox::IFileEventsReceiver* receiver) noexcept {
  OAS_FAULT_POINT("events provider Unsubscribe");
  return m_receivers.Remove(receiver);
}

result_t FakeEventsProvider::Deliver(const vrel::EventParams& params) {
  result_t last = res::NotFound;
  for (auto& receiver : m_receivers.Snapshot()) last = receiver->OnEvent(params);
  return last;
}

}  // namespace qeb::testing
