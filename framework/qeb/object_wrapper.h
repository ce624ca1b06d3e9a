// The framework object wrapper: one atomic reference count per object, query-interface
// over the interface list the implementation names, memory from the host allocator (or
// malloc), and the module object counter that keeps the library loaded while any object
// lives. Implementations derive from Ifaces<...>; only CreateObject constructs them.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

#include "framework/qeb/objptr.h"

namespace qeb {

namespace module {
// Every module object is counted from construction to destruction.
void IncrementObjectCount() noexcept;
void DecrementObjectCount() noexcept;
uint32_t ObjectCount() noexcept;
}  // namespace module

namespace object {

// True when interface I, or any interface it extends, has this identifier.
template <class I>
constexpr bool Implements(iid_t iid) noexcept {
  if constexpr (std::is_void_v<I>) {
    return false;
  } else {
    return iid == I::IID || Implements<typename I::BaseInterface>(iid);
  }
}

// Base of every implementation: the interfaces, in the order query-interface searches
// them. An interface that extends another (single inheritance) also answers for it.
template <class... Is>
class Ifaces : public Is... {
 public:
  uint32_t AddRef() noexcept override = 0;
  uint32_t Release() noexcept override = 0;
  result_t QueryInterface(iid_t iid, void** out) noexcept override = 0;

 protected:
  Ifaces() = default;
  ~Ifaces() = default;

  void* FindInterface(iid_t iid) noexcept {
    void* found = nullptr;
    ((found == nullptr && Implements<Is>(iid) ? (found = static_cast<Is*>(this)) : nullptr), ...);
    return found;
  }
};

// The final class of every module object.
template <class T>
class Object final : public T {
 public:
  template <class... Args>
  explicit Object(IAllocator* allocator, Args&&... args)
      : T(std::forward<Args>(args)...), m_allocator(allocator) {}

  uint32_t AddRef() noexcept override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }

  uint32_t Release() noexcept override {
    const uint32_t left = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) Destroy(this);
    return left;
  }

  result_t QueryInterface(iid_t iid, void** out) noexcept override {
    if (!out) return res::InvalidArgument;
    *out = this->FindInterface(iid);
    if (!*out) return res::NoInterface;
    AddRef();
    return res::Ok;
  }

  // Allocates, counts and constructs; on a throwing constructor nothing stays behind.
  template <class... Args>
  static Object* Create(IAllocator* allocator, Args&&... args) {
    void* memory = allocator ? allocator->Alloc(sizeof(Object)) : std::malloc(sizeof(Object));
    if (!memory) throw std::bad_alloc();
    module::IncrementObjectCount();
    try {
      return ::new (memory) Object(allocator, std::forward<Args>(args)...);
    } catch (...) {
      module::DecrementObjectCount();
      Free(allocator, memory);
      throw;
    }
  }

 private:
  static void Destroy(Object* self) noexcept {
    objptr_t<IAllocator> allocator(self->m_allocator);
    self->~Object();
    Free(allocator.Get(), self);
    module::DecrementObjectCount();
  }

  static void Free(IAllocator* allocator, void* memory) noexcept {
    if (allocator) allocator->Free(memory);
    else std::free(memory);
  }

  std::atomic<uint32_t> m_refs{1};
  objptr_t<IAllocator> m_allocator;
};

}  // namespace object

// Creates a module object with one reference, owned by the returned pointer; memory
// comes from the given allocator, or malloc for CreateObject.
template <class T, class... Args>
objptr_t<T> CreateObjectWith(IAllocator* allocator, Args&&... args) {
  return objptr_t<T>::Attach(object::Object<T>::Create(allocator, std::forward<Args>(args)...));
}

template <class T, class... Args>
objptr_t<T> CreateObject(Args&&... args) {
  return CreateObjectWith<T>(nullptr, std::forward<Args>(args)...);
}

}  // namespace qeb
