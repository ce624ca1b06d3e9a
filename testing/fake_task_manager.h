// The fake host's task manager: records settings refreshes and stamps events with a
// fixed task; either operation can be told to fail.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/event_publisher.h"
#include "interfaces/nox/task_manager.h"
#include "testing/fault_injection.h"

namespace qeb::testing {

class FakeTaskManager : public object::Ifaces<nox::INoxTaskManager> {
 public:
  static constexpr uint32_t TaskId = 17;
  static constexpr char16_t TaskName[] = u"OnAccessScan";

  // A real host answers a refresh by pushing the task's settings again; the hook lets a
  // test do that (typically calling the interceptor's SetSettings) on the refreshing thread.
  result_t RefreshTaskSettings(const char16_t* taskName) noexcept override {
    OAS_FAULT_POINT("task manager RefreshTaskSettings");
    std::function<void()> onRefresh;
    result_t result;
    {
      std::lock_guard lock(m_mutex);
      m_refreshed.emplace_back(taskName ? taskName : u"");
      result = m_refreshFailure;
      onRefresh = m_onRefresh;
    }
    if (QEB_SUCCEEDED(result) && onRefresh) onRefresh();
    return result;
  }

  void OnRefresh(std::function<void()> hook) {
    std::lock_guard lock(m_mutex);
    m_onRefresh = std::move(hook);
  }

  result_t FillTaskInfo(nox::ProcessingErrorEvent& event, const char16_t* userName) noexcept override {
    OAS_FAULT_POINT("task manager FillTaskInfo");
    std::lock_guard lock(m_mutex);
    m_fillUsers.emplace_back(userName ? userName : u"");
    event.taskName = TaskName;
    event.taskId = TaskId;
    return res::Ok;
  }

  void FailRefresh(result_t code) {
    std::lock_guard lock(m_mutex);
    m_refreshFailure = code;
  }
  std::vector<std::u16string> Refreshed() const {
    std::lock_guard lock(m_mutex);
    return m_refreshed;
  }
  std::vector<std::u16string> FillUsers() const {
    std::lock_guard lock(m_mutex);
    return m_fillUsers;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<std::u16string> m_refreshed;
  std::vector<std::u16string> m_fillUsers;
  result_t m_refreshFailure = res::Ok;
  std::function<void()> m_onRefresh;
};

}  // namespace qeb::testing
