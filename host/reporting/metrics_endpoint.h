// The HTTP endpoint Prometheus scrapes (GET /metrics). Owns the server and its threads from
// Start to TearDown; it only reads the page it is given, whose owner keeps it alive until
// TearDown has returned.
#pragma once

#include <memory>
#include <string>

#include <prometheus/collectable.h>

namespace prometheus {
class Exposer;
}

namespace oasd {

class MetricsEndpoint {
 public:
  MetricsEndpoint();
  ~MetricsEndpoint();
  MetricsEndpoint(const MetricsEndpoint&) = delete;
  MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

  // Listens on "ADDRESS:PORT" ("[::1]:PORT" for IPv6); answers why it cannot, naming the
  // address. An empty address serves nothing.
  std::string Start(const std::string& address, std::weak_ptr<prometheus::Collectable> page);
  // The port listened on (the one picked when the address asked for port 0), or 0.
  int Port() const;
  // Stops serving: every request in progress has finished when it returns.
  void TearDown() noexcept;

 private:
  std::unique_ptr<prometheus::Exposer> m_exposer;
};

}  // namespace oasd
