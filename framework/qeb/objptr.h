// Owning smart pointer for framework objects and the typed service lookups built on it.
// An objptr_t holds exactly one reference; Ref() hands its slot to a call that
// returns a new reference through an out-argument, dropping whatever was held before.
#pragma once

#include <cstddef>
#include <utility>

#include "interfaces/qeb/object.h"

namespace qeb {

template <class T>
class objptr_t {
 public:
  objptr_t() noexcept = default;
  objptr_t(std::nullptr_t) noexcept {}
  // Takes a new reference on p.
  explicit objptr_t(T* p) noexcept : m_p(p) {
    if (m_p) m_p->AddRef();
  }
  objptr_t(const objptr_t& o) noexcept : objptr_t(o.m_p) {}
  objptr_t(objptr_t&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
  template <class U>
  objptr_t(objptr_t<U>&& o) noexcept : m_p(o.Detach()) {}
  ~objptr_t() { Reset(); }

  objptr_t& operator=(const objptr_t& o) noexcept {
    objptr_t(o).Swap(*this);
    return *this;
  }
  objptr_t& operator=(objptr_t&& o) noexcept {
    objptr_t(std::move(o)).Swap(*this);
    return *this;
  }
  objptr_t& operator=(std::nullptr_t) noexcept {
    Reset();
    return *this;
  }

  // Adopts a reference the caller already owns.
  static objptr_t Attach(T* p) noexcept {
    objptr_t r;
    r.m_p = p;
    return r;
  }
  T* Detach() noexcept { return std::exchange(m_p, nullptr); }

  void Reset() noexcept {
    if (T* p = std::exchange(m_p, nullptr)) p->Release();
  }
  void Swap(objptr_t& o) noexcept { std::swap(m_p, o.m_p); }

  // Out-argument slot for calls that return a new reference.
  T** Ref() noexcept {
    Reset();
    return &m_p;
  }

  T* Get() const noexcept { return m_p; }
  // Lets an objptr_t stand where a plain interface pointer is expected, as in
  // provider->Subscribe(processor); the callee takes its own reference if it keeps one.
  operator T*() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  explicit operator bool() const noexcept { return m_p != nullptr; }

 private:
  T* m_p = nullptr;
};

template <class T, class U>
bool operator==(const objptr_t<T>& a, const objptr_t<U>& b) noexcept {
  return a.Get() == b.Get();
}

// Asks an object for another of its interfaces.
template <class T>
result_t QueryInterface(IObject* obj, T** out) noexcept {
  if (!out) return res::InvalidArgument;
  *out = nullptr;
  if (!obj) return res::InvalidArgument;
  return obj->QueryInterface(T::IID, reinterpret_cast<void**>(out));
}

// Asks the service locator for the service T, default instance or by key.
template <class T>
result_t GetInterface(IServiceLocator* sl, uint32_t serviceKey, T** out) noexcept {
  if (!out) return res::InvalidArgument;
  *out = nullptr;
  if (!sl) return res::InvalidArgument;
  return sl->GetInterface(T::IID, serviceKey, reinterpret_cast<void**>(out));
}

template <class T>
result_t GetInterface(IServiceLocator* sl, T** out) noexcept {
  return GetInterface(sl, 0, out);
}

}  // namespace qeb
