// oasd under faults on a real fanotify: an engine that never returns, files removed or
// truncated under a scan, a full disk under the events file, oasd killed under load and a
// flood of opens beyond its worker pool. Each drill runs in its own sandbox
// (oasd_harness.h); what it measures is printed as NOTE lines.
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

// Binary content: never skipped as plain text, so every first open is scanned.
std::string Binary(const std::string& tag) { return std::string("\x7f\x01\x02", 3) + tag; }

long long MillisSince(Clock::time_point start) {
  return std::chrono::duration_cast<Millis>(Clock::now() - start).count();
}

uint64_t Metric(const std::string& page, const std::string& name) {
  return MetricValue(page, name).value_or(0);
}

std::string Count(const std::string& what, uint64_t n) { return what + " " + std::to_string(n); }

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// ---- Drill 1: the engine hangs ------------------------------------------------------

// libclamav runs inside oasd, so it cannot hang or die on its own: a scan that never returns
// is the engine's delay here, and a killed engine is oasd killed (the kill -9 drill).
TEST(OasdFaults, HungEngineIsOutwaitedByTheDeadlineAndDoesNotHoldTheStop) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string stuck = s.Watched("stuck.bin");
    WriteFile(stuck, Binary("stuck in the engine"));
    // Ten minutes stands for never: longer than the sandbox may live.
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 600000, "verdict_timeout_ms": 300,)"
                     R"( "permission_deadline_ms": 1500, "stop_timeout_ms": 2000)"))
      return;
    const auto openedAt = Clock::now();
    const Exit opener = InChild([&] { return OpenAndRead(stuck); });
    s.Note("opener of the stuck file answered after " + std::to_string(MillisSince(openedAt)) + " ms");
    s.Expect(opener.Is(0), "opener of a file whose scan never ends: " + opener.Text());

    s.Expect(s.AwaitEvent("processing_error", ""), "no processing_error line for the stuck scan");
    if (const auto e = s.FindEvent("processing_error", "")) {
      s.Expect(e->value("file", "") == stuck && e->value("reason", "") == "timeout", e->dump());
    }
    const std::string page = s.Metrics();
    s.Expect(Metric(page, "oasd_deadline_allows_total") == 1, "deadline allows:\n" + page);
    s.Expect(Metric(page, "oasd_pending_events") == 0, "still pending after the deadline:\n" + page);
    s.Expect(Metric(page, "oasd_scans_total") == 0, "the stuck scan finished after all:\n" + page);
    s.Expect(Metric(page, "oasd_processing_errors_total") == 1, "processing errors:\n" + page);

    // Nothing can interrupt the scan: the stop gives up on it after its limit, and says so.
    const auto stopAt = Clock::now();
    const Exit stop = s.StopOasd(1);
    s.Note("SIGTERM with the scan still stuck: " + stop.Text(false) + " after " +
           std::to_string(MillisSince(stopAt)) + " ms");
    s.Expect(s.OasdLog().find("the stop took too long") != std::string::npos,
             "the stop did not say why it gave up");
  });
}

// ---- Drill 2: the file changes under the scan ---------------------------------------

// The engine's delay comes before it reads, so the removal and the truncation land while
// the open waits for its scan, between the event and the read.
TEST(OasdFaults, FileRemovedOrTruncatedDuringItsScanIsAnsweredAndOasdServesOn) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string removed = s.Watched("removed.com"), truncated = s.Watched("truncated.com");
    const std::string clean = s.Watched("later.bin"), infected = s.Watched("later.com");
    WriteFile(removed, kEicar);
    WriteFile(truncated, kEicar);
    WriteFile(clean, Binary("later"));
    WriteFile(infected, kEicar);
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 2000)")) return;
    const pid_t removedOpener = Spawn([&] { return OpenAndRead(removed); });
    const pid_t truncatedOpener = Spawn([&] { return OpenAndRead(truncated); });
    const bool inFlight = WaitUntil(
        [&] { return Metric(s.Metrics(), "oasd_pending_events") == 2; }, kEventLimit);
    s.Expect(inFlight, "the two opens never waited for their scans together");
    const Exit unlinker = InChild([&] { return ::unlink(removed.c_str()) == 0 ? 0 : errno; });
    const Exit truncater = InChild([&] { return ::truncate(truncated.c_str(), 0) == 0 ? 0 : errno; });
    s.Expect(unlinker.Is(0) && truncater.Is(0), "unlink: " + unlinker.Text() + ", truncate: " + truncater.Text());

    // The event's descriptor still reaches the removed file's data: removing it smuggles
    // nothing through. What the truncated one gets depends on what the scan read.
    const Exit removedOpen = WaitFor(removedOpener, kOpenerLimit);
    s.Expect(removedOpen.Denied(), "opener of the EICAR file removed under its scan: " + removedOpen.Text());
    const Exit truncatedOpen = WaitFor(truncatedOpener, kOpenerLimit);
    s.Expect(truncatedOpen.Answered(), "opener of the file truncated under its scan: " + truncatedOpen.Text());
    s.Note("the file truncated under its scan: opener " + truncatedOpen.Text());
    s.Expect(s.AwaitEvent("detection", removed), "no detection line for the removed file");

    const Exit cleanOpen = InChild([&] { return OpenAndRead(clean); });
    s.Expect(cleanOpen.Is(0), "a clean open afterwards: " + cleanOpen.Text());
    const Exit infectedOpen = InChild([&] { return OpenAndRead(infected); });
    s.Expect(infectedOpen.Denied(), "an EICAR open afterwards: " + infectedOpen.Text());
  });
}

// ---- Drill 3: the events file's disk is full ----------------------------------------

TEST(OasdFaults, FullEventsDiskCostsRecordsNeverVerdictsAndRecovers) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string disk = s.State("disk");
    if (const std::string error = s.MountTmpfs(disk, "size=16k,mode=0755"); !error.empty())
      return s.Expect(false, error);
    // Three of the four pages filled: the events file gets one page, and its last record
    // then fits only in part.
    const std::string filler = disk + "/filler";
    WriteFile(filler, std::string(3 * 4096, 'x'));
    s.UseEventsFile(disk + "/events.jsonl");
    const std::string eicar = s.Watched("eicar.com"), clean = s.Watched("clean.bin");
    WriteFile(eicar, kEicar);
    WriteFile(clean, Binary("clean"));
    if (!s.StartOasd(R"("engine": "clamav")")) return;

    // A detection is not cached, so every open of the file is scanned and recorded again.
    constexpr int kOpens = 40;
    int denied = 0;
    for (int i = 0; i < kOpens; ++i) denied += InChild([&] { return OpenAndRead(eicar); }).Denied();
    s.Expect(denied == kOpens, Count("EICAR opens denied on a full disk, of 40:", denied));
    const Exit cleanOpen = InChild([&] { return OpenAndRead(clean); });
    s.Expect(cleanOpen.Is(0), "a clean open on a full disk: " + cleanOpen.Text());
    const std::string page = s.Metrics();
    s.Expect(Metric(page, "oasd_detections_total") == kOpens, "detections:\n" + page);
    const size_t written = s.Events().size();
    s.Note("events file on a 16 KiB disk: " + std::to_string(written) + " of " +
           std::to_string(kOpens) + " detections written");
    s.Expect(written > 0 && written < kOpens, Count("detection lines written:", written));
    const std::string failure = "Cannot write the events file";
    s.Expect(Occurrences(s.OasdLog(), failure) == 1,
             Count("write failures traced for one full-disk streak:", Occurrences(s.OasdLog(), failure)));

    ::unlink(filler.c_str());
    const Exit after = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(after.Denied(), "EICAR open once there is room again: " + after.Text());
    s.Expect(WaitUntil([&] { return s.Events().size() > written; }, kEventLimit),
             "no record written once there was room again");
    const std::string recovery = "NOTICE Writing the events file";
    WaitUntil([&] { return Occurrences(s.OasdLog(), recovery) > 0; }, kEventLimit);
    s.Expect(Occurrences(s.OasdLog(), recovery) == 1, "the recovery was not traced once");
    // A record cut short by the full disk must not be glued to the next one.
    for (const auto& e : s.Events())
      s.Expect(e.is_object() && e.value("type", "") == "detection", "a broken events line: " + e.dump());
  });
}

// ---- Drill 4: oasd killed under load ------------------------------------------------

TEST(OasdFaults, KilledOasdLetsEveryHeldOpenerGoAndStartsAgain) {
  OASD_SCENARIO([](Sandbox& s) {
    constexpr int kOpeners = 8, kFiles = 100;
    const auto file = [&](int opener, int i) {
      return s.Watched("load" + std::to_string(opener) + "_" + std::to_string(i));
    };
    for (int o = 0; o < kOpeners; ++o)
      for (int i = 0; i < kFiles; ++i) WriteFile(file(o, i), Binary(std::to_string(o * kFiles + i)));
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 100)")) return;
    const std::string stop = s.State("stop");
    std::vector<pid_t> openers;
    for (int o = 0; o < kOpeners; ++o)
      openers.push_back(Spawn([&, o] {
        for (int i = 0; ::access(stop.c_str(), F_OK) != 0; ++i)
          if (const int error = OpenAndRead(file(o, i % kFiles))) return error;
        return 0;
      }));
    const bool held = WaitUntil(
        [&] { return Metric(s.Metrics(), "oasd_pending_events") >= 2; }, kEventLimit);
    s.Expect(held, "no opens were waiting for oasd when it was killed");

    const auto killedAt = Clock::now();
    s.KillOasd();
    WriteFile(stop, "");
    long long slowest = 0;
    for (int o = 0; o < kOpeners; ++o) {
      const Exit exit = WaitFor(openers[static_cast<size_t>(o)], 10s);
      s.Expect(exit.Is(0), "opener " + std::to_string(o) + " across the kill: " + exit.Text());
      slowest = std::max(slowest, MillisSince(killedAt));
    }
    s.Note("all " + std::to_string(kOpeners) + " openers done " + std::to_string(slowest) +
           " ms after the kill");

    // Nothing of the killed oasd stays in the way of the next one.
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const std::string eicar = s.Watched("eicar.com");
    WriteFile(eicar, kEicar);
    const Exit eicarOpen = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(eicarOpen.Denied(), "EICAR open with a restarted oasd: " + eicarOpen.Text());
  });
}

// ---- Drill 5: more opens than the pool takes ----------------------------------------

// Counts shared with the opener processes: an anonymous shared mapping made before they fork.
struct Tally {
  std::atomic<uint32_t> allowed{0}, denied{0}, failed{0};

  uint32_t Total() const { return allowed + denied + failed; }
  std::string Text() const {
    return std::to_string(allowed) + " allowed, " + std::to_string(denied) + " denied, " +
           std::to_string(failed) + " failed";
  }
};

class SharedTally {
 public:
  SharedTally() {
    void* memory = ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap of the shared tally failed");
    m_tally = ::new (memory) Tally();
  }
  ~SharedTally() {
    m_tally->~Tally();
    ::munmap(m_tally, sizeof(Tally));
  }
  SharedTally(const SharedTally&) = delete;
  SharedTally& operator=(const SharedTally&) = delete;
  Tally& operator*() const { return *m_tally; }

 private:
  Tally* m_tally;
};

struct FloodJob {
  const std::string* path;
  Tally* tally;
};

void* OpenOnce(void* argument) {
  const auto& job = *static_cast<FloodJob*>(argument);
  const int error = OpenAndRead(*job.path);
  (error == 0 ? job.tally->allowed : error == EACCES || error == EPERM ? job.tally->denied : job.tally->failed)++;
  return nullptr;
}

// One thread per path, all opening at once; threads that cannot start count as failed.
int OpenAllAtOnce(const std::vector<std::string>& paths, Tally& tally) {
  pthread_attr_t attr;
  ::pthread_attr_init(&attr);
  ::pthread_attr_setstacksize(&attr, 256 * 1024);
  std::vector<FloodJob> jobs;
  for (const auto& path : paths) jobs.push_back(FloodJob{&path, &tally});
  std::vector<pthread_t> threads;
  for (auto& job : jobs) {
    pthread_t thread;
    if (::pthread_create(&thread, &attr, OpenOnce, &job) == 0)
      threads.push_back(thread);
    else
      ++tally.failed;
  }
  for (const pthread_t thread : threads) ::pthread_join(thread, nullptr);
  ::pthread_attr_destroy(&attr);
  return 0;
}

// oasd's resident set in kB: now, and the peak so far.
struct Memory {
  uint64_t rssKb = 0, peakKb = 0;
  std::string Text() const {
    return std::to_string(rssKb / 1024) + " MiB resident, peak " + std::to_string(peakKb / 1024) + " MiB";
  }
};

Memory MemoryOf(pid_t pid) {
  return Memory{StatusKb(pid, "VmRSS").value_or(0), StatusKb(pid, "VmHWM").value_or(0)};
}

// AddressSanitizer keeps freed memory in quarantine (up to 256 MiB) and adds its shadow, so
// its figures bound little; the plain build's are the ones that say what oasd needs.
#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kFloodGrowthLimitKb = 1024 * 1024;
constexpr uint64_t kRepeatGrowthLimitKb = 512 * 1024;
#else
constexpr uint64_t kFloodGrowthLimitKb = 64 * 1024;
constexpr uint64_t kRepeatGrowthLimitKb = 32 * 1024;
#endif

TEST(OasdFaults, OpenFloodBeyondThePoolIsAnsweredInBoundedMemory) {
  OASD_SCENARIO([](Sandbox& s) {
    // Well past the module's queue of 4096 and the pool's threads.
    constexpr int kProcesses = 10, kThreadsEach = 500;
    std::vector<std::vector<std::string>> paths(kProcesses);
    for (int p = 0; p < kProcesses; ++p)
      for (int t = 0; t < kThreadsEach; ++t) {
        paths[p].push_back(s.Watched("flood" + std::to_string(p) + "_" + std::to_string(t)));
        WriteFile(paths[p].back(), Binary(std::to_string(p * kThreadsEach + t)));
      }
    // Four scans a second at most: the queue stays full for the whole drill.
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 1000, "verdict_timeout_ms": 3000,)"
                     R"( "permission_deadline_ms": 3000)"))
      return;
    const Memory before = MemoryOf(s.Oasd());
    s.Note("oasd before the flood: " + before.Text());

    const auto wave = [&](const std::string& name) {
      SharedTally tally;
      const auto startedAt = Clock::now();
      std::vector<pid_t> openers;
      for (int p = 0; p < kProcesses; ++p)
        openers.push_back(Spawn([&, p] { return OpenAllAtOnce(paths[p], *tally); }));
      uint64_t highest = 0;
      const bool answered = WaitUntil([&] {
        highest = std::max(highest, MemoryOf(s.Oasd()).rssKb);
        return (*tally).Total() == kProcesses * kThreadsEach;
      }, 60s);
      for (const pid_t opener : openers) WaitFor(opener, answered ? 10s : 0ms);
      const Memory after = MemoryOf(s.Oasd());
      s.Note(name + ": " + (*tally).Text() + " in " + std::to_string(MillisSince(startedAt)) +
             " ms; oasd at most " + std::to_string(highest / 1024) + " MiB sampled, then " + after.Text());
      s.Expect(answered, name + ": openers left waiting: " + (*tally).Text());
      s.Expect((*tally).failed == 0, name + ": " + (*tally).Text());
      // Past the queue the module refuses, and a refused open is denied.
      s.Expect((*tally).denied > 0, name + ": the pool's queue never filled: " + (*tally).Text());
      return after;
    };
    const Memory first = wave("first wave of 5000 opens");
    const std::string page = s.Metrics();
    s.Note("after the first wave: " + Count("deadline allows", Metric(page, "oasd_deadline_allows_total")) +
           ", " + Count("deny verdicts", Metric(page, "oasd_verdicts_total{verdict=\"deny\"}")) + ", " +
           Count("scans", Metric(page, "oasd_scans_total")));
    // The queue of 4,096 is let through at the deadline, less the few scans that end before it.
    s.Expect(Metric(page, "oasd_deadline_allows_total") >= 4000, "deadline allows:\n" + page);
    const Memory second = wave("second wave of 5000 opens");
    s.Expect(first.peakKb - before.rssKb < kFloodGrowthLimitKb,
             "oasd grew by " + std::to_string((first.peakKb - before.rssKb) / 1024) + " MiB");
    // The queue was full throughout the second wave: it must not have cost anything more.
    s.Expect(second.peakKb - first.peakKb < kRepeatGrowthLimitKb,
             "the second wave grew oasd's peak by " + std::to_string((second.peakKb - first.peakKb) / 1024) + " MiB");

    const auto stopAt = Clock::now();
    const Exit stop = s.StopOasd();
    s.Note("SIGTERM with a full queue: " + stop.Text(false) + " after " + std::to_string(MillisSince(stopAt)) + " ms");
  });
}

}  // namespace
}  // namespace oasd_e2e
