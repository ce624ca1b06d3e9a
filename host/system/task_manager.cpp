// Only the settings copy is guarded; the post callback is called outside the lock.
#include "host/system/task_manager.h"

#include <string_view>
#include <utility>

#include "oas/default_task.h"

namespace oasd {

TaskManager::TaskManager(nox::settings::OASSettings settings, std::function<void()> postRefresh)
    : m_settings(std::move(settings)), m_postRefresh(std::move(postRefresh)) {}

qeb::result_t TaskManager::RefreshTaskSettings(const char16_t* taskName) noexcept {
  if (!taskName) return qeb::res::InvalidArgument;
  if (std::u16string_view(taskName) != nox::oas::Name4DefaultOasTask) return qeb::res::NotFound;
  try {
    if (m_postRefresh) m_postRefresh();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::Unexpected;
  }
}

qeb::result_t TaskManager::FillTaskInfo(nox::ProcessingErrorEvent& event,
                                        const char16_t*) noexcept {
  try {
    event.taskName = TaskName;
    event.taskId = TaskId;
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

nox::settings::OASSettings TaskManager::CurrentSettings() const {
  std::lock_guard lock(m_mutex);
  return m_settings;
}

void TaskManager::ReplaceSettings(nox::settings::OASSettings settings) {
  {
    std::lock_guard lock(m_mutex);
    m_settings = std::move(settings);
  }
  RefreshTaskSettings(nox::oas::Name4DefaultOasTask);
}

}  // namespace oasd
