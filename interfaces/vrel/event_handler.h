// The scanner's event handler, as the interception layer's events reach it. The
// module calls the synchronous entry for events the operation waits on and the
// notification entry for events reported after the fact.
#pragma once

#include <cstdint>

#include "interfaces/qeb/object.h"

namespace vrel {

struct IEvent085;

struct IEventHandler085 : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x0e7a5d19;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t OnEvent(IEvent085* event, uint32_t context) noexcept = 0;
  // Kept for the layout's sake; this module never calls it.
  virtual qeb::result_t OnEventCancelled(IEvent085* event, uint32_t context) noexcept = 0;
  virtual qeb::result_t OnNotification(IEvent085* event, uint32_t context) noexcept = 0;

 protected:
  ~IEventHandler085() = default;
};

}  // namespace vrel
