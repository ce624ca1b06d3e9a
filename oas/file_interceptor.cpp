// Starting and stopping interception. The interceptor owns the current events processor
// between a start and a stop; the host's providers hold their own references to it while
// subscribed, and events in flight keep what they need, so a stop never waits for scans.
#include "oas/file_interceptor.h"

#include <utility>

#include "framework/qeb/exception.h"
#include "nox_tracing/tracing.h"
#include "oas/cache_impl/cache_list.h"
#include "oas/file_events_processor.h"
#include "oas/file_interceptor_control.h"
#include "oas/filter_mask.h"
#include "oas/subscription_record.h"

namespace nox::oas {

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
  // A restart replaces the running processor; the old one must not stay subscribed.
  if (CurrentProcessor()) StopIntercepting();
  auto processor = qeb::CreateObject<FileEventsProcessor>(
      GetServiceLocator(), handler, timeout, BuildCacheList(GetServiceLocator(), settings));
  // Settings given before the start apply to the new processor at once.
  processor->ApplySettings(settings);

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
    m_eventsProvider->Unsubscribe(processor);
    // Whatever the provider answered, no more files are taken through this processor.
    processor->Stop();
  }
  m_sharesParser->Unsubscribe(m_sharesSink);
  return res::Ok;
}

objptr_t<FileEventsProcessor> FileInterceptor::CurrentProcessor() {
  std::lock_guard lock(m_mutex);
  return m_processor;
}

}  // namespace nox::oas
