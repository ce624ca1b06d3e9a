// JSON and command-line mapping onto HostOptions. Each record type has one table of its
// keys (FieldsOf), and one generic reader walks a JSON value against it, so an unknown or
// mistyped key is caught at any depth with its full key path. Faults travel as KeyError
// inside this file and leave it only as ConfigError, worded for a file key or an option.
#include "host/daemon/config.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <sstream>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "framework/qeb/utf.h"
#include "host/daemon/trusted_file.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {
namespace {

using json = nlohmann::json;
namespace fs = std::filesystem;
namespace ns = nox::settings;

// Where a fault was found (a dotted key path) and what was wrong there.
struct KeyError {
  std::string key;
  std::string what;
};

[[noreturn]] void Fail(std::string key, std::string what) {
  throw KeyError{std::move(key), std::move(what)};
}

std::string Child(const std::string& key, const std::string& name) {
  return key.empty() ? name : key + "." + name;
}

std::string Item(const std::string& key, size_t index) {
  return key + "[" + std::to_string(index) + "]";
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

// One key of a JSON object and what to do with its value.
struct Field {
  std::string name;
  std::function<void(const json&, const std::string&)> read;
};
using FieldTable = std::vector<Field>;

void ReadObject(const json& value, const std::string& key, const FieldTable& fields) {
  if (!value.is_object()) Fail(key, "expected an object");
  for (const auto& [name, member] : value.items()) {
    const auto field = std::find_if(fields.begin(), fields.end(),
                                    [&name = name](const Field& f) { return f.name == name; });
    if (field == fields.end()) Fail(Child(key, name), "unknown key");
    field->read(member, Child(key, name));
  }
}

bool ReadBool(const json& value, const std::string& key) {
  if (!value.is_boolean()) Fail(key, "expected a boolean");
  return value.get<bool>();
}

template <class T>
T ReadUnsigned(const json& value, const std::string& key) {
  if (!value.is_number_unsigned()) Fail(key, "expected an unsigned integer");
  const auto number = value.get<uint64_t>();
  if (number > std::numeric_limits<T>::max())
    Fail(key, "expected an unsigned integer up to " +
                  std::to_string(std::numeric_limits<T>::max()));
  return static_cast<T>(number);
}

std::string ReadString(const json& value, const std::string& key) {
  if (!value.is_string()) Fail(key, "expected a string");
  return value.get<std::string>();
}

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

// The tables of the settings record, one per member type; defined below.
FieldTable FieldsOf(ns::ScanSettingsBase& s);
FieldTable FieldsOf(ns::ExcludeMasks& s);
FieldTable FieldsOf(ns::ExcludeThreats& s);
FieldTable FieldsOf(ns::EmulatorSettings& s);
FieldTable FieldsOf(ns::ScanSettings& s);
FieldTable FieldsOf(ns::ScanScope& s);
FieldTable FieldsOf(ns::ScanScopeExclusion& s);
FieldTable FieldsOf(ns::TrustedProgram& s);
FieldTable FieldsOf(ns::ProgramExclusion& s);
FieldTable FieldsOf(ns::ScanScopeWithTrustedPrograms& s);
FieldTable FieldsOf(ns::OASSettings& s);

// Objects lay their keys over what `out` already holds; lists replace it whole.
template <class T>
void Read(const json& value, const std::string& key, T& out) {
  if constexpr (std::is_same_v<T, bool>) {
    out = ReadBool(value, key);
  } else if constexpr (std::is_unsigned_v<T>) {
    out = ReadUnsigned<T>(value, key);
  } else if constexpr (std::is_same_v<T, std::string>) {
    out = ReadString(value, key);
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    out = qeb::Utf8ToUtf16(ReadString(value, key));
  } else if constexpr (IsVector<T>::value) {
    if (!value.is_array()) Fail(key, "expected an array");
    T items(value.size());
    for (size_t i = 0; i < value.size(); ++i) Read(value[i], Item(key, i), items[i]);
    out = std::move(items);
  } else {
    ReadObject(value, key, FieldsOf(out));
  }
}

template <class T>
Field F(std::string name, T& member) {
  return {std::move(name), [&member](const json& value, const std::string& key) {
            Read(value, key, member);
          }};
}

FieldTable FieldsOf(ns::ScanSettingsBase& s) {
  return {F("scan_archived", s.scan_archived),
          F("scan_sfx_archived", s.scan_sfx_archived),
          F("scan_mail_bases", s.scan_mail_bases),
          F("scan_plain_mail", s.scan_plain_mail),
          F("time_limit", s.time_limit),
          F("size_limit", s.size_limit),
          F("infected_action", s.infected_action),
          F("report_clean_objects", s.report_clean_objects),
          F("report_packed_objects", s.report_packed_objects),
          F("report_unprocessed_objects", s.report_unprocessed_objects),
          F("use_ichecker", s.use_ichecker),
          F("use_sandbox", s.use_sandbox),
          F("scan_filter", s.scan_filter)};
}

FieldTable FieldsOf(ns::ExcludeMasks& s) {
  return {F("use_exclude_masks", s.use_exclude_masks), F("exclude_masks", s.exclude_masks)};
}

FieldTable FieldsOf(ns::ExcludeThreats& s) {
  return {F("use_exclude_threats", s.use_exclude_threats),
          F("exclude_threats", s.exclude_threats)};
}

FieldTable FieldsOf(ns::EmulatorSettings& s) {
  return {F("use_emulator", s.use_emulator), F("heuristic_level", s.heuristic_level)};
}

FieldTable FieldsOf(ns::ScanSettings& s) {
  return {F("ScanSettingsBase", s.ScanSettingsBase), F("ExcludeMasks", s.ExcludeMasks),
          F("ExcludeThreats", s.ExcludeThreats), F("EmulatorSettings", s.EmulatorSettings)};
}

FieldTable FieldsOf(ns::ScanScope& s) {
  return {F("area_desc", s.area_desc), F("path", s.path), F("area_mask", s.area_mask),
          F("use_scan_area", s.use_scan_area)};
}

FieldTable FieldsOf(ns::ScanScopeExclusion& s) {
  return {F("path", s.path), F("area_mask", s.area_mask), F("use_scan_area", s.use_scan_area)};
}

FieldTable FieldsOf(ns::TrustedProgram& s) {
  return {F("programPath", s.programPath), F("description", s.description),
          F("applyToDescendants", s.applyToDescendants),
          F("useTrustedProgram", s.useTrustedProgram)};
}

FieldTable FieldsOf(ns::ProgramExclusion& s) {
  return {F("TrustedProgram", s.TrustedProgram), F("path", s.path), F("area_mask", s.area_mask)};
}

FieldTable FieldsOf(ns::ScanScopeWithTrustedPrograms& s) {
  return {F("scan_scope", s.scan_scope), F("excluded_from_scan_scope", s.excluded_from_scan_scope),
          F("excluded_for_program", s.excluded_for_program)};
}

FieldTable FieldsOf(ns::OASSettings& s) {
  return {F("ScanSettings", s.ScanSettings),
          F("ScanScopeWithTrustedPrograms", s.ScanScopeWithTrustedPrograms),
          F("scan_access_type", s.scan_access_type),
          F("skipPlainTextFiles", s.skipPlainTextFiles),
          F("skipDatabaseJournals", s.skipDatabaseJournals)};
}

EngineKind ReadEngine(const json& value, const std::string& key) {
  const std::string name = ReadString(value, key);
  if (name == "clamav") return EngineKind::ClamAV;
  if (name == "none") return EngineKind::None;
  Fail(key, "expected \"clamav\" or \"none\"");
}

uint32_t ReadLogLevel(const json& value, const std::string& key) {
  static const std::pair<const char*, uint32_t> kLevels[] = {
      {"error", qeb::trace::LevelError},
      {"notice", qeb::trace::LevelNotice},
      {"detail", qeb::trace::LevelDetail}};
  for (const auto& [name, level] : kLevels) {
    if (value.is_string() && value.get<std::string>() == name) return level;
    if (value.is_number_unsigned() && value.get<uint64_t>() == level) return level;
  }
  Fail(key, "expected \"error\", \"notice\", \"detail\", 300, 700 or 800");
}

// unscanned_action and deadline_action: true for "deny".
bool ReadDenyAction(const json& value, const std::string& key) {
  const std::string action = ReadString(value, key);
  if (action != "allow" && action != "deny") Fail(key, "expected \"allow\" or \"deny\"");
  return action == "deny";
}

std::map<std::string, std::string> ReadApplications(const json& value, const std::string& key) {
  if (!value.is_object()) Fail(key, "expected an object");
  std::map<std::string, std::string> applications;
  for (const auto& [name, category] : value.items())
    applications[name] = ReadString(category, Child(key, name));
  return applications;
}

FieldTable TopLevelFields(HostOptions& o) {
  return {
      F("watch", o.watchPaths),
      {"engine", [&o](const json& v, const std::string& k) { o.engine = ReadEngine(v, k); }},
      F("signature_dir", o.signatureDir),
      F("quarantine_dir", o.quarantineDir),
      F("clamav_database_dir", o.clamavDatabaseDir),
      F("signature_check_interval_s", o.signatureCheckIntervalS),
      F("engine_delay_ms", o.engineDelayMs),
      F("checked_cache_entries", o.checkedCacheEntries),
      F("kernel_cache", o.kernelCache),
      F("kernel_cache_entries", o.kernelCacheEntries),
      F("verdict_timeout_ms", o.verdictTimeoutMs),
      F("permission_deadline_ms", o.permissionDeadlineMs),
      F("stop_timeout_ms", o.stopTimeoutMs),
      {"unscanned_action",
       [&o](const json& v, const std::string& k) { o.denyUnscanned = ReadDenyAction(v, k); }},
      {"deadline_action",
       [&o](const json& v, const std::string& k) { o.denyAtDeadline = ReadDenyAction(v, k); }},
      {"log_level", [&o](const json& v, const std::string& k) { o.logLevel = ReadLogLevel(v, k); }},
      F("log_file", o.logFile),
      F("events_file", o.eventsFile),
      F("metrics_file", o.metricsFile),
      F("metrics_interval_s", o.metricsIntervalS),
      F("metrics_listen", o.metricsListen),
      F("module_path", o.modulePath),
      {"applications",
       [&o](const json& v, const std::string& k) { o.applications = ReadApplications(v, k); }},
      F("settings", o.settings),
  };
}

// ---- Checks that need the filesystem, and the watch shorthand ----

bool IsMask(const std::string& path) { return path.find_first_of("*?[") != std::string::npos; }

void RequireExisting(const std::string& path, const std::string& key) {
  std::error_code ec;
  if (!fs::exists(path, ec)) Fail(key, "path " + Quoted(path) + " does not exist");
}

void CheckScanScope(const ns::OASSettings& settings) {
  const std::string key = "settings.ScanScopeWithTrustedPrograms.scan_scope";
  const auto& scope = settings.ScanScopeWithTrustedPrograms.scan_scope;
  for (size_t i = 0; i < scope.size(); ++i)
    if (scope[i].use_scan_area && !IsMask(scope[i].path))
      RequireExisting(scope[i].path, Child(Item(key, i), "path"));
}

void CheckSignatureDir(const std::string& dir) {
  if (dir.empty()) return;
  std::error_code ec;
  if (!fs::is_directory(dir, ec) || ::access(dir.c_str(), R_OK | X_OK) != 0)
    Fail("signature_dir", "directory " + Quoted(dir) + " is not readable");
}

// Watched paths become scan areas covering every file below them; the events provider
// marks and filters from these, so the path is made canonical once, here.
void ApplyWatchPaths(HostOptions& o) {
  for (size_t i = 0; i < o.watchPaths.size(); ++i) {
    RequireExisting(o.watchPaths[i], Item("watch", i));
    std::error_code ec;
    const fs::path canonical = fs::canonical(o.watchPaths[i], ec);
    if (ec) Fail(Item("watch", i), "path " + Quoted(o.watchPaths[i]) + ": " + ec.message());
    o.watchPaths[i] = canonical.string();
    o.settings.ScanScopeWithTrustedPrograms.scan_scope.push_back(
        {qeb::Utf8ToUtf16(o.watchPaths[i]), o.watchPaths[i], {"*"}, true});
  }
}

void RequireSomethingWatched(const ns::OASSettings& settings) {
  const auto& scope = settings.ScanScopeWithTrustedPrograms.scan_scope;
  if (std::none_of(scope.begin(), scope.end(), [](const auto& a) { return a.use_scan_area; }))
    Fail("watch", "nothing to watch: no watch path and no scan_scope entry in use");
}

// "ADDRESS:PORT" ("[::1]:PORT" for IPv6), a port a scraper can be told: 1 to 65535.
void CheckListenAddress(const std::string& listen) {
  if (listen.empty()) return;
  const size_t colon = listen.rfind(':');
  const std::string port = colon == std::string::npos ? "" : listen.substr(colon + 1);
  const bool digits = !port.empty() && port.size() <= 5 &&
                      std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (colon == 0 || !digits || std::stoul(port) == 0 || std::stoul(port) > 65535)
    Fail("metrics_listen", "expected ADDRESS:PORT with a port from 1 to 65535, or \"\" for none");
}

// Values that would quietly switch protection off are refused, not taken literally.
void CheckLimits(const HostOptions& o) {
  if (o.permissionDeadlineMs == 0)
    Fail("permission_deadline_ms", "0 would let every open through unscanned; expected at least 1");
  if (o.verdictTimeoutMs == 0)
    Fail("verdict_timeout_ms", "expected at least 1 (0 would stand for the module's own 30000)");
  if (o.verdictTimeoutMs > o.permissionDeadlineMs)
    Fail("verdict_timeout_ms", std::to_string(o.verdictTimeoutMs) + " is longer than "
                               "permission_deadline_ms (" + std::to_string(o.permissionDeadlineMs) +
                               "): the deadline would let opens through before the verdict");
  if (o.stopTimeoutMs == 0) Fail("stop_timeout_ms", "expected at least 1");
  if (o.signatureCheckIntervalS == 0) Fail("signature_check_interval_s", "expected at least 1");
  if (o.metricsIntervalS == 0)
    Fail("metrics_interval_s", "expected an unsigned integer of at least 1");
  CheckListenAddress(o.metricsListen);
}

void Finish(HostOptions& o) {
  CheckScanScope(o.settings);
  ApplyWatchPaths(o);
  RequireSomethingWatched(o.settings);
  CheckSignatureDir(o.signatureDir);
  CheckLimits(o);
}

// The output files default to directories only root may enter, made 0750 at start.
HostOptions DefaultOptions() {
  HostOptions o;
  o.settings = DefaultSettings();
  o.eventsFile = "/var/log/oasd/events.jsonl";
  o.metricsFile = "/run/oasd/metrics.prom";
  o.metricsListen = DefaultMetricsListen;
  return o;
}

ConfigError KeyFault(const KeyError& e) {
  return ConfigError("config key " + Quoted(e.key) + ": " + e.what);
}

// ---- The config file ----

// Follows the parser through the document so that a key given twice in one object, which
// the parser would quietly resolve to the last, is refused with its full key path.
class DuplicateKeys {
 public:
  void Event(json::parse_event_t event, const json& parsed) {
    using E = json::parse_event_t;
    switch (event) {
      case E::object_start: m_frames.push_back({ValuePath(), false, 0, {}}); break;
      case E::array_start: m_frames.push_back({ValuePath(), true, 0, {}}); break;
      case E::key: {
        Frame& top = m_frames.back();
        m_key = Child(top.path, parsed.get<std::string>());
        if (!top.keys.insert(parsed.get<std::string>()).second) Fail(m_key, "duplicate key");
        break;
      }
      case E::object_end:
      case E::array_end: m_frames.pop_back(); [[fallthrough]];
      case E::value:
        if (!m_frames.empty() && m_frames.back().array) ++m_frames.back().index;
        break;
    }
  }

 private:
  struct Frame {
    std::string path;
    bool array = false;
    size_t index = 0;
    std::set<std::string> keys;
  };
  std::string ValuePath() const {
    if (m_frames.empty()) return {};
    return m_frames.back().array ? Item(m_frames.back().path, m_frames.back().index) : m_key;
  }
  std::vector<Frame> m_frames;
  std::string m_key;
};

json ParseFile(const std::string& path) {
  if (const std::string fault = UntrustedFile(path); !fault.empty())
    throw ConfigError("config file " + fault);
  std::ifstream in(path);
  if (!in)
    throw ConfigError("config file " + Quoted(path) + ": cannot be read: " + std::strerror(errno));
  std::stringstream text;
  text << in.rdbuf();
  DuplicateKeys duplicates;
  try {
    return json::parse(text.str(), [&duplicates](int, json::parse_event_t event, json& parsed) {
      duplicates.Event(event, parsed);
      return true;
    });
  } catch (const json::exception& e) {
    throw ConfigError("config file " + Quoted(path) + ": malformed JSON: " + e.what());
  } catch (const KeyError& e) {
    throw KeyFault(e);
  }
}

void ReadConfigInto(HostOptions& o, const std::string& path) {
  const json document = ParseFile(path);
  if (!document.is_object())
    throw ConfigError("config file " + Quoted(path) + ": expected a JSON object at the top level");
  try {
    ReadObject(document, "", TopLevelFields(o));
  } catch (const KeyError& e) {
    throw KeyFault(e);
  }
}

void FinishOrThrow(HostOptions& o) {
  try {
    Finish(o);
  } catch (const KeyError& e) {
    throw KeyFault(e);
  }
}

// ---- The command line ----

// Options that take one value and stand for a config key; the value is read as that key.
struct ValueOption {
  const char* option;
  const char* key;
};
constexpr ValueOption kValueOptions[] = {
    {"--engine", "engine"},
    {"--log-level", "log_level"},
    {"--log-file", "log_file"},
    {"--events-file", "events_file"},
    {"--metrics-file", "metrics_file"},
    {"--metrics-listen", "metrics_listen"},
};

struct RawCommandLine {
  CommandLine::Mode mode = CommandLine::Run;
  std::optional<CommandLine::Mode> quarantineMode;  // --restore, --list-quarantine
  std::string restoreId;
  std::string configPath;
  std::vector<std::string> watchPaths;
  json overrides = json::object();
};

[[noreturn]] void FailOption(const std::string& option, const std::string& what) {
  throw ConfigError("option " + Quoted(option) + ": " + what);
}

// A level given as digits on the command line means the number, as in the file.
json OptionValue(const std::string& key, const std::string& text) {
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  if (key == "log_level" && digits && text.size() < 10) return std::stoul(text);
  return text;
}

void SetConfigPath(RawCommandLine& raw, const std::string& option, const std::string& path,
                   CommandLine::Mode mode) {
  if (!raw.configPath.empty())
    FailOption(option, "only one of --config and --check-config may be given");
  raw.configPath = path;
  raw.mode = mode;
}

RawCommandLine ScanArguments(const std::vector<std::string>& args) {
  RawCommandLine raw;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const auto next = [&]() -> const std::string& {
      if (i + 1 >= args.size()) FailOption(arg, "needs a value");
      return args[++i];
    };
    if (arg == "--help" || arg == "-h") return RawCommandLine{CommandLine::Help, {}, {}, {}, {}, {}};
    if (arg == "--watch") {
      const size_t before = raw.watchPaths.size();
      while (i + 1 < args.size() && !args[i + 1].starts_with("--"))
        raw.watchPaths.push_back(args[++i]);
      if (raw.watchPaths.size() == before) FailOption(arg, "needs at least one path");
    } else if (arg == "--no-kernel-cache") {
      raw.overrides["kernel_cache"] = false;
    } else if (arg == "--config") {
      SetConfigPath(raw, arg, next(), CommandLine::Run);
    } else if (arg == "--restore") {
      raw.restoreId = next();
      raw.quarantineMode = CommandLine::Restore;
    } else if (arg == "--list-quarantine") {
      raw.quarantineMode = CommandLine::ListQuarantine;
    } else if (arg == "--check-config") {
      SetConfigPath(raw, arg, next(), CommandLine::CheckConfig);
    } else {
      const auto option = std::find_if(std::begin(kValueOptions), std::end(kValueOptions),
                                       [&](const ValueOption& o) { return arg == o.option; });
      if (option == std::end(kValueOptions)) FailOption(arg, "unknown option (see --help)");
      raw.overrides[option->key] = OptionValue(option->key, next());
    }
  }
  return raw;
}

void ApplyOverrides(HostOptions& o, const json& overrides) {
  try {
    ReadObject(overrides, "", TopLevelFields(o));
  } catch (const KeyError& e) {
    const auto option = std::find_if(std::begin(kValueOptions), std::end(kValueOptions),
                                     [&](const ValueOption& v) { return e.key == v.key; });
    FailOption(option == std::end(kValueOptions) ? e.key : option->option, e.what);
  }
}

}  // namespace

nox::settings::OASSettings DefaultSettings() {
  ns::OASSettings settings;
  settings.scan_access_type = 2;  // on open and on modification
  auto& base = settings.ScanSettings.ScanSettingsBase;
  base.infected_action = 3;  // block
  base.use_ichecker = true;
  base.scan_filter = 0;  // all files
  // Everything libclamav can open is opened, as before these keys did anything.
  base.scan_archived = base.scan_sfx_archived = base.scan_mail_bases = base.scan_plain_mail = true;
  base.report_unprocessed_objects = true;
  settings.ScanSettings.EmulatorSettings.use_emulator = true;
  settings.ScanSettings.EmulatorSettings.heuristic_level = 3;  // recommended
  settings.skipPlainTextFiles = true;
  settings.skipDatabaseJournals = true;
  return settings;
}

HostOptions LoadConfigFile(const std::string& path) {
  HostOptions o = DefaultOptions();
  ReadConfigInto(o, path);
  FinishOrThrow(o);
  return o;
}

HostOptions OptionsFromWatchPaths(std::vector<std::string> paths) {
  HostOptions o = DefaultOptions();
  o.watchPaths = std::move(paths);
  FinishOrThrow(o);
  return o;
}

CommandLine ParseCommandLine(int argc, char** argv) {
  const std::vector<std::string> args(argv + std::min(argc, 1), argv + argc);
  RawCommandLine raw = ScanArguments(args);
  CommandLine line;
  line.mode = raw.mode;
  if (raw.mode == CommandLine::Help) return line;
  if (raw.quarantineMode) {
    // Only the quarantine's place is needed: nothing is watched or checked.
    line.mode = *raw.quarantineMode;
    line.restoreId = raw.restoreId;
    line.options = DefaultOptions();
    if (!raw.configPath.empty()) ReadConfigInto(line.options, raw.configPath);
    ApplyOverrides(line.options, raw.overrides);
    return line;
  }
  if (raw.configPath.empty() && raw.watchPaths.empty())
    throw ConfigError("nothing to watch: give --watch PATH... or --config FILE (see --help)");
  line.configPath = raw.configPath;
  line.options = DefaultOptions();
  if (!raw.configPath.empty()) ReadConfigInto(line.options, raw.configPath);
  auto& watch = line.options.watchPaths;
  watch.insert(watch.end(), raw.watchPaths.begin(), raw.watchPaths.end());
  ApplyOverrides(line.options, raw.overrides);
  FinishOrThrow(line.options);
  return line;
}

const char* UsageText() noexcept {
  return "Usage: oasd [OPTION]...\n"
         "On-access file scanning daemon: scans files as they are opened, executed or\n"
         "written under the watched paths and denies access to infected ones.\n"
         "\n"
         "  --watch PATH...         watch these paths (added to the config file's)\n"
         "  --config FILE           read the JSON config FILE (reread on SIGHUP)\n"
         "  --check-config FILE     check the JSON config FILE and exit\n"
         "  --list-quarantine       print the quarantine's records (quarantine_dir), one a line\n"
         "  --restore ID            put a quarantined file back where it was, with its owner\n"
         "                          and mode\n"
         "  --engine clamav|none    scanning engine (default clamav; none allows everything)\n"
         "  --log-level LEVEL       error, notice or detail (or 300, 700, 800; default notice)\n"
         "  --log-file FILE         append the log to FILE (default: stderr)\n"
         "  --events-file FILE      append detections and processing errors as JSON lines\n"
         "                          (default /var/log/oasd/events.jsonl; \"\" for none)\n"
         "  --metrics-file FILE     write Prometheus metrics to FILE (every metrics_interval_s\n"
         "                          seconds and on SIGUSR1; default /run/oasd/metrics.prom)\n"
         "  --no-kernel-cache       every open of a clean file goes through oasd (for comparison)\n"
         "  --metrics-listen ADDR   serve the metrics over HTTP on ADDR:PORT (default\n"
         "                          127.0.0.1:9747; \"\" for none)\n"
         "  status [--config FILE]  ask the running oasd how it is doing (exit 0 protecting,\n"
         "                          1 not protecting, 3 not running)\n"
         "  -h, --help              print this help and exit\n"
         "\n"
         "Command-line options override the config file. Signals: SIGHUP reloads the\n"
         "configuration and reopens the output files, SIGUSR1 writes the metrics, SIGTERM\n"
         "and SIGINT stop.\n"
         "Exit status: 0 after a clean stop, 1 on a runtime failure, 2 on a bad configuration.\n";
}

}  // namespace oasd
