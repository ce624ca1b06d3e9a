// Fuzzes the printed form of the on-access settings over records built from the input
// (texts of any bytes, wide texts with lone surrogates, lists of any length, any numbers):
// the whole record and every nested record on its own, as text and through a trace line.
// Keeps one tracer for the run, emptied after each input.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz_records.h"
#include "fuzz/fuzz_tracer.h"
#include "settings/oas_settings_printer.h"

namespace {

namespace settings = nox::settings;

constexpr size_t kMaxItems = 4;

class Decoder {
 public:
  explicit Decoder(FuzzedDataProvider& in) : m_in(in) {}

  settings::OASSettings Settings() {
    settings::OASSettings s;
    s.ScanSettings = Scan();
    for (size_t i = Count(); i > 0; --i) s.ScanScopeWithTrustedPrograms.scan_scope.push_back(Scope());
    for (size_t i = Count(); i > 0; --i)
      s.ScanScopeWithTrustedPrograms.excluded_from_scan_scope.push_back(Exclusion());
    for (size_t i = Count(); i > 0; --i)
      s.ScanScopeWithTrustedPrograms.excluded_for_program.push_back(ProgramExclusion());
    s.scan_access_type = m_in.ConsumeIntegral<uint32_t>();
    s.skipPlainTextFiles = m_in.ConsumeBool();
    s.skipDatabaseJournals = m_in.ConsumeBool();
    return s;
  }

 private:
  size_t Count() { return m_in.ConsumeIntegralInRange<size_t>(0, kMaxItems); }
  std::string Text() { return m_in.ConsumeRandomLengthString(); }
  std::u16string Wide() { return oas_fuzz::ConsumeWide(m_in, 32); }
  std::vector<std::string> Texts() {
    std::vector<std::string> texts(Count());
    for (std::string& t : texts) t = Text();
    return texts;
  }

  settings::ScanSettings Scan() {
    settings::ScanSettings s;
    auto& b = s.ScanSettingsBase;
    b.scan_archived = m_in.ConsumeBool();
    b.scan_sfx_archived = m_in.ConsumeBool();
    b.scan_mail_bases = m_in.ConsumeBool();
    b.scan_plain_mail = m_in.ConsumeBool();
    b.time_limit = m_in.ConsumeIntegral<uint64_t>();
    b.size_limit = m_in.ConsumeIntegral<uint64_t>();
    b.infected_action = m_in.ConsumeIntegral<uint32_t>();
    b.report_clean_objects = m_in.ConsumeBool();
    b.report_packed_objects = m_in.ConsumeBool();
    b.report_unprocessed_objects = m_in.ConsumeBool();
    b.use_ichecker = m_in.ConsumeBool();
    b.use_sandbox = m_in.ConsumeBool();
    b.scan_filter = m_in.ConsumeIntegral<uint32_t>();
    s.ExcludeMasks = {m_in.ConsumeBool(), Texts()};
    s.ExcludeThreats = {m_in.ConsumeBool(), Texts()};
    s.EmulatorSettings = {m_in.ConsumeBool(), m_in.ConsumeIntegral<uint32_t>()};
    return s;
  }
  settings::ScanScope Scope() {
    settings::ScanScope s;
    s.area_desc = Wide();
    s.path = Text();
    s.area_mask = Texts();
    s.use_scan_area = m_in.ConsumeBool();
    return s;
  }
  settings::ScanScopeExclusion Exclusion() {
    settings::ScanScopeExclusion s;
    s.path = Text();
    s.area_mask = Texts();
    s.use_scan_area = m_in.ConsumeBool();
    return s;
  }
  settings::TrustedProgram Trusted() {
    settings::TrustedProgram t;
    t.programPath = Text();
    t.description = Wide();
    t.applyToDescendants = m_in.ConsumeBool();
    t.useTrustedProgram = m_in.ConsumeBool();
    return t;
  }
  settings::ProgramExclusion ProgramExclusion() {
    settings::ProgramExclusion p;
    p.TrustedProgram = Trusted();
    p.path = Text();
    p.area_mask = Texts();
    return p;
  }

  FuzzedDataProvider& m_in;
};

// Each nested record prints the same way on its own and inside its parent.
void CheckNested(const settings::OASSettings& s, const std::string& whole) {
  if (whole.find(settings::ToString(s.ScanSettings)) == std::string::npos) std::abort();
  for (const auto& scope : s.ScanScopeWithTrustedPrograms.scan_scope)
    if (whole.find(settings::ToString(scope)) == std::string::npos) std::abort();
  for (const auto& program : s.ScanScopeWithTrustedPrograms.excluded_for_program)
    if (whole.find(settings::ToString(program.TrustedProgram)) == std::string::npos) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const settings::OASSettings s = Decoder(in).Settings();
  const std::string whole = settings::ToString(s);
  CheckNested(s, whole);
  QEB_TRACE(&oas_fuzz::Tracer(), qeb::trace::LevelError) << s;
  for (const auto& exclusion : s.ScanScopeWithTrustedPrograms.excluded_from_scan_scope)
    QEB_TRACE(&oas_fuzz::Tracer(), qeb::trace::LevelError) << exclusion;
  const std::vector<qeb::testing::TraceLine> lines = oas_fuzz::Tracer().Lines();
  if (lines.empty() || lines.front().text != whole) std::abort();
  oas_fuzz::Tracer().Clear();
  return 0;
}
