// The fake shares parser: records its subscribers and can announce a change of shares
// to all of them, on the caller's thread, as the real parser does from its own.
#pragma once

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/shares.h"
#include "settings/oas_settings.h"
#include "testing/fault_injection.h"
#include "testing/subscriber_list.h"

namespace qeb::testing {

// A scan area of the share class: with one in the settings, a change of shares resets
// the caches, so announcing one exercises the reset path.
inline nox::settings::ScanScope ShareClassArea() {
  nox::settings::ScanScope shares;
  shares.path = "smb://*";
  shares.area_mask = {"*"};
  shares.use_scan_area = true;
  return shares;
}

class FakeSharesParser : public object::Ifaces<nox::ISharesParser> {
 public:
  result_t Subscribe(nox::ISharesParserEvents* s) noexcept override {
    OAS_FAULT_POINT("shares parser Subscribe");
    return m_subscribers.Add(s);
  }
  result_t Unsubscribe(nox::ISharesParserEvents* s) noexcept override {
    OAS_FAULT_POINT("shares parser Unsubscribe");
    return m_subscribers.Remove(s);
  }

  // Calls every subscriber; answers the last subscriber's result (0 with none).
  result_t AnnounceChange() {
    result_t last = res::Ok;
    for (auto& s : m_subscribers.Snapshot()) last = s->OnSharesChanged();
    return last;
  }

  SubscriberList<nox::ISharesParserEvents>& Subscribers() { return m_subscribers; }

 private:
  SubscriberList<nox::ISharesParserEvents> m_subscribers;
};

}  // namespace qeb::testing
