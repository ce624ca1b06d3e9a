// oasd's counters are listed once, in the tables below: a counter added to HostMetrics is
// exposed by one row there. Rows of one name become one family, each row a labelled sample.
#include "host/reporting/metrics_page.h"

#include <iterator>
#include <limits>
#include <sstream>

#include <prometheus/text_serializer.h>

namespace oasd {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

template <class T>
struct Row {
  const char* name;
  const char* help;
  std::atomic<T> HostMetrics::*value;
  const char* label = nullptr;  // label name and value, or none
  const char* labelValue = nullptr;
};

constexpr Row<uint64_t> Counters[] = {
    {"oasd_events_total", "File events read from the kernel", &HostMetrics::events},
    {"oasd_own_events_total", "oasd's own accesses, allowed without the module",
     &HostMetrics::ownEvents},
    {"oasd_allowed_at_once_total", "Events the module allowed without queueing",
     &HostMetrics::allowedAtOnce},
    {"oasd_verdicts_total", "Verdicts delivered after a queued scan", &HostMetrics::verdictsAllow,
     "verdict", "allow"},
    {"oasd_verdicts_total", "", &HostMetrics::verdictsDeny, "verdict", "deny"},
    {"oasd_deadline_allows_total", "Pending opens allowed by the hard deadline",
     &HostMetrics::deadlineAllows},
    {"oasd_deadline_denies_total", "Pending opens refused by the hard deadline",
     &HostMetrics::deadlineDenies},
    {"oasd_processing_errors_total", "Processing errors published by the module",
     &HostMetrics::processingErrors},
    {"oasd_detections_total", "Files the engine found a threat in", &HostMetrics::detections},
    {"oasd_late_detections_total", "Detections made after the open had been answered",
     &HostMetrics::lateDetections},
    {"oasd_coalesced_scans_total", "Scans answered by a concurrent scan of the same file",
     &HostMetrics::coalescedScans},
    {"oasd_scans_total", "Files the engine scanned", &HostMetrics::scans},
    {"oasd_checked_cache_hits_total", "Scans answered from the engine's checked cache",
     &HostMetrics::checkedCacheHits},
    {"oasd_checked_cache_misses_total", "Files the engine's checked cache did not hold",
     &HostMetrics::checkedCacheMisses},
    {"oasd_kernel_cache_marks_added_total", "Clean files the kernel now answers for",
     &HostMetrics::kernelMarksAdded},
    {"oasd_kernel_cache_marks_removed_total",
     "Kernel cache marks taken back (a write, a race with the scan)", &HostMetrics::kernelMarksRemoved},
};

constexpr Row<int64_t> Gauges[] = {
    {"oasd_pending_events", "Permission events waiting for a verdict", &HostMetrics::pending},
    {"oasd_signatures", "Signatures in the engine in force", &HostMetrics::signatures},
    {"oasd_signatures_loaded_timestamp_seconds", "When the signatures in force were loaded",
     &HostMetrics::signaturesLoadedAt},
    {"oasd_protecting", "1 while interception is up, else 0", &HostMetrics::protecting},
    {"oasd_watched_paths", "Paths given to protect", &HostMetrics::watchedPaths},
    {"oasd_marked_filesystems", "Filesystems holding a permission mark",
     &HostMetrics::markedFilesystems},
    {"oasd_last_detection_timestamp_seconds", "When the last detection was made (0: none yet)",
     &HostMetrics::lastDetectionAt},
};

// The library's serializer writes HELP as given; a line break in the module's text would end
// the comment and leave the rest to be read as a sample.
std::string EscapedHelp(const std::string& help) {
  std::string out;
  for (const char c : help) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else out += c;
  }
  return out;
}

// The family a row belongs to: the last one when it has the row's name, else a new one.
MetricFamily& FamilyFor(std::vector<MetricFamily>& page, const char* name, const char* help,
                        MetricType type) {
  if (page.empty() || page.back().name != name) page.push_back({name, help, type, {}});
  return page.back();
}

ClientMetric Sample(const char* label, const char* labelValue) {
  ClientMetric metric;
  if (label) metric.label.push_back({label, labelValue});
  return metric;
}

template <class T>
void AddRows(std::vector<MetricFamily>& page, const Row<T>* rows, size_t count, MetricType type,
             const HostMetrics& host) {
  for (size_t i = 0; i < count; ++i) {
    const Row<T>& row = rows[i];
    ClientMetric metric = Sample(row.label, row.labelValue);
    const double value = static_cast<double>((host.*row.value).load(std::memory_order_relaxed));
    if (type == MetricType::Counter) metric.counter.value = value;
    else metric.gauge.value = value;
    FamilyFor(page, row.name, row.help, type).metric.push_back(std::move(metric));
  }
}

// A counter array of HostMetrics, one sample per label value.
template <size_t N>
void AddByLabel(std::vector<MetricFamily>& page, const char* name, const char* help,
                const char* label, const std::array<const char*, N>& values,
                const std::array<std::atomic<uint64_t>, N>& counters) {
  MetricFamily& family = FamilyFor(page, name, help, MetricType::Counter);
  for (size_t i = 0; i < N; ++i) {
    ClientMetric metric = Sample(label, values[i]);
    metric.counter.value = static_cast<double>(counters[i].load(std::memory_order_relaxed));
    family.metric.push_back(std::move(metric));
  }
}

void AddLatency(std::vector<MetricFamily>& page, const HostMetrics& host) {
  ClientMetric metric;
  uint64_t cumulative = 0;
  for (size_t i = 0; i < host.latencyBuckets.size(); ++i) {
    cumulative += host.latencyBuckets[i].load(std::memory_order_relaxed);
    const double bound = i < HostMetrics::LatencyBoundsUs.size()
                             ? static_cast<double>(HostMetrics::LatencyBoundsUs[i]) / 1e6
                             : std::numeric_limits<double>::infinity();
    metric.histogram.bucket.push_back({cumulative, bound});
  }
  metric.histogram.sample_count = cumulative;
  metric.histogram.sample_sum =
      static_cast<double>(host.latencySumUs.load(std::memory_order_relaxed)) / 1e6;
  FamilyFor(page, "oasd_scan_latency_seconds", "Time the engine took to scan one file",
            MetricType::Histogram)
      .metric.push_back(std::move(metric));
}

}  // namespace

std::vector<MetricFamily> MetricFamilies(const std::vector<MetricSample>& module,
                                         const HostMetrics& host) {
  std::vector<MetricFamily> page;
  for (const auto& sample : module) {
    ClientMetric metric;
    if (sample.counter) metric.counter.value = static_cast<double>(sample.value);
    else metric.gauge.value = static_cast<double>(sample.value);
    page.push_back({sample.name, EscapedHelp(sample.help),
                    sample.counter ? MetricType::Counter : MetricType::Gauge, {std::move(metric)}});
  }
  AddRows(page, Counters, std::size(Counters), MetricType::Counter, host);
  AddByLabel(page, "oasd_unprocessed_total", "Files the engine did not scan whole", "reason",
             HostMetrics::UnprocessedReasons, host.unprocessed);
  AddByLabel(page, "oasd_kernel_cache_flushes_total", "Kernel cache flushes", "reason",
             HostMetrics::KernelFlushReasons, host.kernelFlushes);
  AddByLabel(page, "oasd_events_by_kind_total", "File events read from the kernel, by kind",
             "kind", HostMetrics::EventKinds, host.eventsByKind);
  AddRows(page, Gauges, std::size(Gauges), MetricType::Gauge, host);
  AddLatency(page, host);
  return page;
}

std::string SerializeMetrics(const std::vector<MetricFamily>& families) {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, families);
  return text.str();
}

std::vector<MetricFamily> MetricsPage::Collect() const {
  try {
    return MetricFamilies(m_hub->Gather(), m_host);
  } catch (...) {
    return {};
  }
}

}  // namespace oasd
