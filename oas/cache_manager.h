// The clean-file cache manager: owns the ordered per-kind caches, the table of mounted
// devices used to spot remounts, and the cache metrics with their registration. One mutex
// serialises lookups, mount changes and metric collection; each cache's own mutex is
// always taken after it. Cache entries are shared with the caches, never owned here.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/metrics.h"
#include "interfaces/nox/mounts.h"
#include "interfaces/nox/object_skip.h"
#include "interfaces/nox/process.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event_params.h"
#include "oas/files_cache.h"

namespace nox::oas {

class CacheManager : public qeb::object::Ifaces<qeb::IObject> {
 public:
  CacheManager(qeb::IServiceLocator* locator, std::vector<std::unique_ptr<IFilesCache>>&& caches);
  ~CacheManager();

  // True when the event's file is known clean and may pass without a scan. Never throws.
  bool IsCleanFile(const vrel::EventParams& event) noexcept;

  // A scan found the event's file clean: the first cache that accepts it records it.
  void AddCleanFile(const vrel::EventParams& event) noexcept;

  // Mount changes of one mount namespace: added or changed mounts, then removed ones.
  void OnMountsChanged(uint64_t mountNamespace, const nox::MountList& added,
                       const nox::MountList& removed) noexcept;

  // The names the four metrics are published under; dashboards depend on them.
  static constexpr const char* MetricCachedFiles = "oas_cache_files";
  static constexpr const char* MetricHits = "oas_cache_hits_total";
  static constexpr const char* MetricMisses = "oas_cache_misses_total";
  static constexpr const char* MetricDevices = "oas_cache_devices";

  // Entries older than this are dropped on lookup (nanoseconds; exactly this old passes).
  static constexpr int64_t MaxEntryAge = 600'000'000'000;

 private:
  class MetricsCollector;
  class SkipCallback;

  // One device as the mount notifications describe it: when its record appeared and
  // every (mount namespace, mount point) it is mounted at.
  struct MountedDevice {
    int64_t firstSeen = 0;
    std::set<std::pair<ino_t, std::string>> mounts;
  };
  using MountedDevices = std::unordered_map<uint64_t, MountedDevice>;

  struct Lookup;
  struct Verdict {
    bool clean = false;
    const char* reason = nullptr;  // why the file needs checking
  };

  void CreateMetrics(monitoring::IMetricsFactory* factory);
  void RegisterCollector();
  void UnregisterCollector() noexcept;

  Verdict Decide(const vrel::EventParams& event, const FileId& key, const char*& failing);
  Lookup Find(const FileId& key);
  Verdict CheckProcessAccess(const vrel::EventParams& event, const Lookup& found,
                             const char*& failing);
  Verdict AskSkipChecker(const vrel::EventParams& event, const Lookup& found,
                         const system_interceptors::process_manager::ProcessInfo& info) noexcept;
  bool IsRemounted(uint64_t dev, int64_t addedTime) const noexcept;
  void Report(const vrel::EventParams& event, Verdict verdict) noexcept;

  void AddMounts(ino_t mountNamespace, const nox::MountList& added);
  void RemoveMounts(ino_t mountNamespace, const nox::MountList& removed);
  void CollectMetrics() noexcept;

  qeb::objptr_t<qeb::IServiceLocator> m_locator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  std::mutex m_mutex;
  std::vector<std::unique_ptr<IFilesCache>> m_caches;
  MountedDevices m_devices;
  qeb::objptr_t<system_interceptors::process_manager::IProcessManager> m_proc;
  qeb::objptr_t<avengine::object_skip::IObjectSkipChecker> m_skipChecker;
  qeb::objptr_t<monitoring::IGauge> m_cachedFiles;
  qeb::objptr_t<monitoring::ICounter> m_hits;
  qeb::objptr_t<monitoring::ICounter> m_misses;
  qeb::objptr_t<monitoring::IGauge> m_trackedDevices;
  struct Registration {
    qeb::objptr_t<qeb::telemetry::IMetricsRegistry> registry;
    qeb::objptr_t<MetricsCollector> collector;
    uint64_t handle = 0;
  } m_registration;
};

}  // namespace nox::oas
