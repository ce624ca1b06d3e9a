// The receiver of file and mount events while interception runs. It owns the worker
// pool and the current cache manager (guarded by one mutex with the force-action-pass
// flag); every event it queues takes its own references to the handler and the cache
// manager, so queued work outlives a reset of the cache or the processor itself.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/containers.h"
#include "interfaces/nox/file_events.h"
#include "interfaces/nox/info_caches.h"
#include "interfaces/nox/mounts.h"
#include "interfaces/qeb/thread_pool.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event_handler.h"
#include "oas/cache_manager.h"
#include "oas/files_cache.h"
#include "settings/oas_settings.h"

namespace nox::oas {

// Milliseconds.
using duration_t = uint32_t;

class FileEventsProcessor : public qeb::object::Ifaces<nox::IFileEventsReceiver, nox::IMountEvents> {
 public:
  // Names a file whose full path could not be resolved; the rest of the name is a hint.
  static constexpr std::string_view DeepNestingMarker = "<PATH IS TOO LONG>";

  FileEventsProcessor(qeb::IServiceLocator* locator, vrel::IEventHandler085* handler,
                      duration_t timeout, std::vector<std::unique_ptr<IFilesCache>>&& caches);
  ~FileEventsProcessor();

  // The pool parameters for a machine reporting this many hardware threads.
  static qeb::ThreadPoolParams PoolParams(unsigned hardwareThreads) noexcept;
  static bool IsDeepNested(std::string_view fileName) noexcept;

  // Events created from now on get the settings' force-action-pass choice.
  void ApplySettings(const nox::settings::OASSettings& settings);
  // Swaps in a cache manager over the given caches; queued events keep the old one.
  void ResetCache(std::vector<std::unique_ptr<IFilesCache>>&& caches);

  // nox::IFileEventsReceiver: 1 no scan needed, 0 queued, AccessDenied on any failure.
  qeb::result_t OnEvent(const vrel::EventParams& params) noexcept override;
  qeb::result_t GetName(std::string& name) noexcept override;

  // nox::IMountEvents: the first two lists reach the cache manager; always 0.
  qeb::result_t OnMountListChanged(const nox::MountList& added, const nox::MountList& removed,
                                   const nox::MountList& current) noexcept override;
  qeb::result_t OnNamespaceMountListChanged(ino_t mountNamespace, const nox::MountList& added,
                                            const nox::MountList& removed,
                                            const nox::MountList& current) noexcept override;

 private:
  qeb::objptr_t<CacheManager> CreateCache(std::vector<std::unique_ptr<IFilesCache>>&& caches) const;
  nox::MountList ReadMountList() const;
  void CreatePool();
  void NoteEventInHostCaches(const vrel::EventParams& params, const std::string& fileName);
  qeb::result_t QueueEvent(const vrel::EventParams& params);
  void ForwardMountChange(ino_t mountNamespace, const nox::MountList& added,
                          const nox::MountList& removed) noexcept;

  qeb::objptr_t<qeb::IServiceLocator> m_serviceLocator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<qeb::IThreadPoolFactory> m_threadPoolFactory;
  qeb::objptr_t<nox::IUserInfoCache> m_userInfoCache;
  qeb::objptr_t<nox::IFileInfoCache> m_fileInfoCache;
  qeb::objptr_t<nox::containers::IContainersMonitor> m_containersMonitor;
  qeb::objptr_t<qeb::IThreadPool2> m_threadPool;
  duration_t m_timeout;
  qeb::objptr_t<vrel::IEventHandler085> m_eventHandler;
  std::mutex m_mutex;
  qeb::objptr_t<CacheManager> m_cacheManager;
  bool m_forceActionPass = false;
  ino_t m_ownMountNamespace = 0;
};

}  // namespace nox::oas
