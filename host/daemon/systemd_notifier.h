// oasd's side of the service manager's notify protocol: readiness, reload and stop, a
// current STATUS= line and the watchdog. Owns the thread that refreshes the status and pets
// the watchdog, from Start to TearDown; it only reads HostMetrics (which outlives it).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "framework/qeb/objptr.h"
#include "host/common/host_metrics.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

class SystemdNotifier {
 public:
  SystemdNotifier(qeb::objptr_t<qeb::ITracer> tracer, const HostMetrics& metrics);
  ~SystemdNotifier();
  SystemdNotifier(const SystemdNotifier&) = delete;
  SystemdNotifier& operator=(const SystemdNotifier&) = delete;

  // Each is a no-op outside systemd (no NOTIFY_SOCKET).
  void Ready() noexcept;
  void Reloading() noexcept;
  void Stopping() noexcept;

  // Starts the status and watchdog thread. The watchdog is petted only while neither the
  // reader nor the worker pools stall: the reader may hold a batch for half the watchdog
  // period, a worker a task for workerStallMs (the scan time limit and a margin).
  void Start(int64_t workerStallMs);
  void TearDown() noexcept;

 private:
  void Loop();
  void Tick(int64_t nowMs);

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  const HostMetrics& m_metrics;
  const bool m_enabled;        // NOTIFY_SOCKET was given
  uint64_t m_watchdogUs = 0;   // 0: no watchdog asked for
  int64_t m_workerStallMs = 0;
  uint64_t m_lastEvents = 0, m_lastScans = 0;
  int64_t m_lastTickMs = 0;
  bool m_stallReported = false;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_stopping = false;
  std::thread m_thread;
};

}  // namespace oasd
