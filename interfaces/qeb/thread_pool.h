// The host's worker pools. A pool keeps between its minimum and maximum number of
// threads; an accepted task is held by one reference until it has run, and a refused
// task is left to the caller.
#pragma once

#include <cstdint>

#include "interfaces/qeb/object.h"

namespace qeb {

struct ThreadPoolParams {
  uint32_t minThreads = 0;
  uint32_t maxThreads = 0;
  // Milliseconds an idle thread above the minimum waits before it ends.
  uint32_t idleTimeout = 0;
  uint32_t options = 0;
};

struct IThreadPool2 : IObject {
  static constexpr iid_t IID = 0x71c04d2e;
  using BaseInterface = IObject;

  // A negative result means the task was not accepted.
  virtual result_t AddTask(IRunnable* task, uint32_t options) noexcept = 0;

 protected:
  ~IThreadPool2() = default;
};

struct IThreadPoolFactory : IObject {
  static constexpr iid_t IID = 0xfe5341d4;
  using BaseInterface = IObject;

  virtual result_t CreateThreadPool(const ThreadPoolParams& params, IThreadPool2** pool) noexcept = 0;

 protected:
  ~IThreadPoolFactory() = default;
};

}  // namespace qeb
