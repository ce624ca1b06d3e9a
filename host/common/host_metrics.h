// The host's own counters, shared by the services that bump them and the metrics writer that
// prints them. Plain atomics: every writer is on a hot path and none may take a lock.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "host/common/work_progress.h"

namespace oasd {

struct HostMetrics {
  std::atomic<uint64_t> events{0};           // permission events and notifications read
  // The same by kind (the label each index is printed with); an overflow has none.
  enum EventKind { Open, Exec, CloseWrite, Modify, Rename };
  static constexpr std::array<const char*, 5> EventKinds{"open", "exec", "close_write", "modify",
                                                         "rename"};
  std::array<std::atomic<uint64_t>, EventKinds.size()> eventsByKind{};
  std::atomic<uint64_t> ownEvents{0};        // oasd's own accesses, allowed without the module
  std::atomic<uint64_t> allowedAtOnce{0};    // the module answered 1 inside OnEvent
  std::atomic<uint64_t> verdictsAllow{0};    // verdicts 1 and 2 delivered later
  std::atomic<uint64_t> verdictsDeny{0};     // verdict 4 and immediate 0x80000045
  std::atomic<uint64_t> deadlineAllows{0};   // pending events the hard deadline let through
  std::atomic<uint64_t> processingErrors{0};
  std::atomic<uint64_t> detections{0};
  std::atomic<uint64_t> scans{0};
  std::atomic<uint64_t> checkedCacheHits{0};
  std::atomic<uint64_t> checkedCacheMisses{0};  // looked up in the checked cache, not there
  std::atomic<int64_t> pending{0};           // permission events waiting for a verdict
  std::atomic<uint64_t> deadlineDenies{0};   // pending events the hard deadline refused
  std::atomic<uint64_t> lateDetections{0};   // detections made after the open was answered
  std::atomic<uint64_t> coalescedScans{0};   // scans answered by a concurrent scan of the file
  std::atomic<int64_t> signatures{0};          // signatures in the engine in force
  std::atomic<int64_t> signaturesLoadedAt{0};  // when they were loaded, Unix seconds
  std::atomic<int64_t> lastDetectionAt{0};     // Unix seconds, 0 before the first
  std::atomic<int64_t> protecting{0};          // 1 from the marks' placing until the stop
  std::atomic<int64_t> watchedPaths{0};
  std::atomic<int64_t> markedFilesystems{0};   // filesystems holding a permission mark
  WorkProgress progress;  // not printed: what the watchdog reads
  // Files the engine did not scan whole, by reason (the label each index is printed with).
  static constexpr std::array<const char*, 4> UnprocessedReasons{"size_limit", "time_limit",
                                                                 "scan_limit", "scan_error"};
  std::array<std::atomic<uint64_t>, UnprocessedReasons.size()> unprocessed{};
  // The kernel's clean-file cache (fanotify ignore marks): marks placed and taken back one
  // by one, and whole flushes by reason.
  std::atomic<uint64_t> kernelMarksAdded{0};
  std::atomic<uint64_t> kernelMarksRemoved{0};
  static constexpr std::array<const char*, 5> KernelFlushReasons{"settings", "mount", "reload",
                                                                 "age", "full"};
  std::array<std::atomic<uint64_t>, KernelFlushReasons.size()> kernelFlushes{};

  // Scan latency histogram, upper bounds in microseconds; the last bucket is +Inf.
  static constexpr std::array<uint64_t, 8> LatencyBoundsUs{100, 1000, 5000, 20000, 100000,
                                                            500000, 2000000, 10000000};
  std::array<std::atomic<uint64_t>, LatencyBoundsUs.size() + 1> latencyBuckets{};
  std::atomic<uint64_t> latencySumUs{0};

  void RecordScanLatency(uint64_t us) noexcept {
    size_t i = 0;
    while (i < LatencyBoundsUs.size() && us > LatencyBoundsUs[i]) ++i;
    latencyBuckets[i].fetch_add(1, std::memory_order_relaxed);
    latencySumUs.fetch_add(us, std::memory_order_relaxed);
  }
};

}  // namespace oasd
