// Everything oasd is configured with: the module's on-access settings record plus the host's
// own options. Filled from the command line or a JSON config file (config.h) and read-only
// once the daemon runs; a SIGHUP builds a fresh one rather than changing this in place.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "settings/oas_settings.h"

namespace oasd {

enum class EngineKind { ClamAV, None };

struct HostOptions {
  // The module's task settings; scan areas come from "watch" or from settings.scan_scope.
  nox::settings::OASSettings settings;
  std::vector<std::string> watchPaths;

  EngineKind engine = EngineKind::ClamAV;
  std::string signatureDir;         // empty: the bundled signature set
  std::string clamavDatabaseDir = "/var/lib/clamav";  // loaded too when it holds databases
  uint32_t signatureCheckIntervalS = 10;  // how often the signature directories are checked
  std::string quarantineDir = "/var/lib/oasd/quarantine";  // where Remove moves infected files
  uint32_t engineDelayMs = 0;       // a deliberately slow engine, for timeout drills
  uint32_t checkedCacheEntries = 65536;
  bool kernelCache = true;               // fanotify ignore marks answer a clean file's next opens
  uint32_t kernelCacheEntries = 65536;   // past this many marks, all are dropped

  uint32_t verdictTimeoutMs = 30000;     // the module's Init timeout
  uint32_t permissionDeadlineMs = 30000;  // host's hard limit before a pending open is allowed
  uint32_t stopTimeoutMs = 30000;  // a stop that takes longer (a scan that never returns) exits anyway
  bool denyUnscanned = false;   // unscanned_action: what a file the engine did not scan whole gets
  bool denyAtDeadline = false;  // deadline_action: what an open still waiting at the deadline gets

  uint32_t logLevel = 700;  // 300 errors, 700 notices, 800 detail
  std::string logFile;      // empty: stderr
  std::string eventsFile;   // JSON lines of detections and processing errors; empty: none
  std::string metricsFile;  // Prometheus text; empty: none
  uint32_t metricsIntervalS = 5;
  std::string metricsListen;  // "ADDRESS:PORT" served over HTTP; empty: no endpoint
  std::string modulePath;   // empty: liboas.so next to the executable, then the install dir

  std::map<std::string, std::string> applications{{"postgres", "PostgreSQL"}};
};

}  // namespace oasd
