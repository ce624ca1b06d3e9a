// The interceptor the host creates and drives: it owns the on/off switch of interception,
// the scanner's handler, the filter mask, the current settings and the current events
// processor. Control operations are serialised by a busy flag; the mutex only guards the
// members and is never held while the host's services are called.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/file_events.h"
#include "interfaces/nox/mounts.h"
#include "interfaces/nox/shares.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event_handler.h"
#include "interfaces/vrel/file_interceptor.h"
#include "oas/shares_events_sink.h"
#include "settings/oas_settings.h"

namespace nox::oas {

using duration_t = uint32_t;
class FileEventsProcessor;

class FileInterceptor
    : public qeb::object::Ifaces<qeb::IState, nox::ISharesParserEvents, vrel::IPosixFileInterceptor,
                                 IFileMonitoringTaskSettings> {
 public:
  static constexpr uint32_t STATE_CREATED = 0x94;
  static constexpr uint32_t STATE_STARTING = 0x300021;
  static constexpr uint32_t STATE_RUNNING = 0x300031;
  static constexpr uint32_t STATE_FAILED = 0x4000f0;

  FileInterceptor(qeb::IServiceLocator* locator, nox::ISharesParser* sharesParser,
                  nox::IEventsProvider* eventsProvider, nox::IMountSubscription* mountsSubscription,
                  qeb::ITracer* tracer);
  ~FileInterceptor();

  qeb::result_t SetState(uint32_t request) noexcept override;
  qeb::result_t GetState(uint32_t* state) noexcept override;
  qeb::result_t Init(uint32_t timeout) noexcept override;
  qeb::result_t SetupFilters(uint32_t flags, vrel::IEventHandler085* handler) noexcept override;
  qeb::result_t RemoveFilters() noexcept override;
  qeb::result_t ResetCache() noexcept override;
  qeb::result_t OnSharesChanged() noexcept override;
  qeb::result_t SetSettings(const nox::settings::OASSettings& settings) noexcept override;
  qeb::result_t GetSettings(nox::settings::OASSettings& settings) noexcept override;
  qeb::result_t AddProcessExclusion(uint32_t pid) noexcept override;
  qeb::result_t RemoveProcessExclusion(uint32_t pid) noexcept override;
  qeb::result_t ClearProcessExclusions() noexcept override;
  qeb::result_t SetSequenceTimeout(uint32_t timeout) noexcept override;
  qeb::result_t GetSequenceTimeout(uint32_t* timeout) noexcept override;
  qeb::result_t CreateStatisticsCollector(
      vrel::IFileInterceptorStatisticsCollector** collector) noexcept override;
  qeb::result_t AddPathExclusion(const char* path) noexcept override;
  qeb::result_t RemovePathExclusion(const char* path) noexcept override;
  qeb::result_t ClearPathExclusions() noexcept override;

 private:
  class ControlSection;

  qeb::result_t StartIntercepting(uint32_t mask, const nox::settings::OASSettings& settings,
                                  vrel::IEventHandler085* handler, duration_t timeout);
  qeb::result_t StopIntercepting();
  qeb::objptr_t<FileEventsProcessor> CurrentProcessor();
  qeb::IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }
  qeb::ITracer* GetTracer() const noexcept { return m_tracer.Get(); }

  qeb::objptr_t<qeb::IServiceLocator> m_serviceLocator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<vrel::IEventHandler085> m_eventHandler;
  qeb::objptr_t<nox::IMountSubscription> m_mountsSubscription;
  qeb::objptr_t<nox::IEventsProvider> m_eventsProvider;
  qeb::objptr_t<nox::ISharesParser> m_sharesParser;
  qeb::objptr_t<FileEventsProcessor> m_processor;
  duration_t m_timeout = 0;
  std::mutex m_mutex;
  std::condition_variable m_condition;
  bool m_busy = false;
  uint32_t m_state = STATE_CREATED;
  uint32_t m_mask = 0;
  nox::settings::OASSettings m_settings;
  std::atomic<bool> m_needSharesSubscription{false};
  // Subscribed to the shares parser in the interceptor's place (see shares_events_sink.h).
  qeb::objptr_t<SharesEventsSink> m_sharesSink;
};

}  // namespace nox::oas
