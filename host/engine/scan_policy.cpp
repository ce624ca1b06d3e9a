// The settings record speaks of archives, mail and heuristics in the product's terms;
// libclamav has one switch per parser and cannot tell a self-extracting archive from an
// archive, nor an mbox from a message, so those are told apart here by the file's first
// bytes. Heuristic levels only add alerts: CL_SCAN_HEURISTIC_EXCEEDS_MAX stays on in every
// scan, since without it a file past a limit comes back clean.
#include "host/engine/scan_policy.h"

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "framework/enums/enum_names.h"

namespace oasd {
namespace {

using Action = nox::enums::ActionOnThreat::Type;
using Filter = nox::enums::ExtensionFilter::Type;
using Level = nox::enums::HeuristicLevel::Type;

constexpr uint32_t kLight = CL_SCAN_HEURISTIC_BROKEN;
constexpr uint32_t kMedium = kLight | CL_SCAN_HEURISTIC_PHISHING_SSL_MISMATCH |
                             CL_SCAN_HEURISTIC_PHISHING_CLOAK | CL_SCAN_HEURISTIC_PARTITION_INTXN;
constexpr uint32_t kDeep = kMedium | CL_SCAN_HEURISTIC_MACROS | CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE |
                           CL_SCAN_HEURISTIC_ENCRYPTED_DOC | CL_SCAN_HEURISTIC_BROKEN_MEDIA;

// Names that can carry code or hide other files: what ByExtension scans.
constexpr std::array<std::string_view, 52> kCodeExtensions = {
    "7z",   "apk",  "app",  "bat",  "bin",  "bz2",  "cab",  "chm",  "cmd",  "com",  "cpl",
    "deb",  "dll",  "doc",  "docm", "docx", "dot",  "elf",  "eml",  "exe",  "gz",   "hta",
    "htm",  "html", "iso",  "jar",  "js",   "ko",   "lnk",  "mbox", "msi",  "o",    "pdf",
    "pl",   "ppt",  "pptm", "pptx", "ps1",  "py",   "rar",  "rpm",  "rtf",  "scr",  "sh",
    "so",   "sys",  "tar",  "tgz",  "vbs",  "xls",  "xlsm", "xz"};

uint32_t HeuristicsFor(const nox::settings::EmulatorSettings& emulator) {
  if (!emulator.use_emulator) return 0;
  switch (static_cast<Level>(emulator.heuristic_level)) {
    case Level::Light: return kLight;
    case Level::Deep: return kDeep;
    default: return kMedium;  // Medium, Recommended
  }
}

InfectedAction ActionFor(uint32_t value) {
  switch (static_cast<Action>(value)) {
    case Action::Remove:
    case Action::DisinfectOrRemove: return InfectedAction::Remove;
    case Action::Notify: return InfectedAction::Notify;
    default: return InfectedAction::Block;
  }
}

std::string Head(int fd, size_t count) {
  std::string head(count, '\0');
  const ssize_t n = ::pread(fd, head.data(), count, 0);
  head.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return head;
}

bool IsExecutable(std::string_view head) {
  return head.starts_with("MZ") || head.starts_with("\x7f" "ELF");
}

// Formats that can carry code or other files: executables, scripts, archives and
// compressed data, office documents, PDF, RTF, mail and HTML.
bool CodeFormat(std::string_view head) {
  static constexpr std::string_view kMagics[] = {
      "#!",      "PK\x03\x04", "Rar!",   "7z\xbc\xaf", "\x1f\x8b",  "BZh",  "\xfd" "7zXZ",
      "MSCF",    "\xd0\xcf\x11\xe0", "%PDF", "{\\rtf",   "From ",     "Received:",
      "Return-Path:", "<!DOCTYPE html", "<html"};
  return IsExecutable(head) ||
         std::any_of(std::begin(kMagics), std::end(kMagics),
                     [&](std::string_view magic) { return head.starts_with(magic); });
}

std::string Extension(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
  std::string ext = path.substr(dot + 1);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

}  // namespace

ScanPolicy PolicyFor(const HostOptions& options) {
  const auto& scan = options.settings.ScanSettings;
  const auto& base = scan.ScanSettingsBase;
  ScanPolicy policy;
  policy.archives = base.scan_archived;
  policy.sfxArchives = base.scan_sfx_archived;
  policy.mailBases = base.scan_mail_bases;
  policy.plainMail = base.scan_plain_mail;
  policy.heuristics = HeuristicsFor(scan.EmulatorSettings);
  policy.filter = base.scan_filter;
  if (scan.ExcludeMasks.use_exclude_masks) policy.excludedMasks = scan.ExcludeMasks.exclude_masks;
  if (scan.ExcludeThreats.use_exclude_threats)
    policy.excludedThreats = scan.ExcludeThreats.exclude_threats;
  policy.action = ActionFor(base.infected_action);
  policy.disinfectAsked = base.infected_action == static_cast<uint32_t>(Action::Disinfect);
  policy.reportClean = base.report_clean_objects;
  policy.reportPacked = base.report_packed_objects;
  policy.reportUnprocessed = base.report_unprocessed_objects;
  return policy;
}

bool PathExcluded(const ScanPolicy& policy, const std::string& path) noexcept {
  return std::any_of(policy.excludedMasks.begin(), policy.excludedMasks.end(),
                     [&](const std::string& mask) { return MaskMatches(mask, path); });
}

bool ThreatExcluded(const ScanPolicy& policy, const std::string& threat) noexcept {
  return std::any_of(policy.excludedThreats.begin(), policy.excludedThreats.end(),
                     [&](const std::string& mask) { return ::fnmatch(mask.c_str(), threat.c_str(), 0) == 0; });
}

bool FilterSelects(const ScanPolicy& policy, int fd, const std::string& path) noexcept {
  switch (static_cast<Filter>(policy.filter)) {
    case Filter::ByFormat: return CodeFormat(Head(fd, 16));
    case Filter::ByExtension: {
      // Linux executables rarely carry an extension: a name without one is scanned.
      const std::string ext = Extension(path);
      return ext.empty() ||
             std::find(kCodeExtensions.begin(), kCodeExtensions.end(), ext) != kCodeExtensions.end();
    }
    default: return true;  // AllFiles; ByUserList (the record carries no list)
  }
}

cl_scan_options ScanOptionsFor(const ScanPolicy& policy, int fd) noexcept {
  const std::string head = Head(fd, 5);
  cl_scan_options options{};
  options.parse = ~0u;
  if (!(IsExecutable(head) ? policy.sfxArchives : policy.archives))
    options.parse &= ~static_cast<uint32_t>(CL_SCAN_PARSE_ARCHIVE);
  if (!(head.starts_with("From ") ? policy.mailBases : policy.plainMail))
    options.parse &= ~static_cast<uint32_t>(CL_SCAN_PARSE_MAIL);
  options.general = CL_SCAN_GENERAL_HEURISTICS;
  options.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX | policy.heuristics;
  return options;
}

}  // namespace oasd
