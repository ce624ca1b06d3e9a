// The endpoint is loopback HTTP without authentication, so whoever holds the port while
// oasd is down could answer instead: the page is only read for numbers, and what the events
// file says (root's) is escaped before it reaches the terminal.
#include "host/daemon/status_command.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "host/common/unique_fd.h"
#include "host/daemon/config.h"
#include "host/reporting/log_text.h"

namespace oasd {

namespace {

double Value(const std::map<std::string, double>& page, const std::string& name) {
  const auto it = page.find(name);
  return it == page.end() ? 0 : it->second;
}

std::string Fixed(double value, int digits = 1) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string Age(double seconds) {
  const long long s = std::llround(seconds);
  if (s < 120) return std::to_string(s) + " s";
  if (s < 7200) return std::to_string(s / 60) + " min";
  if (s < 172800) return std::to_string(s / 3600) + " h";
  return std::to_string(s / 86400) + " days";
}

// hits and misses between the pages: "93% of 1200 lookups", or "no lookups".
std::string Ratio(double hits, double misses) {
  const double all = hits + misses;
  if (all <= 0) return "no lookups yet";
  return Fixed(100 * hits / all, 0) + "% of " + Fixed(all, 0) + " lookups";
}

std::string Rate(const std::map<std::string, double>& a, const std::map<std::string, double>& b,
                 const std::string& name, double seconds) {
  return Fixed((Value(b, name) - Value(a, name)) / seconds);
}

void PrintDetections(const std::vector<std::string>& eventLines, std::ostream& out) {
  std::vector<nlohmann::json> detections;
  for (const auto& line : eventLines) {
    auto event = nlohmann::json::parse(line, nullptr, false);
    if (event.is_object() && event.value("type", "") == "detection") detections.push_back(event);
  }
  const size_t shown = std::min<size_t>(detections.size(), 3);
  for (size_t i = detections.size() - shown; i < detections.size(); ++i) {
    const auto& d = detections[i];
    out << "    " << EscapeLogText(d.value("time", "")) << ' ' << EscapeLogText(d.value("threat", ""))
        << " in " << EscapeLogText(d.value("path", "")) << '\n';
  }
}

// The last lines of the events file, at most the last 64 KiB of it.
std::vector<std::string> EventsTail(const std::string& path) {
  std::vector<std::string> lines;
  if (path.empty()) return lines;
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return lines;
  const std::streamoff size = in.tellg();
  in.seekg(size > 65536 ? size - 65536 : 0);
  std::string line;
  if (size > 65536) std::getline(in, line);  // a cut line
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

}  // namespace

std::map<std::string, double> ParseMetricsPage(const std::string& page) {
  std::map<std::string, double> samples;
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t space = line.rfind(' ');
    if (space == std::string::npos) continue;
    char* end = nullptr;
    const double value = std::strtod(line.c_str() + space + 1, &end);
    if (end != line.c_str() + space + 1) samples[line.substr(0, space)] = value;
  }
  return samples;
}

int PrintStatus(const std::map<std::string, double>& first, const std::map<std::string, double>& second,
                double seconds, const HostOptions& options, const std::vector<std::string>& eventLines,
                std::ostream& out) {
  const bool protecting = Value(second, "oasd_protecting") == 1;
  const bool noneEngine = options.engine == EngineKind::None;
  out << "oasd: " << (!protecting ? "running, NOT protecting"
                      : noneEngine ? "running, interception up, engine none (everything allowed)"
                                   : "protecting")
      << '\n';
  out << "  watched: " << Fixed(Value(second, "oasd_watched_paths"), 0) << " paths, "
      << Fixed(Value(second, "oasd_marked_filesystems"), 0) << " filesystems marked\n";
  const double loadedAt = Value(second, "oasd_signatures_loaded_timestamp_seconds");
  out << "  engine: " << (noneEngine ? "none" : "clamav");
  if (!noneEngine)
    out << ", " << Fixed(Value(second, "oasd_signatures"), 0) << " signatures"
        << (loadedAt > 0 ? ", loaded " + Age(static_cast<double>(::time(nullptr)) - loadedAt) + " ago" : "");
  out << '\n';
  out << "  now: " << Rate(first, second, "oasd_events_total", seconds) << " events/s, "
      << Rate(first, second, "oasd_scans_total", seconds) << " scans/s, "
      << Fixed(Value(second, "oasd_pending_events"), 0) << " waiting for a verdict\n";
  out << "  clean caches: module "
      << Ratio(Value(second, "oas_cache_hits_total"), Value(second, "oas_cache_misses_total"))
      << "; engine "
      << Ratio(Value(second, "oasd_checked_cache_hits_total"),
               Value(second, "oasd_checked_cache_misses_total"))
      << '\n';
  out << "  deadline: " << Fixed(Value(second, "oasd_deadline_allows_total"), 0)
      << " opens let through, " << Fixed(Value(second, "oasd_deadline_denies_total"), 0)
      << " refused\n";
  out << "  detections: " << Fixed(Value(second, "oasd_detections_total"), 0) << '\n';
  PrintDetections(eventLines, out);
  return protecting ? StatusProtecting : StatusNotProtecting;
}

std::optional<std::string> FetchMetricsPage(const std::string& address) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  std::string host = address.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), address.c_str() + colon + 1, &hints, &found) != 0) return std::nullopt;
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> info(found, ::freeaddrinfo);
  UniqueFd fd(::socket(info->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{3, 0};  // connect, send and every receive
  ::setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (!fd.Valid() || ::connect(fd.Get(), info->ai_addr, info->ai_addrlen) != 0) return std::nullopt;
  const std::string request = "GET /metrics HTTP/1.0\r\nHost: " + address + "\r\n\r\n";
  if (::send(fd.Get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
    return std::nullopt;
  std::string response;
  char buffer[16384];
  for (ssize_t n; (n = ::recv(fd.Get(), buffer, sizeof buffer, 0)) > 0;) {
    response.append(buffer, static_cast<size_t>(n));
    if (response.size() > (16u << 20)) return std::nullopt;  // no page is that large
  }
  const size_t body = response.find("\r\n\r\n");
  if (!response.starts_with("HTTP/1.") || response.find(" 200 ") != 8 || body == std::string::npos)
    return std::nullopt;
  return response.substr(body + 4);
}

int RunStatusCommand(int argc, char** argv) {
  HostOptions options;
  options.metricsListen = DefaultMetricsListen;
  options.eventsFile = "/var/log/oasd/events.jsonl";
  std::string config = OASD_INSTALL_CONFIG;
  const bool named = argc == 2 && std::string(argv[0]) == "--config";
  if (argc != 0 && !named) {
    std::cerr << "usage: oasd status [--config FILE]\n";
    return StatusUnknown;
  }
  if (named) config = argv[1];
  if (named || ::access(config.c_str(), F_OK) == 0) {
    try {
      options = LoadConfigFile(config);
    } catch (const std::exception& error) {
      std::cerr << "oasd: " << error.what() << '\n';
      return StatusUnknown;
    }
  }
  if (options.metricsListen.empty()) {
    std::cerr << "oasd: metrics_listen is empty in " << config << ": nothing to ask\n";
    return StatusUnknown;
  }
  const auto first = FetchMetricsPage(options.metricsListen);
  if (!first) {
    std::cout << "oasd: not running (no answer at " << options.metricsListen << ")\n";
    return StatusNotRunning;
  }
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto second = FetchMetricsPage(options.metricsListen);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!second) {
    std::cout << "oasd: not running (stopped answering at " << options.metricsListen << ")\n";
    return StatusNotRunning;
  }
  return PrintStatus(ParseMetricsPage(*first), ParseMetricsPage(*second), seconds, options,
                     EventsTail(options.eventsFile), std::cout);
}

}  // namespace oasd
