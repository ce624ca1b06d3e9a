// The clean-file cache manager: lookups, entry validation, the mounted-device table and
// the cache metrics. The manager owns its caches and the device table; the entries are
// shared with the caches and live as long as either holds them. The metrics collector
// only borrows the manager and is cut loose before the manager goes away.
#include "oas/cache_manager.h"

#include <utility>

#include "framework/qeb/exception.h"
#include "framework/qeb/service.h"
#include "nox_tracing/tracing.h"
#include "oas/monotonic_clock.h"

namespace nox::oas {

namespace {

using avengine::object_skip::CachedObjectInfo;
using avengine::object_skip::IObjectSkipCallback;
using avengine::object_skip::IObjectSkipChecker;
using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::IProcessManager;
using system_interceptors::process_manager::ProcessInfo;
using qeb::trace::LevelDetail;

constexpr const char* kReasonMiss = "cache miss";
constexpr const char* kReasonRemounted = "remounted";
constexpr const char* kReasonExpired = "timeout expired for cached file";
constexpr const char* kReasonNoProcessInfo = "cannot get process info";
constexpr const char* kReasonUnknownProcess = "access to the file by unknown process";
constexpr const char* kReasonForbidden = "forbidden by bases";

// Cuts a lent object loose when the call it was lent for returns, however it returns.
template <class T>
struct ExpireOnExit {
  T& lent;
  ~ExpireOnExit() { lent.Expire(); }
};

// A host object handed out without a reference is as good as none.
template <class T, class Create>
qeb::objptr_t<T> CreateMetric(Create&& create, const char* sentence) {
  qeb::objptr_t<T> metric;
  qeb::result_t result = create(metric.Ref());
  if (QEB_SUCCEEDED(result) && !metric) result = qeb::res::NoInterface;
  if (QEB_FAILED(result))
    throw qeb::CheckResultFailedException(__FILE__, __LINE__, result, "CreateMetric", sentence);
  return metric;
}

}  // namespace

// What the registry calls back. It holds the manager without a reference (the manager
// owns the registration, not the other way round) until Detach.
class CacheManager::MetricsCollector : public qeb::object::Ifaces<qeb::telemetry::IMetricsCollector> {
 public:
  explicit MetricsCollector(CacheManager* owner) : m_owner(owner) {}

  qeb::result_t Collect() noexcept override {
    std::lock_guard lock(m_mutex);
    if (!m_owner) return qeb::res::InvalidState;
    m_owner->CollectMetrics();
    return qeb::res::Ok;
  }

  // After this returns no collection reaches the manager any more.
  void Detach() noexcept {
    std::lock_guard lock(m_mutex);
    m_owner = nullptr;
  }

 private:
  std::mutex m_mutex;
  CacheManager* m_owner;
};

// The event, entry and process the skip checker may ask about, lent for one check.
class CacheManager::SkipCallback : public qeb::object::Ifaces<IObjectSkipCallback> {
 public:
  SkipCallback(const vrel::EventParams& event, const CleanFileInfo& entry, const ProcessInfo& info)
      : m_event(&event), m_entry(&entry), m_info(&info) {}

  qeb::result_t GetEvent(const vrel::EventParams** event) noexcept override {
    if (!event) return qeb::res::InvalidArgument;
    *event = m_event;
    return m_event ? qeb::res::Ok : qeb::res::InvalidState;
  }

  qeb::result_t GetCachedObject(CachedObjectInfo* info) noexcept override {
    if (!info) return qeb::res::InvalidArgument;
    if (!m_entry) return qeb::res::InvalidState;
    *info = CachedObjectInfo{m_entry->hitCount, m_entry->addedTime, m_entry->changeTime};
    return qeb::res::Ok;
  }

  qeb::result_t GetProcessInfo(const ProcessInfo** info) noexcept override {
    if (!info) return qeb::res::InvalidArgument;
    *info = m_info;
    return m_info ? qeb::res::Ok : qeb::res::InvalidState;
  }

  // A checker that kept the callback past the check gets InvalidState from then on.
  void Expire() noexcept {
    m_event = nullptr;
    m_entry = nullptr;
    m_info = nullptr;
  }

 private:
  const vrel::EventParams* m_event;
  const CleanFileInfo* m_entry;
  const ProcessInfo* m_info;
};

// The entry a lookup found and the cache that supplied it: stale entries are removed
// from that cache only.
struct CacheManager::Lookup {
  IFilesCache* cache = nullptr;
  std::shared_ptr<CleanFileInfo> entry;
};

CacheManager::CacheManager(qeb::IServiceLocator* locator,
                           std::vector<std::unique_ptr<IFilesCache>>&& caches)
    : m_locator(locator),
      m_tracer(qeb::RequireInterface<qeb::ITracer>(locator)),
      m_caches(std::move(caches)),
      m_proc(QEB_REQUIRE_SERVICE(IProcessManager, locator,
                                 "Cannot get system_interceptors::process_manager::IProcessManager")),
      m_skipChecker(QEB_REQUIRE_KEYED_SERVICE(
          IObjectSkipChecker, locator, IObjectSkipChecker::ServiceKey,
          "Cannot get avengine::object_skip::IObjectSkipChecker interface")) {
  m_devices.max_load_factor(1.0f);
  auto registry = QEB_REQUIRE_SERVICE(qeb::telemetry::IMetricsRegistry, locator,
                                      "Cannot get qeb::telemetry::IMetricsRegistry");
  auto factory =
      QEB_REQUIRE_SERVICE(monitoring::IMetricsFactory, locator, "Cannot get monitoring::IMetricsFactory");
  CreateMetrics(factory.Get());
  m_registration.registry = std::move(registry);
  RegisterCollector();
}

CacheManager::~CacheManager() { UnregisterCollector(); }

void CacheManager::CreateMetrics(monitoring::IMetricsFactory* factory) {
  const auto gauge = [factory](const char* name, const char* description) {
    return CreateMetric<monitoring::IGauge>(
        [&](monitoring::IGauge** out) { return factory->CreateGauge(name, description, out); },
        "Cannot create cache gauge");
  };
  const auto counter = [factory](const char* name, const char* description) {
    return CreateMetric<monitoring::ICounter>(
        [&](monitoring::ICounter** out) { return factory->CreateCounter(name, description, out); },
        "Cannot create cache counter");
  };
  m_cachedFiles = gauge(MetricCachedFiles, "Files held by the on-access clean-file caches");
  m_hits = counter(MetricHits, "File events passed without a scan as clean cached files");
  m_misses = counter(MetricMisses, "File events the clean-file caches could not pass");
  m_trackedDevices = gauge(MetricDevices, "Mounted devices tracked to detect remounts");
}

void CacheManager::RegisterCollector() {
  auto collector = qeb::CreateObject<MetricsCollector>(this);
  const qeb::result_t result =
      m_registration.registry->Register(collector.Get(), &m_registration.handle);
  if (QEB_FAILED(result)) {
    collector->Detach();
    throw qeb::CheckResultFailedException(__FILE__, __LINE__, result,
                                          "registry->Register(collector, &handle)",
                                          "Cannot register cache metrics collector");
  }
  m_registration.collector = std::move(collector);
}

void CacheManager::UnregisterCollector() noexcept {
  if (!m_registration.collector) return;
  qeb::result_t result;
  QEB_CHECK_TRACE(m_tracer, result, m_registration.registry->Unregister(m_registration.handle))
      << "Cannot unregister cache metrics collector";
  m_registration.collector->Detach();
  m_registration.collector = nullptr;
}

bool CacheManager::IsCleanFile(const vrel::EventParams& event) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << "bool nox::oas::CacheManager::IsCleanFile(const vrel::EventParams&)";
  // Each step names the miss its failure would be, so an exception is reported and
  // counted like the miss the step was checking for.
  const char* failing = kReasonMiss;
  Verdict verdict{false, kReasonMiss};
  try {
    const FileId key = FileId::FromEvent(event);
    std::lock_guard lock(m_mutex);
    verdict = Decide(event, key, failing);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
    verdict = {false, failing};
  }
  Report(event, verdict);
  return verdict.clean;
}

CacheManager::Verdict CacheManager::Decide(const vrel::EventParams& event, const FileId& key,
                                           const char*& failing) {
  const Lookup found = Find(key);
  if (!found.entry) return {false, kReasonMiss};
  CleanFileInfo& entry = *found.entry;
  if (IsRemounted(key.dev, entry.addedTime)) {
    failing = kReasonRemounted;
    static_cast<void>(found.cache->Remove(key));
    return {false, kReasonRemounted};
  }
  if (RawMonotonicNow() - entry.addedTime > MaxEntryAge) {
    failing = kReasonExpired;
    static_cast<void>(found.cache->Remove(key));
    return {false, kReasonExpired};
  }
  ++entry.hitCount;
  // Unchanged since it was found clean: no process needs asking about it.
  if (entry.changeTime >= vrel::ToNanoseconds(event.ctime)) return {true, nullptr};
  return CheckProcessAccess(event, found, failing);
}

CacheManager::Lookup CacheManager::Find(const FileId& key) {
  Lookup found;
  for (const auto& cache : m_caches) {
    if (QEB_SUCCEEDED(cache->Find(key, found.entry)) && found.entry) {
      found.cache = cache.get();
      return found;
    }
    found.entry.reset();
  }
  return found;
}

bool CacheManager::IsRemounted(uint64_t dev, int64_t addedTime) const noexcept {
  const auto device = m_devices.find(dev);
  return device != m_devices.end() && device->second.firstSeen > addedTime;
}

CacheManager::Verdict CacheManager::CheckProcessAccess(const vrel::EventParams& event,
                                                       const Lookup& found, const char*& failing) {
  failing = kReasonNoProcessInfo;
  const uint32_t pid = static_cast<uint32_t>(event.pid);
  qeb::objptr_t<IProcessInformation> process;
  qeb::result_t result;
  QEB_CHECK_TRACE(m_tracer, result, m_proc->GetInformation(pid, process.Ref()))
      << "Cannot get IProcessInformation for pid " << pid;
  if (QEB_FAILED(result) || !process) return {false, kReasonNoProcessInfo};
  ProcessInfo info;
  QEB_CHECK_TRACE(m_tracer, result, process->GetInformation(info)) << "Cannot get info for pid " << pid;
  if (QEB_FAILED(result)) return {false, kReasonNoProcessInfo};
  failing = kReasonUnknownProcess;
  if (!found.entry->CheckProcess(info)) return {false, kReasonUnknownProcess};
  return AskSkipChecker(event, found, info);
}

CacheManager::Verdict CacheManager::AskSkipChecker(const vrel::EventParams& event, const Lookup& found,
                                                   const ProcessInfo& info) noexcept {
  try {
    auto callback = qeb::CreateObject<SkipCallback>(event, *found.entry, info);
    ExpireOnExit<SkipCallback> expire{*callback};
    const qeb::result_t result = m_skipChecker->Check(event, callback.Get());
    // Bases that do not implement the check have nothing against the file.
    if (result == qeb::res::Ok || result == qeb::res::NotImplemented) return {true, nullptr};
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
  return {false, kReasonForbidden};
}

// The event's name, inode and device print exactly as its key does, and need no copy.
void CacheManager::Report(const vrel::EventParams& event, Verdict verdict) noexcept {
  const auto key = [&](qeb::trace::Line& line) -> qeb::trace::Line& {
    return line << event.fileName.view() << " (ino: " << event.ino << ", dev: " << event.dev << ")";
  };
  if (verdict.clean) {
    m_hits->Increment(1);
    if (qeb::trace::Line line(m_tracer, LevelDetail); line)
      key(line << "OASCache: ") << " is clean cached file";
  } else {
    m_misses->Increment(1);
    if (qeb::trace::Line line(m_tracer, LevelDetail); line)
      key(line << "OASCache: ") << " needs checking (" << verdict.reason << ")";
  }
}

void CacheManager::AddCleanFile(const vrel::EventParams& event) noexcept {
  // Only the caches' own mutexes are taken here: the list itself never changes.
  for (const auto& cache : m_caches) {
    try {
      if (cache->Add(event) == qeb::res::Ok) return;
    } catch (...) {
      qeb::TraceCurrentException(m_tracer.Get());
    }
  }
}

void CacheManager::OnMountsChanged(uint64_t mountNamespace, const nox::MountList& added,
                                   const nox::MountList& removed) noexcept {
  try {
    std::lock_guard lock(m_mutex);
    AddMounts(static_cast<ino_t>(mountNamespace), added);
    RemoveMounts(static_cast<ino_t>(mountNamespace), removed);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

void CacheManager::AddMounts(ino_t mountNamespace, const nox::MountList& added) {
  for (const auto& mount : added) {
    auto [device, created] = m_devices.try_emplace(mount.dev);
    // A device still mounted somewhere keeps its time: its entries stay trustworthy.
    if (created) device->second.firstSeen = RawMonotonicNow();
    device->second.mounts.emplace(mountNamespace, mount.mountPoint);
  }
}

void CacheManager::RemoveMounts(ino_t mountNamespace, const nox::MountList& removed) {
  for (const auto& mount : removed) {
    const auto device = m_devices.find(mount.dev);
    if (device == m_devices.end()) continue;
    device->second.mounts.erase({mountNamespace, mount.mountPoint});
    if (device->second.mounts.empty()) m_devices.erase(device);
  }
}

void CacheManager::CollectMetrics() noexcept {
  try {
    std::lock_guard lock(m_mutex);
    size_t files = 0;
    for (const auto& cache : m_caches) files += cache->Size();
    m_cachedFiles->Set(static_cast<int64_t>(files));
    m_trackedDevices->Set(static_cast<int64_t>(m_devices.size()));
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

}  // namespace nox::oas
