// The on-access task settings record as the host hands it over. Plain data, owned by
// whoever holds the copy; equality compares every member so that unchanged settings
// never rebuild the caches. Printing lives in settings/oas_settings_printer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nox::settings {

struct ScanSettingsBase {
  bool scan_archived = false;
  bool scan_sfx_archived = false;
  bool scan_mail_bases = false;
  bool scan_plain_mail = false;
  uint64_t time_limit = 0;
  uint64_t size_limit = 0;
  uint32_t infected_action = 0;
  bool report_clean_objects = false;
  bool report_packed_objects = false;
  bool report_unprocessed_objects = false;
  bool use_ichecker = false;
  bool use_sandbox = false;
  uint32_t scan_filter = 0;
  bool operator==(const ScanSettingsBase&) const = default;
};

struct ExcludeMasks {
  bool use_exclude_masks = false;
  std::vector<std::string> exclude_masks;
  bool operator==(const ExcludeMasks&) const = default;
};

struct ExcludeThreats {
  bool use_exclude_threats = false;
  std::vector<std::string> exclude_threats;
  bool operator==(const ExcludeThreats&) const = default;
};

struct EmulatorSettings {
  bool use_emulator = false;
  uint32_t heuristic_level = 0;
  bool operator==(const EmulatorSettings&) const = default;
};

struct ScanSettings {
  ::nox::settings::ScanSettingsBase ScanSettingsBase;
  ::nox::settings::ExcludeMasks ExcludeMasks;
  ::nox::settings::ExcludeThreats ExcludeThreats;
  ::nox::settings::EmulatorSettings EmulatorSettings;
  bool operator==(const ScanSettings&) const = default;
};

struct ScanScope {
  std::u16string area_desc;
  std::string path;
  std::vector<std::string> area_mask;
  bool use_scan_area = false;
  bool operator==(const ScanScope&) const = default;
};

struct ScanScopeExclusion {
  std::string path;
  std::vector<std::string> area_mask;
  bool use_scan_area = false;
  bool operator==(const ScanScopeExclusion&) const = default;
};

struct TrustedProgram {
  std::string programPath;
  std::u16string description;
  bool applyToDescendants = false;
  bool useTrustedProgram = false;
  bool operator==(const TrustedProgram&) const = default;
};

struct ProgramExclusion {
  ::nox::settings::TrustedProgram TrustedProgram;
  std::string path;
  std::vector<std::string> area_mask;
  bool operator==(const ProgramExclusion&) const = default;
};

struct ScanScopeWithTrustedPrograms {
  std::vector<ScanScope> scan_scope;
  std::vector<ScanScopeExclusion> excluded_from_scan_scope;
  std::vector<ProgramExclusion> excluded_for_program;
  bool operator==(const ScanScopeWithTrustedPrograms&) const = default;
};

struct OASSettings {
  ::nox::settings::ScanSettings ScanSettings;
  ::nox::settings::ScanScopeWithTrustedPrograms ScanScopeWithTrustedPrograms;
  uint32_t scan_access_type = 0;
  bool skipPlainTextFiles = false;
  bool skipDatabaseJournals = false;
  bool operator==(const OASSettings&) const = default;
};

}  // namespace nox::settings
