// The hub never calls a collector under its own lock, and Unregister waits out a running
// Collect unless the collector itself is the caller. The writer renders the page outside
// every lock but its own and replaces the metrics file with a rename, so a reader never
// sees half a page; a new file each time, so log rotation has nothing to reopen.
#include "host/reporting/metrics.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>

#include "host/reporting/output_file.h"
#include "nox_tracing/tracing.h"

namespace oasd {

namespace {

bool IsNameChar(char c, bool first) {
  const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
  return letter || (!first && c >= '0' && c <= '9');
}

std::string EscapeHelp(const std::string& help) {
  std::string out;
  for (const char c : help) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else out += c;
  }
  return out;
}

void AppendHeader(std::string& page, const std::string& name, const std::string& help,
                  const char* type) {
  page += "# HELP " + name + ' ' + EscapeHelp(help) + '\n';
  page += "# TYPE " + name + ' ' + type + '\n';
}

void AppendValue(std::string& page, const std::string& name, const char* help, const char* type,
                 int64_t value) {
  AppendHeader(page, name, help, type);
  page += name + ' ' + std::to_string(value) + '\n';
}

std::string Seconds(uint64_t us) {
  char text[32];
  snprintf(text, sizeof text, "%g", static_cast<double>(us) / 1e6);
  return text;
}

void AppendLatency(std::string& page, const HostMetrics& host) {
  const std::string name = "oasd_scan_latency_seconds";
  AppendHeader(page, name, "Time the engine took to scan one file", "histogram");
  uint64_t cumulative = 0;
  for (size_t i = 0; i < host.latencyBuckets.size(); ++i) {
    cumulative += host.latencyBuckets[i].load(std::memory_order_relaxed);
    const std::string le =
        i < HostMetrics::LatencyBoundsUs.size() ? Seconds(HostMetrics::LatencyBoundsUs[i]) : "+Inf";
    page += name + "_bucket{le=\"" + le + "\"} " + std::to_string(cumulative) + '\n';
  }
  page += name + "_sum " + Seconds(host.latencySumUs.load(std::memory_order_relaxed)) + '\n';
  page += name + "_count " + std::to_string(cumulative) + '\n';
}

void AppendHostMetrics(std::string& page, const HostMetrics& host) {
  const auto counter = [&](const char* name, const char* help, const std::atomic<uint64_t>& v) {
    AppendValue(page, name, help, "counter", static_cast<int64_t>(v.load(std::memory_order_relaxed)));
  };
  counter("oasd_events_total", "File events read from the kernel", host.events);
  counter("oasd_own_events_total", "oasd's own accesses, allowed without the module",
          host.ownEvents);
  counter("oasd_allowed_at_once_total", "Events the module allowed without queueing",
          host.allowedAtOnce);
  AppendHeader(page, "oasd_verdicts_total", "Verdicts delivered after a queued scan", "counter");
  page += "oasd_verdicts_total{verdict=\"allow\"} " + std::to_string(host.verdictsAllow.load()) + '\n';
  page += "oasd_verdicts_total{verdict=\"deny\"} " + std::to_string(host.verdictsDeny.load()) + '\n';
  counter("oasd_deadline_allows_total", "Pending opens allowed by the hard deadline",
          host.deadlineAllows);
  counter("oasd_deadline_denies_total", "Pending opens refused by the hard deadline",
          host.deadlineDenies);
  counter("oasd_processing_errors_total", "Processing errors published by the module",
          host.processingErrors);
  counter("oasd_detections_total", "Files the engine found a threat in", host.detections);
  counter("oasd_late_detections_total", "Detections made after the open had been answered",
          host.lateDetections);
  AppendHeader(page, "oasd_unprocessed_total", "Files the engine did not scan whole", "counter");
  for (size_t i = 0; i < host.unprocessed.size(); ++i)
    page += std::string("oasd_unprocessed_total{reason=\"") + HostMetrics::UnprocessedReasons[i] +
            "\"} " + std::to_string(host.unprocessed[i].load(std::memory_order_relaxed)) + '\n';
  counter("oasd_coalesced_scans_total", "Scans answered by a concurrent scan of the same file",
          host.coalescedScans);
  counter("oasd_scans_total", "Files the engine scanned", host.scans);
  counter("oasd_checked_cache_hits_total", "Scans answered from the engine's checked cache",
          host.checkedCacheHits);
  counter("oasd_kernel_cache_marks_added_total", "Clean files the kernel now answers for",
          host.kernelMarksAdded);
  counter("oasd_kernel_cache_marks_removed_total",
          "Kernel cache marks taken back (a write, a race with the scan)", host.kernelMarksRemoved);
  AppendHeader(page, "oasd_kernel_cache_flushes_total", "Kernel cache flushes", "counter");
  for (size_t i = 0; i < host.kernelFlushes.size(); ++i)
    page += std::string("oasd_kernel_cache_flushes_total{reason=\"") +
            HostMetrics::KernelFlushReasons[i] + "\"} " +
            std::to_string(host.kernelFlushes[i].load(std::memory_order_relaxed)) + '\n';
  AppendValue(page, "oasd_pending_events", "Permission events waiting for a verdict", "gauge",
              host.pending.load(std::memory_order_relaxed));
  AppendLatency(page, host);
}

}  // namespace

std::string SanitiseMetricName(const std::string& name) {
  std::string out = name.empty() ? "_" : name;
  for (size_t i = 0; i < out.size(); ++i)
    if (!IsNameChar(out[i], false)) out[i] = '_';
  if (!IsNameChar(out[0], true)) out.insert(out.begin(), '_');
  return out;
}

qeb::result_t MetricsHub::Register(qeb::telemetry::IMetricsCollector* collector,
                                   uint64_t* handle) noexcept {
  if (!collector || !handle) return qeb::res::InvalidArgument;
  try {
    qeb::objptr_t<qeb::telemetry::IMetricsCollector> held(collector);
    std::lock_guard lock(m_mutex);
    *handle = m_nextHandle++;
    m_collectors.emplace(*handle, std::move(held));
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t MetricsHub::Unregister(uint64_t handle) noexcept {
  qeb::objptr_t<qeb::telemetry::IMetricsCollector> released;  // let go outside the lock
  std::unique_lock lock(m_mutex);
  const auto it = m_collectors.find(handle);
  if (it == m_collectors.end()) return qeb::res::NotFound;
  released = std::move(it->second);
  m_collectors.erase(it);
  m_collectDone.wait(lock, [&] {
    return m_running != handle || m_runningThread == std::this_thread::get_id();
  });
  return qeb::res::Ok;
}

template <class T, class I>
qeb::result_t MetricsHub::Create(const char* name, const char* description, I** out) noexcept {
  if (!name || !out) return qeb::res::InvalidArgument;
  *out = nullptr;
  constexpr bool isCounter = std::is_same_v<T, HostCounter>;
  try {
    std::lock_guard lock(m_mutex);
    Metric& metric = m_metrics[SanitiseMetricName(name)];
    if (!metric.counter && !metric.gauge) {
      metric.help = description ? description : "";
      if constexpr (isCounter) metric.counter = qeb::host::MakeHostObject<HostCounter>();
      else metric.gauge = qeb::host::MakeHostObject<HostGauge>();
    }
    T* existing;
    if constexpr (isCounter) existing = metric.counter.Get();
    else existing = metric.gauge.Get();
    if (!existing) return qeb::res::AlreadyExists;  // the name is taken by the other kind
    existing->AddRef();
    *out = existing;
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t MetricsHub::CreateCounter(const char* name, const char* description,
                                        monitoring::ICounter** counter) noexcept {
  return Create<HostCounter>(name, description, counter);
}

qeb::result_t MetricsHub::CreateGauge(const char* name, const char* description,
                                      monitoring::IGauge** gauge) noexcept {
  return Create<HostGauge>(name, description, gauge);
}

std::vector<MetricSample> MetricsHub::Gather() {
  RunCollectors();
  return ReadMetrics();
}

// One collector at a time, each marked running so that its Unregister waits for it.
void MetricsHub::RunCollectors() {
  std::vector<uint64_t> handles;
  {
    std::lock_guard lock(m_mutex);
    for (const auto& entry : m_collectors) handles.push_back(entry.first);
  }
  for (const uint64_t handle : handles) {
    qeb::objptr_t<qeb::telemetry::IMetricsCollector> collector;
    {
      std::lock_guard lock(m_mutex);
      const auto it = m_collectors.find(handle);
      if (it == m_collectors.end()) continue;
      collector = it->second;
      m_running = handle;
      m_runningThread = std::this_thread::get_id();
    }
    collector->Collect();
    {
      std::lock_guard lock(m_mutex);
      m_running = 0;
      m_runningThread = {};
    }
    m_collectDone.notify_all();
  }
}

std::vector<MetricSample> MetricsHub::ReadMetrics() {
  std::lock_guard lock(m_mutex);
  std::vector<MetricSample> samples;
  for (const auto& [name, metric] : m_metrics) {
    const bool counter = static_cast<bool>(metric.counter);
    const int64_t value = counter ? metric.counter->Value() : metric.gauge->Value();
    samples.push_back({name, metric.help, counter, value});
  }
  return samples;
}

std::string RenderMetrics(const std::vector<MetricSample>& samples, const HostMetrics& host) {
  std::string page;
  for (const auto& sample : samples) {
    AppendHeader(page, sample.name, sample.help, sample.counter ? "counter" : "gauge");
    page += sample.name + ' ' + std::to_string(sample.value) + '\n';
  }
  AppendHostMetrics(page, host);
  return page;
}

MetricsWriter::MetricsWriter(qeb::objptr_t<qeb::ITracer> tracer, qeb::objptr_t<MetricsHub> hub,
                             const HostMetrics& host, std::string path, uint32_t intervalS)
    : m_tracer(std::move(tracer)),
      m_hub(std::move(hub)),
      m_host(host),
      m_path(std::move(path)),
      m_intervalS(intervalS ? intervalS : 1) {}

MetricsWriter::~MetricsWriter() { TearDown(); }

void MetricsWriter::Start() {
  if (m_path.empty() || m_thread.joinable()) return;
  m_thread = std::thread([this] { Loop(); });
}

void MetricsWriter::RequestWrite() {
  {
    std::lock_guard lock(m_mutex);
    m_requested = true;
  }
  m_wake.notify_all();
}

void MetricsWriter::TearDown() noexcept {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void MetricsWriter::Loop() {
  std::unique_lock lock(m_mutex);
  while (!m_stopping) {
    m_wake.wait_for(lock, std::chrono::seconds(m_intervalS),
                    [&] { return m_stopping || m_requested; });
    if (m_stopping) break;
    m_requested = false;
    lock.unlock();
    WriteOnce();
    lock.lock();
  }
}

std::string MetricsWriter::WriteOnce() {
  if (m_path.empty()) return "no metrics file";
  std::lock_guard lock(m_writeMutex);
  const std::string error = ReplaceFile(m_path, RenderMetrics(m_hub->Gather(), m_host), 0644);
  if (!error.empty()) {
    QEB_TRACE(m_tracer, qeb::trace::LevelError) << "Cannot write the metrics file: " << error;
  }
  return error;
}

}  // namespace oasd
