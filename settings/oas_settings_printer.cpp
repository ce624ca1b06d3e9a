// Builds the settings' printed form as one text, then appends it to a trace line in a
// single step. Member order is fixed per record by its AppendMembers below; value forms
// (bools as 0/1, bare texts, bracketed lists, braced objects) are shared by all records.
#include "settings/oas_settings_printer.h"

#include <concepts>
#include <string_view>
#include <type_traits>

#include "framework/qeb/utf.h"

namespace nox::settings {
namespace {

class Members;

void AppendMembers(Members& m, const OASSettings& s);
void AppendMembers(Members& m, const ScanSettings& s);
void AppendMembers(Members& m, const ScanSettingsBase& s);
void AppendMembers(Members& m, const ExcludeMasks& s);
void AppendMembers(Members& m, const ExcludeThreats& s);
void AppendMembers(Members& m, const EmulatorSettings& s);
void AppendMembers(Members& m, const ScanScopeWithTrustedPrograms& s);
void AppendMembers(Members& m, const ScanScope& s);
void AppendMembers(Members& m, const ScanScopeExclusion& s);
void AppendMembers(Members& m, const ProgramExclusion& s);
void AppendMembers(Members& m, const TrustedProgram& s);

template <class R>
concept Record = requires(Members& m, const R& r) { AppendMembers(m, r); };

void AppendValue(std::string& out, bool value) { out += value ? '1' : '0'; }
void AppendValue(std::string& out, const std::string& value) { out += value; }
void AppendValue(std::string& out, const std::u16string& value) {
  qeb::AppendUtf16AsUtf8(out, value);
}
template <std::unsigned_integral T>
  requires(!std::is_same_v<T, bool>)
void AppendValue(std::string& out, T value);
template <Record R>
void AppendValue(std::string& out, const R& record);
template <class T>
void AppendValue(std::string& out, const std::vector<T>& list);

// Writes "key":value members of one object, separated by ", ".
class Members {
 public:
  explicit Members(std::string& out) : m_out(out) {}

  template <class V>
  Members& operator()(std::string_view key, const V& value) {
    Key(key);
    AppendValue(m_out, value);
    return *this;
  }

  // A nested object that exists only in the printed form.
  template <class Fill>
  Members& Object(std::string_view key, Fill fill);

 private:
  void Key(std::string_view key) {
    if (!m_first) m_out += ", ";
    m_first = false;
    m_out += '"';
    m_out += key;
    m_out += "\":";
  }

  std::string& m_out;
  bool m_first = true;
};

template <class Fill>
void AppendObject(std::string& out, Fill fill) {
  out += '{';
  Members members(out);
  fill(members);
  out += '}';
}

template <class Fill>
Members& Members::Object(std::string_view key, Fill fill) {
  Key(key);
  AppendObject(m_out, fill);
  return *this;
}

template <std::unsigned_integral T>
  requires(!std::is_same_v<T, bool>)
void AppendValue(std::string& out, T value) {
  out += std::to_string(value);
}

template <Record R>
void AppendValue(std::string& out, const R& record) {
  AppendObject(out, [&record](Members& m) { AppendMembers(m, record); });
}

template <class T>
void AppendValue(std::string& out, const std::vector<T>& list) {
  out += '[';
  for (size_t i = 0; i < list.size(); ++i) {
    if (i != 0) out += ", ";
    AppendValue(out, list[i]);
  }
  out += ']';
}

void AppendMembers(Members& m, const OASSettings& s) {
  m("scan_access_type", s.scan_access_type)("skipPlainTextFiles", s.skipPlainTextFiles)(
      "ScanSettings", s.ScanSettings)("ScanScopeWithTrustedPrograms",
                                      s.ScanScopeWithTrustedPrograms);
}

void AppendMembers(Members& m, const ScanSettings& s) {
  m("ScanSettingsBase", s.ScanSettingsBase)("ExcludeMasks", s.ExcludeMasks)(
      "ExcludeThreats", s.ExcludeThreats)("EmulatorSettings", s.EmulatorSettings);
}

void AppendMembers(Members& m, const ScanSettingsBase& s) {
  m("scan_archived", s.scan_archived)("scan_sfx_archived", s.scan_sfx_archived)(
      "scan_mail_bases", s.scan_mail_bases)("scan_plain_mail", s.scan_plain_mail)(
      "time_limit", s.time_limit)("size_limit", s.size_limit)(
      "infected_action", s.infected_action)("report_clean_objects", s.report_clean_objects)(
      "report_packed_objects", s.report_packed_objects)(
      "report_unprocessed_objects", s.report_unprocessed_objects)(
      "use_ichecker", s.use_ichecker)("use_sandbox", s.use_sandbox)(
      "scan_filter", s.scan_filter);
}

void AppendMembers(Members& m, const ExcludeMasks& s) {
  m("use_exclude_masks", s.use_exclude_masks)("exclude_masks", s.exclude_masks);
}

void AppendMembers(Members& m, const ExcludeThreats& s) {
  m("use_exclude_threats", s.use_exclude_threats)("exclude_threats", s.exclude_threats);
}

void AppendMembers(Members& m, const EmulatorSettings& s) {
  m("use_emulator", s.use_emulator)("heuristic_level", s.heuristic_level);
}

// Program exclusions come first; the two area lists are grouped under one object.
void AppendMembers(Members& m, const ScanScopeWithTrustedPrograms& s) {
  m("excluded_for_program", s.excluded_for_program).Object("ScanScope", [&s](Members& inner) {
    inner("scan_scope", s.scan_scope)("excluded_from_scan_scope", s.excluded_from_scan_scope);
  });
}

void AppendMembers(Members& m, const ScanScope& s) {
  m("area_desc", s.area_desc)("path", s.path)("area_mask", s.area_mask)(
      "use_scan_area", s.use_scan_area);
}

void AppendMembers(Members& m, const ScanScopeExclusion& s) {
  m("use_scan_area", s.use_scan_area)("path", s.path)("area_mask", s.area_mask);
}

void AppendMembers(Members& m, const ProgramExclusion& s) {
  m("path", s.path)("area_mask", s.area_mask)("TrustedProgram", s.TrustedProgram);
}

void AppendMembers(Members& m, const TrustedProgram& s) {
  m("programPath", s.programPath)("description", s.description)(
      "applyToDescendants", s.applyToDescendants)("useTrustedProgram", s.useTrustedProgram);
}

template <Record R>
std::string RecordText(const R& record) {
  std::string out;
  AppendValue(out, record);
  return out;
}

template <class R>
qeb::trace::Line& Print(qeb::trace::Line& line, const R& record) noexcept {
  if (!line) return line;
  return line << ToString(record);
}

}  // namespace

std::string ToString(const OASSettings& s) {
  std::string out;
  Members members(out);
  AppendMembers(members, s);
  return out;
}

std::string ToString(const ScanSettings& s) { return RecordText(s); }
std::string ToString(const ScanSettingsBase& s) { return RecordText(s); }
std::string ToString(const ExcludeMasks& s) { return RecordText(s); }
std::string ToString(const ExcludeThreats& s) { return RecordText(s); }
std::string ToString(const EmulatorSettings& s) { return RecordText(s); }
std::string ToString(const ScanScopeWithTrustedPrograms& s) { return RecordText(s); }
std::string ToString(const ScanScope& s) { return RecordText(s); }
std::string ToString(const ScanScopeExclusion& s) { return RecordText(s); }
std::string ToString(const ProgramExclusion& s) { return RecordText(s); }
std::string ToString(const TrustedProgram& s) { return RecordText(s); }

using qeb::trace::Line;
Line& operator<<(Line& line, const OASSettings& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ScanSettings& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ScanSettingsBase& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ExcludeMasks& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ExcludeThreats& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const EmulatorSettings& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ScanScopeWithTrustedPrograms& s) noexcept {
  return Print(line, s);
}
Line& operator<<(Line& line, const ScanScope& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ScanScopeExclusion& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const ProgramExclusion& s) noexcept { return Print(line, s); }
Line& operator<<(Line& line, const TrustedProgram& s) noexcept { return Print(line, s); }

}  // namespace nox::settings
