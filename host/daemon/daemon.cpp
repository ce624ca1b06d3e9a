// Start-up builds the services in dependency order and fails with a message naming what
// could not start; the stop undoes it in reverse: filters down, waiting opens allowed and
// fanotify closed, interceptor released, host threads stopped, locator cleared, module
// unmapped once it reports no live objects.
// The main loop is a poll over a signalfd and an eventfd.
#include "host/daemon/daemon.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/qeb/result_text.h"
#include "host/system/applications.h"
#include "host/engine/clamav_engine.h"
#include "host/daemon/config.h"
#include "host/system/containers_monitor.h"
#include "host/reporting/event_log.h"
#include "host/reporting/journal_sink.h"
#include "host/interception/fanotify_events_provider.h"
#include "host/engine/file_factories.h"
#include "host/engine/format_recognizer.h"
#include "host/system/info_caches.h"
#include "host/reporting/metrics.h"
#include "host/reporting/metrics_endpoint.h"
#include "host/reporting/metrics_page.h"
#include "host/system/mount_table.h"
#include "host/engine/none_engine.h"
#include "host/engine/signature_watcher.h"
#include "host/system/object_skip_checker.h"
#include "host/interception/permission_table.h"
#include "host/system/process_manager.h"
#include "host/daemon/service_locator.h"
#include "host/daemon/systemd_notifier.h"
#include "host/engine/scan_limits.h"
#include "host/daemon/trusted_file.h"
#include "host/system/task_manager.h"
#include "host/system/thread_pool.h"
#include "host/system/timer_service.h"
#include "host/system/quarantine.h"
#include "host/system/trusted_programs.h"
#include "host/system/written_files.h"
#include "host/reporting/tracer.h"
#include "host/interception/verdict_notifier.h"
#include "interfaces/qeb/module.h"
#include "nox_tracing/tracing.h"

namespace oasd {

using qeb::objptr_t;
using qeb::host::MakeHostObject;
namespace trace = qeb::trace;

struct Services {
  objptr_t<HostTracer> tracer;
  objptr_t<EventLog> eventLog;
  objptr_t<MetricsHub> metricsHub;
  std::shared_ptr<MetricsPage> metricsPage;
  std::unique_ptr<MetricsWriter> metricsWriter;
  MetricsEndpoint metricsEndpoint;
  std::unique_ptr<SystemdNotifier> systemd;
  objptr_t<TaskManager> taskManager;
  objptr_t<FormatRecognizer> formatRecognizer;
  objptr_t<FileFactories> fileFactories;
  objptr_t<MountWatcher> mounts;  // mount provider, mount subscription and shares parser
  objptr_t<ProcessManager> processes;
  objptr_t<ContainersMonitor> containers;
  objptr_t<ApplicationCatalog> applications;  // provider and categorizer
  objptr_t<UserInfoCache> userInfo;
  objptr_t<FileInfoCache> fileInfo;
  objptr_t<ObjectSkipChecker> skipChecker;
  // Noted by interception, read by the engine's checked cache and the module's records.
  std::shared_ptr<WrittenFiles> writes = std::make_shared<WrittenFiles>();
  objptr_t<ThreadPoolFactory> threadPools;
  objptr_t<TimerService> timers;
  objptr_t<FanotifyEventsProvider> fanotify;
  std::shared_ptr<PermissionTable> permissions;  // shared with the notifier and the readers
  objptr_t<VerdictNotifier> verdicts;
  objptr_t<ClamavEngine> clamav;  // set only with the ClamAV engine
  std::unique_ptr<SignatureWatcher> signatureWatcher;  // set only with the ClamAV engine
  std::shared_ptr<TrustedPrograms> trusted = std::make_shared<TrustedPrograms>();  // asked by the engine
  objptr_t<vrel::IEventHandler085> engine;
  objptr_t<ServiceLocator> locator = MakeHostObject<ServiceLocator>();
};

namespace {

const int kLoopSignals[] = {SIGHUP, SIGUSR1, SIGTERM, SIGINT};

sigset_t LoopSignalSet() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kLoopSignals) sigaddset(&set, signal);
  return set;
}

std::string ErrnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Throws the start-up failure main prints, naming the step and the result.
void Require(qeb::result_t r, const std::string& what) {
  if (QEB_FAILED(r)) throw std::runtime_error(what + ": " + qeb::ResultText(r));
}

}  // namespace

void Daemon::BlockSignals() {
  const sigset_t set = LoopSignalSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A reader that went away must not kill the daemon in the middle of a write.
  std::signal(SIGPIPE, SIG_IGN);
}

Daemon::Daemon(HostOptions options, ReloadFunction reload)
    : m_options(std::move(options)), m_reload(std::move(reload)) {
  BlockSignals();
  OpenLoopDescriptors();
}

Daemon::~Daemon() {
  Stop();
  if (m_signalFd >= 0) ::close(m_signalFd);
  if (m_wakeFd >= 0) ::close(m_wakeFd);
}

void Daemon::OpenLoopDescriptors() {
  const sigset_t set = LoopSignalSet();
  m_signalFd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (m_signalFd < 0) throw std::runtime_error(ErrnoText("cannot create the signal descriptor"));
  m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_wakeFd < 0) throw std::runtime_error(ErrnoText("cannot create the wake descriptor"));
}

int Daemon::Run() {
  try {
    StartProtection();
  } catch (...) {
    Stop();
    throw;
  }
  std::fputs("oasd: ready\n", stdout);
  std::fflush(stdout);
  QEB_TRACE(m_services->tracer, trace::LevelNotice) << "oasd: protection is active";
  // Only now: the marks are placed, so an open the unit's dependants make is already scanned.
  m_metrics.protecting.store(1);
  m_services->systemd->Ready();
  m_services->systemd->Start(LimitsFor(m_options).scanTimeMs + WorkerStallMarginMs);
  Serve();
  ArmStopWatchdog();
  Stop();
  return 0;
}

// Interception ends first in a stop, so what can hang it is a scan that never returns,
// which nothing can interrupt: past the limit the process ends without it.
void Daemon::ArmStopWatchdog() {
  std::thread([limit = std::chrono::milliseconds(m_options.stopTimeoutMs)] {
    std::this_thread::sleep_for(limit);
    static const char message[] = "oasd: the stop took too long, exiting\n";
    [[maybe_unused]] const ssize_t n = ::write(2, message, sizeof message - 1);
    _exit(1);
  }).detach();
}

void Daemon::Serve() {
  pollfd fds[2] = {{m_signalFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
  while (!m_stopping) {
    // The wake-up bound keeps the kernel cache's age flush on time.
    m_services->fanotify->ExpireKernelCache();
    if (::poll(fds, 2, KernelCacheCheckMs) < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(ErrnoText("main loop poll failed"));
    }
    if (fds[1].revents & POLLIN) OnWake();
    if (!(fds[0].revents & POLLIN)) continue;
    signalfd_siginfo info{};
    while (::read(m_signalFd, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
      OnSignal(static_cast<int>(info.ssi_signo));
  }
}

void Daemon::OnSignal(int signal) {
  QEB_TRACE(m_services->tracer, trace::LevelNotice) << "oasd: received " << strsignal(signal);
  switch (signal) {
    case SIGHUP: Reload(); break;
    case SIGUSR1: m_services->metricsWriter->RequestWrite(); break;
    default: m_stopping = true; break;
  }
}

void Daemon::PostRefresh() noexcept {
  m_refreshPosted.store(true);
  const uint64_t one = 1;
  // A full counter already means a wake-up is pending; nothing is lost.
  [[maybe_unused]] const ssize_t n = ::write(m_wakeFd, &one, sizeof one);
}

void Daemon::PostEngineChange() noexcept {
  m_engineChangePosted.store(true);
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t n = ::write(m_wakeFd, &one, sizeof one);
}

void Daemon::OnWake() {
  uint64_t count = 0;
  [[maybe_unused]] const ssize_t n = ::read(m_wakeFd, &count, sizeof count);
  if (m_refreshPosted.exchange(false)) PushSettings();
  if (m_engineChangePosted.exchange(false)) ResetCaches();
}

// New signatures void every clean answer: the module's caches, the engine's and the kernel's.
void Daemon::ResetCaches() {
  if (!m_interceptor) return;
  m_services->fanotify->FlushKernelCache(KernelCache::FlushReason::Reload);
  const qeb::result_t r = m_interceptor->ResetCache();
  if (QEB_FAILED(r)) {
    QEB_TRACE(m_services->tracer, trace::LevelError)
        << "oasd: the interceptor could not reset its caches: " << trace::AsResult(r);
  }
}

void Daemon::PushSettings() {
  if (!m_interceptor) return;
  const qeb::result_t r = m_interceptor->SetSettings(m_services->taskManager->CurrentSettings());
  if (QEB_FAILED(r)) {
    QEB_TRACE(m_services->tracer, trace::LevelError)
        << "oasd: the interceptor refused the settings: " << trace::AsResult(r);
  }
}

namespace {

// Keys a SIGHUP cannot apply, with whether the fresh configuration changes them; a change
// is reported and waits for a restart.
std::vector<std::pair<const char*, bool>> RestartKeys(const HostOptions& now, const HostOptions& fresh,
                                                      bool engineTakesDelay) {
  return {
      {"engine", now.engine != fresh.engine},
      {"signature_dir", now.signatureDir != fresh.signatureDir},
      {"quarantine_dir", now.quarantineDir != fresh.quarantineDir},
      {"clamav_database_dir", now.clamavDatabaseDir != fresh.clamavDatabaseDir},
      {"signature_check_interval_s", now.signatureCheckIntervalS != fresh.signatureCheckIntervalS},
      {"engine_delay_ms", !engineTakesDelay && now.engineDelayMs != fresh.engineDelayMs},
      {"checked_cache_entries", now.checkedCacheEntries != fresh.checkedCacheEntries},
      {"kernel_cache", now.kernelCache != fresh.kernelCache},
      {"kernel_cache_entries", now.kernelCacheEntries != fresh.kernelCacheEntries},
      {"verdict_timeout_ms", now.verdictTimeoutMs != fresh.verdictTimeoutMs},
      {"permission_deadline_ms", now.permissionDeadlineMs != fresh.permissionDeadlineMs},
      {"metrics_file", now.metricsFile != fresh.metricsFile},
      {"metrics_interval_s", now.metricsIntervalS != fresh.metricsIntervalS},
      {"metrics_listen", now.metricsListen != fresh.metricsListen},
      {"module_path", now.modulePath != fresh.modulePath},
  };
}

int64_t ScanAreasInUse(const nox::settings::OASSettings& settings) {
  const auto& scope = settings.ScanScopeWithTrustedPrograms.scan_scope;
  return std::count_if(scope.begin(), scope.end(), [](const auto& a) { return a.use_scan_area; });
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

}  // namespace

// Log rotation and the configuration share SIGHUP: the output files are reopened even when
// the new configuration is bad (at the paths in force then). A bad configuration changes
// nothing else; a good one is applied key by key, and each key it cannot apply is named.
void Daemon::Reload() {
  m_services->systemd->Reloading();
  ReloadOptions();
  m_services->systemd->Ready();
}

void Daemon::ReloadOptions() {
  const auto& tracer = m_services->tracer;
  HostOptions fresh = m_options;
  if (m_reload) {
    try {
      fresh = m_reload();
    } catch (const std::exception& error) {
      QEB_TRACE(tracer, trace::LevelError)
          << "oasd: keeping the current configuration: " << error.what();
      fresh = m_options;
    }
  }
  // Only a change is applied: a rotation's SIGHUP must not make the module start over.
  std::vector<std::string> applied;
  const auto apply = [&](const char* key, bool changed, auto&& step) {
    if (!changed) return;
    applied.push_back(key);
    step();
  };
  apply("log_level", fresh.logLevel != m_options.logLevel, [&] {
    tracer->SetCeiling(fresh.logLevel);
    m_options.logLevel = fresh.logLevel;
  });
  ReopenOutputs(fresh, applied);
  m_services->metricsWriter->RequestWrite();
  const bool engineTakesDelay = static_cast<bool>(m_services->clamav);
  if (engineTakesDelay) {
    // Limits, the checker and the unscanned policy follow the settings too; applying them
    // again is harmless, and the signature reload builds the engine they take effect on.
    m_services->clamav->ApplyOptions(fresh);
    apply("engine_delay_ms", fresh.engineDelayMs != m_options.engineDelayMs,
          [&] { m_options.engineDelayMs = fresh.engineDelayMs; });
    apply("unscanned_action", fresh.denyUnscanned != m_options.denyUnscanned,
          [&] { m_options.denyUnscanned = fresh.denyUnscanned; });
    if (QEB_SUCCEEDED(m_services->clamav->ReloadSignatures())) ResetCaches();
  }
  // After the engine is in place: a file cached before must be judged by it.
  m_services->fanotify->FlushKernelCache(KernelCache::FlushReason::Reload);
  apply("deadline_action", fresh.denyAtDeadline != m_options.denyAtDeadline, [&] {
    m_services->permissions->SetDeadlineAction(fresh.denyAtDeadline);
    m_options.denyAtDeadline = fresh.denyAtDeadline;
  });
  apply("stop_timeout_ms", fresh.stopTimeoutMs != m_options.stopTimeoutMs,
        [&] { m_options.stopTimeoutMs = fresh.stopTimeoutMs; });
  apply("applications", fresh.applications != m_options.applications, [&] {
    m_services->applications->Reload(fresh.applications);
    m_options.applications = fresh.applications;
  });
  apply("watch", fresh.watchPaths != m_options.watchPaths, [] {});
  apply("settings", !(fresh.settings == m_options.settings), [&] {
    m_services->taskManager->ReplaceSettings(fresh.settings);
    m_services->trusted->Apply(fresh.settings.ScanScopeWithTrustedPrograms.excluded_for_program);
    m_options.watchPaths = fresh.watchPaths;
    m_options.settings = fresh.settings;
    m_metrics.watchedPaths.store(ScanAreasInUse(m_options.settings));
  });
  for (const auto& [key, changed] : RestartKeys(m_options, fresh, engineTakesDelay)) {
    if (!changed) continue;
    QEB_TRACE(tracer, trace::LevelNotice)
        << "oasd: configuration key \"" << key << "\" changed; it takes effect at the next start";
  }
  if (applied.empty()) {
    QEB_TRACE(tracer, trace::LevelNotice) << "oasd: output files reopened; no configuration change applied";
  } else {
    QEB_TRACE(tracer, trace::LevelNotice) << "oasd: configuration reloaded: " << Joined(applied);
  }
}

// Opened again even at an unchanged path: that is what a rotated file needs. A file that
// cannot be opened leaves the current one in place.
void Daemon::ReopenOutputs(const HostOptions& fresh, std::vector<std::string>& applied) {
  const auto& tracer = m_services->tracer;
  if (const std::string error = tracer->OpenLogFile(fresh.logFile); !error.empty()) {
    QEB_TRACE(tracer, trace::LevelError) << "oasd: keeping the current log: " << error;
  } else if (fresh.logFile != m_options.logFile) {
    applied.push_back("log_file");
    m_options.logFile = fresh.logFile;
  }
  if (const std::string error = m_services->eventLog->Open(fresh.eventsFile); !error.empty()) {
    QEB_TRACE(tracer, trace::LevelError) << "oasd: keeping the current events file: " << error;
  } else if (fresh.eventsFile != m_options.eventsFile) {
    applied.push_back("events_file");
    m_options.eventsFile = fresh.eventsFile;
  }
}

namespace {

objptr_t<qeb::ITracer> TracerOf(const Services& s) { return objptr_t<qeb::ITracer>(s.tracer.Get()); }

// Tracer, events file and metrics first: everything after them reports through them.
void SetUpReporting(Services& s, const HostOptions& options, HostMetrics& metrics) {
  s.tracer = MakeHostObject<HostTracer>(options.logLevel);
  if (const std::string error = s.tracer->OpenLogFile(options.logFile); !error.empty())
    throw std::runtime_error("cannot open the log file: " + error);
  s.eventLog = MakeHostObject<EventLog>(TracerOf(s), metrics, StderrIsJournal());
  if (const std::string error = s.eventLog->Open(options.eventsFile); !error.empty())
    throw std::runtime_error("cannot open the events file: " + error);
  s.metricsHub = MakeHostObject<MetricsHub>();
  s.systemd = std::make_unique<SystemdNotifier>(TracerOf(s), metrics);
  s.metricsPage = std::make_shared<MetricsPage>(s.metricsHub, metrics);
  s.metricsWriter = std::make_unique<MetricsWriter>(TracerOf(s), s.metricsPage,
                                                    options.metricsFile, options.metricsIntervalS);
  if (const std::string error = s.metricsEndpoint.Start(options.metricsListen, s.metricsPage);
      !error.empty())
    throw std::runtime_error("metrics_listen: " + error);
  // A first page now, so a metrics file oasd may not write stops the start.
  if (options.metricsFile.empty()) return;
  if (const std::string error = s.metricsWriter->WriteOnce(); !error.empty())
    throw std::runtime_error("cannot write the metrics file: " + error);
}

void SetUpFiles(Services& s) {
  s.formatRecognizer = MakeHostObject<FormatRecognizer>(TracerOf(s));
  Require(s.formatRecognizer->SetUp(), "cannot load the file type database");
  s.fileFactories = MakeHostObject<FileFactories>(TracerOf(s));
}

void SetUpSystemServices(Services& s, const HostOptions& options, HostMetrics& metrics) {
  s.mounts = MakeHostObject<MountWatcher>(TracerOf(s));
  Require(s.mounts->SetUp(), "cannot read the mount table");
  s.processes = MakeHostObject<ProcessManager>(TracerOf(s));
  s.containers = MakeHostObject<ContainersMonitor>(TracerOf(s));
  s.applications = MakeHostObject<ApplicationCatalog>(options.applications);
  s.userInfo = MakeHostObject<UserInfoCache>();
  s.fileInfo = MakeHostObject<FileInfoCache>();
  // A clean text file whose change time has not moved passes from the module's cache
  // without asking the checker; the checker is asked only about a file changed since it
  // was found clean, and such a file must be scanned again (a text file can carry a test
  // virus just as well), so it never lets one skip.
  s.skipChecker = MakeHostObject<ObjectSkipChecker>();
  s.threadPools = MakeHostObject<ThreadPoolFactory>(TracerOf(s), &metrics.progress.workers);
  s.timers = MakeHostObject<TimerService>(TracerOf(s));
  Require(s.timers->SetUp(), "cannot set up the timer service");
}

void RegisterSystemServices(Services& s) {
  ServiceLocator& l = *s.locator;
  l.Register<nox::IMountProvider>(s.mounts);
  l.Register<nox::IMountSubscription>(s.mounts);
  l.Register<nox::ISharesParser>(s.mounts);
  l.Register<system_interceptors::process_manager::IProcessManager>(s.processes);
  l.Register<nox::containers::IContainersMonitor>(s.containers);
  l.Register<nox::IApplicationProvider>(s.applications);
  l.Register<nox::IApplicationCategorizer>(s.applications);
  l.Register<nox::IUserInfoCache>(s.userInfo);
  l.Register<nox::IFileInfoCache>(s.fileInfo);
  l.Register<avengine::object_skip::IObjectSkipChecker>(
      s.skipChecker, avengine::object_skip::IObjectSkipChecker::ServiceKey);
  l.Register<qeb::IThreadPoolFactory>(s.threadPools);
  l.Register<qeb::ITimerService>(s.timers);
  l.Register<nox::IEventsProvider>(s.fanotify);
  l.Register<vrel::IFileVerdictNotifier>(s.verdicts);
  l.Register<nox::vrelpp::IFileVerdictNotifierEx>(s.verdicts);
}

// The provider must be in the locator before the module is created: the module asks for
// it then. Its groups exist from here on, but nothing is marked before SetupFilters.
void SetUpInterception(Services& s, const HostOptions& options, HostMetrics& metrics) {
  s.fanotify = MakeHostObject<FanotifyEventsProvider>(
      TracerOf(s), metrics, objptr_t<nox::IMountProvider>(s.mounts.Get()),
      objptr_t<nox::IMountSubscription>(s.mounts.Get()), s.writes);
  Require(s.fanotify->SetUp(options.kernelCache ? options.kernelCacheEntries : 0),
          "cannot set up fanotify (oasd needs root)");
  s.permissions = std::make_shared<PermissionTable>(
      s.fanotify->Responder(), metrics, std::chrono::milliseconds(options.permissionDeadlineMs));
  s.permissions->SetDeadlineAction(options.denyAtDeadline);
  s.verdicts = MakeHostObject<VerdictNotifier>(s.permissions, metrics);
}

// The readers run before SetupFilters places the first mark, so no marked open waits for
// a reader that has not started.
void StartSystemServices(Services& s) {
  s.timers->Start();
  s.mounts->Start();
  s.permissions->Start();
  s.fanotify->Start(s.permissions);
}

// Every open still waiting is allowed and the marks go; the module's late verdicts only
// close descriptors from now on.
void TearDownInterception(Services& s) noexcept {
  if (s.permissions) s.permissions->Drain();
  if (s.fanotify) s.fanotify->TearDown();
}

// Threads that could still call into the module stop before it is let go.
void TearDownSystemServices(Services& s) noexcept {
  if (s.mounts) s.mounts->TearDown();
  if (s.timers) s.timers->TearDown();
  if (s.threadPools) s.threadPools->TearDown();
}

void SetUpEngine(Services& s, const HostOptions& options, HostMetrics& metrics) {
  const objptr_t<qeb::ITracer> tracer = TracerOf(s);
  if (options.engine == EngineKind::None) {
    s.engine = MakeHostObject<NoneEngine>(tracer, metrics, options);
    return;
  }
  objptr_t<EventLog> log = s.eventLog;
  s.clamav = MakeHostObject<ClamavEngine>(
      tracer, metrics, options, [log](const DetectionRecord& record) { log->Detection(record); },
      [log](const UnprocessedRecord& record) { log->Unprocessed(record); }, s.writes);
  // A detection's answer is announced to the deadline, so the records can tell a late one.
  s.clamav->SetExpectVerdict([table = s.permissions](int fd) { return table->ExpectVerdict(fd); });
  s.clamav->SetObjectCallback([log](const ObjectRecord& record) { log->Object(record); });
  s.trusted->Apply(options.settings.ScanScopeWithTrustedPrograms.excluded_for_program);
  s.clamav->SetRemover([quarantine = std::make_shared<Quarantine>(options.quarantineDir)](
                           int fd, const std::string& path, const std::string& threat, std::string& error) {
    return quarantine->Move(fd, path, threat, error);
  });
  s.clamav->SetTrustCheck([trusted = s.trusted](int32_t pid, const std::string& path) {
    return trusted->Trusted(pid, path);
  });
  if (options.settings.ScanSettings.ScanSettingsBase.use_sandbox) {
    QEB_TRACE(tracer, trace::LevelNotice)
        << "oasd: use_sandbox is set, but libclamav has no sandbox: files are scanned in oasd's process";
  }
  Require(s.clamav->SetUp(), "cannot load the signatures from " + SignatureDirFor(options));
  s.engine = objptr_t<vrel::IEventHandler085>(s.clamav.Get());
}

// Every service the module asks the locator for, under the key it asks with.
void RegisterServices(Services& s) {
  ServiceLocator& l = *s.locator;
  l.Register<qeb::ITracer>(s.tracer);
  l.Register<nox::IEventPublisher>(s.eventLog);
  l.Register<qeb::telemetry::IMetricsRegistry>(s.metricsHub);
  l.Register<monitoring::IMetricsFactory>(s.metricsHub);
  l.Register<nox::INoxTaskManager>(s.taskManager);
  l.Register<nox::IFormatRecognizer>(s.formatRecognizer);
  l.Register<nox::IFileFactory>(s.fileFactories, vrel::CLSID_FileFactories);
  l.Register<nox::IFdFileFactory>(s.fileFactories);
  RegisterSystemServices(s);
}

}  // namespace

void Daemon::StartProtection() {
  m_services = std::make_unique<Services>();
  Services& s = *m_services;
  SetUpReporting(s, m_options, m_metrics);
  s.taskManager = MakeHostObject<TaskManager>(m_options.settings, [this] { PostRefresh(); });
  SetUpFiles(s);
  SetUpSystemServices(s, m_options, m_metrics);
  SetUpInterception(s, m_options, m_metrics);
  if (m_options.engine == EngineKind::ClamAV) WatchSignatures();
  SetUpEngine(s, m_options, m_metrics);
  if (s.signatureWatcher) s.signatureWatcher->Start();
  RegisterServices(s);
  CreateInterceptor();
  Require(m_interceptor->Init(m_options.verdictTimeoutMs), "the interceptor refused Init");
  Require(m_interceptor->SetSettings(s.taskManager->CurrentSettings()),
          "the interceptor refused the settings");
  StartSystemServices(s);
  m_metrics.watchedPaths.store(ScanAreasInUse(m_options.settings));
  m_filtersUp = true;
  Require(m_interceptor->SetupFilters(FilterFlags, s.engine), "cannot start interception");
  // The settings given before the start build the caches and the subscription; a running
  // processor takes its own options (the report-only action among them) only from this call.
  Require(m_interceptor->SetSettings(s.taskManager->CurrentSettings()),
          "the interceptor refused the settings");
  s.metricsWriter->Start();
}

// Built before the engine loads, so an update made during the load shows at the first
// check; started once the engine is up.
void Daemon::WatchSignatures() {
  Services& s = *m_services;
  s.signatureWatcher = std::make_unique<SignatureWatcher>(
      std::vector<std::string>{SignatureDirFor(m_options), m_options.clamavDatabaseDir},
      std::chrono::seconds(m_options.signatureCheckIntervalS), [this, &s] {
        if (QEB_SUCCEEDED(s.clamav->ReloadSignatures())) PostEngineChange();
      });
}

void Daemon::CreateInterceptor() {
  const std::string path = FindModule(m_options);
  if (const std::string fault = UntrustedFile(path); !fault.empty())
    throw std::runtime_error("refusing to load the module: " + fault);
  m_module.Load(path);
  objptr_t<qeb::IObject> object;
  Require(m_module.CreateObject(qeb::CLSID_FileInterceptor, m_services->locator, object.Ref()),
          "the module " + path + " could not create the file interceptor");
  Require(qeb::QueryInterface(object.Get(), m_interceptor.Ref()),
          "the module's object is not a file interceptor");
}

// Safe at any point of a failed start: each step checks what exists.
void Daemon::Stop() noexcept {
  if (!m_services) return;
  Services& s = *m_services;
  m_metrics.protecting.store(0);
  if (s.systemd) {
    s.systemd->Stopping();
    s.systemd->TearDown();
  }
  // The module lets its worker pool go when its filters are removed, and that waits for
  // every queued event: unscanned, they take no time, and protection is ending anyway.
  if (s.clamav) s.clamav->StopScanning();
  if (m_interceptor && m_filtersUp) {
    const qeb::result_t r = m_interceptor->RemoveFilters();
    if (QEB_FAILED(r)) {
      QEB_TRACE(s.tracer, trace::LevelError) << "oasd: RemoveFilters failed: " << trace::AsResult(r);
    }
  }
  m_filtersUp = false;
  TearDownInterception(s);
  m_interceptor.Reset();
  s.metricsEndpoint.TearDown();
  if (s.metricsWriter) s.metricsWriter->TearDown();
  TearDownSystemServices(s);
  if (s.signatureWatcher) s.signatureWatcher->TearDown();
  if (s.clamav) s.clamav->TearDown();
  ReleaseModule();
  if (s.eventLog) s.eventLog->TearDown();
  QEB_TRACE(s.tracer, trace::LevelNotice) << "oasd: stopped";
  m_services.reset();
}

void Daemon::ReleaseModule() noexcept {
  Services& s = *m_services;
  s.locator->Clear();
  if (m_module.Unload(std::chrono::milliseconds(UnloadWaitMs))) return;
  QEB_TRACE(s.tracer, trace::LevelError)
      << "oasd: the module still has live objects; it stays loaded until exit";
}

}  // namespace oasd
