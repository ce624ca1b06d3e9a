// One intercepted file operation while the scanner decides about it. The event owns a
// full copy of the record, the texts it hands out through GetParam, its timer callback
// and the processed flag; it holds references to the handler, the verdict notifier, the
// cache manager and the monitor, and gives them up when its last reference goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/containers.h"
#include "interfaces/nox/event_publisher.h"
#include "interfaces/nox/reopen.h"
#include "interfaces/qeb/timer.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event.h"
#include "interfaces/vrel/event_handler.h"
#include "interfaces/vrel/event_params.h"
#include "interfaces/vrel/verdict_notifier.h"
#include "oas/cache_manager.h"
#include "oas/timeout_callback.h"

namespace nox::oas {

// Milliseconds.
using duration_t = uint32_t;

class FileInterceptorEvent
    : public qeb::object::Ifaces<vrel::IEvent085, nox::IReopenDataProvider, qeb::IRunnable> {
 public:
  // Used when the event is given a timeout of 0: the scanner then gets 30 seconds.
  static constexpr duration_t DefaultTimeout = 30000;

  // Throws when the tracer, the notifier or the timer is missing or the record is refused.
  FileInterceptorEvent(qeb::IServiceLocator* locator, const vrel::EventParams& params,
                       duration_t timeout, vrel::IEventHandler085* handler, bool forceActionPass,
                       CacheManager* cacheManager, nox::containers::IContainersMonitor* monitor);
  ~FileInterceptorEvent();
  FileInterceptorEvent(const FileInterceptorEvent&) = delete;
  FileInterceptorEvent& operator=(const FileInterceptorEvent&) = delete;

  // vrel::IEvent085
  qeb::result_t GetEventHeader(vrel::EventHeader& header) noexcept override;
  qeb::result_t GetSequenceNumber(uint64_t& sequenceNumber) noexcept override;
  qeb::result_t GetFunction(uint64_t& function, uint64_t& functionExtra) noexcept override;
  qeb::result_t GetParam(uint32_t id, const void*& data, uint32_t& size) noexcept override;
  qeb::result_t GetProcessingType(vrel::ProcessingType::ProcessingType& type) noexcept override;
  qeb::result_t Pend(vrel::duration_t timeout) noexcept override;
  qeb::result_t Postpone(qeb::bool_t bRequestPostponeTimeImpersonating) noexcept override;
  qeb::result_t ImpersonateImmediately() noexcept override;
  qeb::result_t IsImpersonating(qeb::bool_t& impersonating) noexcept override;
  qeb::result_t AddReplyTargetVerdict(const vrel::TargetVerdict& verdict) noexcept override;
  qeb::result_t ResetReplyTargetVerdict(uint32_t targetId) noexcept override;
  qeb::result_t Reply(vrel::BasicVerdict::BasicVerdict verdict) noexcept override;
  qeb::result_t PreReply(vrel::BasicVerdict::BasicVerdict verdict,
                         vrel::duration_t timeout) noexcept override;
  qeb::result_t SetUserPtrContext(void* context) noexcept override;
  qeb::result_t GetUserPtrContext(void*& context) noexcept override;
  qeb::result_t SetUserObjectContext(qeb::IObject* context) noexcept override;
  qeb::result_t GetUserObjectContext(qeb::IObject*& context) noexcept override;

  // nox::IReopenDataProvider
  qeb::result_t GetReopenData(const nox::ReopenData*& data) noexcept override;

  // qeb::IRunnable: hands the event to the scanner on the calling worker thread.
  qeb::result_t Run() noexcept override;

  // Called by the timeout callback on the timer's thread.
  qeb::result_t OnTimeout() noexcept;

  // The file is answered by whoever created the event (the pool refused it): the event
  // must deliver nothing, not even the default verdict on release.
  void Withdraw() noexcept;

  qeb::IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }

 private:
  qeb::result_t Init(const vrel::EventParams& params);
  qeb::result_t SetOperation(uint32_t oper) noexcept;
  void DescribeScanArea(uint64_t mountNamespace);
  void ArmTimer();
  uint32_t ToNotifierVerdict(vrel::BasicVerdict::BasicVerdict verdict) const noexcept;
  qeb::result_t SetVerdict(uint32_t verdict) noexcept;
  qeb::result_t PublishTimeoutEvent();
  nox::ProcessingErrorEvent MakeTimeoutEvent() const;
  void AddFileInfo(nox::ProcessingErrorEvent& event) const;
  void AddUserInfo(nox::ProcessingErrorEvent& event) const;
  void TraceParam(uint32_t id) const noexcept;

  qeb::objptr_t<qeb::IServiceLocator> m_serviceLocator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<nox::containers::IContainersMonitor> m_containersMonitor;
  qeb::objptr_t<vrel::IEventHandler085> m_eventHandler;
  qeb::objptr_t<vrel::IFileVerdictNotifier> m_verdictNotifier;
  qeb::objptr_t<CacheManager> m_cacheManager;
  vrel::EventParams m_params;
  vrel::EventHeader m_header;
  uint32_t m_contextFlags = 0;
  qeb::objptr_t<qeb::IObject> m_userObjectContext;
  void* m_userPtrContext = nullptr;
  nox::ReopenData m_reopenData;
  std::u16string m_userFileName;
  std::string m_scanAreaId;
  int32_t m_sessionId = 0;
  // The scanner sets it before replying, possibly from another thread than the reply's.
  std::atomic<bool> m_cacheable{false};
  int32_t m_clientId1 = -1;
  duration_t m_timeout = 0;
  qeb::objptr_t<qeb::ITimerService> m_timer;
  qeb::objptr_t<TimeoutCallback> m_timeoutCallback;
  std::mutex m_mutex;
  bool m_processed = false;
  bool m_impersonating = false;
  uint32_t m_action = 0xFFFFFFFF;
  bool m_forceActionPass = false;
};

}  // namespace nox::oas
