// Lookups take the locator's mutex only to find the service, then ask the service for
// the interface outside it, as a real locator must to avoid lock-order trouble.
#include "testing/fake_service_locator.h"

#include "testing/fault_injection.h"

namespace qeb::testing {

result_t FakeServiceLocator::GetInterface(iid_t iid, uint32_t serviceKey, void** out) noexcept {
  if (!out) return res::InvalidArgument;
  *out = nullptr;
  OAS_FAULT_POINT("locator GetInterface");
  objptr_t<IObject> service;
  {
    std::lock_guard lock(m_mutex);
    const Key key{iid, serviceKey};
    ++m_lookups[key];
    if (auto f = m_failures.find(key); f != m_failures.end()) return f->second;
    auto it = m_services.find(key);
    if (it == m_services.end()) return res::NoInterface;
    service = it->second;
  }
  return service->QueryInterface(iid, out);
}

void FakeServiceLocator::Register(iid_t iid, uint32_t serviceKey, IObject* obj) {
  std::lock_guard lock(m_mutex);
  m_services[{iid, serviceKey}] = objptr_t<IObject>(obj);
}

void FakeServiceLocator::Remove(iid_t iid, uint32_t serviceKey) {
  objptr_t<IObject> removed;
  std::lock_guard lock(m_mutex);
  auto it = m_services.find({iid, serviceKey});
  if (it == m_services.end()) return;
  removed = std::move(it->second);
  m_services.erase(it);
}

void FakeServiceLocator::Fail(iid_t iid, uint32_t serviceKey, result_t code) {
  std::lock_guard lock(m_mutex);
  m_failures[{iid, serviceKey}] = code;
}

void FakeServiceLocator::Restore(iid_t iid, uint32_t serviceKey) {
  std::lock_guard lock(m_mutex);
  m_failures.erase({iid, serviceKey});
}

size_t FakeServiceLocator::Lookups(iid_t iid, uint32_t serviceKey) const {
  std::lock_guard lock(m_mutex);
  auto it = m_lookups.find({iid, serviceKey});
  return it == m_lookups.end() ? 0 : it->second;
}

}  // namespace qeb::testing
