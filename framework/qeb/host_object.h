// The object wrapper for objects a host implements (the reference host's services and the
// test fakes). They are reference counted like module objects but are not module objects,
// so they never move the module object counter that decides whether the module may unload.
#pragma once

#include <atomic>
#include <utility>

#include "framework/qeb/object_wrapper.h"

namespace qeb::host {

template <class T>
class HostObject final : public T {
 public:
  template <class... Args>
  explicit HostObject(Args&&... args) : T(std::forward<Args>(args)...) {}

  uint32_t AddRef() noexcept override { return ++m_refs; }
  uint32_t Release() noexcept override {
    const uint32_t left = --m_refs;
    if (left == 0) delete this;
    return left;
  }
  result_t QueryInterface(iid_t iid, void** out) noexcept override {
    if (!out) return res::InvalidArgument;
    *out = this->FindInterface(iid);
    if (!*out) return res::NoInterface;
    AddRef();
    return res::Ok;
  }
  uint32_t RefCount() const noexcept { return m_refs; }

 private:
  ~HostObject() = default;
  std::atomic<uint32_t> m_refs{1};
};

template <class T, class... Args>
objptr_t<T> MakeHostObject(Args&&... args) {
  return objptr_t<T>::Attach(new HostObject<T>(std::forward<Args>(args)...));
}

}  // namespace qeb::host
