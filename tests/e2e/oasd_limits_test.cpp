// oasd at its limits on a real fanotify: files past the engine's size limit (sparse ones
// among them) under either unscanned_action, and opens the permission deadline answers
// during a flood of slow scans under either deadline_action. Each scenario runs in its own
// sandbox (oasd_harness.h).
#include <unistd.h>

#include <vector>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

constexpr off_t kSparseSize = 101 << 20;  // past the default size limit of 100 MiB

// Binary content: never skipped as plain text, so every open is scanned.
std::string Binary(const std::string& tag) { return std::string("\x7f\x01\x02", 3) + tag; }

// content at offset 0, then a hole up to kSparseSize.
void WriteSparse(const std::string& path, const std::string& content) {
  WriteFile(path, content);
  ::truncate(path.c_str(), kSparseSize);
}

size_t CountEvents(const Sandbox& s, const std::string& type, const std::string& path) {
  size_t n = 0;
  for (const auto& e : s.Events())
    n += e.is_object() && e.value("type", "") == type && e.value("path", "") == path;
  return n;
}

uint64_t Unprocessed(Sandbox& s, const std::string& reason) {
  return MetricValue(s.Metrics(), "oasd_unprocessed_total{reason=\"" + reason + "\"}").value_or(0);
}

TEST(OasdLimits, SparseFilePastTheSizeLimitIsScannedByItsHeadAndNeverCachedClean) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string infected = s.Watched("sparse.com"), clean = s.Watched("sparse.bin");
    WriteSparse(infected, kEicar);
    WriteSparse(clean, Binary("clean head"));
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit infectedOpen = InChild([&] { return OpenAndRead(infected); });
    s.Expect(infectedOpen.Denied(), "101 MiB sparse file with EICAR at 0: " + infectedOpen.Text());
    s.Expect(s.AwaitEvent("detection", infected), "no detection line for the sparse EICAR file");

    // Allowed by the default policy, reported, and scanned again on every open, even by a
    // process both caches would know and once its change time has settled.
    std::this_thread::sleep_for(200ms);
    const Exit opener = InChild([&] {
      for (int i = 0; i < 2; ++i) {
        if (const int error = OpenAndRead(clean)) return error;
        std::this_thread::sleep_for(100ms);
      }
      return 0;
    });
    s.Expect(opener.Is(0), "101 MiB sparse file with a clean head, twice: " + opener.Text());
    s.Expect(WaitUntil([&] { return CountEvents(s, "unprocessed", clean) == 2; }, kEventLimit),
             "not one unprocessed line per open of the sparse file");
    if (const auto e = s.FindEvent("unprocessed", clean)) {
      s.Expect(e->value("reason", "") == "size_limit" && e->value("action", "") == "allow" &&
                   !e->value("detail", "").empty() && e->contains("pid"),
               e->dump());
    }
    s.Expect(Unprocessed(s, "size_limit") == 2, "size_limit count:\n" + s.Metrics());
  });
}

TEST(OasdLimits, WithUnscannedActionDenyFilesPastTheLimitsAreRefused) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string sparse = s.Watched("sparse.bin"), big = s.Watched("big.bin");
    const std::string small = s.Watched("small.bin");
    WriteSparse(sparse, Binary("clean head"));
    WriteFile(big, Binary(std::string(2 << 20, 'a')));
    WriteFile(small, Binary("small"));
    if (!s.StartOasd(R"("engine": "clamav", "unscanned_action": "deny",)"
                     R"( "settings": {"ScanSettings": {"ScanSettingsBase": {"size_limit": 1048576}}})"))
      return;
    for (const auto& path : {sparse, big}) {
      const Exit open = InChild([&] { return OpenAndRead(path); });
      s.Expect(open.Denied(), path + " past the size limit: " + open.Text());
      s.Expect(s.AwaitEvent("unprocessed", path), "no unprocessed line for " + path);
      if (const auto e = s.FindEvent("unprocessed", path))
        s.Expect(e->value("action", "") == "deny", e->dump());
    }
    const Exit smallOpen = InChild([&] { return OpenAndRead(small); });
    s.Expect(smallOpen.Is(0), "a small clean file: " + smallOpen.Text());
  });
}

// Scans held one second each by the engine's delay, a deadline well short of that: the
// EICAR open waits behind the flood and is answered by the deadline, whatever it holds.
// The files are written before oasd starts: a writer's own open would be scanned too.
std::vector<std::string> WriteFlood(Sandbox& s, const std::string& eicar) {
  std::vector<std::string> paths;
  for (int i = 0; i < 6; ++i) {
    paths.push_back(s.Watched("flood" + std::to_string(i) + ".bin"));
    WriteFile(paths.back(), Binary(std::to_string(i)));
  }
  WriteFile(eicar, kEicar);
  return paths;
}

Exit OpenEicarDuringAFlood(const std::vector<std::string>& flood, const std::string& eicar) {
  std::vector<pid_t> openers;
  for (const auto& path : flood) openers.push_back(Spawn([path] { return OpenAndRead(path); }));
  const Exit eicarOpen = InChild([&] { return OpenAndRead(eicar); });
  for (const pid_t opener : openers) WaitFor(opener, kOpenerLimit);
  return eicarOpen;
}

constexpr char kSlowEngine[] =
    R"("engine": "clamav", "engine_delay_ms": 1000, "permission_deadline_ms": 300,)"
    R"( "verdict_timeout_ms": 300)";

TEST(OasdLimits, WithDeadlineActionDenyAnEicarOpenDuringAFloodIsRefused) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    const auto flood = WriteFlood(s, eicar);
    if (!s.StartOasd(std::string(kSlowEngine) + R"(, "deadline_action": "deny")")) return;
    const Exit eicarOpen = OpenEicarDuringAFlood(flood, eicar);
    s.Expect(eicarOpen.Denied(), "EICAR open past the deadline: " + eicarOpen.Text());
    const std::string page = s.Metrics();
    s.Expect(MetricValue(page, "oasd_deadline_denies_total").value_or(0) >= 1, "deadline denies:\n" + page);
    s.Expect(MetricValue(page, "oasd_deadline_allows_total").value_or(0) == 0, "deadline allows:\n" + page);
  });
}

TEST(OasdLimits, WithDeadlineActionAllowADetectionAfterTheDeadlineIsReportedLate) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com");
    const auto flood = WriteFlood(s, eicar);
    if (!s.StartOasd(kSlowEngine)) return;
    const Exit eicarOpen = OpenEicarDuringAFlood(flood, eicar);
    s.Expect(eicarOpen.Is(0), "EICAR open let through by the deadline: " + eicarOpen.Text());
    s.Expect(s.AwaitEvent("detection", eicar), "no detection line once the late scan finished");
    if (const auto e = s.FindEvent("detection", eicar))
      s.Expect(e->value("late", false), "the detection is not marked late: " + e->dump());
    const std::string page = s.Metrics();
    s.Expect(MetricValue(page, "oasd_late_detections_total").value_or(0) == 1, "late detections:\n" + page);
    s.Expect(MetricValue(page, "oasd_deadline_allows_total").value_or(0) >= 1, "deadline allows:\n" + page);
  });
}

}  // namespace
}  // namespace oasd_e2e
