// The metrics page as a scraper reads it: the module's metrics under sanitised names with
// their collectors run first, the host's counters and histogram, and a file that is
// always a whole page.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "host/reporting/metrics.h"
#include "host/reporting/metrics_page.h"
#include "testing/capturing_tracer.h"
#include "testing/fake_files.h"
#include "testing/host_object.h"

namespace {

qeb::objptr_t<qeb::ITracer> Sink(const qeb::objptr_t<qeb::testing::CapturingTracer>& tracer) {
  return qeb::objptr_t<qeb::ITracer>(tracer.Get());
}

using qeb::objptr_t;
using qeb::testing::MakeHostObject;

// Sets its gauge when collected; can be told to hold the collection until released.
class GaugeCollector : public qeb::object::Ifaces<qeb::telemetry::IMetricsCollector> {
 public:
  explicit GaugeCollector(objptr_t<monitoring::IGauge> gauge) : m_gauge(std::move(gauge)) {}
  qeb::result_t Collect() noexcept override {
    m_entered = true;
    while (m_hold) std::this_thread::yield();
    return m_gauge->Set(++m_calls);
  }
  std::atomic<bool> m_hold{false};
  std::atomic<bool> m_entered{false};

 private:
  objptr_t<monitoring::IGauge> m_gauge;
  int64_t m_calls = 0;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::shared_ptr<oasd::MetricsPage> Page(const oasd::HostMetrics& host) {
  return std::make_shared<oasd::MetricsPage>(MakeHostObject<oasd::MetricsHub>(), host);
}

TEST(HostMetrics, PageHoldsModuleMetricsAfterCollectionAndHostCounters) {
  auto hub = MakeHostObject<oasd::MetricsHub>();
  objptr_t<monitoring::ICounter> hits, hitsAgain;
  objptr_t<monitoring::IGauge> files;
  ASSERT_EQ(hub->CreateCounter("oas_cache_hits_total", "Hits\nof \\ caches", hits.Ref()), 0);
  ASSERT_EQ(hub->CreateGauge("oas.cache-files", "Files", files.Ref()), 0);
  // A rebuilt cache manager asks again: the count goes on rather than restarting.
  ASSERT_EQ(hub->CreateCounter("oas_cache_hits_total", "Hits", hitsAgain.Ref()), 0);
  objptr_t<monitoring::IGauge> clash;
  EXPECT_EQ(hub->CreateGauge("oas_cache_hits_total", "", clash.Ref()), qeb::res::AlreadyExists);
  hits->Increment(2);
  hitsAgain->Increment(3);
  auto collector = MakeHostObject<GaugeCollector>(files);
  uint64_t handle = 0;
  ASSERT_EQ(hub->Register(collector.Get(), &handle), 0);

  oasd::HostMetrics host;
  host.events = 10;
  host.verdictsDeny = 2;
  host.pending = -1;
  host.RecordScanLatency(50);
  host.RecordScanLatency(3000);
  host.RecordScanLatency(20000000);
  const std::string page = oasd::SerializeMetrics(oasd::MetricFamilies(hub->Gather(), host));

  EXPECT_NE(page.find("# HELP oas_cache_hits_total Hits\\nof \\\\ caches\n"
                      "# TYPE oas_cache_hits_total counter\noas_cache_hits_total 5\n"),
            std::string::npos);
  EXPECT_NE(page.find("# TYPE oas_cache_files gauge\noas_cache_files 1\n"), std::string::npos);
  EXPECT_NE(page.find("# TYPE oasd_events_total counter\noasd_events_total 10\n"), std::string::npos);
  EXPECT_NE(page.find("oasd_verdicts_total{verdict=\"deny\"} 2\n"), std::string::npos);
  EXPECT_NE(page.find("oasd_pending_events -1\n"), std::string::npos);
  EXPECT_NE(page.find("# TYPE oasd_scan_latency_seconds histogram\n"
                      "oasd_scan_latency_seconds_count 3\n"
                      "oasd_scan_latency_seconds_sum 20.00305\n"
                      "oasd_scan_latency_seconds_bucket{le=\"0.0001\"} 1\n"
                      "oasd_scan_latency_seconds_bucket{le=\"0.001\"} 1\n"
                      "oasd_scan_latency_seconds_bucket{le=\"0.005\"} 2\n"),
            std::string::npos);
  EXPECT_NE(page.find("oasd_scan_latency_seconds_bucket{le=\"+Inf\"} 3\n"), std::string::npos);
  EXPECT_EQ(oasd::SanitiseMetricName("9lives/x"), "_9lives_x");
}

TEST(HostMetrics, UnregisterWaitsOutARunningCollection) {
  auto hub = MakeHostObject<oasd::MetricsHub>();
  objptr_t<monitoring::IGauge> gauge;
  ASSERT_EQ(hub->CreateGauge("g", "", gauge.Ref()), 0);
  auto collector = MakeHostObject<GaugeCollector>(gauge);
  uint64_t handle = 0;
  ASSERT_EQ(hub->Register(collector.Get(), &handle), 0);
  collector->m_hold = true;
  std::thread gatherer([&] { hub->Gather(); });
  while (!collector->m_entered) std::this_thread::yield();

  std::atomic<bool> unregistered{false};
  std::thread unregister([&] {
    EXPECT_EQ(hub->Unregister(handle), 0);
    unregistered = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(unregistered);
  collector->m_hold = false;
  unregister.join();
  gatherer.join();
  EXPECT_TRUE(unregistered);
  EXPECT_EQ(hub->Unregister(handle), qeb::res::NotFound);
}

TEST(HostMetrics, WriterReplacesTheFileWholeAndTracesAFailure) {
  qeb::testing::TempDir dir;
  oasd::HostMetrics host;
  host.scans = 7;
  auto tracer = MakeHostObject<qeb::testing::CapturingTracer>();
  const std::string path = dir.Path() + "/metrics.prom";
  oasd::MetricsWriter writer(Sink(tracer), Page(host), path, 60);
  ASSERT_EQ(writer.WriteOnce(), "");
  EXPECT_NE(ReadFile(path).find("oasd_scans_total 7\n"), std::string::npos);

  oasd::MetricsWriter broken(Sink(tracer), Page(host), dir.Path() + "/missing/deeper/metrics.prom", 60);
  EXPECT_NE(broken.WriteOnce(), "");
  EXPECT_TRUE(tracer->Contains("Cannot write the metrics file"));
}

TEST(HostMetrics, ARequestedWriteHappensWithoutWaitingForTheInterval) {
  qeb::testing::TempDir dir;
  oasd::HostMetrics host;
  const std::string path = dir.Path() + "/metrics.prom";
  oasd::MetricsWriter writer(Sink(MakeHostObject<qeb::testing::CapturingTracer>()),
                             Page(host), path, 3600);
  writer.Start();
  writer.RequestWrite();
  while (!std::ifstream(path).good()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  writer.TearDown();
  EXPECT_NE(ReadFile(path).find("oasd_events_total 0\n"), std::string::npos);
}

}  // namespace
