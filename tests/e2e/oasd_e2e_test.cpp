// oasd end to end on a real fanotify: detections, execution, writes, the module's cache, a
// scan outliving the verdict timeout, a stop under load and bad configurations. Each
// scenario runs in its own sandbox (oasd_harness.h), so oasd marks nothing outside it.
#include <filesystem>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

TEST(OasdEndToEnd, CleanFileOpensAndEicarFileIsDenied) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string clean = s.Watched("clean.txt"), eicar = s.Watched("eicar.com");
    WriteFile(clean, "nothing to see here\n");
    WriteFile(eicar, kEicar);
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit cleanOpen = InChild([&] { return OpenAndRead(clean); });
    s.Expect(cleanOpen.Is(0), "opening a clean file: " + cleanOpen.Text());
    const Exit eicarOpen = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(eicarOpen.Denied(), "opening the EICAR file: " + eicarOpen.Text());

    s.Expect(s.AwaitEvent("detection", eicar), "no detection line for " + eicar);
    if (const auto e = s.FindEvent("detection", eicar)) {
      s.Expect(e->value("threat", "").find("Eicar") != std::string::npos, "threat: " + e->dump());
      s.Expect(e->contains("pid") && e->contains("uid") && e->contains("operation"), e->dump());
    }
    const auto denies = MetricValue(s.Metrics(), R"(oasd_verdicts_total{verdict="deny"})");
    s.Expect(denies.value_or(0) >= 1, "deny verdicts counted: " + std::to_string(denies.value_or(0)));
  });
}

// The report-only action reaches the running module: the detection is reported, the open passes.
TEST(OasdEndToEnd, ReportOnlyActionReportsTheEicarFileAndLetsItOpen) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    WriteFile(eicar, kEicar);
    if (!s.StartOasd(R"("engine": "clamav", "settings": {"ScanSettings": {"ScanSettingsBase": {"infected_action": 5}}})")) return;
    const Exit open = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(open.Is(0), "opening the EICAR file with the report-only action: " + open.Text());
    s.Expect(s.AwaitEvent("detection", eicar), "no detection line for " + eicar);
  });
}

TEST(OasdEndToEnd, EicarExecutableCannotRunWhileACleanOneDoes) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string clean = s.Watched("true"), eicar = s.Watched("eicar.sh");
    std::filesystem::copy_file("/bin/true", clean);
    ::chmod(clean.c_str(), 0755);
    WriteFile(eicar, kEicar, 0755);  // not a valid image: without oasd execve says ENOEXEC
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit cleanRun = InChild([&] { return Execute(clean); });
    s.Expect(cleanRun.Is(0), "running a clean executable: " + cleanRun.Text());
    const Exit eicarRun = InChild([&] { return Execute(eicar); });
    s.Expect(eicarRun.Denied(), "executing the EICAR file: " + eicarRun.Text());
  });
}

TEST(OasdEndToEnd, FileWrittenWithEicarIsReportedOnCloseAndDeniedAfter) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string dropped = s.Watched("dropped.txt");
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit writer = InChild([&] { return CreateWith(dropped, kEicar); });
    s.Expect(writer.Is(0), "creating and writing a file: " + writer.Text());
    s.Expect(s.AwaitEvent("detection", dropped), "no detection line after writing " + dropped);
    const Exit reader = InChild([&] { return OpenAndRead(dropped); });
    s.Expect(reader.Denied(), "opening the written EICAR file: " + reader.Text());
  });
}

TEST(OasdEndToEnd, RepeatedOpenOfCleanTextFileIsServedFromTheCache) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string notes = s.Watched("notes.txt");
    WriteFile(notes, "plain text, line after line\nof nothing remarkable\n");
    // The module's own cache: the kernel's would answer the opens before it sees them.
    if (!s.StartOasd(R"("engine": "clamav", "kernel_cache": false)")) return;
    const std::string before = s.Metrics();
    // The cache remembers which processes saw the file, so one process opens it again.
    const Exit opener = InChild([&] {
      for (int i = 0; i < 5; ++i) {
        if (const int error = OpenAndRead(notes)) return error;
        std::this_thread::sleep_for(100ms);
      }
      return 0;
    });
    s.Expect(opener.Is(0), "opening a clean text file five times: " + opener.Text());
    const std::string after = s.Metrics();
    const auto delta = [&](const std::string& name) {
      return MetricValue(after, name).value_or(0) - MetricValue(before, name).value_or(0);
    };
    s.Expect(MetricValue(after, "oas_cache_hits_total").has_value(), "no cache metric:\n" + after);
    s.Expect(delta("oas_cache_hits_total") >= 1, "no cache hit among five opens:\n" + after);
    s.Expect(delta("oasd_events_total") >= 5, "the opens were not all seen:\n" + after);
    s.Expect(delta("oasd_scans_total") < 5, "every open was scanned:\n" + after);
  });
}

TEST(OasdEndToEnd, ScanOutlivingTheVerdictTimeoutIsAnErrorAndTheOpenerIsAnswered) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string slow = s.Watched("slow.bin");
    WriteFile(slow, std::string("\x7f\x01\x02slow", 7));
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 4000, "verdict_timeout_ms": 500,)"
                     R"( "permission_deadline_ms": 20000)"))
      return;
    const Exit opener = InChild([&] { return OpenAndRead(slow); });
    s.Expect(opener.Answered(), "opener of a file whose scan timed out: " + opener.Text());
    s.Expect(s.AwaitEvent("processing_error", ""), "no processing_error line");
  });
}

TEST(OasdEndToEnd, StopWhileOpenersLoopLeavesNoneHanging) {
  OASD_SCENARIO([](Sandbox& s) {
    constexpr int kOpeners = 4;
    for (int i = 0; i < kOpeners; ++i)
      WriteFile(s.Watched("busy" + std::to_string(i)), "busy " + std::to_string(i) + "\x01");
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 50)")) return;
    const std::string stop = s.State("stop");
    std::vector<pid_t> openers;
    for (int i = 0; i < kOpeners; ++i)
      openers.push_back(Spawn([&, i] {
        const std::string file = s.Watched("busy" + std::to_string(i));
        while (::access(stop.c_str(), F_OK) != 0)
          if (const int error = OpenAndRead(file)) return error;
        return 0;
      }));
    std::this_thread::sleep_for(700ms);
    s.StopOasd();
    WriteFile(stop, "");
    for (int i = 0; i < kOpeners; ++i) {
      const Exit exit = WaitFor(openers[static_cast<size_t>(i)], kOpenerLimit);
      s.Expect(exit.Is(0), "opener " + std::to_string(i) + " across the stop: " + exit.Text());
    }
  });
}

// Bad configurations never start protection (and name paths that cannot exist), so this
// runs without root and outside a sandbox.
TEST(OasdEndToEnd, BadConfigExitsTwoNamingTheKey) {
  char dir[] = "/tmp/oasd-e2e-config-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  const std::string config = std::string(dir) + "/oasd.json", out = std::string(dir) + "/out";
  std::string output;
  const auto run = [&](const std::vector<std::string>& args) { return RunOasdToEnd(out, args, output); };
  const std::string missing = R"("watch": ["/nonexistent/oasd-e2e"])";
  const struct {
    std::string config, message;
  } cases[] = {
      {"{" + missing + R"(, "bogus": 1})", R"(config key "bogus": unknown key)"},
      {"{" + missing + "}", R"(config key "watch[0]": path "/nonexistent/oasd-e2e" does not exist)"},
      {"{" + missing + R"(, "settings": {"scan_access_type": "open"}})",
       R"(config key "settings.scan_access_type": expected an unsigned integer)"},
      {"{" + missing + ",", "malformed JSON"},
  };
  for (const auto& c : cases) {
    WriteFile(config, c.config);
    for (const char* mode : {"--config", "--check-config"}) {
      const Exit exit = run({mode, config});
      EXPECT_TRUE(exit.Is(2)) << mode << " " << c.config << ": " << exit.Text(false);
      EXPECT_NE(output.find(c.message), std::string::npos) << c.config << "\n  printed: " << output;
      EXPECT_EQ(output.find("oasd: ready"), std::string::npos) << output;
    }
  }
  const Exit help = run({"--help"});
  EXPECT_TRUE(help.Is(0)) << help.Text(false);
  EXPECT_NE(output.find("--check-config"), std::string::npos);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace oasd_e2e
