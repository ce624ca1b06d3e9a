// The scanning engine against the module's real interceptor event over the fake host:
// detection and clean answers through a real descriptor, the checked-object cache (hits,
// changed files, reloads, scans racing a reload) and the cache's own bookkeeping.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
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
  EngineTest() { options.checkedCacheEntries = 16; }

  qeb::objptr_t<qeb::ITracer> Tracer() const {
    return qeb::objptr_t<qeb::ITracer>(host.tracer.Get());
  }

  qeb::objptr_t<ClamavEngine> MakeEngine() {
    auto engine = MakeHostObject<ClamavEngine>(Tracer(), metrics, options,
                                               [this](const DetectionRecord& record) {
                                                 std::lock_guard lock(mutex);
                                                 detections.push_back(record);
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
