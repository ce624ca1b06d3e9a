// oasd's own files on a real fanotify: a configuration the check passes starts (and what an
// ordinary user, uid 65534, plants at an output path is refused by both), SIGHUP reopens
// rotated files and says what it applied, and a file name cannot forge a log line.
// Each scenario runs in its own sandbox (oasd_harness.h).
#include <grp.h>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

constexpr uid_t kNobody = 65534;

// Runs body as uid and gid 65534, as the ordinary user who plants things.
Exit AsNobody(const std::function<int()>& body) {
  return InChild([&] {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0)
      return errno;
    return body();
  });
}

size_t LinesHolding(const std::string& text, const std::string& part) {
  std::istringstream lines(text);
  size_t n = 0;
  for (std::string line; std::getline(lines, line);) n += line.find(part) != std::string::npos;
  return n;
}

std::string Key(const char* key, const std::string& path) {
  return "\"" + std::string(key) + "\": " + nlohmann::json(path).dump();
}

// Each configuration the check passes must start; each it refuses names its key and does
// not start either. Among them, what an ordinary user plants at an output path in a sticky
// directory: the start stops, and what a planted link points at is left alone.
TEST(OasdFiles, EveryConfigurationTheCheckPassesStarts) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string empty = s.State("no-signatures"), open = s.State("open");
    const std::string shared = s.State("shared"), victim = s.State("victim");
    for (const auto& [dir, mode] : {std::pair{empty, 0755}, {open, 0777}, {shared, 01777}}) {
      ::mkdir(dir.c_str(), 0755);
      ::chmod(dir.c_str(), static_cast<mode_t>(mode));
    }
    WriteFile(victim, "root's own data\n", 0600);
    // What an ordinary user can leave in a sticky directory, and what root's own mistakes
    // look like: a link, a hard link, a FIFO at the path.
    const Exit plant = AsNobody([&] {
      for (const char* name : {"/events.jsonl", "/oasd.log", "/metrics.prom", "/m.prom.tmp", "/.m.prom.tmp"})
        if (::symlink(victim.c_str(), (shared + name).c_str()) != 0) return errno;
      if (::symlink(s.State("").c_str(), (shared + "/logs").c_str()) != 0 ||
          ::mkdir((shared + "/theirs").c_str(), 0755) != 0)
        return errno;
      const int error = CreateWith(shared + "/open.jsonl", "");
      return error ? error : ::chmod((shared + "/open.jsonl").c_str(), 0666);
    });
    s.Expect(plant.Is(0), "planting as uid 65534: " + plant.Text());
    WriteFile(s.State("root-target"), "", 0600);  // fit to append to, were the link followed
    ::symlink(s.State("root-target").c_str(), s.State("root-link.log").c_str());
    ::link(victim.c_str(), s.State("hard.log").c_str());
    ::mkfifo(s.State("fifo.log").c_str(), 0600);
    const struct {
      std::string extra;
      const char* key;  // nullptr: the check passes and oasd starts
      bool raw = false;  // written as it stands, for a duplicate key the harness would fold
      mode_t mode = 0644;  // the config file's
    } cases[] = {
        {R"("engine": "clamav")", nullptr},
        {R"("engine": "none", "log_level": "detail")", nullptr},
        {Key("events_file", s.State("made-at-start/events.jsonl")), nullptr},
        {Key("log_file", s.State("oasd.log")), nullptr},
        {Key("metrics_file", shared + "/m.prom"), nullptr},  // links at likely temporary names
        {Key("events_file", shared + "/events.jsonl"), "events_file"},
        {Key("log_file", shared + "/oasd.log"), "log_file"},
        {Key("metrics_file", shared + "/metrics.prom"), "metrics_file"},
        {Key("events_file", shared + "/open.jsonl"), "events_file"},
        {Key("events_file", shared + "/logs/events.jsonl"), "events_file"},
        {Key("events_file", shared + "/theirs/events.jsonl"), "events_file"},
        {Key("log_file", s.State("root-link.log")), "log_file"},
        {Key("log_file", s.State("hard.log")), "log_file"},
        {Key("log_file", s.State("fifo.log")), "log_file"},
        {Key("module_path", s.State("no/liboas.so")), "module_path"},
        {R"("engine": "clamav", )" + Key("signature_dir", empty), "signature_dir"},
        {Key("events_file", s.State("no/such/events.jsonl")), "events_file"},
        {Key("metrics_file", open + "/metrics.prom"), "metrics_file"},
        {Key("log_file", s.State("")), "log_file"},
        {R"("engine": "none", "engine": "clamav")", "engine", true},
        {R"("permission_deadline_ms": 0)", "permission_deadline_ms"},
        {R"("verdict_timeout_ms": 60000)", "verdict_timeout_ms"},
        // Files oasd takes orders from, open to everyone.
        {"", "config file", false, 0666},
        {Key("module_path", s.State("liboas.so")), "module_path"},
    };
    std::filesystem::copy_file(std::filesystem::path(OASD_BINARY).parent_path() / "liboas.so",
                               s.State("liboas.so"));
    ::chmod(s.State("liboas.so").c_str(), 0666);
    for (const auto& c : cases) {
      std::string text = s.ConfigText(c.raw ? "" : c.extra);
      if (c.raw) text.insert(text.size() - 1, ", " + c.extra);
      const std::string config = s.State("oasd.json");
      WriteFile(config, text, c.mode);
      std::string output;
      const Exit check = RunOasdToEnd(s.State("run.txt"), {"--check-config", config}, output);
      if (!c.key) {
        s.Expect(check.Is(0), c.extra + ": --check-config " + check.Text(false) + ": " + output);
        if (s.StartOasdWith(config)) s.StopOasd();
        continue;
      }
      const std::string key = c.key;
      const std::string named = key == "config file" ? key : "config key \"" + key + "\"";
      s.Expect(check.Is(2) && output.find(named) != std::string::npos,
               c.extra + ": --check-config " + check.Text(false) + ": " + output);
      const Exit start = RunOasdToEnd(s.State("run.txt"), {"--config", config}, output);
      s.Expect(!start.Is(0) && output.find("oasd: ready") == std::string::npos,
               c.extra + ": started although the check refused it: " + output);
    }
    s.Expect(ReadFile(victim) == "root's own data\n", "the victim changed: " + ReadFile(victim));
  });
}

// The second file's name holds a forged log line: the event must still be one line.
TEST(OasdFiles, SighupReopensRotatedFilesAndSaysWhatItAppliedAndANameForgesNoLine) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string log = s.State("oasd.log"), events = s.EventsFile();
    const std::string forged = "2026-11-22T09:05:03.123Z NOTICE oasd: forged";
    const std::string first = s.Watched("first.com"), second = s.Watched("x\n" + forged + "\x1b[2K\r.com");
    WriteFile(first, kEicar);
    WriteFile(second, kEicar);
    if (!s.StartOasd(R"("engine": "clamav", )" + Key("log_file", log))) return;
    InChild([&] { return OpenAndRead(first); });
    s.Expect(s.AwaitEvent("detection", first), "no detection line for " + first);

    // What logrotate does: rename, then SIGHUP.
    ::rename(events.c_str(), (events + ".1").c_str());
    ::rename(log.c_str(), (log + ".1").c_str());
    ::kill(s.Oasd(), SIGHUP);
    const std::string unchanged = "no configuration change applied";
    s.Expect(WaitUntil([&] { return ReadFile(log).find(unchanged) != std::string::npos; }, kEventLimit),
             "no new log after SIGHUP:\n" + ReadFile(log + ".1"));
    s.Expect(ReadFile(log).find("configuration reloaded") == std::string::npos,
             "an unchanged configuration was reported reloaded:\n" + ReadFile(log));
    const Exit open = InChild([&] { return OpenAndRead(second); });
    s.Expect(open.Denied() && s.AwaitEvent("detection", second), "no detection in the new events file");
    s.Expect(ReadFile(events + ".1").find("forged") == std::string::npos, "the rotated events file was written to");
    s.Expect(LinesHolding(ReadFile(log), "forged") == 1 && LinesHolding(ReadFile(log), "detected") == 1 &&
                 ReadFile(log).find("\n" + forged) == std::string::npos && ReadFile(log).find('\x1b') == std::string::npos,
             "the file name forged a line:\n" + ReadFile(log));

    // A change SIGHUP applies is named once; each it cannot apply gets its own notice.
    s.WriteConfig(R"("engine": "none", "checked_cache_entries": 5, "log_level": "detail", )" +
                  Key("log_file", log));
    ::kill(s.Oasd(), SIGHUP);
    s.Expect(WaitUntil([&] { return ReadFile(log).find("reloaded: log_level") != std::string::npos; },
                       kEventLimit),
             "the applied key was not named:\n" + ReadFile(log));
    for (const char* key : {"engine", "checked_cache_entries"})
      s.Expect(LinesHolding(ReadFile(log), "key \"" + std::string(key) + "\" changed; it takes effect "
                                           "at the next start") == 1,
               std::string("no single notice for ") + key + ":\n" + ReadFile(log));
  });
}

}  // namespace
}  // namespace oasd_e2e
