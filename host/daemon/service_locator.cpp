// Lookups copy the service reference out under the lock and query it outside, so a service
// whose QueryInterface calls back into the locator cannot deadlock it.
#include "host/daemon/service_locator.h"

namespace oasd {

qeb::result_t ServiceLocator::GetInterface(qeb::iid_t iid, uint32_t serviceKey,
                                           void** out) noexcept {
  if (!out) return qeb::res::InvalidArgument;
  *out = nullptr;
  qeb::objptr_t<qeb::IObject> service;
  {
    std::lock_guard lock(m_mutex);
    const auto it = m_services.find({iid, serviceKey});
    if (it == m_services.end()) return qeb::res::NoInterface;
    service = it->second;
  }
  return service->QueryInterface(iid, out);
}

void ServiceLocator::Register(qeb::iid_t iid, uint32_t serviceKey, qeb::IObject* service) {
  qeb::objptr_t<qeb::IObject> ref(service);
  std::lock_guard lock(m_mutex);
  m_services[{iid, serviceKey}] = std::move(ref);
}

void ServiceLocator::Clear() noexcept {
  std::map<Key, qeb::objptr_t<qeb::IObject>> dropped;
  {
    std::lock_guard lock(m_mutex);
    dropped.swap(m_services);
  }
}

}  // namespace oasd
