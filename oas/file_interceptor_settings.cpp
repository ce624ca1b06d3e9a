// Settings, cache resets and share changes. A reset rebuilds the clean-file caches from
// the current settings and renews the file-events subscription; it shares the control
// operations' serialisation, so it never overlaps a start or a stop.
#include "framework/qeb/exception.h"
#include "interfaces/nox/task_manager.h"
#include "nox_common/shares_path.h"
#include "nox_tracing/tracing.h"
#include "oas/cache_impl/cache_list.h"
#include "oas/default_task.h"
#include "oas/file_events_processor.h"
#include "oas/file_interceptor_control.h"
#include "oas/file_interceptor.h"
#include "oas/subscription_record.h"

namespace nox::oas {

using qeb::objptr_t;
using qeb::result_t;
namespace res = qeb::res;
namespace trace = qeb::trace;

namespace {

// Asks the host to push the default task's settings again; they come back through SetSettings.
result_t RefreshOasSettings(qeb::IServiceLocator* sl, qeb::ITracer* tracer) {
  result_t r = res::Ok;
  objptr_t<nox::INoxTaskManager> tm;
  OAS_INTERCEPTOR_CHECK_TRACE(tracer, r, qeb::GetInterface(sl, tm.Ref()),
                              "qeb::GetInterface(sl, tm.Ref())", kGetTaskManagerCheckLine)
      << "Cannot get INoxTaskManager interface";
  if (QEB_FAILED(r)) return r;
  OAS_INTERCEPTOR_CHECK_TRACE(tracer, r, tm->RefreshTaskSettings(Name4DefaultOasTask),
                              "tm->RefreshTaskSettings(Name4DefaultOasTask)", kRefreshTaskCheckLine)
      << "Cannot refresh settings for '" << std::u16string_view(Name4DefaultOasTask) << "' task";
  if (QEB_FAILED(r)) return r;
  QEB_TRACE(tracer, trace::LevelDetail) << "RefreshOasSettings" << "() <- ";
  return res::Ok;
}

}  // namespace

result_t FileInterceptor::GetSettings(nox::settings::OASSettings& settings) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "GetSettings" << "() ";
  try {
    std::lock_guard lock(m_mutex);
    settings = m_settings;
    return res::Ok;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

result_t FileInterceptor::SetSettings(const nox::settings::OASSettings& settings) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "SetSettings";
  try {
    m_needSharesSubscription.exchange(tools::NeedsSharesSubscription(settings));
    bool changed = false;
    {
      std::lock_guard lock(m_mutex);
      changed = !(m_settings == settings);
      m_settings = settings;
    }
    // Unchanged settings keep the caches; when not running the reset does nothing.
    if (changed) ResetCache();
    if (auto processor = CurrentProcessor()) processor->ApplySettings(settings);
    return res::Ok;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

result_t FileInterceptor::ResetCache() noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "ResetCache";
  try {
    ControlSection section(*this);
    if (section.state != STATE_RUNNING) return res::NotReady;
    objptr_t<FileEventsProcessor> processor = CurrentProcessor();
    if (!processor) return res::NotReady;
    processor->ResetCache(BuildCacheList(GetServiceLocator(), section.settings));

    const nox::FileEventsSubscription oasSettings = MakeSubscription(section.settings, section.mask);
    result_t r = res::Ok;
    OAS_INTERCEPTOR_CHECK_TRACE(
        m_tracer, r, m_eventsProvider->Resubscribe(processor, oasSettings),
        "m_eventsProvider->Resubscribe( m_processor, {oasSettings, oasSettings, vrelFlags})",
        __LINE__)
        << "Cannot resubscribe";
    return r;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

result_t FileInterceptor::OnSharesChanged() noexcept {
  const bool needShares = m_needSharesSubscription.load();
  QEB_TRACE(m_tracer, trace::LevelDetail)
      << "OnSharesChanged" << "() " << "m_needSharesSubscription=" << (needShares ? "1" : "0");
  try {
    result_t r = res::Ok;
    QEB_CHECK_TRACE(m_tracer, r, RefreshOasSettings(GetServiceLocator(), GetTracer()))
        << "Failed to refresh oas settings";
    if (QEB_FAILED(r)) return r;
    // The refresh may have brought new settings (and a new answer) already.
    if (!m_needSharesSubscription.load()) return res::False;
    QEB_CHECK_TRACE(m_tracer, r, ResetCache()) << "Failed to reset cache";
    return QEB_FAILED(r) ? r : res::Ok;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

}  // namespace nox::oas
