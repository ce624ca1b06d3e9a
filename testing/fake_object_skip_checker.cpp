// The fake checker's bookkeeping: its answer, its call count and what it last saw. The
// callback is read inside the check, as the real checker must: it is only lent, and
// nothing of it is kept once Check returns.
#include "testing/fake_object_skip_checker.h"

#include <stdexcept>

#include "testing/fault_injection.h"

namespace qeb::testing {
namespace {

using SeenRecord = FakeObjectSkipChecker::Seen;

SeenRecord ReadCallback(avengine::object_skip::IObjectSkipCallback* callback) {
  SeenRecord seen;
  if (!callback) return seen;
  const vrel::EventParams* event = nullptr;
  const system_interceptors::process_manager::ProcessInfo* info = nullptr;
  const bool gotEvent = QEB_SUCCEEDED(callback->GetEvent(&event)) && event;
  const bool gotEntry = QEB_SUCCEEDED(callback->GetCachedObject(&seen.entry));
  const bool gotInfo = QEB_SUCCEEDED(callback->GetProcessInfo(&info)) && info;
  if (gotEvent) seen.fileName = std::string(event->fileName.view());
  if (gotInfo) seen.processIdentity = info->m_uniqueId;
  seen.complete = gotEvent && gotEntry && gotInfo;
  return seen;
}

}  // namespace

result_t FakeObjectSkipChecker::Check(const vrel::EventParams&,
                                      avengine::object_skip::IObjectSkipCallback* callback) {
  OAS_THROWING_FAULT_POINT("skip checker Check");
  const SeenRecord seen = ReadCallback(callback);
  std::lock_guard lock(m_mutex);
  ++m_calls;
  m_seen = seen;
  if (m_throws) throw std::runtime_error(m_message);
  return m_answer;
}

void FakeObjectSkipChecker::Answer(result_t code) {
  std::lock_guard lock(m_mutex);
  m_answer = code;
  m_throws = false;
}

void FakeObjectSkipChecker::Throw(std::string message) {
  std::lock_guard lock(m_mutex);
  m_throws = true;
  m_message = std::move(message);
}

}  // namespace qeb::testing
