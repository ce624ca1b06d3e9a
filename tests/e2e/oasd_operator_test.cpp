// What an operator's tools see of a running oasd: the metrics endpoint read by a real
// Prometheus parser. Each scenario runs in its own sandbox (oasd_harness.h); HTTP goes to
// 127.0.0.1 only, on a port the test picked.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

// A port free at the time of asking on 127.0.0.1.
int FreeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  ::close(fd);
  return port;
}

// Debian's python3-prometheus-client (so Debian's interpreter) raises on anything that is not
// Prometheus text; the samples come back as {"name{label=\"value\"}": value}.
constexpr const char* kScrape = R"(
import json, math, sys, urllib.request
from prometheus_client.parser import text_string_to_metric_families
page = urllib.request.urlopen(sys.argv[1], timeout=5).read().decode()
out = {}
for family in text_string_to_metric_families(page):
    for s in family.samples:
        labels = ",".join('%s="%s"' % kv for kv in sorted(s.labels.items()))
        value = s.value if math.isfinite(s.value) else str(s.value)
        out[s.name + ("{" + labels + "}" if labels else "")] = value
print(json.dumps(out))
)";

std::optional<nlohmann::json> Scrape(Sandbox& s, int port) {
  std::string output;
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/metrics";
  const std::string outputPath = s.State("scrape.txt");
  const Exit exit = InChild([&] {
    const int fd = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    ::execl("/usr/bin/python3", "python3", "-c", kScrape, url.c_str(), static_cast<char*>(nullptr));
    return 127;
  });
  output = ReadFile(outputPath);
  s.Expect(exit.Is(0), "scraping " + url + ": " + exit.Text() + "\n" + output);
  if (!exit.Is(0)) return std::nullopt;
  auto samples = nlohmann::json::parse(output, nullptr, false);
  s.Expect(samples.is_object(), "not the scraper's answer: " + output);
  if (!samples.is_object()) return std::nullopt;
  return samples;
}

TEST(OasdOperator, EndpointPageParsesAndItsCountersFollowOpensAndDetections) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string clean = s.Watched("clean.txt"), eicar = s.Watched("eicar.com");
    WriteFile(clean, "nothing to see here\n");
    WriteFile(eicar, kEicar);
    const int port = FreeLoopbackPort();
    if (!s.StartOasd(R"("metrics_listen": "127.0.0.1:)" + std::to_string(port) + "\"")) return;
    const auto before = Scrape(s, port);
    s.Expect(InChild([&] { return OpenAndRead(clean); }).Is(0), "opening the clean file");
    s.Expect(InChild([&] { return OpenAndRead(eicar); }).Denied(), "opening the EICAR file");
    s.Expect(s.AwaitEvent("detection", eicar), "no detection line for " + eicar);
    const auto after = Scrape(s, port);
    if (!before || !after) return;
    const auto delta = [&](const char* name) {
      return after->value(name, 0.0) - before->value(name, 0.0);
    };
    s.Expect(delta("oasd_events_total") >= 2, "events did not move:\n" + after->dump());
    s.Expect(delta("oasd_detections_total") == 1, "detections:\n" + after->dump());
    s.Expect(delta(R"(oasd_verdicts_total{verdict="deny"})") >= 1, "deny verdicts did not move");
    s.Expect(after->contains("oas_cache_hits_total"), "no module metric:\n" + after->dump());
    s.Expect(after->value("oasd_signatures", 0.0) >= 1, "no signature count");
    s.Expect(after->contains(R"(oasd_scan_latency_seconds_bucket{le="+Inf"})"), "no histogram");
  });
}

}  // namespace
}  // namespace oasd_e2e
