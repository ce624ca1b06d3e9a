// oasd's entry point: reads the command line, then hands everything to the Daemon (or to
// `oasd status`, which answers with its own statuses). It owns only the mapping of outcomes
// to exit status: 2 for a bad configuration, 1 for a start that failed, 0 for a clean stop
// or a configuration check that passed.
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "host/daemon/config.h"
#include "host/daemon/daemon.h"
#include "host/daemon/preflight.h"
#include "host/system/quarantine.h"
#include "host/daemon/status_command.h"

namespace {

int RunDaemon(const oasd::CommandLine& commandLine, int argc, char** argv) {
  // A reload parses the same command line again, so its overrides outlive the reload.
  oasd::Daemon::ReloadFunction reload;
  if (!commandLine.configPath.empty())
    reload = [argc, argv] { return oasd::ParseCommandLine(argc, argv).options; };
  oasd::Daemon daemon(commandLine.options, std::move(reload));
  return daemon.Run();
}

// --restore and --list-quarantine: 0 when done, 1 when the quarantine refused.
int RunQuarantine(const oasd::CommandLine& commandLine) {
  const oasd::Quarantine quarantine(commandLine.options.quarantineDir);
  try {
    if (commandLine.mode == oasd::CommandLine::Restore) {
      std::cout << "restored " << quarantine.Restore(commandLine.restoreId) << std::endl;
    } else {
      for (const auto& record : quarantine.List()) std::cout << record << '\n';
    }
  } catch (const std::exception& error) {
    std::cerr << "oasd: " << error.what() << '\n';
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::string(argv[1]) == "status") return oasd::RunStatusCommand(argc - 2, argv + 2);
  // Before anything can start a thread: every thread inherits the blocked set, so the
  // signals reach only the main loop's descriptor.
  oasd::Daemon::BlockSignals();
  oasd::CommandLine commandLine;
  try {
    commandLine = oasd::ParseCommandLine(argc, argv);
  } catch (const oasd::ConfigError& error) {
    std::cerr << "oasd: " << error.what() << '\n';
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "oasd: " << error.what() << '\n';
    return 2;
  }
  if (commandLine.mode == oasd::CommandLine::Help) {
    std::cout << oasd::UsageText();
    return 0;
  }
  if (commandLine.mode == oasd::CommandLine::Restore ||
      commandLine.mode == oasd::CommandLine::ListQuarantine)
    return RunQuarantine(commandLine);
  if (commandLine.mode == oasd::CommandLine::CheckConfig) {
    try {
      oasd::CheckRunNeeds(commandLine.options);
    } catch (const std::exception& error) {
      std::cerr << "oasd: " << error.what() << '\n';
      return 2;
    }
    std::cout << "config OK" << std::endl;
    return 0;
  }
  try {
    return RunDaemon(commandLine, argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "oasd: " << error.what() << '\n';
    return 1;
  }
}
