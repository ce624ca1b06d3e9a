// The hub never calls a collector under its own lock (only under the gathering lock, which
// nothing else takes), and Unregister waits out a running Collect unless the collector itself
// is the caller. The writer serialises the page outside every lock but its own and replaces
// the metrics file with a rename, so a reader never sees half a page; a new file each time,
// so log rotation has nothing to reopen.
#include "host/reporting/metrics.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>

#include "host/reporting/metrics_page.h"
#include "host/reporting/output_file.h"
#include "nox_tracing/tracing.h"

namespace oasd {

namespace {

bool IsNameChar(char c, bool first) {
  const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
  return letter || (!first && c >= '0' && c <= '9');
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
  // Two gatherings at once would share m_running, and an Unregister could miss one.
  std::lock_guard gathering(m_gatherMutex);
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

MetricsWriter::MetricsWriter(qeb::objptr_t<qeb::ITracer> tracer,
                             std::shared_ptr<const prometheus::Collectable> page, std::string path,
                             uint32_t intervalS)
    : m_tracer(std::move(tracer)),
      m_page(std::move(page)),
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
  const std::string error = ReplaceFile(m_path, SerializeMetrics(m_page->Collect()), 0644);
  if (!error.empty()) {
    QEB_TRACE(m_tracer, qeb::trace::LevelError) << "Cannot write the metrics file: " << error;
  }
  return error;
}

}  // namespace oasd
