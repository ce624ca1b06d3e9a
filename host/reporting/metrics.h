// oasd's metrics: the registry and factory the module publishes through, and the writer of
// the metrics file. The hub owns the metric objects by name (the module gets references) and
// the collectors from Register until Unregister; the writer owns its thread and shares the
// page (metrics_page.h) with the HTTP endpoint, reading it only.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <prometheus/collectable.h>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "interfaces/nox/metrics.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// A metric name as Prometheus accepts it: [a-zA-Z_:][a-zA-Z0-9_:]*, other bytes become '_'.
std::string SanitiseMetricName(const std::string& name);

struct MetricSample {
  std::string name;  // sanitised
  std::string help;
  bool counter = false;  // a counter, else a gauge
  int64_t value = 0;
};

class HostCounter : public qeb::object::Ifaces<monitoring::ICounter> {
 public:
  qeb::result_t Increment(uint64_t n) noexcept override {
    m_value.fetch_add(n, std::memory_order_relaxed);
    return qeb::res::Ok;
  }
  int64_t Value() const noexcept { return static_cast<int64_t>(m_value.load()); }

 private:
  std::atomic<uint64_t> m_value{0};
};

class HostGauge : public qeb::object::Ifaces<monitoring::IGauge> {
 public:
  qeb::result_t Set(int64_t value) noexcept override {
    m_value.store(value, std::memory_order_relaxed);
    return qeb::res::Ok;
  }
  int64_t Value() const noexcept { return m_value.load(); }

 private:
  std::atomic<int64_t> m_value{0};
};

class MetricsHub : public qeb::object::Ifaces<qeb::telemetry::IMetricsRegistry,
                                              monitoring::IMetricsFactory> {
 public:
  qeb::result_t Register(qeb::telemetry::IMetricsCollector* collector,
                         uint64_t* handle) noexcept override;
  qeb::result_t Unregister(uint64_t handle) noexcept override;

  // A name asked for again answers the metric already made under it, so a counter
  // survives the module rebuilding its caches and stays monotonic.
  qeb::result_t CreateCounter(const char* name, const char* description,
                              monitoring::ICounter** counter) noexcept override;
  qeb::result_t CreateGauge(const char* name, const char* description,
                            monitoring::IGauge** gauge) noexcept override;

  // Runs every registered collector (outside the lock) and reads every metric after. One
  // gathering at a time (the endpoint and the file writer ask from their own threads).
  std::vector<MetricSample> Gather();

 private:
  struct Metric {
    std::string help;
    qeb::objptr_t<HostCounter> counter;  // exactly one of the two is set
    qeb::objptr_t<HostGauge> gauge;
  };
  template <class T, class I>
  qeb::result_t Create(const char* name, const char* description, I** out) noexcept;
  void RunCollectors();
  std::vector<MetricSample> ReadMetrics();

  std::mutex m_gatherMutex;  // held across collectors: documented above, never taken inside
  std::mutex m_mutex;
  std::condition_variable m_collectDone;
  std::map<uint64_t, qeb::objptr_t<qeb::telemetry::IMetricsCollector>> m_collectors;
  uint64_t m_nextHandle = 1;
  uint64_t m_running = 0;  // handle whose Collect is in progress, 0 when none
  std::thread::id m_runningThread;
  std::map<std::string, Metric> m_metrics;
};

class MetricsWriter {
 public:
  MetricsWriter(qeb::objptr_t<qeb::ITracer> tracer,
                std::shared_ptr<const prometheus::Collectable> page, std::string path,
                uint32_t intervalS);
  ~MetricsWriter();

  // Starts the periodic thread; nothing happens without a metrics file.
  void Start();
  // Asks the thread for a page now (SIGUSR1); returns at once.
  void RequestWrite();
  void TearDown() noexcept;
  // Writes one page synchronously (output_file.h's ReplaceFile, mode 0644 so that an
  // unprivileged scraper may read it); answers why it could not, naming the path.
  std::string WriteOnce();

 private:
  void Loop();

  qeb::objptr_t<qeb::ITracer> m_tracer;
  std::shared_ptr<const prometheus::Collectable> m_page;
  const std::string m_path;
  const uint32_t m_intervalS;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_requested = false;
  bool m_stopping = false;
  std::mutex m_writeMutex;
  std::thread m_thread;
};

}  // namespace oasd
