// A scriptable scanner: the event handler the module hands its events to. Each event
// gets a script (by default the one set last, or one chosen per event) saying which
// target verdicts to set and how to answer: at once, after a delay, twice, later from
// another thread, never (keeping a reference on the event until told to let go) or by
// failing inside.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/vrel/event.h"
#include "interfaces/vrel/event_handler.h"
#include "testing/locked.h"

namespace qeb::testing {

enum class ScannerAction {
  Reply,
  ReplyAfterDelay,
  ReplyTwice,
  NeverReply,
  // Asks for more time (Pend), keeps the event and answers it when ReplyLate is called,
  // on that caller's thread, as a scanner does that finishes after the handler returned.
  ReplyLater,
  // Throws inside the handler, which answers the exception's code as any interface must.
  Throw,
};

struct ScannerScript {
  ScannerAction action = ScannerAction::Reply;
  vrel::BasicVerdict::BasicVerdict verdict = vrel::BasicVerdict::Allow;
  std::chrono::milliseconds delay{0};
  std::vector<vrel::TargetVerdict> targetVerdicts;  // added before the reply
  std::vector<uint32_t> resetTargets;               // reset after adding, before the reply
};

// The script of a scanner that answers verdict (cacheable: as a clean file worth caching).
inline ScannerScript Answer(vrel::BasicVerdict::BasicVerdict verdict, bool cacheable = false,
                            ScannerAction action = ScannerAction::Reply) {
  ScannerScript script;
  script.action = action;
  script.verdict = verdict;
  if (cacheable) script.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
  return script;
}

struct ScannerCall {
  bool notification = false;  // OnNotification rather than OnEvent
  uint32_t context = 0;
  std::u16string fileName;
  std::vector<result_t> replyResults;
};

class FakeScanner : public object::Ifaces<vrel::IEventHandler085> {
 public:
  result_t OnEvent(vrel::IEvent085* event, uint32_t context) noexcept override;
  result_t OnEventCancelled(vrel::IEvent085* event, uint32_t context) noexcept override;
  result_t OnNotification(vrel::IEvent085* event, uint32_t context) noexcept override;

  void SetScript(ScannerScript script) { LockedSet(m_mutex, m_script, std::move(script)); }
  // Chooses each event's script; replaces SetScript until cleared with nullptr.
  void SetChooser(std::function<ScannerScript(vrel::IEvent085*)> chooser);

  std::vector<ScannerCall> Calls() const { return LockedCopy(m_mutex, m_calls); }
  // Drops the references kept for events never answered.
  void ReleaseKept();
  // Answers the events kept by ReplyLater, then lets them go; answers how many there were.
  size_t ReplyLate();

 private:
  result_t Handle(vrel::IEvent085* event, uint32_t context, bool notification);
  ScannerScript ScriptFor(vrel::IEvent085* event) const;
  void Answer(vrel::IEvent085* event, const ScannerScript& script, ScannerCall& call);

  mutable std::mutex m_mutex;
  ScannerScript m_script;
  std::function<ScannerScript(vrel::IEvent085*)> m_chooser;
  std::vector<ScannerCall> m_calls;
  std::vector<objptr_t<vrel::IEvent085>> m_kept;
  std::vector<std::pair<objptr_t<vrel::IEvent085>, ScannerScript>> m_late;
};

}  // namespace qeb::testing
