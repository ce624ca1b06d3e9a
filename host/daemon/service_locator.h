// oasd's service locator: the daemon registers each real service under its interface
// identifier and service key before the module is created, and clears the table when it
// stops. The table holds one reference per service; lookups hand out their own.
#pragma once

#include <map>
#include <mutex>
#include <utility>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"

namespace oasd {

class ServiceLocator : public qeb::object::Ifaces<qeb::IServiceLocator> {
 public:
  qeb::result_t GetInterface(qeb::iid_t iid, uint32_t serviceKey, void** out) noexcept override;

  // The lookup asks service itself for iid, so an object registered once can answer for
  // several of its interfaces.
  void Register(qeb::iid_t iid, uint32_t serviceKey, qeb::IObject* service);
  template <class I, class T>
  void Register(const qeb::objptr_t<T>& service, uint32_t serviceKey = 0) {
    Register(I::IID, serviceKey, static_cast<I*>(service.Get()));
  }
  // Drops every service; services that refer to each other are freed here.
  void Clear() noexcept;

 private:
  using Key = std::pair<qeb::iid_t, uint32_t>;
  std::mutex m_mutex;
  std::map<Key, qeb::objptr_t<qeb::IObject>> m_services;
};

}  // namespace oasd
