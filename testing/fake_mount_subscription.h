// The fake mount subscription: records subscribers and announces mount-list changes to
// them, either for the host's own namespace or for a given one.
#pragma once

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/mounts.h"
#include "testing/fault_injection.h"
#include "testing/subscriber_list.h"

namespace qeb::testing {

class FakeMountSubscription : public object::Ifaces<nox::IMountSubscription> {
 public:
  result_t Subscribe(nox::IMountEvents* s) noexcept override {
    OAS_FAULT_POINT("mount subscription Subscribe");
    return m_subscribers.Add(s);
  }
  result_t Unsubscribe(nox::IMountEvents* s) noexcept override {
    OAS_FAULT_POINT("mount subscription Unsubscribe");
    return m_subscribers.Remove(s);
  }

  void AnnounceChange(const nox::MountList& added, const nox::MountList& removed,
                      const nox::MountList& current) {
    for (auto& s : m_subscribers.Snapshot()) s->OnMountListChanged(added, removed, current);
  }
  void AnnounceNamespaceChange(ino_t ns, const nox::MountList& added, const nox::MountList& removed,
                               const nox::MountList& current) {
    for (auto& s : m_subscribers.Snapshot())
      s->OnNamespaceMountListChanged(ns, added, removed, current);
  }

  SubscriberList<nox::IMountEvents>& Subscribers() { return m_subscribers; }

 private:
  SubscriberList<nox::IMountEvents> m_subscribers;
};

}  // namespace qeb::testing
