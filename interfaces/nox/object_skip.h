// The engine's object-skip checker: whether the anti-virus bases allow an object that
// the clean-file cache already knows to pass without a scan. The callback only lends
// the checker views of what the caller owns; nothing it hands out outlives the call.
#pragma once

#include <cstdint>

#include "interfaces/nox/process.h"
#include "interfaces/qeb/object.h"
#include "interfaces/vrel/event_params.h"

namespace avengine::object_skip {

// What the cache knows about the object: times in nanoseconds, as the caches keep them.
struct CachedObjectInfo {
  uint64_t hitCount = 0;
  int64_t addedTime = 0;   // raw monotonic time the object was recorded clean
  int64_t changeTime = 0;  // the object's status-change time when it was recorded
};

// Lent to the checker for one check: the event, the cache entry and the process.
struct IObjectSkipCallback : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x3a9f0d12;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetEvent(const vrel::EventParams** event) noexcept = 0;
  virtual qeb::result_t GetCachedObject(CachedObjectInfo* info) noexcept = 0;
  virtual qeb::result_t GetProcessInfo(
      const system_interceptors::process_manager::ProcessInfo** info) noexcept = 0;

 protected:
  ~IObjectSkipCallback() = default;
};

struct IObjectSkipChecker : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x86cd5367;
  using BaseInterface = qeb::IObject;
  // The checker is registered under this service key, not the default one.
  static constexpr uint32_t ServiceKey = 0x973862be;

  // 0 when the bases allow skipping the object. Engine code: unlike the rest of the
  // host's operations this one may throw, so every caller guards the call.
  virtual qeb::result_t Check(const vrel::EventParams& event, IObjectSkipCallback* callback) = 0;

 protected:
  ~IObjectSkipChecker() = default;
};

}  // namespace avengine::object_skip
