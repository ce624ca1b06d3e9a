// The interceptor the host creates and drives: it owns the on/off switch of interception,
// the scanner's handler, the filter mask and the current settings, and holds references
// to the host's shares parser, events provider and mount subscription for its whole life.
#pragma once

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
#include "settings/oas_settings.h"

namespace nox::oas {

using duration_t = uint32_t;

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
  qeb::objptr_t<qeb::IServiceLocator> m_serviceLocator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<vrel::IEventHandler085> m_eventHandler;
  qeb::objptr_t<nox::IMountSubscription> m_mountsSubscription;
  qeb::objptr_t<nox::IEventsProvider> m_eventsProvider;
  qeb::objptr_t<nox::ISharesParser> m_sharesParser;
  duration_t m_timeout = 0;
  std::mutex m_mutex;
  std::condition_variable m_condition;
  bool m_busy = false;
  uint32_t m_state = STATE_CREATED;
  uint32_t m_mask = 0;
  nox::settings::OASSettings m_settings;
  bool m_needSharesSubscription = false;
};

}  // namespace nox::oas
