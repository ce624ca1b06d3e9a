// The handler reads the file name as a scanner would, then follows its script on the
// calling worker thread; only the bookkeeping is locked, never the calls into the event.
#include "testing/fake_scanner.h"

#include <stdexcept>
#include <thread>

#include "framework/qeb/exception.h"
#include "testing/fault_injection.h"

namespace qeb::testing {

// The time a late scanner asks for; the fake timer fires only when told to, whatever it is.
constexpr vrel::duration_t kLateTimeout = 5000;

result_t FakeScanner::OnEvent(vrel::IEvent085* event, uint32_t context) noexcept {
  OAS_FAULT_POINT("scanner OnEvent");
  return Handle(event, context, false);
}

result_t FakeScanner::OnEventCancelled(vrel::IEvent085*, uint32_t) noexcept {
  return res::NotImplemented;
}

result_t FakeScanner::OnNotification(vrel::IEvent085* event, uint32_t context) noexcept {
  OAS_FAULT_POINT("scanner OnNotification");
  return Handle(event, context, true);
}

ScannerScript FakeScanner::ScriptFor(vrel::IEvent085* event) const {
  std::function<ScannerScript(vrel::IEvent085*)> chooser;
  {
    std::lock_guard lock(m_mutex);
    if (!m_chooser) return m_script;
    chooser = m_chooser;
  }
  return chooser(event);
}

void FakeScanner::Answer(vrel::IEvent085* event, const ScannerScript& script, ScannerCall& call) {
  for (const auto& target : script.targetVerdicts) event->AddReplyTargetVerdict(target);
  for (uint32_t target : script.resetTargets) event->ResetReplyTargetVerdict(target);
  call.replyResults.push_back(event->Reply(script.verdict));
}

result_t FakeScanner::Handle(vrel::IEvent085* event, uint32_t context, bool notification) {
  try {
    ScannerCall call{notification, context, {}, {}};
    const void* data = nullptr;
    uint32_t size = 0;
    if (QEB_SUCCEEDED(event->GetParam(vrel::_PARAM_FILE_NAME_USER_W, data, size)) && size >= 2)
      call.fileName.assign(static_cast<const char16_t*>(data), size / 2 - 1);
    const ScannerScript script = ScriptFor(event);
    result_t result = res::Ok;
    switch (script.action) {
      case ScannerAction::ReplyAfterDelay:
        std::this_thread::sleep_for(script.delay);
        Answer(event, script, call);
        break;
      case ScannerAction::Reply: Answer(event, script, call); break;
      case ScannerAction::ReplyTwice:
        Answer(event, script, call);
        call.replyResults.push_back(event->Reply(script.verdict));
        break;
      case ScannerAction::NeverReply: {
        std::lock_guard lock(m_mutex);
        m_kept.emplace_back(event);
        break;
      }
      case ScannerAction::ReplyLater: {
        event->Pend(kLateTimeout);
        std::lock_guard lock(m_mutex);
        m_late.emplace_back(objptr_t<vrel::IEvent085>(event), script);
        break;
      }
      case ScannerAction::Throw:
        try {
          throw std::runtime_error("scanner failure");
        } catch (...) {
          result = CurrentExceptionToResult();
        }
        break;
    }
    std::lock_guard lock(m_mutex);
    m_calls.push_back(std::move(call));
    return result;
  } catch (...) {
    return CurrentExceptionToResult();
  }
}

void FakeScanner::SetChooser(std::function<ScannerScript(vrel::IEvent085*)> chooser) {
  std::lock_guard lock(m_mutex);
  m_chooser = std::move(chooser);
}

size_t FakeScanner::ReplyLate() {
  std::vector<std::pair<objptr_t<vrel::IEvent085>, ScannerScript>> late;
  {
    std::lock_guard lock(m_mutex);
    late.swap(m_late);
  }
  for (auto& [event, script] : late) {
    ScannerCall call;
    Answer(event.Get(), script, call);
  }
  return late.size();
}

void FakeScanner::ReleaseKept() {
  std::vector<objptr_t<vrel::IEvent085>> kept;
  {
    std::lock_guard lock(m_mutex);
    kept.swap(m_kept);
  }
}

}  // namespace qeb::testing
