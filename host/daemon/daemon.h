// oasd's daemon: builds every host service, registers them with the service locator,
// loads liboas.so, starts protection and runs the main loop until told to stop. It owns
// the services (through Services), the module and the interceptor; signals and settings
// refreshes reach it only as descriptors the main loop reads, never as work done inside
// a signal handler or on the module's threads.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "framework/qeb/objptr.h"
#include "host/common/host_metrics.h"
#include "host/common/host_options.h"
#include "host/daemon/module_loader.h"
#include "interfaces/vrel/file_interceptor.h"

namespace oasd {

struct Services;

class Daemon {
 public:
  // Builds fresh options for a SIGHUP; throws ConfigError when the new ones are bad.
  using ReloadFunction = std::function<HostOptions()>;

  // Open, execute, close after writing and rename, as SetupFilters' flags.
  static constexpr uint32_t FilterFlags = 0x1 | 0x2 | 0x4 | 0x8;
  // How long a stop waits for the module's last object before leaving it mapped.
  static constexpr int UnloadWaitMs = 10000;
  static constexpr int KernelCacheCheckMs = 30000;
  // How much longer than the scan time limit a worker may hold one task before the systemd
  // watchdog is left to expire: libclamav checks its limit between steps, not continuously.
  static constexpr int64_t WorkerStallMarginMs = 5000;

  // Blocks the signals the main loop reads, for this thread and every thread it starts
  // later; call before any thread exists.
  static void BlockSignals();

  Daemon(HostOptions options, ReloadFunction reload);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Starts protection, prints "oasd: ready" and serves until SIGTERM or SIGINT; returns
  // the exit status. Throws std::runtime_error with a clear message when it cannot start.
  int Run();

 private:
  void OpenLoopDescriptors();
  void StartProtection();
  void CreateInterceptor();
  void WatchSignatures();
  void Serve();
  void ArmStopWatchdog();
  void OnSignal(int signal);
  void OnWake();
  void Reload();
  void ReloadOptions();
  void ReopenOutputs(const HostOptions& fresh, std::vector<std::string>& applied);
  void PushSettings();
  void Stop() noexcept;
  void ReleaseModule() noexcept;
  // Called by the task manager on the module's threads: only marks and wakes.
  void PostRefresh() noexcept;
  // Called by the signature watcher once a new engine is in: the clean-file caches go.
  void PostEngineChange() noexcept;
  void ResetCaches();

  HostOptions m_options;
  const ReloadFunction m_reload;
  HostMetrics m_metrics;
  int m_signalFd = -1;
  int m_wakeFd = -1;
  std::atomic<bool> m_refreshPosted{false};
  std::atomic<bool> m_engineChangePosted{false};
  bool m_stopping = false;
  std::unique_ptr<Services> m_services;
  ModuleLoader m_module;
  qeb::objptr_t<vrel::IFileInterceptor> m_interceptor;
  bool m_filtersUp = false;
};

}  // namespace oasd
