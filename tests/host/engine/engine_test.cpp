// The scanning engine against the module's real interceptor event over the fake host:
// detection and clean answers through a real descriptor, files past the limits, scans
// shared between concurrent opens, the checked-object cache (hits, changed files, reloads,
// scans racing a reload) and the cache's own bookkeeping.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/engine/checked_cache.h"
#include "host/engine/clamav_engine.h"
#include "host/engine/module_cacheable.h"
#include "nox_common/container_identification_tools.h"
#include "oas/file_interceptor_event.h"
#include "testing/fake_host.h"

namespace {

using namespace qeb::testing;
using oasd::CheckedCache;
using oasd::CheckedKey;
using oasd::ClamavEngine;
using oasd::DetectionRecord;
using oasd::ScanOutcome;
using oasd::UnprocessedRecord;

constexpr std::string_view kEicar =
    R"(X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*)";
constexpr uint32_t kAllowClean = 1;
constexpr uint32_t kAllow = 2;
constexpr uint32_t kDeny = 4;

class Fd {
 public:
  explicit Fd(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~Fd() { ::close(m_fd); }
  int Get() const { return m_fd; }

 private:
  int m_fd;
};

// Lets the written files' change times fall behind what the cache will remember.
void LetChangesSettle() { std::this_thread::sleep_for(oasd::kChangeSettleTime * 2); }

void Overwrite(const std::string& path, std::string_view content) {
  std::fstream out(path, std::ios::in | std::ios::out | std::ios::binary);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    options.checkedCacheEntries = 16;
    options.clamavDatabaseDir.clear();
    options.settings.ScanSettings.ScanSettingsBase.report_unprocessed_objects = true;
  }

  qeb::objptr_t<qeb::ITracer> Tracer() const {
    return qeb::objptr_t<qeb::ITracer>(host.tracer.Get());
  }

  qeb::objptr_t<ClamavEngine> MakeEngine() {
    auto engine = MakeHostObject<ClamavEngine>(Tracer(), metrics, options,
                                               [this](const DetectionRecord& record) {
                                                 std::lock_guard lock(mutex);
                                                 detections.push_back(record);
                                               },
                                               [this](const UnprocessedRecord& record) {
                                                 unprocessed.push_back(record);
                                               });
    EXPECT_EQ(engine->SetUp(), qeb::res::Ok);
    return engine;
  }
  void UseChecker(bool on) { options.settings.ScanSettings.ScanSettingsBase.use_ichecker = on; }

  // Runs one open of fd through the handler and answers the verdict the host received.
  uint32_t Open(vrel::IEventHandler085* handler, int fd, const std::string& path) {
    vrel::EventParams params;
    params.fileName = std::string_view(path);
    params.pid = getpid();
    params.fd = fd;
    params.nsid = nox::containers::GetOwnMountNamespaceId();
    params.oper = vrel::VREL_ACTION_OPEN;
    params.replyHandle = 1;
    const size_t before = host.verdictNotifier->Verdicts().size();
    {
      auto event = qeb::CreateObject<nox::oas::FileInterceptorEvent>(
          host.Locator(), params, 1000, handler, false, nullptr, host.containersMonitor.Get());
      handler->OnEvent(event.Get(), 0xFFFFFFFF);
    }
    const auto verdicts = host.verdictNotifier->Verdicts();
    return verdicts.size() == before + 1 ? verdicts.back().verdict : 0;
  }
  uint32_t Open(vrel::IEventHandler085* handler, const std::string& path) {
    const Fd fd(path);
    return Open(handler, fd.Get(), path);
  }

  FakeHost host;
  TempDir dir;
  oasd::HostMetrics metrics;
  oasd::HostOptions options;
  std::mutex mutex;
  std::vector<DetectionRecord> detections;
  std::vector<UnprocessedRecord> unprocessed;
};

TEST_F(EngineTest, DeniesEicarThroughItsDescriptorAndAllowsCleanFilesAsCacheable) {
  auto engine = MakeEngine();
  EXPECT_GE(engine->SignatureCount(), 1u);
  const std::string eicar = dir.Write("eicar.com", std::string(kEicar) + "\n");
  const std::string clean = dir.Write("notes.txt", "nothing to see here\n");
  LetChangesSettle();

  // The name is gone before the scan: only the descriptor can still show the content.
  const Fd eicarFd(eicar);
  ASSERT_EQ(::unlink(eicar.c_str()), 0);
  EXPECT_EQ(Open(engine.Get(), eicarFd.Get(), eicar), kDeny);
  EXPECT_EQ(Open(engine.Get(), clean), kAllowClean);

  ASSERT_EQ(detections.size(), 1u);
  EXPECT_EQ(detections[0].path, eicar);
  EXPECT_EQ(detections[0].threat, "Eicar-Test-Signature");
  EXPECT_EQ(detections[0].pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(detections[0].uid, static_cast<uint32_t>(getuid()));
  EXPECT_EQ(detections[0].operation, "open");
  EXPECT_EQ(metrics.scans, 2u);
  uint64_t recorded = 0;
  for (const auto& bucket : metrics.latencyBuckets) recorded += bucket;
  EXPECT_EQ(recorded, 2u);
}

TEST_F(EngineTest, EventsWithoutAReadableDescriptorAreAllowedButNotCacheable) {
  auto engine = MakeEngine();
  EXPECT_EQ(Open(engine.Get(), -1, "/renamed/file"), kAllow);
  EXPECT_EQ(metrics.scans, 0u);
}

TEST_F(EngineTest, SetUpFailsOnAMissingOrEmptySignatureDirectory) {
  options.signatureDir = dir.Path() + "/missing";
  auto missing = MakeHostObject<ClamavEngine>(Tracer(), metrics, options, nullptr);
  EXPECT_TRUE(QEB_FAILED(missing->SetUp()));
  options.signatureDir = dir.Path();
  auto empty = MakeHostObject<ClamavEngine>(Tracer(), metrics, options, nullptr);
  EXPECT_TRUE(QEB_FAILED(empty->SetUp()));
  // Without signatures nothing is claimed clean.
  const std::string clean = dir.Write("a.txt", "a");
  EXPECT_EQ(Open(empty.Get(), clean), kAllow);
}

// Past the size limit only the head is scanned: a threat there is found as in a small
// file, anything else is unprocessed, answered by the policy, never cached and scanned again.
TEST_F(EngineTest, FilesPastTheSizeLimitAreScannedByTheirHeadAndNeverCachedClean) {
  UseChecker(true);
  options.settings.ScanSettings.ScanSettingsBase.size_limit = 4096;
  auto engine = MakeEngine();
  const std::string headThreat = dir.Write("head.com", std::string(kEicar) + std::string(8192, ' '));
  const std::string big = dir.Write("big.bin", std::string(8192, 'a'));
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), headThreat), kDeny);
  EXPECT_EQ(Open(engine.Get(), big), kAllow);
  EXPECT_EQ(Open(engine.Get(), big), kAllow);
  EXPECT_EQ(metrics.scans, 3u);
  EXPECT_EQ(engine->CheckedCacheSize(), 0u);
  ASSERT_EQ(unprocessed.size(), 2u);
  EXPECT_EQ(unprocessed[0].reason, "size_limit");
  EXPECT_EQ(unprocessed[0].path, big);
  EXPECT_FALSE(unprocessed[0].denied);
  EXPECT_EQ(metrics.unprocessed[0], 2u);

  options.denyUnscanned = true;
  engine->ApplyOptions(options);
  EXPECT_EQ(Open(engine.Get(), big), kDeny);
  EXPECT_TRUE(unprocessed.back().denied);
}

// A sparse file claims far more than it holds; with the default limits its threat at
// offset 0 must cost no more to find than in a small file.
TEST_F(EngineTest, SparseFileOverTheDefaultLimitWithEicarAtItsHeadIsDenied) {
  auto engine = MakeEngine();
  const std::string sparse = dir.Write("sparse.com", kEicar);
  ASSERT_EQ(::truncate(sparse.c_str(), 101 << 20), 0);
  EXPECT_EQ(Open(engine.Get(), sparse), kDeny);
  const std::string holes = dir.Write("holes.bin", "");
  ASSERT_EQ(::truncate(holes.c_str(), 101 << 20), 0);
  EXPECT_EQ(Open(engine.Get(), holes), kAllow);
  ASSERT_EQ(unprocessed.size(), 1u);
  EXPECT_EQ(unprocessed[0].reason, "size_limit");
}

// The engine is held in its delay until every opener has joined the first one's scan, so
// with sharing broken each runs its own. A file changed under the scan is scanned again by
// every waiter: none is answered about content its own event did not see.
TEST_F(EngineTest, ConcurrentScansOfOneFileStateRunTheEngineOnceUnlessItChanges) {
  constexpr size_t kOpeners = 6;
  options.engineDelayMs = 600000;
  auto engine = MakeEngine();
  const std::string file = dir.Write("shared.com", kEicar);
  LetChangesSettle();
  const auto round = [&](const std::function<void()>& whileHeld) {
    std::vector<std::unique_ptr<Fd>> fds;
    for (size_t i = 0; i < kOpeners; ++i) fds.push_back(std::make_unique<Fd>(file));
    const CheckedKey key = *oasd::CheckedKeyOfFd(fds[0]->Get(), oasd::WrittenFiles{});
    std::vector<ScanOutcome::Kind> kinds(kOpeners, ScanOutcome::Clean);
    std::vector<std::thread> openers;
    for (size_t i = 0; i < kOpeners; ++i)
      openers.emplace_back([&, i] { kinds[i] = engine->ScanDescriptor(fds[i]->Get()).kind; });
    EXPECT_TRUE(engine->AwaitWaiters(key, kOpeners - 1, std::chrono::seconds(20)));
    whileHeld();
    options.engineDelayMs = 0;
    engine->ApplyOptions(options);
    for (auto& opener : openers) opener.join();
    options.engineDelayMs = 600000;
    engine->ApplyOptions(options);
    for (const auto kind : kinds) EXPECT_EQ(kind, ScanOutcome::Detected);
  };
  round([] {});
  EXPECT_EQ(metrics.scans, 1u);
  EXPECT_EQ(metrics.coalescedScans, kOpeners - 1);

  LetChangesSettle();
  round([&] { Overwrite(file, std::string(kEicar).replace(0, 1, "Y")); Overwrite(file, kEicar); });
  EXPECT_EQ(metrics.scans, 1u + kOpeners);
  EXPECT_EQ(metrics.coalescedScans, kOpeners - 1);
}

TEST_F(EngineTest, FreshlyChangedFilesAndLongPathsAreNotLeftToTheModulesCache) {
  auto engine = MakeEngine();
  const Fd fd(dir.Write("clean.txt", "clean"));
  const std::string longest(oasd::kMaxModuleCachedPath, 'p');
  EXPECT_EQ(Open(engine.Get(), fd.Get(), longest), kAllow);  // a write in this tick would not show
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), fd.Get(), longest), kAllowClean);
  EXPECT_EQ(Open(engine.Get(), fd.Get(), longest + "p"), kAllow);
}

TEST_F(EngineTest, CheckedCacheAnswersUnchangedFilesAndRescansChangedOnes) {
  UseChecker(true);
  auto engine = MakeEngine();
  const std::string file = dir.Write("tool.bin", std::string(kEicar.size(), 'a'));
  LetChangesSettle();

  EXPECT_EQ(Open(engine.Get(), file), kAllowClean);
  EXPECT_EQ(Open(engine.Get(), file), kAllowClean);
  EXPECT_EQ(metrics.scans, 1u);
  EXPECT_EQ(metrics.checkedCacheHits, 1u);

  // Same inode, same size, new content: the change time alone must give it away.
  Overwrite(file, kEicar);
  EXPECT_EQ(Open(engine.Get(), file), kDeny);
  EXPECT_EQ(metrics.scans, 2u);

  const std::string other = dir.Write("other.bin", "clean");
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), other), kAllowClean);
  EXPECT_EQ(engine->CheckedCacheSize(), 1u);
  ASSERT_EQ(engine->ReloadSignatures(), qeb::res::Ok);
  EXPECT_EQ(engine->CheckedCacheSize(), 0u);
  EXPECT_EQ(Open(engine.Get(), other), kAllowClean);
  EXPECT_EQ(metrics.scans, 4u);
  EXPECT_EQ(metrics.checkedCacheHits, 1u);
}

TEST_F(EngineTest, CheckedCacheSkipsFreshlyChangedFilesAndIsOffUnlessAsked) {
  UseChecker(true);
  auto engine = MakeEngine();
  const std::string fresh = dir.Write("fresh.txt", "just written");
  EXPECT_EQ(Open(engine.Get(), fresh), kAllow);
  EXPECT_EQ(engine->CheckedCacheSize(), 0u);

  UseChecker(false);
  engine->ApplyOptions(options);
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), fresh), kAllowClean);
  EXPECT_EQ(Open(engine.Get(), fresh), kAllowClean);
  EXPECT_EQ(metrics.checkedCacheHits, 0u);
  EXPECT_EQ(metrics.scans, 3u);
}

TEST_F(EngineTest, AScanRacingAReloadFinishesAndIsNotRemembered) {
  UseChecker(true);
  options.engineDelayMs = 300;
  auto engine = MakeEngine();
  const std::string file = dir.Write("slow.txt", "clean");
  LetChangesSettle();
  const Fd fd(file);

  oasd::ScanOutcome outcome;
  std::thread scan([&] { outcome = engine->ScanDescriptor(fd.Get()); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(engine->ReloadSignatures(), qeb::res::Ok);
  scan.join();
  EXPECT_EQ(outcome.kind, oasd::ScanOutcome::Clean);
  EXPECT_EQ(engine->CheckedCacheSize(), 0u);
}

// ---- what a user sets ----------------------------------------------------------------

// A zip made by the zip tool: the test signature matches at offset 0 only, so it is found
// only when libclamav opens the archive.
std::string Zipped(const TempDir& dir, const std::string& file) {
  const std::string zip = dir.Path() + "/" + file + ".zip";
  const std::string command = "cd '" + dir.Path() + "' && zip -q -X " + zip + " " + file;
  return std::system(command.c_str()) == 0 ? zip : std::string();
}

TEST_F(EngineTest, ArchiveParsingFollowsScanArchivedAndReportsWhatTheSettingsAsk) {
  auto& base = options.settings.ScanSettings.ScanSettingsBase;
  base.scan_archived = true;
  base.report_packed_objects = true;
  base.report_clean_objects = true;
  UseChecker(true);
  auto engine = MakeEngine();
  std::vector<oasd::ObjectRecord> objects;
  engine->SetObjectCallback([&](const oasd::ObjectRecord& r) { objects.push_back(r); });
  dir.Write("eicar.com", kEicar);
  const std::string zip = Zipped(dir, "eicar.com");
  ASSERT_FALSE(zip.empty()) << "the zip tool is missing";
  const std::string plain = dir.Write("plain.bin", "\x7f plain");
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), zip), kDeny);
  EXPECT_EQ(Open(engine.Get(), plain), kAllowClean);

  // Off, the archive is clean; that answer must not outlive the setting.
  base.scan_archived = false;
  engine->ApplyOptions(options);
  EXPECT_EQ(Open(engine.Get(), zip), kAllowClean);
  base.scan_archived = true;
  engine->ApplyOptions(options);
  EXPECT_EQ(Open(engine.Get(), zip), kDeny);
  const std::string cleanZip = Zipped(dir, "plain.bin");
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), cleanZip), kAllowClean);
  ASSERT_EQ(objects.size(), 3u);
  EXPECT_EQ(objects[0].type, "clean");
  EXPECT_EQ(objects[0].path, plain);
  EXPECT_EQ(objects[1].type, "clean");  // nothing taken out with archives off
  EXPECT_EQ(objects[2].type, "packed");
  EXPECT_NE(objects[2].detail.find("1 objects inside"), std::string::npos) << objects[2].detail;
}

TEST_F(EngineTest, ExcludedPathsAndThreatsPassUnscannedUnreportedAndUncached) {
  auto& scan = options.settings.ScanSettings;
  scan.ExcludeMasks = {true, {"*.log", "/nowhere/*"}};
  scan.ExcludeThreats = {true, {"Eicar-*"}};
  auto engine = MakeEngine();
  const std::string log = dir.Write("x.log", kEicar);
  const std::string com = dir.Write("x.com", kEicar);
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), log), kAllow);
  EXPECT_EQ(metrics.scans, 0u);
  EXPECT_EQ(Open(engine.Get(), com), kAllow);
  EXPECT_EQ(metrics.scans, 1u);
  EXPECT_TRUE(detections.empty());

  scan.ExcludeThreats.use_exclude_threats = false;
  engine->ApplyOptions(options);
  EXPECT_EQ(Open(engine.Get(), com), kDeny);
  EXPECT_TRUE(oasd::MaskMatches("/var/log/*", "/var/log/a/b.txt"));
  EXPECT_FALSE(oasd::MaskMatches("*.log", "/a.log/b"));
}

TEST_F(EngineTest, ScanFilterChoosesByNameOrContentButExecutionsAreAlwaysScanned) {
  auto& base = options.settings.ScanSettings.ScanSettingsBase;
  base.scan_filter = 2;  // ByExtension
  auto engine = MakeEngine();
  const std::string text = dir.Write("eicar.txt", kEicar);
  const std::string bare = dir.Write("eicar", kEicar);
  LetChangesSettle();
  EXPECT_EQ(Open(engine.Get(), text), kAllow);
  EXPECT_EQ(Open(engine.Get(), bare), kDeny);
  base.scan_filter = 1;  // ByFormat: EICAR is text
  engine->ApplyOptions(options);
  EXPECT_EQ(Open(engine.Get(), bare), kAllow);
  const std::string script = dir.Write("run", "#!/bin/sh\n" + std::string(kEicar));
  EXPECT_TRUE(oasd::FilterSelects(oasd::PolicyFor(options), Fd(script).Get(), script));
  EXPECT_EQ(metrics.scans, 1u);
}

// libclamav has one switch per parser: which settings field owns it depends on the file.
TEST_F(EngineTest, MailAndArchiveParsingFollowTheFieldThatOwnsTheFilesKind) {
  auto& scan = options.settings.ScanSettings;
  scan.ScanSettingsBase.scan_archived = scan.ScanSettingsBase.scan_plain_mail = true;
  scan.EmulatorSettings = {true, 2};  // Deep
  const oasd::ScanPolicy policy = oasd::PolicyFor(options);
  const auto parse = [&](const std::string& name, const std::string& content) {
    return oasd::ScanOptionsFor(policy, Fd(dir.Write(name, content)).Get()).parse;
  };
  EXPECT_FALSE(parse("inbox", "From a@b Mon Jan  1 00:00:00 2024\n") & CL_SCAN_PARSE_MAIL);
  EXPECT_TRUE(parse("message.eml", "Received: from a\n") & CL_SCAN_PARSE_MAIL);
  EXPECT_FALSE(parse("setup.exe", "MZ\x90") & CL_SCAN_PARSE_ARCHIVE);
  EXPECT_TRUE(parse("a.zip", "PK\x03\x04") & CL_SCAN_PARSE_ARCHIVE);
  EXPECT_TRUE(oasd::ScanOptionsFor(policy, -1).heuristic & CL_SCAN_HEURISTIC_MACROS);
  scan.EmulatorSettings.use_emulator = false;  // limits are still reported
  EXPECT_EQ(oasd::ScanOptionsFor(oasd::PolicyFor(options), -1).heuristic,
            static_cast<uint32_t>(CL_SCAN_HEURISTIC_EXCEEDS_MAX));
}

TEST_F(EngineTest, DisinfectIsBlockedAndSaysSoWhileNotifyIsReported) {
  auto& base = options.settings.ScanSettings.ScanSettingsBase;
  base.infected_action = 0;  // Disinfect
  auto engine = MakeEngine();
  const std::string eicar = dir.Write("eicar.com", kEicar);
  EXPECT_EQ(Open(engine.Get(), eicar), kDeny);
  base.infected_action = 5;  // Notify: the module turns the deny into an allow
  engine->ApplyOptions(options);
  EXPECT_EQ(Open(engine.Get(), eicar), kDeny);
  ASSERT_EQ(detections.size(), 2u);
  EXPECT_EQ(detections[0].action, "blocked");
  EXPECT_NE(detections[0].note.find("disinfection is not available"), std::string::npos);
  EXPECT_EQ(detections[1].action, "reported");
  EXPECT_TRUE(detections[1].note.empty());
}

TEST(CheckedCacheTest, KeepsOneEntryPerFileEvictsTheLeastRecentlyUsedAndSettlesCoarseTimesLater) {
  CheckedCache cache(2);
  const CheckedKey a{1, 10, 100, 0, 5};
  const CheckedKey b{1, 11, 100, 0, 5};
  const CheckedKey c{2, 10, 100, 0, 5};  // same inode, other device
  cache.Insert(a, cache.Generation());
  cache.Insert(b, cache.Generation());
  EXPECT_TRUE(cache.Contains(a));  // a is now the most recent
  cache.Insert(c, cache.Generation());
  EXPECT_TRUE(cache.Contains(a));
  EXPECT_FALSE(cache.Contains(b));
  EXPECT_TRUE(cache.Contains(c));

  CheckedKey changed = a;
  changed.ctimeNsec = 1;
  EXPECT_FALSE(cache.Contains(changed));
  EXPECT_FALSE(cache.Contains(a));  // the stale state went with the miss
  EXPECT_EQ(cache.Size(), 1u);

  // A whole-second ctime marks a file system with coarse times: it settles later.
  EXPECT_FALSE(oasd::ChangeSettled(a, timespec{101, 500'000'000}));
  EXPECT_TRUE(oasd::ChangeSettled(a, timespec{102, 0}));
  EXPECT_TRUE(oasd::ChangeSettled(changed, timespec{100, 200'000'000}));
}

TEST(CheckedCacheTest, ClearVoidsInsertsOfScansStartedBefore) {
  CheckedCache cache(4);
  const CheckedKey a{1, 10, 100, 0, 5};
  const uint64_t before = cache.Generation();
  cache.Clear();
  cache.Insert(a, before);
  EXPECT_FALSE(cache.Contains(a));
  cache.Insert(a, cache.Generation());
  EXPECT_TRUE(cache.Contains(a));
}

}  // namespace
