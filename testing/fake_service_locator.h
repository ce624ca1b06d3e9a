// The fake host's service locator: tests register services under an interface
// identifier and a service key, remove them, or make a lookup fail with a chosen code.
// It holds one reference on each registered service until removed or destroyed.
#pragma once

#include <map>
#include <mutex>
#include <utility>

#include "framework/qeb/object_wrapper.h"

namespace qeb::testing {

class FakeServiceLocator : public object::Ifaces<IServiceLocator> {
 public:
  result_t GetInterface(iid_t iid, uint32_t serviceKey, void** out) noexcept override;

  // Registers obj for iid under the key; the lookup asks obj for iid itself.
  void Register(iid_t iid, uint32_t serviceKey, IObject* obj);
  template <class I>
  void Register(I* service, uint32_t serviceKey = 0) {
    Register(I::IID, serviceKey, service);
  }
  template <class I, class T>
  void Register(const objptr_t<T>& service, uint32_t serviceKey = 0) {
    Register(I::IID, serviceKey, static_cast<I*>(service.Get()));
  }
  void Remove(iid_t iid, uint32_t serviceKey = 0);
  // Lookups of this service answer code until Restore.
  void Fail(iid_t iid, uint32_t serviceKey, result_t code);
  void Restore(iid_t iid, uint32_t serviceKey = 0);

  size_t Lookups(iid_t iid, uint32_t serviceKey = 0) const;

 private:
  using Key = std::pair<iid_t, uint32_t>;
  mutable std::mutex m_mutex;
  std::map<Key, objptr_t<IObject>> m_services;
  std::map<Key, result_t> m_failures;
  std::map<Key, size_t> m_lookups;
};

}  // namespace qeb::testing
