// oasd's task manager: the one on-access task, its current settings and the way a
// refresh reaches the interceptor. It owns a copy of the task's settings; the daemon owns
// the interceptor and is handed refresh requests through the post callback, which must
// only wake the main loop: the module asks for refreshes from its own threads, possibly
// under its own locks, so the settings are pushed back later, never from inside the call.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "framework/qeb/host_object.h"
#include "interfaces/nox/event_publisher.h"
#include "interfaces/nox/task_manager.h"
#include "settings/oas_settings.h"

namespace oasd {

class TaskManager : public qeb::object::Ifaces<nox::INoxTaskManager> {
 public:
  static constexpr char16_t TaskName[] = u"On-access scan";
  static constexpr uint32_t TaskId = 1;

  TaskManager(nox::settings::OASSettings settings, std::function<void()> postRefresh);

  // The refresh names the module's default task; any other name is not ours.
  qeb::result_t RefreshTaskSettings(const char16_t* taskName) noexcept override;
  qeb::result_t FillTaskInfo(nox::ProcessingErrorEvent& event,
                             const char16_t* userName) noexcept override;

  nox::settings::OASSettings CurrentSettings() const;
  // A reload replaces the settings and then refreshes like the module would.
  void ReplaceSettings(nox::settings::OASSettings settings);

 private:
  mutable std::mutex m_mutex;
  nox::settings::OASSettings m_settings;
  const std::function<void()> m_postRefresh;
};

}  // namespace oasd
