// The fake file-events provider: holds one receiver at a time with its subscription
// records and delivers events to it, from whichever thread the test calls it on.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/file_events.h"
#include "testing/locked.h"
#include "testing/subscriber_list.h"

namespace qeb::testing {

class FakeEventsProvider : public object::Ifaces<nox::IEventsProvider> {
 public:
  result_t Subscribe(nox::IFileEventsReceiver* receiver,
                     const nox::FileEventsSubscription& subscription) noexcept override;
  result_t Resubscribe(nox::IFileEventsReceiver* receiver,
                       const nox::FileEventsSubscription& subscription) noexcept override;
  result_t Unsubscribe(nox::IFileEventsReceiver* receiver) noexcept override;

  // Delivers to the receiver; answers what it answered (res::NotFound with none).
  result_t Deliver(const vrel::EventParams& params);

  void RefuseResubscribe(result_t code) { m_resubscribeRefusal = code; }
  // Every (re)subscription, in order.
  std::vector<nox::FileEventsSubscription> Subscriptions() const {
    return LockedCopy(m_mutex, m_subscriptions);
  }
  size_t ResubscribeCalls() const { return m_resubscribeCalls; }
  SubscriberList<nox::IFileEventsReceiver>& Receivers() { return m_receivers; }

 private:
  SubscriberList<nox::IFileEventsReceiver> m_receivers;
  mutable std::mutex m_mutex;
  std::vector<nox::FileEventsSubscription> m_subscriptions;
  std::atomic<result_t> m_resubscribeRefusal{res::Ok};
  std::atomic<size_t> m_resubscribeCalls{0};
};

}  // namespace qeb::testing
