// The server is prometheus-cpp's (civetweb underneath); it throws when it cannot listen, and
// that is turned into a message here so nothing leaves as an exception.
#include "host/reporting/metrics_endpoint.h"

#include <exception>

#include <prometheus/exposer.h>

namespace oasd {

MetricsEndpoint::MetricsEndpoint() = default;

MetricsEndpoint::~MetricsEndpoint() { TearDown(); }

std::string MetricsEndpoint::Start(const std::string& address,
                                   std::weak_ptr<prometheus::Collectable> page) {
  if (address.empty() || m_exposer) return {};
  try {
    // One serving thread: a scrape is rare and cheap, and oasd's threads are for openers.
    auto exposer = std::make_unique<prometheus::Exposer>(address, 1);
    exposer->RegisterCollectable(page);
    m_exposer = std::move(exposer);
    return {};
  } catch (const std::exception& error) {
    return "cannot listen on " + address + ": " + error.what();
  } catch (...) {
    return "cannot listen on " + address;
  }
}

int MetricsEndpoint::Port() const {
  if (!m_exposer) return 0;
  const auto ports = m_exposer->GetListeningPorts();
  return ports.empty() ? 0 : ports.front();
}

void MetricsEndpoint::TearDown() noexcept { m_exposer.reset(); }

}  // namespace oasd
