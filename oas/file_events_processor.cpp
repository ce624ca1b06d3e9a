// Event intake: the cheap decisions happen on the provider's thread (no reply handle,
// clean file), everything that may wait on the scanner goes to the pool as an interceptor
// event. The mutex is held only to copy the cache manager reference and the flag, and
// across the cache manager's mount-change handling.
#include "oas/file_events_processor.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "framework/enums/enum_names.h"
#include "framework/qeb/exception.h"
#include "framework/qeb/service.h"
#include "nox_common/container_identification_tools.h"
#include "nox_tracing/tracing.h"
#include "oas/file_interceptor_event.h"
#include "settings/oas_settings_printer.h"

namespace nox::oas {

using qeb::result_t;
namespace res = qeb::res;
using qeb::trace::LevelDetail;
using qeb::trace::LevelError;

namespace {

// Log readers match these check failures by their source position; it stays fixed.
constexpr const char* kCheckFile = "oas/file_events_processor";
constexpr unsigned kMountProviderCheckLine = 98;
constexpr unsigned kAddTaskCheckLine = 184;

constexpr uint32_t kMinPoolThreads = 4;
// The infected-object action that lets files through whatever the scanner says.
constexpr uint32_t kInfectedActionPass =
    static_cast<uint32_t>(nox::enums::ActionOnThreat::Type::Notify);
static_assert(kInfectedActionPass == 5);
constexpr uint32_t kPoolIdleTimeout = 30000;

}  // namespace

FileEventsProcessor::FileEventsProcessor(qeb::IServiceLocator* locator,
                                         vrel::IEventHandler085* handler, duration_t timeout,
                                         std::vector<std::unique_ptr<IFilesCache>>&& caches)
    : m_serviceLocator(locator),
      m_tracer(qeb::RequireInterface<qeb::ITracer>(locator)),
      m_timeout(timeout),
      m_eventHandler(handler),
      m_ownMountNamespace(static_cast<ino_t>(nox::containers::GetOwnMountNamespaceId())) {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  m_threadPoolFactory = QEB_REQUIRE_SERVICE(qeb::IThreadPoolFactory, locator,
                                            "Cannot get IThreadPoolFactory interface");
  CreatePool();
  m_userInfoCache =
      QEB_REQUIRE_SERVICE(nox::IUserInfoCache, locator, "Cannot get IUserInfoCache interface");
  m_fileInfoCache =
      QEB_REQUIRE_SERVICE(nox::IFileInfoCache, locator, "Cannot get IFileInfoCache interface");
  m_containersMonitor = QEB_REQUIRE_SERVICE(nox::containers::IContainersMonitor, locator,
                                            "Cannot get containers::IContainersMonitor interface");
  m_cacheManager = CreateCache(std::move(caches));
}

FileEventsProcessor::~FileEventsProcessor() {
  QEB_TRACE(m_tracer, LevelDetail) << "nox::oas::FileEventsProcessor::~FileEventsProcessor()";
}

qeb::ThreadPoolParams FileEventsProcessor::PoolParams(unsigned hardwareThreads) noexcept {
  qeb::ThreadPoolParams params;
  params.minThreads = kMinPoolThreads;
  params.maxThreads = std::max(kMinPoolThreads, 2u * hardwareThreads);
  params.idleTimeout = kPoolIdleTimeout;
  params.options = 0;
  return params;
}

void FileEventsProcessor::CreatePool() {
  const qeb::ThreadPoolParams params = PoolParams(std::thread::hardware_concurrency());
  QEB_TRACE(m_tracer, LevelDetail) << "FileEventsProcessor" << ": minimum threads: "
                                   << params.minThreads << ", maximum threads: " << params.maxThreads;
  QEB_CHECK_THROW(m_threadPoolFactory->CreateThreadPool(params, m_threadPool.Ref()),
                  "Cannot create ThreadPool2");
  if (!m_threadPool)
    throw qeb::CheckResultFailedException(__FILE__, __LINE__, res::Unexpected, "m_threadPool",
                                          "Cannot create ThreadPool2");
}

qeb::objptr_t<CacheManager> FileEventsProcessor::CreateCache(
    std::vector<std::unique_ptr<IFilesCache>>&& caches) const {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  try {
    auto cacheManager = qeb::CreateObject<CacheManager>(m_serviceLocator.Get(), std::move(caches));
    cacheManager->OnMountsChanged(m_ownMountNamespace, ReadMountList(), {});
    return cacheManager;
  } catch (...) {
    // Without a cache manager every event is scanned; interception still runs.
    qeb::TraceCurrentException(m_tracer.Get());
    return nullptr;
  }
}

// The caches must start from the mounts as they are now, or the first remount of a
// device that was already mounted would go unnoticed.
nox::MountList FileEventsProcessor::ReadMountList() const {
  const auto provider = qeb::RequireInterface<nox::IMountProvider>(
      m_serviceLocator.Get(), 0, "Cannot get IMountProvider interface", kCheckFile,
      kMountProviderCheckLine, "qeb::GetInterface(m_serviceLocator)");
  nox::MountList mounts;
  QEB_CHECK_THROW(provider->GetMountList(mounts), "Cannot get mount list");
  return mounts;
}

void FileEventsProcessor::ApplySettings(const nox::settings::OASSettings& settings) {
  using nox::settings::operator<<;
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << ", settings=" << "{" << settings << "}";
  const bool forceActionPass =
      settings.ScanSettings.ScanSettingsBase.infected_action == kInfectedActionPass;
  std::lock_guard lock(m_mutex);
  m_forceActionPass = forceActionPass;
}

void FileEventsProcessor::ResetCache(std::vector<std::unique_ptr<IFilesCache>>&& caches) {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  qeb::objptr_t<CacheManager> previous;
  {
    std::lock_guard lock(m_mutex);
    previous = std::exchange(m_cacheManager, CreateCache(std::move(caches)));
  }
}

bool FileEventsProcessor::IsDeepNested(std::string_view fileName) noexcept {
  return fileName.starts_with(DeepNestingMarker);
}

result_t FileEventsProcessor::OnEvent(const vrel::EventParams& params) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  try {
    if (params.replyHandle == 0) return res::False;
    const std::string fileName(params.fileName.view());
    NoteEventInHostCaches(params, fileName);
    return QueueEvent(params);
  } catch (...) {
    QEB_TRACE(m_tracer, LevelError) << "Unexpected exception in " << "OnEvent"
                                    << ". Blocking access to file: " << params.fileName.view();
    return res::AccessDenied;
  }
}

void FileEventsProcessor::NoteEventInHostCaches(const vrel::EventParams& params,
                                                const std::string& fileName) {
  if (IsDeepNested(fileName)) {
    QEB_TRACE(m_tracer, LevelDetail) << "Deep nested file detected, fd: " << params.fd;
    m_fileInfoCache->NoteDeepNestedFile(params.nsid, params.fd);
  } else {
    m_userInfoCache->NoteEventUser(params.nsid, fileName, params.uid);
  }
}

result_t FileEventsProcessor::QueueEvent(const vrel::EventParams& params) {
  qeb::objptr_t<CacheManager> cacheManager;
  bool forceActionPass = false;
  {
    std::lock_guard lock(m_mutex);
    cacheManager = m_cacheManager;
    forceActionPass = m_forceActionPass;
  }
  if (cacheManager && cacheManager->IsCleanFile(params)) return res::False;

  auto event = qeb::CreateObject<FileInterceptorEvent>(m_serviceLocator.Get(), params, m_timeout,
                                                       m_eventHandler.Get(), forceActionPass,
                                                       cacheManager.Get(), m_containersMonitor.Get());
  const result_t r = m_threadPool->AddTask(static_cast<qeb::IRunnable*>(event.Get()), 0);
  // A refused event is answered through OnEvent's failure (access blocked), so it is
  // withdrawn: its release must not answer the same file a second time.
  if (QEB_FAILED(r)) event->Withdraw();
  // Accepted or not, the pool holds whatever reference it needs from here on.
  event.Reset();
  if (QEB_FAILED(r))
    throw qeb::CheckResultFailedException(kCheckFile, kAddTaskCheckLine, r,
                                          "m_threadPool->AddTask(event, 0)",
                                          "Failed to add file event task to thread pool");
  return res::Ok;
}

result_t FileEventsProcessor::GetName(std::string& name) noexcept {
  try {
    name = "OasFileEventsProcessor";
    return res::Ok;
  } catch (...) {
    return qeb::CurrentExceptionToResult();
  }
}

result_t FileEventsProcessor::OnMountListChanged(const nox::MountList& added,
                                                 const nox::MountList& removed,
                                                 const nox::MountList&) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__;
  ForwardMountChange(m_ownMountNamespace, added, removed);
  return res::Ok;
}

result_t FileEventsProcessor::OnNamespaceMountListChanged(ino_t mountNamespace,
                                                          const nox::MountList& added,
                                                          const nox::MountList& removed,
                                                          const nox::MountList&) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << __PRETTY_FUNCTION__ << ", ns: " << mountNamespace;
  ForwardMountChange(mountNamespace, added, removed);
  return res::Ok;
}

void FileEventsProcessor::ForwardMountChange(ino_t mountNamespace, const nox::MountList& added,
                                             const nox::MountList& removed) noexcept {
  std::lock_guard lock(m_mutex);
  if (m_cacheManager) m_cacheManager->OnMountsChanged(mountNamespace, added, removed);
}

}  // namespace nox::oas
