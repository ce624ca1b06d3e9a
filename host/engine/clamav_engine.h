// The scanning engine oasd hands the module as its event handler: it scans the descriptor
// each event carries with libclamav and answers allow (cacheable), deny, or the unscanned
// policy for a file it could not scan whole. It owns the compiled signature engine, shared
// with the scans running on it so a reload can swap it under them, the checked-object cache
// and the scans in flight. Detections and unprocessed files leave through the callbacks it
// is given; it keeps no reference to whoever receives them.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/engine/checked_cache.h"
#include "host/engine/scan_limits.h"
#include "host/engine/scan_coalescer.h"
#include "host/engine/scan_outcome.h"
#include "host/engine/scan_policy.h"
#include "host/reporting/event_log.h"
#include "host/common/host_metrics.h"
#include "host/common/host_options.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event.h"
#include "interfaces/vrel/event_handler.h"

struct cl_engine;

namespace oasd {

using DetectionCallback = std::function<void(const DetectionRecord&)>;
using UnprocessedCallback = std::function<void(const UnprocessedRecord&)>;
using ObjectCallback = std::function<void(const ObjectRecord&)>;
// Whether the process behind an event may access the path unscanned (a trusted program).
using TrustCheck = std::function<bool(int32_t pid, const std::string& path)>;
// Moves an infected file out of reach; answers its quarantine ID, or empty and why in error.
using RemoveFile = std::function<std::string(int fd, const std::string& path, const std::string& threat,
                                             std::string& error)>;
// Announces that the answer for the open behind a descriptor is on its way, so the deadline
// does not take it over; false when something else answered it already (the deadline, a
// stop), which makes a detection late.
using ExpectVerdict = std::function<bool(int fd)>;

// The signature directory options name, or the bundled set: the source tree's when oasd
// runs from its build tree, the installed one otherwise.
std::string SignatureDirFor(const HostOptions& options);

class ClamavEngine : public qeb::object::Ifaces<vrel::IEventHandler085> {
 public:
  // writes: the files oasd saw written, whose checked-cache entries they void.
  ClamavEngine(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics, const HostOptions& options,
               DetectionCallback onDetection, UnprocessedCallback onUnprocessed = nullptr,
               std::shared_ptr<const WrittenFiles> writes = nullptr);
  ~ClamavEngine();

  // Initialises libclamav and loads and compiles the signature directory; fails (and traces
  // why) when the directory cannot be loaded or holds no signatures.
  qeb::result_t SetUp();
  void TearDown() noexcept;
  // Builds a new engine from the signature directory and the database directory (without
  // it when that fails to load) and swaps it in; scans already running finish on the old
  // one. The checked cache is emptied. On failure the old engine stays.
  qeb::result_t ReloadSignatures();
  // Takes what a SIGHUP may change: the checked-cache switch, the deliberate delay, the
  // unscanned policy and the limits (these with the next ReloadSignatures).
  void ApplyOptions(const HostOptions& options) noexcept;
  // Set once, before the first event.
  void SetExpectVerdict(ExpectVerdict expect) { m_expectVerdict = std::move(expect); }
  void SetObjectCallback(ObjectCallback onObject) { m_onObject = std::move(onObject); }
  void SetTrustCheck(TrustCheck trusted) { m_trusted = std::move(trusted); }
  void SetRemover(RemoveFile remove) { m_remove = std::move(remove); }
  // For a stop: events not yet scanned are let through unscanned from now on, so the stop
  // does not first work through a full queue. Scans already running finish.
  void StopScanning() noexcept { m_stopping = true; }

  unsigned SignatureCount() const noexcept { return m_signatureCount; }
  size_t CheckedCacheSize() const { return m_checked.Size(); }

  // Scans what fd refers to (the descriptor is read, never closed or reopened); scans of
  // the same file state running at the same time share one.
  ScanOutcome ScanDescriptor(int fd);
  // For tests: waits up to `limit` for `count` callers to wait for the scan running for key.
  bool AwaitWaiters(const CheckedKey& key, size_t count, std::chrono::milliseconds limit) const {
    return m_inFlight.AwaitWaiters(key, count, limit);
  }

  qeb::result_t OnEvent(vrel::IEvent085* event, uint32_t context) noexcept override;
  qeb::result_t OnEventCancelled(vrel::IEvent085* event, uint32_t context) noexcept override;
  qeb::result_t OnNotification(vrel::IEvent085* event, uint32_t context) noexcept override;

 private:
  using EnginePtr = std::shared_ptr<cl_engine>;

  // waiting: a permission event, whose opener waits for the answer.
  qeb::result_t Handle(vrel::IEvent085* event, bool waiting) noexcept;
  // Why the settings let this event pass unscanned; empty when it is to be scanned.
  std::string PassUnscanned(vrel::IEvent085* event, const ScanPolicy& policy, int fd, bool waiting);
  qeb::result_t Answer(vrel::IEvent085* event, const ScanOutcome& outcome, const ScanPolicy& policy);
  void ReportDetection(vrel::IEvent085* event, const std::string& threat, const ScanPolicy& policy);
  void ReportObject(vrel::IEvent085* event, const ScanOutcome& outcome, const ScanPolicy& policy);
  // write: whether the events file hears of it (report_unprocessed_objects).
  void ReportUnprocessed(vrel::IEvent085* event, const ScanOutcome& outcome, bool denied, bool write);
  ScanOutcome ScanAndRemember(int fd, const std::optional<CheckedKey>& key, const timespec& keyReadAt);
  ScanOutcome ScanWithEngine(int fd, const EnginePtr& engine);
  ScanOutcome ScanHead(int fd, const EnginePtr& engine, uint64_t size, uint64_t limit);
  void Delay() const noexcept;
  qeb::result_t LoadEngine(EnginePtr& engine, unsigned& signatures, bool withDatabase);
  EnginePtr CurrentEngine() const;
  std::shared_ptr<const ScanPolicy> CurrentPolicy() const;

  qeb::objptr_t<qeb::ITracer> m_tracer;
  HostMetrics& m_metrics;
  const std::string m_signatureDir;
  const std::string m_databaseDir;  // the system's ClamAV databases, loaded when usable
  DetectionCallback m_onDetection;
  UnprocessedCallback m_onUnprocessed;
  ExpectVerdict m_expectVerdict;
  ObjectCallback m_onObject;
  TrustCheck m_trusted;
  RemoveFile m_remove;
  std::atomic<bool> m_useChecker;
  std::atomic<bool> m_denyUnscanned;
  std::atomic<uint32_t> m_delayMs;
  mutable std::mutex m_delayMutex;  // with m_delayChanged: a shorter delay ends waits at once
  mutable std::condition_variable m_delayChanged;
  std::atomic<bool> m_stopping{false};

  mutable std::mutex m_engineMutex;  // guards the pointers only, never held across a scan
  EnginePtr m_engine;
  std::shared_ptr<const ScanPolicy> m_policy;
  std::mutex m_reloadMutex;  // one reload at a time
  EngineLimits m_nextLimits;  // under m_reloadMutex: what the next engine is built with
  std::atomic<uint64_t> m_fileSizeLimit{EngineLimits::DefaultFileSize};  // the current engine's
  std::atomic<unsigned> m_signatureCount{0};
  CheckedCache m_checked;
  ScanCoalescer m_inFlight;
  const std::shared_ptr<const WrittenFiles> m_writes;  // a private one when none is given
};

}  // namespace oasd
