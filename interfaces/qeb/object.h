// The object model every interface in this product shares: reference counting and
// query-interface in slots 0 to 2, then each interface's own operations. Interfaces
// have protected destructors: an object is only ever destroyed by its last Release.
#pragma once

#include <cstdint>

#include "interfaces/qeb/result.h"

namespace qeb {

using iid_t = uint32_t;

struct IObject {
  static constexpr iid_t IID = 0x00000000;
  using BaseInterface = void;

  virtual uint32_t AddRef() noexcept = 0;
  virtual uint32_t Release() noexcept = 0;
  virtual result_t QueryInterface(iid_t iid, void** out) noexcept = 0;

 protected:
  ~IObject() = default;
};

// Memory for framework objects; a host may give its own, otherwise malloc is used.
struct IAllocator : IObject {
  static constexpr iid_t IID = 0x2a7c41d3;
  using BaseInterface = IObject;

  virtual void* Alloc(size_t size) noexcept = 0;
  virtual void Free(void* p) noexcept = 0;

 protected:
  ~IAllocator() = default;
};

// The host's registry of services: an interface identifier plus a service key
// (0 for the default instance) names one service.
struct IServiceLocator : IObject {
  static constexpr iid_t IID = 0x5f0b3e17;
  using BaseInterface = IObject;

  virtual result_t GetInterface(iid_t iid, uint32_t serviceKey, void** out) noexcept = 0;

 protected:
  ~IServiceLocator() = default;
};

// Something a worker thread can run.
struct IRunnable : IObject {
  static constexpr iid_t IID = 0x7c1e55a0;
  using BaseInterface = IObject;

  virtual result_t Run() noexcept = 0;

 protected:
  ~IRunnable() = default;
};

// A component with an on/off switch the host can flip.
struct IState : IObject {
  static constexpr iid_t IID = 0x3e8d0a61;
  using BaseInterface = IObject;

  static constexpr uint32_t STATE_REQUEST_RUN = 1;
  static constexpr uint32_t STATE_REQUEST_PAUSE = 2;
  static constexpr uint32_t STATE_REQUEST_STOP = 4;

  virtual result_t SetState(uint32_t request) noexcept = 0;

 protected:
  ~IState() = default;
};

}  // namespace qeb
