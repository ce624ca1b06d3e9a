// Turns a JSON config file and the command line into a HostOptions value. Owns nothing
// beyond the call: every function returns a fresh HostOptions that the caller keeps, and
// a bad input throws ConfigError naming the offending key (exit status is main's business).
// SIGHUP reloads by calling ParseCommandLine again, so command-line overrides survive it.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "host/common/host_options.h"

namespace oasd {

struct ConfigError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Loopback only: the page names no user's file, but its counters are nobody else's business.
inline constexpr const char* DefaultMetricsListen = "127.0.0.1:9747";

// The settings record a config gets before its own "settings" are laid over it: intercept
// opens, executions and closes after writing, block detections, let clean plain-text
// files and database journals through from the caches.
nox::settings::OASSettings DefaultSettings();

// Reads, checks and maps a config file; relative paths are taken from the working directory.
HostOptions LoadConfigFile(const std::string& path);

// Options for watching the given paths with every default; the paths must exist.
HostOptions OptionsFromWatchPaths(std::vector<std::string> paths);

struct CommandLine {
  enum Mode { Run, CheckConfig, Help, Restore, ListQuarantine } mode = Run;
  HostOptions options;
  std::string restoreId;  // with Restore
  std::string configPath;  // empty when the options came from --watch alone
};

// Options given on the command line override those of the config file; --watch paths
// are added to the file's. Help never reads a config file.
CommandLine ParseCommandLine(int argc, char** argv);

// The text --help prints.
const char* UsageText() noexcept;

}  // namespace oasd
