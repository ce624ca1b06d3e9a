// The settings' printed form byte for byte (member order, nesting, lists, wide texts,
// 64-bit numbers), its trace-line path, record equality on nested lists, and the set of
// filesystem types that are never monitored. Owns no state beyond each test's records.
#include <gtest/gtest.h>

#include <string>

#include "nox_tracing/tracing.h"
#include "settings/never_monitored_filesystems.h"
#include "settings/oas_settings_printer.h"
#include "testing/capturing_tracer.h"
#include "testing/host_object.h"

namespace {

using namespace nox::settings;

// Every member set, but for one number left at zero: the default record's text is not
// checked separately, so zero must print here.
OASSettings FullSettings() {
  OASSettings s;
  s.scan_access_type = 2;
  s.skipPlainTextFiles = true;
  s.skipDatabaseJournals = true;
  ScanSettingsBase& b = s.ScanSettings.ScanSettingsBase;
  b.scan_archived = true;
  b.scan_mail_bases = true;
  b.time_limit = 60;
  b.size_limit = 18446744073709551615ull;
  b.infected_action = 5;
  b.report_packed_objects = true;
  b.report_unprocessed_objects = true;
  b.use_ichecker = true;
  s.ScanSettings.ExcludeMasks = {true, {"*.log", "/tmp/*"}};
  s.ScanSettings.ExcludeThreats = {false, {"EICAR-Test-File", "Hoax.Joke"}};
  s.ScanSettings.EmulatorSettings = {true, 2};
  ScanScopeWithTrustedPrograms& scope = s.ScanScopeWithTrustedPrograms;
  scope.scan_scope = {{u"All objects", "/", {"*", "*.bin"}, true},
                      {u"Zone \u00e9", "/home", {}, false}};
  scope.excluded_from_scan_scope = {{"/proc", {"*"}, true}, {"/srv", {"a", "b"}, false}};
  scope.excluded_for_program = {
      {{"/usr/bin/backup", u"Backup", true, true}, "/data", {"*.db", "*.wal"}},
      {{"/opt/x", u"", false, false}, "/", {}}};
  return s;
}

constexpr std::string_view kFullText =
    R"("scan_access_type":2, "skipPlainTextFiles":1, "ScanSettings":{"ScanSettingsBase":{)"
    R"("scan_archived":1, "scan_sfx_archived":0, "scan_mail_bases":1, "scan_plain_mail":0, )"
    R"("time_limit":60, "size_limit":18446744073709551615, "infected_action":5, )"
    R"("report_clean_objects":0, "report_packed_objects":1, "report_unprocessed_objects":1, )"
    R"("use_ichecker":1, "use_sandbox":0, "scan_filter":0}, )"
    R"("ExcludeMasks":{"use_exclude_masks":1, "exclude_masks":[*.log, /tmp/*]}, )"
    R"("ExcludeThreats":{"use_exclude_threats":0, "exclude_threats":[EICAR-Test-File, Hoax.Joke]}, )"
    R"("EmulatorSettings":{"use_emulator":1, "heuristic_level":2}}, )"
    R"("ScanScopeWithTrustedPrograms":{"excluded_for_program":[)"
    R"({"path":/data, "area_mask":[*.db, *.wal], "TrustedProgram":{"programPath":/usr/bin/backup, )"
    R"("description":Backup, "applyToDescendants":1, "useTrustedProgram":1}}, )"
    R"({"path":/, "area_mask":[], "TrustedProgram":{"programPath":/opt/x, "description":, )"
    R"("applyToDescendants":0, "useTrustedProgram":0}}], )"
    R"("ScanScope":{"scan_scope":[{"area_desc":All objects, "path":/, "area_mask":[*, *.bin], )"
    R"("use_scan_area":1}, {"area_desc":Zone )" "\xC3\xA9" R"(, "path":/home, "area_mask":[], )"
    R"("use_scan_area":0}], "excluded_from_scan_scope":[{"use_scan_area":1, "path":/proc, )"
    R"("area_mask":[*]}, {"use_scan_area":0, "path":/srv, "area_mask":[a, b]}]}})";

TEST(OASSettingsPrinter, FullRecordPrintsEveryMemberInOrder) {
  EXPECT_EQ(ToString(FullSettings()), kFullText);
}

TEST(OASSettingsPrinter, TraceLineCarriesTheSameTextAndNestedRecordsBraced) {
  auto tracer = qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
  const OASSettings s = FullSettings();
  QEB_TRACE(tracer, qeb::trace::LevelDetail) << "settings={" << s << "}";
  QEB_TRACE(tracer, qeb::trace::LevelDetail)
      << s.ScanScopeWithTrustedPrograms.excluded_from_scan_scope[1];
  const auto lines = tracer->Texts(qeb::trace::LevelDetail);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "settings={" + std::string(kFullText) + "}");
  EXPECT_EQ(lines[1], R"({"use_scan_area":0, "path":/srv, "area_mask":[a, b]})");
}

TEST(NeverMonitoredFilesystems, ExactCaseSensitiveTypeAndSkipFlag) {
  EXPECT_EQ(NeverMonitoredFilesystems().size(), 31u);
  EXPECT_TRUE(IsNeverMonitoredFilesystem("proc"));
  EXPECT_TRUE(IsNeverMonitoredFilesystem("gpfs"));
  EXPECT_TRUE(IsNeverMonitoredFilesystem("fuse.xrdp-chansrv"));
  EXPECT_FALSE(IsNeverMonitoredFilesystem("PROC"));
  EXPECT_FALSE(IsNeverMonitoredFilesystem("proc "));
  EXPECT_FALSE(IsNeverMonitoredFilesystem(""));

  EXPECT_FALSE(IsMonitoredMount({1, "/proc", "proc", false}));
  EXPECT_TRUE(IsMonitoredMount({1, "/mnt/x", "PROC", false}));
  EXPECT_TRUE(IsMonitoredMount({2, "/", "ext4", false}));
  EXPECT_FALSE(IsMonitoredMount({2, "/", "ext4", true}));
  EXPECT_TRUE(IsMonitoredMount({3, "/mnt/ssh", "fuse.sshfs", false}));
  EXPECT_FALSE(IsMonitoredMount({4, "/run/user/1000/doc", "fuse", false}));
}

}  // namespace
