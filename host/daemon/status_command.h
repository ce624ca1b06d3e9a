// `oasd status`: asks a running oasd through its metrics endpoint and prints in a few lines
// how it is doing. Holds nothing past the call: two pages a second apart, the options
// of the configuration file, the last lines of its events file.
#pragma once

#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/common/host_options.h"

namespace oasd {

// Exit statuses, after `systemctl status`.
inline constexpr int StatusProtecting = 0;
inline constexpr int StatusNotProtecting = 1;  // oasd answers, interception is not up
inline constexpr int StatusNotRunning = 3;
inline constexpr int StatusUnknown = 4;        // the configuration could not be read

// Samples of a Prometheus text page by "name" or "name{labels}" as written.
std::map<std::string, double> ParseMetricsPage(const std::string& page);

// The report from two pages taken `seconds` apart and the events file's last lines; answers
// the exit status.
int PrintStatus(const std::map<std::string, double>& first, const std::map<std::string, double>& second,
                double seconds, const HostOptions& options, const std::vector<std::string>& eventLines,
                std::ostream& out);

// The page at http://ADDRESS:PORT/metrics, or nothing when no one answers in time.
std::optional<std::string> FetchMetricsPage(const std::string& address);

// The whole command, argv after "status": [--config FILE].
int RunStatusCommand(int argc, char** argv);

}  // namespace oasd
