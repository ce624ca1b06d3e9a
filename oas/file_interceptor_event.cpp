// The interceptor event: initialisation from the record, the parameters the scanner
// reads, the run on a worker thread, and the verdict protocol. The event's mutex guards
// only the processed flag and is held across a delivery, so at most one reply leaves.
#include "oas/file_interceptor_event.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <ctime>
#include <utility>

#include "framework/qeb/exception.h"
#include "framework/qeb/service.h"
#include "framework/qeb/utf.h"
#include "interfaces/nox/info_caches.h"
#include "interfaces/nox/task_manager.h"
#include "nox_common/container_identification_tools.h"
#include "nox_tracing/tracing.h"
#include "oas/event_params_text.h"

namespace nox::oas {

using qeb::result_t;
namespace res = qeb::res;
using qeb::trace::LevelDetail;
using qeb::trace::LevelError;

namespace {

// Log readers match failures of these two checks by their source position, so the
// positions are kept fixed rather than following edits of this file.
constexpr unsigned kInitCheckLine = 54;
constexpr unsigned kSetVerdictCheckLine = 460;

constexpr uint32_t kGroupFile = 3;
constexpr uint32_t kGroupProcess = 8;
constexpr uint32_t kTypeOpen = 0;
constexpr uint32_t kTypeExecute = 4;
constexpr uint32_t kTypeRename = 6;
constexpr uint32_t kTypeClose = 18;

// The scanner's handlers take every event in the same context.
constexpr uint32_t kHandlerContext = 0xFFFFFFFF;

const char16_t* RootUserName() {
  static const std::u16string root = u"root";
  return root.c_str();
}

int64_t WallClockSeconds() noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  return now.tv_sec;
}

// The flag lives in the static TLS that the C library keeps spare for loaded modules
// (initial-exec): one byte fits there, and this spares every event a __tls_get_addr call,
// which the thread sanitizer's runtime also mishandles for a module's dynamic TLS.
void NameWorkerThreadOnce() noexcept {
  [[gnu::tls_model("initial-exec")]] thread_local bool named = false;
  if (named) return;
  prctl(PR_SET_NAME, "dornOASEvent", 0, 0, 0);
  named = true;
}

uint32_t WideSize(const std::u16string& s) noexcept {
  return static_cast<uint32_t>(2 * s.size() + 2);
}

}  // namespace

FileInterceptorEvent::FileInterceptorEvent(qeb::IServiceLocator* locator,
                                           const vrel::EventParams& params, duration_t timeout,
                                           vrel::IEventHandler085* handler, bool forceActionPass,
                                           CacheManager* cacheManager,
                                           nox::containers::IContainersMonitor* monitor)
    : m_serviceLocator(locator),
      m_tracer(qeb::RequireInterface<qeb::ITracer>(locator)),
      m_containersMonitor(monitor),
      m_eventHandler(handler),
      m_cacheManager(cacheManager),
      m_params(params),
      m_timeout(timeout != 0 ? timeout : DefaultTimeout),
      m_forceActionPass(forceActionPass) {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << ", " << m_params
                                   << ", force action pass: " << m_forceActionPass;
  m_verdictNotifier = QEB_REQUIRE_SERVICE(vrel::IFileVerdictNotifier, locator,
                                          "Cannot get IFileVerdictNotifier interface");
  const result_t r = Init(params);
  if (QEB_FAILED(r))
    throw qeb::CheckResultFailedException(__FILE__, kInitCheckLine, r, "Init(params)");
}

FileInterceptorEvent::~FileInterceptorEvent() {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  if (m_timer) {
    m_timer->CancelTimer(m_timeoutCallback.Get());
    m_timer.Reset();
  }
  // A timer that refused the cancel still holds the callback; it must not reach this event.
  if (m_timeoutCallback) m_timeoutCallback->Detach();
  if (!m_processed) {
    // Nobody answered: the file is let through, and never cached as clean.
    QEB_TRACE(m_tracer, LevelError) << m_params << " was not processed!";
    SetVerdict(vrel::NOTIFIER_VERDICT_ALLOW);
  }
  m_eventHandler.Reset();
  m_verdictNotifier.Reset();
  if (m_userObjectContext) {
    QEB_TRACE(m_tracer, LevelDetail) << "Releasing m_userObjectContext";
    m_userObjectContext.Reset();
  }
  m_timeoutCallback.Reset();
}

result_t FileInterceptorEvent::Init(const vrel::EventParams& params) {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << ", fd: " << params.fd
                                   << ", ns: " << params.nsid;
  const bool hostEvent = params.nsid == nox::containers::GetOwnMountNamespaceId();
  m_reopenData.path = std::string(params.fileName.view());
  m_reopenData.mountNamespace.reset();
  if (!hostEvent) {
    m_reopenData.mountNamespace = params.nsid;
    DescribeScanArea(params.nsid);
  }
  m_userFileName = qeb::Utf8ToUtf16(params.fileName.view());

  m_action = params.oper;
  m_contextFlags = vrel::IsNetworkFilesystem(params.fsType) ? vrel::CONTEXT_FLAG_NETWORK : 0;
  if (const result_t r = SetOperation(params.oper); QEB_FAILED(r)) return r;

  m_header.sequenceNumber = params.queue_id;
  m_header.reserved16 = -1;
  m_header.timeout = m_timeout;
  m_header.processId = params.pid;
  m_header.reserved36 = -1;
  m_sessionId = getsid(params.pid);
  m_cacheable = false;
  m_clientId1 = params.fd;
  m_processed = false;
  m_userPtrContext = nullptr;
  m_userObjectContext.Reset();

  m_timeoutCallback = TimeoutCallback::Create(this);
  ArmTimer();
  return res::Ok;
}

result_t FileInterceptorEvent::SetOperation(uint32_t oper) noexcept {
  switch (oper) {
    case vrel::VREL_ACTION_OPEN:
      m_header.functionGroup = kGroupFile;
      m_header.functionType = kTypeOpen;
      m_contextFlags |= vrel::CONTEXT_FLAG_OPEN;
      return res::Ok;
    case vrel::VREL_ACTION_CLOSE:
    case vrel::VREL_ACTION_CLOSE_MODIFY:
      m_header.functionGroup = kGroupFile;
      m_header.functionType = kTypeClose;
      m_contextFlags |= vrel::CONTEXT_FLAG_CLOSE;
      return res::Ok;
    case vrel::VREL_ACTION_EXEC:
      m_header.functionGroup = kGroupProcess;
      m_header.functionType = kTypeExecute;
      m_contextFlags |= vrel::CONTEXT_FLAG_OPEN | vrel::CONTEXT_FLAG_EXECUTE;
      return res::Ok;
    case vrel::VREL_ACTION_RENAME:
      m_header.functionGroup = kGroupFile;
      m_header.functionType = kTypeRename;
      return res::Ok;
    default:
      QEB_TRACE(m_tracer, LevelError) << "Unexpected action: " << oper;
      return res::Unspecified;
  }
}

void FileInterceptorEvent::DescribeScanArea(uint64_t mountNamespace) {
  nox::containers::ContainerDescription description;
  description.name = "Unknown";
  description.imageName = "Unknown";
  const bool described =
      m_containersMonitor &&
      QEB_SUCCEEDED(m_containersMonitor->DescribeNamespace(mountNamespace, description));
  m_scanAreaId = described ? nox::containers::MakeScanAreaString(description) : "NonLocal";
}

void FileInterceptorEvent::ArmTimer() {
  auto timer = qeb::RequireInterface<qeb::ITimerService>(m_serviceLocator.Get());
  m_timer = std::move(timer);
  result_t r;
  QEB_CHECK_TRACE(m_tracer, r, m_timer->SetTimer(m_timeoutCallback.Get(), m_timeout))
      << "Cannot arm the event timer";
}

// ---- identity and parameters -------------------------------------------------------

result_t FileInterceptorEvent::GetEventHeader(vrel::EventHeader& header) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  header = m_header;
  return res::Ok;
}

result_t FileInterceptorEvent::GetSequenceNumber(uint64_t& sequenceNumber) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  sequenceNumber = m_header.sequenceNumber;
  return res::Ok;
}

result_t FileInterceptorEvent::GetFunction(uint64_t& function, uint64_t& functionExtra) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  function = uint64_t{m_header.functionGroup} | (uint64_t{m_header.functionType} << 32);
  functionExtra = uint64_t{static_cast<uint32_t>(m_header.reserved16)} |
                  (uint64_t{m_header.reserved20} << 32);
  return res::Ok;
}

result_t FileInterceptorEvent::GetParam(uint32_t id, const void*& data, uint32_t& size) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << ", " << m_userFileName
                                   << ", paramId: " << id;
  TraceParam(id);
  switch (id) {
    case vrel::_PARAM_OBJECT_URL_W:
    case vrel::_PARAM_FILE_NAME_USER_W:
    case vrel::_PARAM_DEST_FILE_NAME_USER_W:
      data = m_userFileName.c_str();
      size = WideSize(m_userFileName);
      return res::Ok;
    case vrel::_PARAM_OBJECT_CONTEXT_FLAGS:
      data = &m_contextFlags;
      size = sizeof m_contextFlags;
      return res::Ok;
    case vrel::_PARAM_OBJECT_CLIENTID1:
      data = &m_clientId1;
      size = sizeof m_clientId1;
      return res::Ok;
    case vrel::_PARAM_OBJECT_CLIENTID2:
      data = &m_params.nsid;
      size = sizeof m_params.nsid;
      return res::Ok;
    case vrel::_PARAM_SESSION_ID:
      data = &m_sessionId;
      size = sizeof m_sessionId;
      return res::Ok;
    case vrel::_PARAM_SCAN_AREA_ID:
      if (m_scanAreaId.empty()) return res::NotSupported;
      data = m_scanAreaId.c_str();
      size = static_cast<uint32_t>(m_scanAreaId.size() + 1);
      return res::Ok;
    default:
      return res::NotSupported;
  }
}

void FileInterceptorEvent::TraceParam(uint32_t id) const noexcept {
  qeb::trace::Line line(m_tracer, LevelDetail);
  if (!line) return;
  switch (id) {
    case vrel::_PARAM_OBJECT_URL_W: line << "_PARAM_OBJECT_URL_W: " << m_userFileName; break;
    case vrel::_PARAM_OBJECT_CONTEXT_FLAGS:
      line << "_PARAM_OBJECT_CONTEXT_FLAGS: " << m_contextFlags;
      break;
    case vrel::_PARAM_OBJECT_CLIENTID1: line << "_PARAM_OBJECT_CLIENTID1: " << m_clientId1; break;
    case vrel::_PARAM_OBJECT_CLIENTID2: line << "_PARAM_OBJECT_CLIENTID2: " << m_params.nsid; break;
    case vrel::_PARAM_SESSION_ID: line << "_PARAM_SESSION_ID: " << m_sessionId; break;
    case vrel::_PARAM_SCAN_AREA_ID: line << "_PARAM_SCAN_AREA_ID: '" << m_scanAreaId << "'"; break;
    case vrel::_PARAM_FILE_NAME_USER_W:
      line << "_PARAM_FILE_NAME_USER_W: " << m_userFileName;
      break;
    case vrel::_PARAM_DEST_FILE_NAME_USER_W:
      line << "_PARAM_DEST_FILE_NAME_USER_W: " << m_userFileName;
      break;
    default: line << "Unknown paramId: " << id; break;
  }
}

result_t FileInterceptorEvent::GetProcessingType(
    vrel::ProcessingType::ProcessingType& type) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  switch (m_header.functionType) {
    case kTypeOpen:
    case kTypeExecute: type = vrel::ProcessingType::Synchronous; return res::Ok;
    case kTypeRename:
    case kTypeClose: type = vrel::ProcessingType::Asynchronous; return res::Ok;
    default:
      QEB_TRACE(m_tracer, LevelError) << "Unexpected function type " << m_header.functionType;
      return res::Unspecified;
  }
}

// ---- the run on a worker thread ----------------------------------------------------

result_t FileInterceptorEvent::Run() noexcept {
  NameWorkerThreadOnce();
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  // An interception started without a handler (a run request before any filter set-up)
  // has nobody to ask: the event is released unanswered and the file let through.
  if (!m_eventHandler) return res::Ok;
  try {
    auto* self = static_cast<vrel::IEvent085*>(this);
    switch (m_header.functionType) {
      case kTypeOpen:
      case kTypeExecute: m_eventHandler->OnEvent(self, kHandlerContext); break;
      case kTypeRename:
      case kTypeClose: m_eventHandler->OnNotification(self, kHandlerContext); break;
      default: break;
    }
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
  return res::Ok;
}

// ---- impersonation, contexts, reopen data ------------------------------------------

result_t FileInterceptorEvent::ImpersonateImmediately() noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  m_impersonating = true;
  return res::Ok;
}

result_t FileInterceptorEvent::IsImpersonating(qeb::bool_t& impersonating) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  impersonating = m_impersonating;
  return res::Ok;
}

result_t FileInterceptorEvent::SetUserPtrContext(void* context) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  m_userPtrContext = context;
  return res::Ok;
}

result_t FileInterceptorEvent::GetUserPtrContext(void*& context) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  context = m_userPtrContext;
  return res::Ok;
}

result_t FileInterceptorEvent::SetUserObjectContext(qeb::IObject* context) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  m_userObjectContext = qeb::objptr_t<qeb::IObject>(context);
  return res::Ok;
}

result_t FileInterceptorEvent::GetUserObjectContext(qeb::IObject*& context) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  context = m_userObjectContext.Get();
  return res::Ok;
}

result_t FileInterceptorEvent::GetReopenData(const nox::ReopenData*& data) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  data = &m_reopenData;
  return res::Ok;
}

// ---- verdicts ----------------------------------------------------------------------

result_t FileInterceptorEvent::AddReplyTargetVerdict(const vrel::TargetVerdict& verdict) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << " TargetVerdict: ("
                                   << verdict.targetId << ", " << verdict.value << ")" << m_params;
  if (verdict.targetId == vrel::TARGET_VERDICT_CACHEABLE) m_cacheable = verdict.value != 0;
  return res::Ok;
}

result_t FileInterceptorEvent::ResetReplyTargetVerdict(uint32_t targetId) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << " targetId: " << targetId;
  if (targetId == vrel::TARGET_VERDICT_CACHEABLE) m_cacheable = false;
  return res::Ok;
}

uint32_t FileInterceptorEvent::ToNotifierVerdict(
    vrel::BasicVerdict::BasicVerdict verdict) const noexcept {
  if (verdict == vrel::BasicVerdict::Allow)
    return m_cacheable ? vrel::NOTIFIER_VERDICT_ALLOW_CLEAN : vrel::NOTIFIER_VERDICT_ALLOW;
  if (verdict == vrel::BasicVerdict::Deny && m_forceActionPass) return vrel::NOTIFIER_VERDICT_ALLOW;
  return vrel::NOTIFIER_VERDICT_DENY;
}

result_t FileInterceptorEvent::Reply(vrel::BasicVerdict::BasicVerdict verdict) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << m_params << ", basic verdict: "
                                   << (verdict == vrel::BasicVerdict::Allow ? "Allow" : "Deny")
                                   << ", force action pass: " << m_forceActionPass;
  std::lock_guard lock(m_mutex);
  if (m_processed) {
    QEB_TRACE(m_tracer, LevelDetail) << "processed already";
    return res::Ok;
  }
  const uint32_t vrelVerdict = ToNotifierVerdict(verdict);
  const result_t r = SetVerdict(vrelVerdict);
  if (QEB_FAILED(r)) {
    if (qeb::trace::Line line(m_tracer, LevelError); line)
      qeb::trace::CheckFailedPrefix(line, __FILE__, kSetVerdictCheckLine, "SetVerdict(vrelVerdict)",
                                    r)
          << "Cannot set verdict";
    return r;
  }
  m_processed = true;
  return res::Ok;
}

result_t FileInterceptorEvent::PreReply(vrel::BasicVerdict::BasicVerdict verdict,
                                        vrel::duration_t) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  return Reply(verdict);
}

result_t FileInterceptorEvent::SetVerdict(uint32_t verdict) noexcept {
  if (verdict == vrel::NOTIFIER_VERDICT_ALLOW_CLEAN && m_cacheManager)
    m_cacheManager->AddCleanFile(m_params);
  qeb::objptr_t<nox::vrelpp::IFileVerdictNotifierEx> extended;
  if (QEB_SUCCEEDED(qeb::QueryInterface(m_verdictNotifier.Get(), extended.Ref())) && extended)
    return extended->SetVerdict(m_params, verdict);
  QEB_TRACE(m_tracer, LevelDetail) << "Can't query nox::vrelpp::IFileVerdictNotifierEx interface. "
                                      "Fall back to vrel::IFileVerdictNotifier";
  return m_verdictNotifier->SetVerdict(vrel::ReplyKey::FromEvent(m_params), m_params, verdict);
}

result_t FileInterceptorEvent::Pend(vrel::duration_t timeout) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << " timeout: " << timeout << m_params;
  m_timeout = timeout;
  return m_timer->SetTimer(m_timeoutCallback.Get(), m_timeout);
}

result_t FileInterceptorEvent::Postpone(qeb::bool_t bRequestPostponeTimeImpersonating) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << " bRequestPostponeTimeImpersonating: "
                                   << bRequestPostponeTimeImpersonating;
  return res::NotSupported;
}

void FileInterceptorEvent::Withdraw() noexcept {
  std::lock_guard lock(m_mutex);
  m_processed = true;
}

// ---- timeouts ----------------------------------------------------------------------

result_t FileInterceptorEvent::OnTimeout() noexcept {
  try {
    QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << m_params;
    {
      std::lock_guard lock(m_mutex);
      if (m_processed) {
        QEB_TRACE(m_tracer, LevelDetail)
            << "File already processed, sequence no.: " << m_header.sequenceNumber;
        return res::Ok;
      }
    }
    return PublishTimeoutEvent();
  } catch (...) {
    QEB_TRACE(m_tracer, LevelError) << "Unexpected exception in " << "OnTimeout";
    return qeb::CurrentExceptionToResult();
  }
}

result_t FileInterceptorEvent::PublishTimeoutEvent() {
  using qeb::GetInterface;
  nox::ProcessingErrorEvent event = MakeTimeoutEvent();
  qeb::objptr_t<nox::IEventPublisher> eventPublisher;
  result_t r;
  QEB_CHECK_TRACE(m_tracer, r, GetInterface(GetServiceLocator(), eventPublisher.Ref()))
      << "Failed to obtain event publisher interface";
  if (QEB_FAILED(r)) return r;
  QEB_CHECK_TRACE(m_tracer, r, eventPublisher->Publish(std::move(event)))
      << "Failed to publish processing error event";
  return r;
}

nox::ProcessingErrorEvent FileInterceptorEvent::MakeTimeoutEvent() const {
  nox::ProcessingErrorEvent event;
  qeb::objptr_t<nox::INoxTaskManager> taskManager;
  if (QEB_SUCCEEDED(qeb::GetInterface(m_serviceLocator.Get(), taskManager.Ref())) && taskManager)
    taskManager->FillTaskInfo(event, RootUserName());
  event.time = WallClockSeconds();
  event.eventKind = nox::PROCESSING_ERROR_EVENT_KIND;
  event.severity = nox::PROCESSING_ERROR_SEVERITY;
  event.errorCategory = nox::PROCESSING_ERROR_CATEGORY;
  event.reason = u"timeout";
  event.fileName = m_userFileName;
  AddFileInfo(event);
  AddUserInfo(event);
  return event;
}

void FileInterceptorEvent::AddFileInfo(nox::ProcessingErrorEvent& event) const {
  qeb::objptr_t<nox::IFileInfoCache> cache;
  nox::FileInfo info;
  const std::string path(m_params.fileName.view());
  if (QEB_FAILED(qeb::GetInterface(m_serviceLocator.Get(), cache.Ref())) || !cache ||
      QEB_FAILED(cache->GetFileInfo(m_params.nsid, path, info))) {
    QEB_TRACE(m_tracer, LevelError) << "Cannot get file info for " << m_params.nsid << ":" << path;
    return;
  }
  event.fileSize = info.size;
  event.fileMd5 = std::move(info.md5);
  event.fileSha256 = std::move(info.sha256);
}

void FileInterceptorEvent::AddUserInfo(nox::ProcessingErrorEvent& event) const {
  qeb::objptr_t<nox::IUserInfoCache> cache;
  nox::UserInfo info{RootUserName(), u""};
  const std::string path(m_params.fileName.view());
  if (QEB_FAILED(qeb::GetInterface(m_serviceLocator.Get(), cache.Ref())) || !cache ||
      QEB_FAILED(cache->GetFileOwner(m_params.nsid, path, info))) {
    QEB_TRACE(m_tracer, LevelError)
        << "Cannot get user info for the file " << m_params.nsid << ":" << path;
    event.userName = RootUserName();
    return;
  }
  event.userName = info.userName.empty() ? std::u16string(RootUserName()) : std::move(info.userName);
  event.userId = std::move(info.userId);
}

}  // namespace nox::oas
