// What the settings in force ask of one scan: the libclamav options, which files are
// scanned at all, which paths and threat names are excluded, what an infected file gets and
// what the events file carries. A plain value built from HostOptions at start and on each
// SIGHUP; the engine swaps it whole and each scan keeps the one it started with.
#pragma once

#include <clamav.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/common/host_options.h"
#include "host/system/trusted_programs.h"  // MaskMatches

namespace oasd {

// What oasd does with an infected file, from ActionOnThreat.
enum class InfectedAction {
  Block,   // Block, Recommended, and Disinfect (libclamav cannot disinfect)
  Remove,  // Remove, DisinfectOrRemove: denied, then moved to quarantine
  Notify,  // reported; the module lets the access go on
};

struct ScanPolicy {
  bool archives = true;      // scan_archived
  bool sfxArchives = true;   // scan_sfx_archived: archives inside executables
  bool mailBases = true;     // scan_mail_bases: mbox files
  bool plainMail = true;     // scan_plain_mail: single messages
  uint32_t heuristics = 0;   // CL_SCAN_HEURISTIC_* from use_emulator and heuristic_level
  uint32_t filter = 0;       // scan_filter (ExtensionFilter)
  std::vector<std::string> excludedMasks;
  std::vector<std::string> excludedThreats;
  InfectedAction action = InfectedAction::Block;
  bool disinfectAsked = false;  // infected_action Disinfect: blocked, and the line says so
  bool reportClean = false;
  bool reportPacked = false;
  bool reportUnprocessed = true;
};

ScanPolicy PolicyFor(const HostOptions& options);

bool PathExcluded(const ScanPolicy& policy, const std::string& path) noexcept;
// Threat names match as masks too, so "Heuristics.*" excludes every heuristic alert.
bool ThreatExcluded(const ScanPolicy& policy, const std::string& threat) noexcept;

// Whether scan_filter selects the file: by name (path) or by its first bytes (fd).
bool FilterSelects(const ScanPolicy& policy, int fd, const std::string& path) noexcept;

// The libclamav options for the file behind fd, whose first bytes tell an executable
// (archives inside it follow scan_sfx_archived) and an mbox (scan_mail_bases) apart.
cl_scan_options ScanOptionsFor(const ScanPolicy& policy, int fd) noexcept;

}  // namespace oasd
