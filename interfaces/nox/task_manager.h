// The host's task manager as the module uses it: re-reading a task's settings after
// the environment changed, and stamping outgoing events with the task they belong to.
#pragma once

#include "interfaces/qeb/object.h"

namespace nox {

struct ProcessingErrorEvent;

struct INoxTaskManager : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x887632c7;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t RefreshTaskSettings(const char16_t* taskName) noexcept = 0;
  // Fills the event's task fields for the task run on behalf of userName.
  virtual qeb::result_t FillTaskInfo(ProcessingErrorEvent& event,
                                     const char16_t* userName) noexcept = 0;

 protected:
  ~INoxTaskManager() = default;
};

}  // namespace nox
