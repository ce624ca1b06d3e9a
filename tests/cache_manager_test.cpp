// The cache manager against the fake host and scripted in-test caches: construction
// failures, the lookup's validation order (remount, age, change time, process, bases),
// the mounted-device table, metrics and their registration, and AddCleanFile's routing.
// Time is driven by hand through the clock override; nothing sleeps.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/qeb/exception.h"
#include "oas/cache_manager.h"
#include "testing/fake_host.h"
#include "testing/scoped_clock_override.h"

namespace nox::oas {
namespace {

using qeb::testing::FakeHost;
using qeb::testing::ScopedClockOverride;

constexpr uint64_t kDev = 2049;
constexpr uint32_t kPid = 42;
constexpr uint64_t kIdentity = 777;
constexpr int64_t kSecond = 1'000'000'000;
constexpr const char* kKey = "/var/x (ino: 1234, dev: 2049)";

// An entry whose process check answers what the test set.
struct ScriptedEntry : CleanFileInfo {
  bool CheckProcess(const system_interceptors::process_manager::ProcessInfo& info) override {
    lastIdentity = info.m_uniqueId;
    if (throws) throw std::runtime_error("process check exploded");
    return knowsProcess;
  }
  bool knowsProcess = true;
  bool throws = false;
  uint64_t lastIdentity = 0;
};

// A cache of scripted entries, keyed by name only, that logs what the manager asks of it.
class ScriptedCache : public IFilesCache {
 public:
  ScriptedCache(std::string name, std::vector<std::string>* log, qeb::result_t addAnswer = 0)
      : m_name(std::move(name)), m_log(log), m_addAnswer(addAnswer) {}
  ~ScriptedCache() override { m_log->push_back(m_name + " destroyed"); }

  qeb::result_t Find(const FileId& id, std::shared_ptr<CleanFileInfo>& out) override {
    if (throwOnFind) throw std::bad_alloc();
    const auto it = m_entries.find(std::string(id.name.view()));
    if (it == m_entries.end()) return qeb::res::NotFound;
    out = it->second;
    return qeb::res::Ok;
  }
  qeb::result_t Add(const vrel::EventParams& event) override {
    m_log->push_back(m_name + " add " + std::string(event.fileName.view()));
    return m_addAnswer;
  }
  qeb::result_t Remove(const FileId& id) override {
    m_log->push_back(m_name + " remove " + std::string(id.name.view()));
    return m_entries.erase(std::string(id.name.view())) ? qeb::res::Ok : qeb::res::NotFound;
  }
  qeb::result_t Clear() override { return m_entries.clear(), qeb::res::Ok; }
  size_t Size() override { return m_entries.size(); }

  bool throwOnFind = false;

  std::shared_ptr<ScriptedEntry> Put(const vrel::EventParams& event, int64_t addedTime) {
    auto entry = std::make_shared<ScriptedEntry>();
    entry->addedTime = addedTime;
    entry->changeTime = vrel::ToNanoseconds(event.ctime);
    m_entries[std::string(event.fileName.view())] = entry;
    return entry;
  }

 private:
  std::string m_name;
  std::vector<std::string>* m_log;
  qeb::result_t m_addAnswer;
  std::map<std::string, std::shared_ptr<ScriptedEntry>> m_entries;
};

vrel::EventParams Event(const char* name = "/var/x") {
  vrel::EventParams event;
  event.fileName = qeb::basic_string_t(name);
  event.ino = 1234;
  event.dev = kDev;
  event.pid = static_cast<int32_t>(kPid);
  event.ctime = {100, 5};
  return event;
}

nox::MountList Mounts(uint64_t dev, std::string point) {
  nox::MountRecord mount;
  mount.dev = dev;
  mount.mountPoint = std::move(point);
  return {mount};
}

class CacheManagerTest : public ::testing::Test {
 protected:
  CacheManagerTest() { host.processManager->AddProcess(kPid, kIdentity); }

  // Builds the manager over caches named cache0, cache1, ...; Cache(i) reaches them.
  qeb::objptr_t<CacheManager> Make(size_t caches = 1) {
    std::vector<std::unique_ptr<IFilesCache>> list;
    m_caches.clear();
    for (size_t i = 0; i < caches; ++i) {
      auto cache = std::make_unique<ScriptedCache>("cache" + std::to_string(i), &log);
      m_caches.push_back(cache.get());
      list.push_back(std::move(cache));
    }
    return qeb::CreateObject<CacheManager>(host.Locator(), std::move(list));
  }
  ScriptedCache& Cache(size_t i) { return *m_caches.at(i); }

  bool NeedsChecking(const std::string& reason) const {
    return host.tracer->Contains(std::string("OASCache: ") + kKey + " needs checking (" + reason + ")");
  }
  bool ReportedClean() const {
    return host.tracer->Contains(std::string("OASCache: ") + kKey + " is clean cached file");
  }

  FakeHost host;
  ScopedClockOverride clock;
  std::vector<std::string> log;

 private:
  std::vector<ScriptedCache*> m_caches;
};

TEST_F(CacheManagerTest, EntryExactlyMaxAgePassesOneNanosecondOlderIsRemovedFromItsOwnCache) {
  auto manager = Make(2);
  const auto event = Event();
  auto entry = Cache(1).Put(event, clock.Now());

  clock.Advance(600 * kSecond);
  EXPECT_TRUE(manager->IsCleanFile(event));
  EXPECT_TRUE(ReportedClean());
  EXPECT_EQ(entry->hitCount, 1u);

  clock.Advance(1);
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("timeout expired for cached file"));
  EXPECT_EQ(entry->hitCount, 1u) << "a stale entry is not counted as hit";
  EXPECT_EQ(log, (std::vector<std::string>{"cache1 remove /var/x"}));
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("cache miss"));
}

TEST_F(CacheManagerTest, DeviceSeenAtTheEntrysNanosecondIsNotARemountLaterIs) {
  auto manager = Make();
  const auto event = Event();
  Cache(0).Put(event, clock.Now());
  manager->OnMountsChanged(1, Mounts(kDev, "/mnt/a"), {});
  EXPECT_TRUE(manager->IsCleanFile(event));

  manager->OnMountsChanged(1, {}, Mounts(kDev, "/mnt/a"));
  clock.Advance(1);
  manager->OnMountsChanged(1, Mounts(kDev, "/mnt/a"), {});
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("remounted"));
  EXPECT_EQ(log, (std::vector<std::string>{"cache0 remove /var/x"}));
}

TEST_F(CacheManagerTest, AnEntryBothRemountedAndTooOldIsReportedAsRemounted) {
  auto manager = Make();
  const auto event = Event();
  Cache(0).Put(event, clock.Now());
  clock.Advance(1);
  manager->OnMountsChanged(1, Mounts(kDev, "/mnt/a"), {});
  clock.Advance(601 * kSecond);
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("remounted"));
  EXPECT_FALSE(NeedsChecking("timeout expired for cached file"));
}

// The caches are asked in order and the first that knows the file decides alone.
TEST_F(CacheManagerTest, TheFirstCacheHoldingTheFileSuppliesTheEntry) {
  auto manager = Make(2);
  auto event = Event();
  auto first = Cache(0).Put(event, clock.Now());
  auto second = Cache(1).Put(event, clock.Now());
  first->knowsProcess = false;
  event.ctime.sec += 1;
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("access to the file by unknown process"));
  EXPECT_EQ(first->hitCount, 1u);
  EXPECT_EQ(second->hitCount, 0u);

  clock.Advance(601 * kSecond);
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_EQ(log, (std::vector<std::string>{"cache0 remove /var/x"})) << "only the supplier loses it";
}

// A failure inside the decision is the miss of the step it happened in: traced with that
// reason and counted, as any other.
TEST_F(CacheManagerTest, AnExceptionInsideTheDecisionIsAMissLikeAnyOther) {
  auto manager = Make();
  auto event = Event();
  auto entry = Cache(0).Put(event, clock.Now());
  Cache(0).throwOnFind = true;
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("cache miss"));
  EXPECT_EQ(host.tracer->Texts(qeb::trace::LevelError).size(), 1u) << "the exception is traced";

  Cache(0).throwOnFind = false;
  entry->throws = true;
  event.ctime.sec += 1;
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("access to the file by unknown process"));
  EXPECT_TRUE(host.tracer->Contains("process check exploded"));
  EXPECT_EQ(host.metricsFactory->Counter("oas_cache_misses_total"), 2u);
  EXPECT_EQ(host.metricsFactory->Counter("oas_cache_hits_total"), 0u);
}

TEST_F(CacheManagerTest, DeviceMountedSomewhereThroughoutKeepsItsFirstSeenTime) {
  auto manager = Make();
  const auto event = Event();
  manager->OnMountsChanged(1, Mounts(kDev, "/mnt/a"), {});
  clock.Advance(kSecond);
  Cache(0).Put(event, clock.Now());
  clock.Advance(kSecond);
  // The same path in another namespace is a mount of its own.
  manager->OnMountsChanged(2, Mounts(kDev, "/mnt/a"), {});
  manager->OnMountsChanged(1, {}, Mounts(kDev, "/mnt/a"));
  manager->OnMountsChanged(1, {}, Mounts(kDev, "/mnt/elsewhere"));
  EXPECT_TRUE(manager->IsCleanFile(event));

  manager->OnMountsChanged(2, {}, Mounts(kDev, "/mnt/a"));
  host.metricsRegistry->Collect();
  EXPECT_EQ(host.metricsFactory->Gauge("oas_cache_devices"), 0) << "the last mount point erases the record";
  EXPECT_TRUE(manager->IsCleanFile(event)) << "an unknown device passes";

  clock.Advance(kSecond);
  manager->OnMountsChanged(2, Mounts(kDev, "/mnt/b"), {});
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("remounted"));
}

TEST_F(CacheManagerTest, UnchangedFileNeedsNeitherProcessNorBases) {
  auto manager = Make();
  auto event = Event();
  Cache(0).Put(event, clock.Now());
  event.ctime.nsec -= 1;  // older than recorded counts as unchanged too
  EXPECT_TRUE(manager->IsCleanFile(event));
  event.ctime.nsec += 1;
  EXPECT_TRUE(manager->IsCleanFile(event));
  EXPECT_EQ(host.processManager->Lookups(), 0u);
  EXPECT_EQ(host.skipChecker->Calls(), 0u);
}

TEST_F(CacheManagerTest, ChangedFileIsCheckedAgainstProcessThenBases) {
  auto manager = Make();
  auto event = Event();
  auto entry = Cache(0).Put(event, clock.Now());
  event.ctime.nsec += 1;

  EXPECT_TRUE(manager->IsCleanFile(event));
  EXPECT_EQ(entry->lastIdentity, kIdentity);
  const auto seen = host.skipChecker->LastSeen();
  EXPECT_TRUE(seen.complete);
  EXPECT_EQ(seen.fileName, "/var/x");
  EXPECT_EQ(seen.processIdentity, kIdentity);
  EXPECT_EQ(seen.entry.hitCount, 1u);
  EXPECT_EQ(seen.entry.addedTime, entry->addedTime);

  entry->knowsProcess = false;
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("access to the file by unknown process"));
  EXPECT_EQ(host.skipChecker->Calls(), 1u);
  EXPECT_TRUE(log.empty()) << "a refused entry stays cached";
}

TEST_F(CacheManagerTest, OnlyZeroOrNotImplementedFromTheBasesLetTheFilePass) {
  auto manager = Make();
  auto event = Event();
  Cache(0).Put(event, clock.Now());
  event.ctime.sec += 1;

  host.skipChecker->Answer(qeb::res::NotImplemented);
  EXPECT_TRUE(manager->IsCleanFile(event));
  for (const qeb::result_t refusal : {qeb::result_t{1}, qeb::result_t{2}, qeb::res::AccessDenied}) {
    host.skipChecker->Answer(refusal);
    host.tracer->Clear();
    EXPECT_FALSE(manager->IsCleanFile(event)) << refusal;
    EXPECT_TRUE(NeedsChecking("forbidden by bases"));
  }
  host.skipChecker->Throw("bases exploded");
  host.tracer->Clear();
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("forbidden by bases"));
  EXPECT_TRUE(host.tracer->Contains("bases exploded"));
  EXPECT_EQ(host.skipChecker->Calls(), 5u);
}

TEST_F(CacheManagerTest, ProcessQueryFailuresMissWithoutAskingTheBases) {
  auto manager = Make();
  auto event = Event();
  Cache(0).Put(event, clock.Now());
  event.ctime.sec += 1;

  host.processManager->FailLookup(kPid, qeb::res::NotFound);
  EXPECT_FALSE(manager->IsCleanFile(event));
  auto errors = host.tracer->Texts(qeb::trace::LevelError);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].rfind("oas/cache_manager:", 0), 0u) << errors[0];
  EXPECT_TRUE(errors[0].ends_with("(m_proc->GetInformation(pid, process.Ref())),(QEB_SUCCEEDED(_result)) "
                                  "failed: result = 0x8000004c (Not found)Cannot get IProcessInformation for pid 42"))
      << errors[0];
  EXPECT_TRUE(NeedsChecking("cannot get process info"));

  host.processManager->RestorePid(kPid);
  host.processManager->FailInformation(kPid, qeb::res::AccessDenied);
  host.tracer->Clear();
  EXPECT_FALSE(manager->IsCleanFile(event));
  EXPECT_TRUE(NeedsChecking("cannot get process info"));
  EXPECT_EQ(host.skipChecker->Calls(), 0u);
}

TEST_F(CacheManagerTest, CountersFollowVerdictsAndCollectionReadsCachesAndDevices) {
  auto manager = Make(2);
  Cache(0).Put(Event("/a"), clock.Now());
  Cache(1).Put(Event("/b"), clock.Now());
  Cache(1).Put(Event("/c"), clock.Now());
  manager->OnMountsChanged(1, Mounts(7, "/x"), {});
  manager->OnMountsChanged(1, Mounts(8, "/y"), {});

  EXPECT_TRUE(manager->IsCleanFile(Event("/b")));
  EXPECT_TRUE(manager->IsCleanFile(Event("/a")));
  EXPECT_FALSE(manager->IsCleanFile(Event("/d")));
  EXPECT_EQ(host.metricsFactory->Counter("oas_cache_hits_total"), 2u);
  EXPECT_EQ(host.metricsFactory->Counter("oas_cache_misses_total"), 1u);

  EXPECT_EQ(host.metricsRegistry->Collect(), 1u);
  EXPECT_EQ(host.metricsFactory->Gauge("oas_cache_files"), 3);
  EXPECT_EQ(host.metricsFactory->Gauge("oas_cache_devices"), 2);
}

TEST_F(CacheManagerTest, DestructionUnregistersBeforeTheCachesGo) {
  auto manager = Make();
  Cache(0).Put(Event(), clock.Now());
  std::vector<std::string> logAtUnregister;
  host.metricsRegistry->OnUnregister([&](uint64_t) {
    logAtUnregister = log;
    host.metricsRegistry->Collect();  // the manager must still be whole here
  });
  manager = nullptr;

  EXPECT_TRUE(logAtUnregister.empty());
  EXPECT_EQ(host.metricsFactory->Gauge("oas_cache_files"), 1);
  EXPECT_EQ(host.metricsRegistry->Unregistered().size(), 1u);
  EXPECT_EQ(host.metricsRegistry->Registered(), 0u);
  EXPECT_EQ(log, (std::vector<std::string>{"cache0 destroyed"}));
  EXPECT_EQ(host.metricsRegistry->Collect(), 0u);
}

TEST_F(CacheManagerTest, CleanFileGoesToTheFirstCacheThatRecordsIt) {
  std::vector<std::unique_ptr<IFilesCache>> list;
  list.push_back(std::make_unique<ScriptedCache>("refuses", &log, qeb::res::False));
  list.push_back(std::make_unique<ScriptedCache>("records", &log, qeb::res::Ok));
  list.push_back(std::make_unique<ScriptedCache>("never asked", &log, qeb::res::Ok));
  auto manager = qeb::CreateObject<CacheManager>(host.Locator(), std::move(list));
  manager->AddCleanFile(Event());
  EXPECT_EQ(log, (std::vector<std::string>{"refuses add /var/x", "records add /var/x"}));
}

}  // namespace
}  // namespace nox::oas
