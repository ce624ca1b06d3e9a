// oasd honours what a user sets in the settings record, on a real fanotify: archive parsing,
// excluded path masks and threat names, trusted programs, and the action on an infected
// file. Grouped by the setting; each scenario runs in its own sandbox (oasd_harness.h).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

std::string Settings(const std::string& scanSettings) {
  return R"("settings": {"ScanSettings": {)" + scanSettings + "}}";
}

TEST(OasdSettings, ScanArchivedDecidesWhetherAnEicarInsideAZipIsRefused) {
  OASD_SCENARIO([](Sandbox& s) {
    WriteFile(s.State("eicar.com"), kEicar);
    const std::string zip = s.Watched("eicar.zip");
    const std::string command = "cd '" + s.State("") + "' && zip -q -X '" + zip + "' eicar.com";
    if (std::system(command.c_str()) != 0) return s.Expect(false, "the zip tool is missing");
    if (!s.StartOasd(Settings(R"("ScanSettingsBase": {"scan_archived": true})"))) return;
    const Exit on = InChild([&] { return OpenAndRead(zip); });
    s.Expect(on.Denied(), "zip with scan_archived: " + on.Text());
    s.StopOasd();
    if (!s.StartOasd(Settings(R"("ScanSettingsBase": {"scan_archived": false})"))) return;
    const Exit off = InChild([&] { return OpenAndRead(zip); });
    s.Expect(off.Is(0), "zip without scan_archived: " + off.Text());
  });
}

TEST(OasdSettings, ExcludedMasksAndThreatsLetTheirFilesOpenWithoutADetection) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string log = s.Watched("x.log"), com = s.Watched("x.com"), other = s.Watched("y.com");
    WriteFile(log, kEicar);
    if (!s.StartOasd(Settings(R"("ExcludeMasks": {"use_exclude_masks": true, "exclude_masks": ["*.log"]})")))
      return;
    const Exit masked = InChild([&] { return OpenAndRead(log); });
    s.Expect(masked.Is(0), "x.log under an excluded mask: " + masked.Text());
    s.StopOasd();

    WriteFile(com, kEicar);
    if (!s.StartOasd(Settings(
            R"("ExcludeThreats": {"use_exclude_threats": true, "exclude_threats": ["Eicar-Test-Signature"]})")))
      return;
    const Exit excused = InChild([&] { return OpenAndRead(com); });
    s.Expect(excused.Is(0), "EICAR with its threat name excluded: " + excused.Text());
    WriteFile(other, std::string("\x7f" "ELF", 4));  // a scan after it, so its lines are written
    InChild([&] { return OpenAndRead(other); });
    s.Expect(!s.FindEvent("detection", ""), "a detection line for an excluded path or threat");
    s.Expect(s.OasdLog().find("excluded by ExcludeThreats") != std::string::npos,
             "the log does not say the threat was excluded");
  });
}

}  // namespace
}  // namespace oasd_e2e
