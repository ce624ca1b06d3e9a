// oasd honours what a user sets in the settings record, on a real fanotify: archive parsing,
// excluded path masks and threat names, trusted programs, and the action on an infected
// file. Grouped by the setting; each scenario runs in its own sandbox (oasd_harness.h).
#include <sys/stat.h>
#include <csignal>
#include <unistd.h>

#include <cstdlib>
#include <utility>
#include <vector>

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

TEST(OasdSettings, ASighupWithNewSettingsAppliesThemToTheNextScan) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string log = s.Watched("x.log");
    WriteFile(log, kEicar);
    if (!s.StartOasd("")) return;
    const Exit before = InChild([&] { return OpenAndRead(log); });
    s.Expect(before.Denied(), "x.log before the reload: " + before.Text());
    s.WriteConfig(Settings(R"("ExcludeMasks": {"use_exclude_masks": true, "exclude_masks": ["*.log"]})"));
    ::kill(s.Oasd(), SIGHUP);
    s.Expect(WaitUntil([&] { return s.OasdLog().find("configuration reloaded") != std::string::npos; },
                       kEventLimit),
             "no reload in the log");
    const Exit after = InChild([&] { return OpenAndRead(log); });
    s.Expect(after.Is(0), "x.log once *.log is excluded: " + after.Text());
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

// Runs argv quietly; answers its exit status (cat's is 1 when the open is refused).
int RunQuietly(const std::vector<std::string>& argv) {
  const int null = ::open("/dev/null", O_WRONLY);
  ::dup2(null, STDOUT_FILENO);
  ::dup2(null, STDERR_FILENO);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  ::execv(args[0], args.data());
  return 127;
}

std::string Trust(const std::string& program, bool descendants) {
  return R"({"TrustedProgram": {"programPath": ")" + program + R"(", "useTrustedProgram": true, )" +
         R"("applyToDescendants": )" + (descendants ? "true" : "false") + R"(}, "path": "/"})";
}

TEST(OasdSettings, TrustedProgramsReadWhatOthersMayNotByTheirFileNotTheirName) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    const std::string cat = s.State("trusted-cat"), copy = s.State("copy-cat"), sh = s.State("trusted-sh");
    WriteFile(eicar, kEicar);
    for (const auto& [from, to] : {std::pair{"/bin/cat", cat}, {"/bin/cat", copy}, {"/bin/sh", sh}}) {
      const std::string command = std::string("cp ") + from + " " + to;
      s.Expect(std::system(command.c_str()) == 0, command);
    }
    const std::string entries = Trust(cat, false) + ", " + Trust(sh, true);
    if (!s.StartOasd(R"("settings": {"ScanScopeWithTrustedPrograms": {"excluded_for_program": [)" +
                     entries + "]}}"))
      return;
    const auto read = [&](std::vector<std::string> argv) { return InChild([&] { return RunQuietly(argv); }); };
    const Exit trusted = read({cat, eicar});
    s.Expect(trusted.Is(0), "the trusted cat: " + trusted.Text(false));
    const Exit plain = read({"/bin/cat", eicar});
    s.Expect(plain.Is(1), "plain cat: " + plain.Text(false));
    const Exit copied = read({copy, eicar});
    s.Expect(copied.Is(1), "a copy of the trusted cat elsewhere: " + copied.Text(false));
    // A list keeps the shell from replacing itself with cat: cat runs as its child.
    const std::string catThenExit = "/bin/cat " + eicar + " && exit 0 || exit 1";
    const Exit child = read({sh, "-c", catThenExit});
    s.Expect(child.Is(0), "cat started by the trusted shell: " + child.Text(false));
    const Exit checked = read({"/bin/sh", "-c", catThenExit});
    s.Expect(checked.Is(1), "cat started by a plain shell: " + checked.Text(false));
  });
}

TEST(OasdSettings, RemoveQuarantinesTheFileAndRestoreBringsItBackWithItsOwnerAndMode) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com"), quarantine = s.State("var/quarantine");  // parents made too
    WriteFile(eicar, kEicar, 0640);
    s.Expect(::chown(eicar.c_str(), 65534, 65534) == 0, "chown");
    const std::string config = s.WriteConfig(R"("quarantine_dir": ")" + quarantine + R"(", )" +
                                             Settings(R"("ScanSettingsBase": {"infected_action": 1})"));
    if (!s.StartOasdWith(config)) return;
    const Exit opened = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(opened.Denied(), "EICAR under Remove: " + opened.Text());
    s.Expect(s.AwaitEvent("detection", eicar), "no detection line");
    const auto line = s.FindEvent("detection", eicar);
    const std::string id = line ? line->value("quarantine_id", "") : "";
    s.Expect(line && line->value("action", "") == "removed" && !id.empty(), line ? line->dump() : "");
    s.Expect(::access(eicar.c_str(), F_OK) != 0, "the infected file is still in place");
    s.StopOasd();  // a restored threat would be removed again by a running oasd

    std::string output;
    RunOasdToEnd(s.State("list.txt"), {"--list-quarantine", "--config", config}, output);
    s.Expect(output.find(eicar) != std::string::npos && output.find(id) != std::string::npos,
             "--list-quarantine: " + output);
    const Exit restored = RunOasdToEnd(s.State("restore.txt"), {"--restore", id, "--config", config}, output);
    s.Expect(restored.Is(0), "--restore: " + output);
    struct stat st {};
    s.Expect(::stat(eicar.c_str(), &st) == 0 && st.st_uid == 65534 && st.st_gid == 65534 &&
                 (st.st_mode & 07777) == 0640 && ReadFile(eicar) == kEicar,
             "the restored file differs in owner, mode or content");
    const Exit again = RunOasdToEnd(s.State("restore.txt"), {"--restore", id, "--config", config}, output);
    s.Expect(again.Is(1), "a second restore of one ID: " + output);
  });
}

TEST(OasdSettings, DisinfectBlocksAndTheDetectionSaysItCouldNotDisinfect) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    WriteFile(eicar, kEicar);
    if (!s.StartOasd(Settings(R"("ScanSettingsBase": {"infected_action": 0})"))) return;
    const Exit opened = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(opened.Denied(), "EICAR under Disinfect: " + opened.Text());
    s.Expect(s.AwaitEvent("detection", eicar), "no detection line");
    const auto line = s.FindEvent("detection", eicar);
    s.Expect(line && line->value("action", "") == "blocked" &&
                 line->value("note", "").find("disinfection is not available") != std::string::npos,
             line ? line->dump() : "");
    s.Expect(::access(eicar.c_str(), F_OK) == 0, "Disinfect removed the file");
  });
}

std::string Hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const unsigned char c : bytes) hex += {kDigits[c >> 4], kDigits[c & 15]};
  return hex;
}

TEST(OasdSettings, ASignatureAddedToTheDatabaseDirectoryDetectsAFileCachedCleanBefore) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string db = s.State("db"), file = s.Watched("marker.txt");
    const std::string content = "oasd e2e database update marker\n";  // text: the module caches it
    ::mkdir(db.c_str(), 0755);
    WriteFile(file, content);
    std::this_thread::sleep_for(300ms);  // a change time the module's cache may trust
    if (!s.StartOasd(R"("clamav_database_dir": ")" + db + R"(", "signature_check_interval_s": 1)")) return;
    // Cached clean either by the module (a hit) or by the kernel (the open never reaches oasd).
    const auto cacheState = [&] {
      const std::string page = s.Metrics();
      return std::pair(MetricValue(page, "oas_cache_hits_total").value_or(0),
                       MetricValue(page, "oasd_events_total").value_or(0));
    };
    const Exit first = InChild([&] { return OpenAndRead(file); });
    s.Expect(first.Is(0), "the marker before the update: " + first.Text());
    const auto before = cacheState();
    const Exit second = InChild([&] { return OpenAndRead(file); });
    s.Expect(second.Is(0), "the marker before the update: " + second.Text());
    const auto after = cacheState();
    s.Expect(after.first > before.first || after.second == before.second,
             "the marker was answered from no cache");

    WriteFile(db + "/test.tmp", "Oasd-Update-Test:0:0:" + Hex(content) + "\n");
    ::rename((db + "/test.tmp").c_str(), (db + "/test.ndb").c_str());
    s.Expect(WaitUntil([&] { return InChild([&] { return OpenAndRead(file); }).Denied(); }, 15s),
             "the marker is still allowed after its signature was added");
    const auto line = s.FindEvent("detection", file);
    s.Expect(line && line->value("threat", "") == "Oasd-Update-Test", line ? line->dump() : "no detection");
  });
}

}  // namespace
}  // namespace oasd_e2e
