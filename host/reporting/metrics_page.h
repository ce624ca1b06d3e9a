// The metrics page in prometheus-cpp's form: the module's metrics as the hub holds them, then
// oasd's own counters from HostMetrics. Owns nothing but references to the hub and the
// counters (both outlive it); the endpoint and the file writer each serialise what it collects.
#pragma once

#include <string>
#include <vector>

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include "framework/qeb/objptr.h"
#include "host/common/host_metrics.h"
#include "host/reporting/metrics.h"

namespace oasd {

std::vector<prometheus::MetricFamily> MetricFamilies(const std::vector<MetricSample>& module,
                                                     const HostMetrics& host);

// Prometheus text of the families, through the library's serializer.
std::string SerializeMetrics(const std::vector<prometheus::MetricFamily>& families);

class MetricsPage final : public prometheus::Collectable {
 public:
  MetricsPage(qeb::objptr_t<MetricsHub> hub, const HostMetrics& host)
      : m_hub(std::move(hub)), m_host(host) {}
  // Runs the module's collectors first. Never throws (it runs on the HTTP server's
  // threads): a page that cannot be built is empty.
  std::vector<prometheus::MetricFamily> Collect() const override;

 private:
  qeb::objptr_t<MetricsHub> m_hub;
  const HostMetrics& m_host;
};

}  // namespace oasd
