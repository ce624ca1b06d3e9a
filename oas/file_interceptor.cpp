// The interceptor: start and stop, settings, cache resets and share changes. It owns the
// current events processor between a start and a stop; the host's providers hold their own
// references to it while subscribed, and events in flight keep what they need, so a stop
// never waits for scans. A reset rebuilds the clean-file caches and renews the file-events
// subscription under the same serialisation as start and stop.
#include "oas/file_interceptor.h"

#include <mutex>
#include <utility>

#include "framework/qeb/exception.h"
#include "interfaces/nox/task_manager.h"
#include "nox_common/shares_path.h"
#include "nox_tracing/tracing.h"
#include "oas/cache_impl/cache_list.h"
#include "oas/default_task.h"
#include "oas/file_events_processor.h"
#include "oas/filter_mask.h"
#include "oas/subscription_record.h"

// A failed checked call of the interceptor, traced with a fixed expression text and source
// position: log readers match these failures by position, so the positions do not follow
// edits of this file.
#define OAS_INTERCEPTOR_CHECK_TRACE(tracer, result_var, expr, text, lineNo) \
  QEB_CHECK_TRACE_AT(tracer, result_var, expr, text, ::nox::oas::kInterceptorSource, lineNo)

namespace nox::oas {

constexpr const char* kInterceptorSource = "oas/file_interceptor";
constexpr unsigned kGetTaskManagerCheckLine = 63;
constexpr unsigned kRefreshTaskCheckLine = 66;
constexpr unsigned kMountsSubscribeCheckLine = 112;
constexpr unsigned kEventsSubscribeCheckLine = 119;
constexpr unsigned kSharesSubscribeCheckLine = 125;

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

using qeb::objptr_t;
using qeb::result_t;
namespace res = qeb::res;
namespace trace = qeb::trace;

FileInterceptor::FileInterceptor(qeb::IServiceLocator* locator, nox::ISharesParser* sharesParser,
                                 nox::IEventsProvider* eventsProvider,
                                 nox::IMountSubscription* mountsSubscription, qeb::ITracer* tracer)
    : m_serviceLocator(locator),
      m_tracer(tracer),
      m_mountsSubscription(mountsSubscription),
      m_eventsProvider(eventsProvider),
      m_sharesParser(sharesParser),
      m_sharesSink(qeb::CreateObject<SharesEventsSink>(
          static_cast<nox::ISharesParserEvents*>(this))) {}

FileInterceptor::~FileInterceptor() {
  // No share notification may reach a half-destroyed interceptor.
  m_sharesSink->Detach();
  QEB_TRACE(m_tracer, trace::LevelDetail) << "~FileInterceptor";
  try {
    StopIntercepting();
  } catch (...) {
    qeb::TraceCurrentException(m_tracer);
  }
}

result_t FileInterceptor::Init(uint32_t timeout) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "Init" << "() " << "timeout=" << timeout;
  std::lock_guard lock(m_mutex);
  m_timeout = timeout;
  return res::Ok;
}

result_t FileInterceptor::GetState(uint32_t* state) noexcept {
  if (!state) return res::InvalidArgument;
  std::lock_guard lock(m_mutex);
  *state = m_state;
  return res::Ok;
}

result_t FileInterceptor::SetupFilters(uint32_t flags, vrel::IEventHandler085* handler) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "SetupFilters" << "() ";
  try {
    const uint32_t mask = FlagsToActionMask(flags);
    QEB_TRACE(m_tracer, trace::LevelDetail)
        << "SetupFilters" << ": " << "vrel mask: " << ActionMaskText(mask);
    if (!handler) {
      QEB_TRACE(m_tracer, trace::LevelDetail) << "SetupFilters" << ": no event handler";
    }

    objptr_t<vrel::IEventHandler085> newHandler(handler);
    ControlSection section(*this);
    {
      std::lock_guard lock(m_mutex);
      m_state = STATE_STARTING;
      std::swap(m_eventHandler, newHandler);  // the old handler is released outside the lock
    }
    section.handler = handler;

    // A processor that cannot be built is a failed start like any refused subscription:
    // the state must not stay "starting" and the handler must not be kept.
    result_t started = res::Ok;
    try {
      started = StartIntercepting(mask, section.settings, handler, section.timeout);
    } catch (...) {
      started = qeb::TraceCurrentException(m_tracer);
    }
    objptr_t<vrel::IEventHandler085> dropped;
    section.Finish([&] {
      if (QEB_FAILED(started)) {
        m_state = STATE_FAILED;
        std::swap(m_eventHandler, dropped);
      } else {
        m_state = STATE_RUNNING;
        m_mask = mask;
      }
    });
    return QEB_FAILED(started) ? res::InterceptorStartFailed : res::Ok;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

result_t FileInterceptor::RemoveFilters() noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "RemoveFilters";
  try {
    ControlSection section(*this);
    result_t stopResult = res::Ok;
    OAS_INTERCEPTOR_CHECK_TRACE(m_tracer, stopResult, StopIntercepting(),
                                "stopResult = StopIntercepting()", __LINE__)
        << "Cannot stop interceptor";
    if (QEB_FAILED(stopResult)) return stopResult;
    objptr_t<vrel::IEventHandler085> dropped;
    section.Finish([&] {
      m_state = STATE_CREATED;
      std::swap(m_eventHandler, dropped);
      m_mask = 0;
    });
    return res::Ok;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

namespace {
const char* StateRequestName(uint32_t request) {
  switch (request) {
    case qeb::IState::STATE_REQUEST_RUN: return "STATE_REQUEST_RUN";
    case qeb::IState::STATE_REQUEST_PAUSE: return "STATE_REQUEST_PAUSE";
    case qeb::IState::STATE_REQUEST_STOP: return "STATE_REQUEST_STOP";
    default: return "";
  }
}
}  // namespace

// Starts or stops interception but leaves the recorded state as it found it: only
// SetupFilters and RemoveFilters change the state.
result_t FileInterceptor::SetState(uint32_t request) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail)
      << "SetState" << "() " << "stateRequest=" << StateRequestName(request);
  try {
    ControlSection section(*this);
    const bool running = section.state == STATE_RUNNING;
    result_t r = res::Ok;
    switch (request) {
      case qeb::IState::STATE_REQUEST_PAUSE:
      case qeb::IState::STATE_REQUEST_STOP:
        if (!running) {
          QEB_TRACE(m_tracer, trace::LevelDetail) << "SetState" << ": " << ": Already stopped";
          return res::False;
        }
        r = StopIntercepting();
        break;
      case qeb::IState::STATE_REQUEST_RUN:
        if (running) {
          QEB_TRACE(m_tracer, trace::LevelDetail) << "SetState" << ": " << ": Already running";
          return res::False;
        }
        r = StartIntercepting(section.mask, section.settings, section.handler, section.timeout);
        break;
      default:
        QEB_TRACE(m_tracer, trace::LevelDetail) << "SetState" << ": " << ": Invalid state request";
        return res::InvalidArgument;
    }
    if (QEB_SUCCEEDED(r)) section.Finish([&] { m_state = section.state; });
    return r;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

result_t FileInterceptor::StartIntercepting(uint32_t mask,
                                            const nox::settings::OASSettings& settings,
                                            vrel::IEventHandler085* handler, duration_t timeout) {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "StartIntercepting";
  // A restart stops the old processor first: two processors subscribed at once would
  // both answer the same files.
  if (CurrentProcessor()) StopIntercepting();
  // The processor starts from the defaults of its own options (no forced pass): those
  // follow the settings once SetSettings reaches a running interceptor.
  auto processor = qeb::CreateObject<FileEventsProcessor>(
      GetServiceLocator(), handler, timeout, BuildCacheList(GetServiceLocator(), settings));

  result_t r = res::Ok;
  OAS_INTERCEPTOR_CHECK_TRACE(m_tracer, r, m_mountsSubscription->Subscribe(processor),
                              "m_mountsSubscription->Subscribe(processor)",
                              kMountsSubscribeCheckLine)
      << "Cannot subscribe to mount events";
  if (QEB_FAILED(r)) return r;

  OAS_INTERCEPTOR_CHECK_TRACE(m_tracer, r,
                              m_eventsProvider->Subscribe(processor, MakeSubscription(settings, mask)),
                              "m_eventsProvider->Subscribe(processor, {settings, settings, flags})",
                              kEventsSubscribeCheckLine)
      << "Cannot subscribe to file events";
  if (QEB_FAILED(r)) {
    // The processor is not kept, so nothing would ever unsubscribe it from mount changes.
    m_mountsSubscription->Unsubscribe(processor);
    return r;
  }

  {
    std::lock_guard lock(m_mutex);
    m_processor = processor;
  }

  OAS_INTERCEPTOR_CHECK_TRACE(m_tracer, r, m_sharesParser->Subscribe(m_sharesSink),
                              "m_sharesParser->Subscribe(this)", kSharesSubscribeCheckLine)
      << "Cannot subscribe to shares events";
  return QEB_FAILED(r) ? r : res::Ok;
}

result_t FileInterceptor::StopIntercepting() {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "StopIntercepting";
  objptr_t<FileEventsProcessor> processor;
  {
    std::lock_guard lock(m_mutex);
    processor = std::move(m_processor);
  }
  if (processor) {
    m_mountsSubscription->Unsubscribe(processor);
    // A provider that refuses keeps delivering to this processor, which goes on answering
    // what it is given; it is forgotten here all the same, as the result is not ours to act on.
    m_eventsProvider->Unsubscribe(processor);
  }
  m_sharesParser->Unsubscribe(m_sharesSink);
  return res::Ok;
}

objptr_t<FileEventsProcessor> FileInterceptor::CurrentProcessor() {
  std::lock_guard lock(m_mutex);
  return m_processor;
}

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
