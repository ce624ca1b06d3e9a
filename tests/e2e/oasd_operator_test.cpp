// What an operator's tools see of a running oasd: the metrics endpoint read by a real
// Prometheus parser, and systemd's notify protocol on a socket of the sandbox's own (never
// the real /run/systemd). Each scenario runs in its own sandbox (oasd_harness.h); HTTP goes
// to 127.0.0.1 only, on a port the test picked.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <sys/stat.h>

#include <map>

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
    s.Expect(delta(R"(oasd_events_by_kind_total{kind="open"})") >= 2, "opens by kind did not move");
    s.Expect(delta("oasd_detections_total") == 1, "detections:\n" + after->dump());
    s.Expect(delta(R"(oasd_verdicts_total{verdict="deny"})") >= 1, "deny verdicts did not move");
    s.Expect(after->contains("oas_cache_hits_total"), "no module metric:\n" + after->dump());
    s.Expect(after->value("oasd_signatures", 0.0) >= 1, "no signature count");
    s.Expect(after->contains(R"(oasd_scan_latency_seconds_bucket{le="+Inf"})"), "no histogram");
  });
}

long long MillisSince(Clock::time_point start) {
  return std::chrono::duration_cast<Millis>(Clock::now() - start).count();
}

// A datagram socket at path standing for systemd's, named to oasd through NOTIFY_SOCKET.
int NotifySocket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  return fd;
}

std::optional<std::string> Receive(int fd, Millis limit) {
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
  char buffer[4096];
  const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
  return n < 0 ? std::nullopt : std::optional<std::string>(std::string(buffer, n));
}

// Messages until one contains what, or the limit; answers whether it came.
bool ReceiveUntil(int fd, const std::string& what, std::vector<std::string>& seen,
                  Millis limit = 10s) {
  const auto end = Clock::now() + limit;
  while (Clock::now() < end) {
    const auto message = Receive(fd, std::chrono::duration_cast<Millis>(end - Clock::now()));
    if (!message) return false;
    seen.push_back(*message);
    if (message->find(what) != std::string::npos) return true;
  }
  return false;
}

std::string Joined(const std::vector<std::string>& messages) {
  std::string text;
  for (const auto& m : messages) text += "[" + m + "] ";
  return text;
}

// The open made the moment READY=1 arrives must already be refused: readiness means protection.
TEST(OasdOperator, ReadyOnlyOnceProtectingThenStatusReloadAndStop) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    WriteFile(eicar, kEicar);
    const int fd = NotifySocket(s.State("notify.sock"));
    if (fd < 0) return s.Expect(false, "cannot bind the notify socket");
    std::vector<std::string> early;
    std::optional<Exit> openAtReady;
    std::thread listener([&] {
      if (ReceiveUntil(fd, "READY=1", early, kReadyLimit))
        openAtReady = InChild([&] { return OpenAndRead(eicar); });
    });
    const bool started = s.StartOasd("");
    listener.join();
    if (!started) return;
    s.Expect(openAtReady.has_value(), "no READY=1: " + Joined(early));
    s.Expect(!openAtReady || openAtReady->Denied(),
             "the EICAR open at READY=1: " + (openAtReady ? openAtReady->Text() : ""));
    std::vector<std::string> later;
    s.Expect(ReceiveUntil(fd, "STATUS=protecting 1 paths", later), "no status: " + Joined(later));
    ::kill(s.Oasd(), SIGHUP);
    s.Expect(ReceiveUntil(fd, "RELOADING=1", later), "no RELOADING=1: " + Joined(later));
    s.Expect(ReceiveUntil(fd, "READY=1", later), "no READY=1 after the reload: " + Joined(later));
    const pid_t oasd = s.Oasd();
    ::kill(oasd, SIGTERM);
    s.Expect(ReceiveUntil(fd, "STOPPING=1", later), "no STOPPING=1: " + Joined(later));
    s.StopOasd();
    ::close(fd);
  });
}

// A scan that never returns stalls the worker pool: past the scan time limit (1 s here) and
// the margin, WATCHDOG=1 stops, while the deadline still lets the opener through.
TEST(OasdOperator, WatchdogIsPettedUntilTheWorkersStall) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string stuck = s.Watched("stuck.bin");
    WriteFile(stuck, std::string("\x7f\x01\x02stuck", 8));
    const int fd = NotifySocket(s.State("notify.sock"));
    if (fd < 0) return s.Expect(false, "cannot bind the notify socket");
    ::setenv("WATCHDOG_USEC", "1000000", 1);
    if (!s.StartOasd(R"("engine_delay_ms": 600000, "verdict_timeout_ms": 300,)"
                     R"( "permission_deadline_ms": 1000, "stop_timeout_ms": 2000,)"
                     R"( "settings": {"ScanSettings": {"ScanSettingsBase": {"time_limit": 1}}})"))
      return;
    std::vector<std::string> seen;
    s.Expect(ReceiveUntil(fd, "WATCHDOG=1", seen, 3s), "no WATCHDOG=1 while idle: " + Joined(seen));
    s.Expect(InChild([&] { return OpenAndRead(stuck); }).Is(0), "the opener was not let through");
    // 1 s of time limit and 5 s of margin from the scan's start; then silence.
    const auto openedAt = Clock::now();
    auto lastPet = openedAt;
    while (Clock::now() - openedAt < 11s) {
      const auto message = Receive(fd, 500ms);
      if (message && message->find("WATCHDOG=1") != std::string::npos) lastPet = Clock::now();
    }
    const auto quietMs = MillisSince(lastPet);
    s.Expect(quietMs >= 3000, "WATCHDOG=1 went on with the pool stuck (" +
                                  std::to_string(quietMs) + " ms since the last)");
    s.Expect(s.OasdLog().find("the worker pool has made no progress") != std::string::npos,
             "the stall was not logged");
    s.StopOasd(1);  // the scan never ends: the stop gives up on it
    ::close(fd);
  });
}

// One datagram of the journal's native protocol: KEY=value lines, or KEY, a newline, a 64-bit
// little-endian length and that many bytes, for a value holding a line break.
std::map<std::string, std::string> JournalFields(const std::string& data) {
  std::map<std::string, std::string> fields;
  for (size_t pos = 0; pos < data.size();) {
    const size_t end = data.find('\n', pos);
    if (end == std::string::npos) break;
    const std::string line = data.substr(pos, end - pos);
    if (const size_t eq = line.find('='); eq != std::string::npos) {
      fields[line.substr(0, eq)] = line.substr(eq + 1);
      pos = end + 1;
      continue;
    }
    uint64_t length = 0;
    for (int i = 7; i >= 0 && end + 1 + i < data.size(); --i)
      length = length << 8 | static_cast<unsigned char>(data[end + 1 + i]);
    fields[line] = data.substr(end + 9, length);
    pos = end + 9 + length + 1;
  }
  return fields;
}

// Under systemd (stderr is the journal's stream) each detection is a journal record with its
// fields; the journal's socket is the sandbox's own, on a tmpfs over /run.
TEST(OasdOperator, DetectionsReachTheJournalWithFieldsAFileNameCannotForge) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string plain = s.Watched("eicar.com"), forging = s.Watched("x\nOASD_THREAT=none");
    WriteFile(plain, kEicar);
    WriteFile(forging, kEicar);
    if (const std::string error = s.MountTmpfs("/run", "mode=0755"); !error.empty())
      return s.Expect(false, error);
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string("/run/systemd/journal/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      return s.Expect(false, "cannot bind the journal socket");
    // oasd's stderr file, made now so that JOURNAL_STREAM can name it.
    WriteFile(s.State("stderr.txt"), "");
    struct stat st {};
    ::stat(s.State("stderr.txt").c_str(), &st);
    const std::string stream = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
    ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    if (!s.StartOasd("")) return;
    s.Expect(InChild([&] { return OpenAndRead(plain); }).Denied(), "opening the EICAR file");
    s.Expect(InChild([&] { return OpenAndRead(forging); }).Denied(), "opening the forging file");
    std::map<std::string, std::map<std::string, std::string>> byPath;
    std::string seen;
    for (const auto end = Clock::now() + 10s; byPath.size() < 2 && Clock::now() < end;) {
      const auto message = Receive(fd, 1s);
      if (!message) continue;
      auto fields = JournalFields(*message);
      seen += "[" + *message + "] ";
      if (fields["OASD_EVENT"] == "detection") byPath[fields["OASD_PATH"]] = fields;
    }
    s.Expect(byPath.size() == 2, "journal records: " + seen);
    for (const auto& [path, fields] : byPath) {
      s.Expect(path == plain || path == forging, "OASD_PATH " + path);
      s.Expect(fields.at("OASD_THREAT").find("Eicar") == 0, "OASD_THREAT of " + path);
      for (const char* key : {"OASD_PID", "OASD_UID", "OASD_OPERATION", "MESSAGE", "PRIORITY"})
        s.Expect(fields.contains(key), std::string("no ") + key + " in the record of " + path);
    }
    ::close(fd);
  });
}

// `oasd status` reads the same configuration as the oasd it asks.
TEST(OasdOperator, StatusReportsARunningOasdAndExits3ForAStoppedOne) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    WriteFile(eicar, kEicar);
    const int port = FreeLoopbackPort();
    if (!s.StartOasd(R"("metrics_listen": "127.0.0.1:)" + std::to_string(port) + "\"")) return;
    const std::string config = s.State("oasd.json");
    s.Expect(InChild([&] { return OpenAndRead(eicar); }).Denied(), "opening the EICAR file");
    s.Expect(s.AwaitEvent("detection", eicar), "no detection line for " + eicar);
    std::string running;
    const Exit answered = RunOasdToEnd(s.State("status.txt"), {"status", "--config", config}, running);
    Sandbox::Note("oasd status:\n" + running);
    s.Expect(answered.Is(0), "status of a running oasd: " + answered.Text() + "\n" + running);
    for (const char* line : {"oasd: protecting\n", "watched: 1 paths, 1 filesystems marked",
                             "engine: clamav, 1 signatures, loaded", "detections: 1\n",
                             "Eicar-Test-Signature in " })
      s.Expect(running.find(line) != std::string::npos, std::string("no \"") + line + "\" in:\n" + running);
    s.Expect(running.find(eicar) != std::string::npos, "the last detection's path:\n" + running);
    s.StopOasd();
    std::string stopped;
    const Exit unanswered = RunOasdToEnd(s.State("status.txt"), {"status", "--config", config}, stopped);
    s.Expect(unanswered.Is(3), "status of a stopped oasd: " + unanswered.Text() + "\n" + stopped);
    s.Expect(stopped.starts_with("oasd: not running"), stopped);
  });
}

}  // namespace
}  // namespace oasd_e2e
