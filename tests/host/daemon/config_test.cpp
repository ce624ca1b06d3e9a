// Config file and command-line mapping: each class of bad input names its key, a full
// config lands in the settings record field for field, and watched paths become scan areas.
// Every config lives in its own temporary directory, removed with the test.
#include "host/daemon/config.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/utf.h"
#include "testing/fake_files.h"

namespace {

using oasd::CommandLine;
using oasd::ConfigError;
using qeb::testing::TempDir;

std::string ErrorOf(const std::string& path) {
  try {
    oasd::LoadConfigFile(path);
  } catch (const ConfigError& e) {
    return e.what();
  }
  return "no error";
}

CommandLine Parse(std::vector<std::string> args) {
  args.insert(args.begin(), "oasd");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  return oasd::ParseCommandLine(static_cast<int>(argv.size()), argv.data());
}

std::string CommandLineError(std::vector<std::string> args) {
  try {
    Parse(std::move(args));
  } catch (const ConfigError& e) {
    return e.what();
  }
  return "no error";
}

TEST(HostConfig, EveryBadInputNamesItsKey) {
  TempDir dir;
  const std::string ok = "\"watch\": [\"" + dir.Path() + "\"]";
  const std::string notDir = dir.Write("plain", "x");
  const struct {
    std::string body;
    std::string message;
  } cases[] = {
      {ok + R"(, "settings": {"ScanSettings": {"ScanSettingsBase": {"time_limit": "1"}}})",
       R"(config key "settings.ScanSettings.ScanSettingsBase.time_limit": expected an unsigned integer)"},
      {ok + R"(, "engine_delay_ms": -1)", R"("engine_delay_ms": expected an unsigned integer)"},
      {ok + R"(, "metrics_listen": "127.0.0.1")", R"("metrics_listen": expected ADDRESS:PORT)"},
      {ok + R"(, "verdict_timeout_ms": 4294967296)", R"("verdict_timeout_ms": expected an unsigned integer up to 4294967295)"},
      {ok + R"(, "skipPlainTextFiles": true)", R"("skipPlainTextFiles": unknown key)"},
      {ok + R"(, "settings": {"skipPlainTextFiles": 1})", R"("settings.skipPlainTextFiles": expected a boolean)"},
      {ok + R"(, "settings": {"ScanSettings": {"ExcludeMasks": {"masks": []}}})",
       R"("settings.ScanSettings.ExcludeMasks.masks": unknown key)"},
      {ok + R"(, "settings": {"ScanScopeWithTrustedPrograms": {"scan_scope": [{"pth": "/"}]}})",
       R"("settings.ScanScopeWithTrustedPrograms.scan_scope[0].pth": unknown key)"},
      {R"("settings": {"ScanScopeWithTrustedPrograms": {"scan_scope": [{"path": "/", "use_scan_area": true}, {"path": "/no/such/dir", "use_scan_area": true}]}})",
       R"("settings.ScanScopeWithTrustedPrograms.scan_scope[1].path": path "/no/such/dir" does not exist)"},
      {ok + R"(, "settings": {"ScanScopeWithTrustedPrograms": {"excluded_for_program": [{"TrustedProgram": {"description": 7}}]}})",
       R"("settings.ScanScopeWithTrustedPrograms.excluded_for_program[0].TrustedProgram.description": expected a string)"},
      {R"("watch": [")" + dir.Path() + R"(", "/no/such/dir"])", R"("watch[1]": path "/no/such/dir" does not exist)"},
      {R"("watch": ")" + dir.Path() + R"(")", R"("watch": expected an array)"},
      {ok + R"(, "signature_dir": ")" + notDir + R"(")", R"("signature_dir": directory ")" + notDir + R"(" is not readable)"},
      {ok + R"(, "engine": "magic")", R"("engine": expected "clamav" or "none")"},
      {ok + R"(, "unscanned_action": "block")", R"("unscanned_action": expected "allow" or "deny")"},
      {ok + R"(, "log_level": 500)", R"("log_level": expected "error", "notice")"},
      {ok + R"(, "applications": {"postgres": 5})", R"("applications.postgres": expected a string)"},
      {ok + R"(, "metrics_interval_s": 0)", R"("metrics_interval_s": expected an unsigned integer of at least 1)"},
      {R"("settings": {"ScanScopeWithTrustedPrograms": {"scan_scope": [{"path": "/", "use_scan_area": false}]}})",
       R"(config key "watch": nothing to watch)"},
      {ok + ",", "malformed JSON"},
      // A key given twice would quietly mean the last one.
      {ok + R"(, "engine": "none", "engine": "clamav")", R"(config key "engine": duplicate key)"},
      {ok + R"(, "settings": {"ScanScopeWithTrustedPrograms": {"scan_scope": [{"path": "/"}, {"path": "/", "area_mask": [{}], "path": "/x"}]}})",
       R"("settings.ScanScopeWithTrustedPrograms.scan_scope[1].path": duplicate key)"},
      // Values that would switch protection off without saying so.
      {ok + R"(, "permission_deadline_ms": 0)", R"("permission_deadline_ms": 0 would let every open through)"},
      {ok + R"(, "verdict_timeout_ms": 0)", R"("verdict_timeout_ms": expected at least 1)"},
      {ok + R"(, "verdict_timeout_ms": 40000, "permission_deadline_ms": 30000)",
       R"("verdict_timeout_ms": 40000 is longer than permission_deadline_ms (30000))"},
      {ok + R"(, "stop_timeout_ms": 0)", R"("stop_timeout_ms": expected at least 1)"},
  };
  for (const auto& c : cases) {
    const std::string message = ErrorOf(dir.Write("oasd.json", "{" + c.body + "}"));
    EXPECT_NE(message.find(c.message), std::string::npos) << c.body << "\n  gave: " << message;
  }
  EXPECT_NE(ErrorOf(dir.Write("oasd.json", "[]")).find("expected a JSON object"), std::string::npos);
  EXPECT_NE(ErrorOf(dir.Path() + "/missing.json").find("cannot be read"), std::string::npos);
}

TEST(HostConfig, FullConfigLandsInTheRecordAndOptions) {
  TempDir dir;
  const std::string area = dir.Path();
  const std::string text = R"({
    "engine": "none", "signature_dir": ")" + area + R"(", "engine_delay_ms": 7,
    "checked_cache_entries": 9, "verdict_timeout_ms": 11, "permission_deadline_ms": 13,
    "log_level": "detail", "log_file": "/l", "events_file": "/e", "metrics_file": "/m",
    "metrics_interval_s": 17, "module_path": "/mod.so", "applications": {"mysqld": "MySQL"},
    "unscanned_action": "deny", "deadline_action": "deny",
    "settings": {
      "ScanSettings": {
        "ScanSettingsBase": {"scan_archived": true, "scan_sfx_archived": true,
          "scan_mail_bases": true, "scan_plain_mail": true, "time_limit": 18446744073709551615,
          "size_limit": 2, "infected_action": 5, "report_clean_objects": true,
          "report_packed_objects": true, "report_unprocessed_objects": true,
          "use_ichecker": false, "use_sandbox": true, "scan_filter": 1},
        "ExcludeMasks": {"use_exclude_masks": true, "exclude_masks": ["*.log", "*.tmp"]},
        "ExcludeThreats": {"use_exclude_threats": true, "exclude_threats": ["EICAR"]},
        "EmulatorSettings": {"use_emulator": true, "heuristic_level": 3}},
      "ScanScopeWithTrustedPrograms": {
        "scan_scope": [{"area_desc": "Données", "path": ")" + area + R"(", "area_mask": ["*.exe"], "use_scan_area": true}],
        "excluded_from_scan_scope": [{"path": "/proc/*", "area_mask": ["*"], "use_scan_area": true}],
        "excluded_for_program": [{"path": "/var", "area_mask": ["*"],
          "TrustedProgram": {"programPath": "/usr/bin/backup", "description": "Sauvegarde",
                             "applyToDescendants": true, "useTrustedProgram": true}}]},
      "scan_access_type": 3, "skipPlainTextFiles": false, "skipDatabaseJournals": false}})";
  const oasd::HostOptions o = oasd::LoadConfigFile(dir.Write("oasd.json", text));

  nox::settings::OASSettings want;
  want.ScanSettings.ScanSettingsBase = {true, true, true, true, UINT64_MAX, 2, 5,
                                        true, true, true, false, true, 1};
  want.ScanSettings.ExcludeMasks = {true, {"*.log", "*.tmp"}};
  want.ScanSettings.ExcludeThreats = {true, {"EICAR"}};
  want.ScanSettings.EmulatorSettings = {true, 3};
  auto& scope = want.ScanScopeWithTrustedPrograms;
  scope.scan_scope = {{qeb::Utf8ToUtf16("Données"), area, {"*.exe"}, true}};
  scope.excluded_from_scan_scope = {{"/proc/*", {"*"}, true}};
  scope.excluded_for_program = {{{"/usr/bin/backup", u"Sauvegarde", true, true}, "/var", {"*"}}};
  want.scan_access_type = 3;
  EXPECT_EQ(o.settings, want);

  EXPECT_EQ(o.engine, oasd::EngineKind::None);
  EXPECT_EQ(o.signatureDir, area);
  EXPECT_EQ(std::vector<uint32_t>({o.engineDelayMs, o.checkedCacheEntries, o.verdictTimeoutMs,
                                   o.permissionDeadlineMs, o.logLevel, o.metricsIntervalS}),
            std::vector<uint32_t>({7, 9, 11, 13, 800, 17}));
  EXPECT_EQ(o.logFile + o.eventsFile + o.metricsFile + o.modulePath, "/l/e/m/mod.so");
  EXPECT_EQ(o.applications, (std::map<std::string, std::string>{{"mysqld", "MySQL"}}));
  EXPECT_TRUE(o.denyUnscanned && o.denyAtDeadline);
}

TEST(HostConfig, WatchedPathsBecomeCanonicalScanAreasOverTheDefaults) {
  TempDir dir;
  std::filesystem::create_directory(dir.Path() + "/a");
  std::filesystem::create_directory_symlink(dir.Path() + "/a", dir.Path() + "/link");
  const auto canonical = std::filesystem::canonical(dir.Path() + "/a").string();

  const oasd::HostOptions o = oasd::OptionsFromWatchPaths({dir.Path() + "/link/"});
  EXPECT_EQ(o.watchPaths, std::vector<std::string>{canonical});
  nox::settings::OASSettings want = oasd::DefaultSettings();
  want.ScanScopeWithTrustedPrograms.scan_scope = {
      {qeb::Utf8ToUtf16(canonical), canonical, {"*"}, true}};
  EXPECT_EQ(o.settings, want);

  // A partial "settings" keeps the other defaults; "watch" adds to the file's own areas.
  const std::string config = dir.Write("oasd.json", R"({"watch": [")" + canonical + R"("],
      "settings": {"skipPlainTextFiles": false, "ScanScopeWithTrustedPrograms":
        {"scan_scope": [{"path": "/", "use_scan_area": true}]}}})");
  const auto fromFile = oasd::LoadConfigFile(config).settings;
  ASSERT_EQ(fromFile.ScanScopeWithTrustedPrograms.scan_scope.size(), 2u);
  EXPECT_EQ(fromFile.ScanScopeWithTrustedPrograms.scan_scope[1].path, canonical);
  EXPECT_FALSE(fromFile.skipPlainTextFiles);
  EXPECT_EQ(fromFile.scan_access_type, want.scan_access_type);
  EXPECT_EQ(fromFile.ScanSettings, want.ScanSettings);
}

TEST(HostConfig, CommandLineOverridesTheFileAndNamesBadOptions) {
  TempDir dir;
  const std::string config = dir.Write("oasd.json", R"({"watch": [")" + dir.Path() +
                                                        R"("], "engine": "clamav", "log_level": 300})");
  const CommandLine line = Parse({"--config", config, "--engine", "none", "--log-level", "800",
                                  "--events-file", "/ev", "--watch", "/", "--metrics-file", "/me",
                                  "--log-file", "/lo"});
  EXPECT_EQ(line.mode, CommandLine::Run);
  EXPECT_EQ(line.configPath, config);
  EXPECT_EQ(line.options.engine, oasd::EngineKind::None);
  EXPECT_EQ(line.options.logLevel, 800u);
  EXPECT_EQ(line.options.eventsFile + line.options.metricsFile + line.options.logFile, "/ev/me/lo");
  EXPECT_EQ(line.options.watchPaths.size(), 2u);

  EXPECT_EQ(Parse({"--check-config", config}).mode, CommandLine::CheckConfig);
  EXPECT_EQ(Parse({"--watch", "/no/such/dir", "--help"}).mode, CommandLine::Help);
  EXPECT_EQ(Parse({"--watch", dir.Path(), "--log-level", "error"}).options.logLevel, 300u);

  EXPECT_NE(CommandLineError({"--watch", "/", "--engine", "x"}).find(R"(option "--engine": expected)"),
            std::string::npos);
  EXPECT_NE(CommandLineError({"--watch", "/", "--bogus"}).find(R"(option "--bogus")"), std::string::npos);
  EXPECT_NE(CommandLineError({"--watch", "/", "--events-file"}).find("needs a value"), std::string::npos);
  EXPECT_NE(CommandLineError({"--watch"}).find("needs at least one path"), std::string::npos);
  EXPECT_NE(CommandLineError({}).find("nothing to watch"), std::string::npos);
  EXPECT_NE(CommandLineError({"--watch", "/nope/x"}).find(R"("watch[0]")"), std::string::npos);
  EXPECT_NE(CommandLineError({"--config", config, "--check-config", config}).find("only one"),
            std::string::npos);
  const std::string usage = oasd::UsageText();
  for (const char* option : {"--watch", "--config", "--check-config", "--engine", "--log-level",
                             "--log-file", "--events-file", "--metrics-file", "--help"})
    EXPECT_NE(usage.find(option), std::string::npos) << option;
}

TEST(HostConfig, InstalledDefaultConfigIsValid) {
  if (!std::filesystem::is_directory("/home")) GTEST_SKIP() << "no /home on this machine";
  const auto o = oasd::LoadConfigFile(OAS_SOURCE_DIR "/host/daemon/oasd.json");
  EXPECT_EQ(o.watchPaths.size(), 2u);
}

}  // namespace
