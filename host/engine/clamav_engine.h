// The scanning engine oasd hands the module as its event handler: it scans the descriptor
// each event carries with libclamav and answers allow (cacheable) or deny. It owns the
// compiled signature engine, shared with the scans running on it so a reload can swap it
// under them, and the checked-object cache. Detections leave through the callback it is
// given; it keeps no reference to whoever receives them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/engine/checked_cache.h"
#include "host/reporting/event_log.h"
#include "host/common/host_metrics.h"
#include "host/common/host_options.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event.h"
#include "interfaces/vrel/event_handler.h"

struct cl_engine;

namespace oasd {

using DetectionCallback = std::function<void(const DetectionRecord&)>;

// The signature directory options name, or the bundled set: the source tree's when oasd
// runs from its build tree, the installed one otherwise.
std::string SignatureDirFor(const HostOptions& options);

// What a scan of one descriptor found.
struct ScanOutcome {
  enum Kind { Clean, Detected, Failed } kind = Failed;
  std::string threat;  // the signature's name when Detected, libclamav's error when Failed
  bool fromCache = false;
};

class ClamavEngine : public qeb::object::Ifaces<vrel::IEventHandler085> {
 public:
  // writes: the files oasd saw written, whose checked-cache entries they void.
  ClamavEngine(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics, const HostOptions& options,
               DetectionCallback onDetection, std::shared_ptr<const WrittenFiles> writes = nullptr);
  ~ClamavEngine();

  // Initialises libclamav and loads and compiles the signature directory; fails (and traces
  // why) when the directory cannot be loaded or holds no signatures.
  qeb::result_t SetUp();
  void TearDown() noexcept;
  // Builds a new engine from the signature directory and swaps it in; scans already running
  // finish on the old one. The checked cache is emptied. On failure the old engine stays.
  qeb::result_t ReloadSignatures();
  // Takes what a SIGHUP may change: the checked-cache switch and the deliberate delay.
  void ApplyOptions(const HostOptions& options) noexcept;
  // For a stop: events not yet scanned are let through unscanned from now on, so the stop
  // does not first work through a full queue. Scans already running finish.
  void StopScanning() noexcept { m_stopping = true; }

  unsigned SignatureCount() const noexcept { return m_signatureCount; }
  size_t CheckedCacheSize() const { return m_checked.Size(); }

  // Scans what fd refers to (the descriptor is read, never closed or reopened).
  ScanOutcome ScanDescriptor(int fd);

  qeb::result_t OnEvent(vrel::IEvent085* event, uint32_t context) noexcept override;
  qeb::result_t OnEventCancelled(vrel::IEvent085* event, uint32_t context) noexcept override;
  qeb::result_t OnNotification(vrel::IEvent085* event, uint32_t context) noexcept override;

 private:
  using EnginePtr = std::shared_ptr<cl_engine>;

  qeb::result_t Handle(vrel::IEvent085* event) noexcept;
  qeb::result_t Answer(vrel::IEvent085* event, const ScanOutcome& outcome);
  void ReportDetection(vrel::IEvent085* event, const std::string& threat);
  ScanOutcome ScanWithEngine(int fd, const EnginePtr& engine);
  void Delay() const noexcept;
  qeb::result_t LoadEngine(EnginePtr& engine, unsigned& signatures);
  EnginePtr CurrentEngine() const;

  qeb::objptr_t<qeb::ITracer> m_tracer;
  HostMetrics& m_metrics;
  const std::string m_signatureDir;
  DetectionCallback m_onDetection;
  std::atomic<bool> m_useChecker;
  std::atomic<uint32_t> m_delayMs;
  std::atomic<bool> m_stopping{false};

  mutable std::mutex m_engineMutex;  // guards the pointer only, never held across a scan
  EnginePtr m_engine;
  std::mutex m_reloadMutex;  // one reload at a time
  std::atomic<unsigned> m_signatureCount{0};
  CheckedCache m_checked;
  const std::shared_ptr<const WrittenFiles> m_writes;  // a private one when none is given
};

}  // namespace oasd
