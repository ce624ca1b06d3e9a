// The interceptor's control section and its fixed-position check traces, shared by the
// files that implement its control operations. It owns nothing: it borrows the
// interceptor's mutex, condition variable and busy flag for the length of one operation.
#pragma once

#include <mutex>

#include "nox_tracing/tracing.h"
#include "oas/file_interceptor.h"

// A failed checked call of the interceptor, traced with a fixed expression text and source
// position: log readers match these failures by position, so the positions do not follow
// edits of the files that implement the interceptor.
#define OAS_INTERCEPTOR_CHECK_TRACE(tracer, result_var, expr, text, lineNo) \
  QEB_CHECK_TRACE_AT(tracer, result_var, expr, text, ::nox::oas::kInterceptorSource, lineNo)

namespace nox::oas {

inline constexpr const char* kInterceptorSource = "oas/file_interceptor.cpp";
inline constexpr unsigned kGetTaskManagerCheckLine = 63;
inline constexpr unsigned kRefreshTaskCheckLine = 66;
inline constexpr unsigned kMountsSubscribeCheckLine = 112;
inline constexpr unsigned kEventsSubscribeCheckLine = 119;
inline constexpr unsigned kSharesSubscribeCheckLine = 125;

// Serialises the control operations: waits while another runs, then works from a copy of
// the members taken under the mutex. Finish writes the outcome back and lets the next
// operation in; leaving the scope without Finish (an exception) only clears the flag.
class FileInterceptor::ControlSection {
 public:
  explicit ControlSection(FileInterceptor& owner) : m_owner(owner) {
    std::unique_lock lock(owner.m_mutex);
    owner.m_condition.wait(lock, [&] { return !owner.m_busy; });
    owner.m_busy = true;
    state = owner.m_state;
    mask = owner.m_mask;
    settings = owner.m_settings;
    // Only control operations change the handler, and they are serialised, so the
    // plain pointer stays valid for the whole section.
    handler = owner.m_eventHandler.Get();
    timeout = owner.m_timeout;
  }
  ControlSection(const ControlSection&) = delete;
  ControlSection& operator=(const ControlSection&) = delete;
  ~ControlSection() { Finish([] {}); }

  template <class Update>
  void Finish(Update&& update) {
    if (m_finished) return;
    m_finished = true;
    {
      std::lock_guard lock(m_owner.m_mutex);
      update();
      m_owner.m_busy = false;
    }
    m_owner.m_condition.notify_one();
  }

  uint32_t state = 0;
  uint32_t mask = 0;
  nox::settings::OASSettings settings;
  vrel::IEventHandler085* handler = nullptr;
  duration_t timeout = 0;

 private:
  FileInterceptor& m_owner;
  bool m_finished = false;
};

}  // namespace nox::oas
