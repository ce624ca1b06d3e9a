// The file events processor against the fake host: construction and pool sizing, the
// answers of OnEvent (let through, queued, blocked), the host-cache notes, and the
// clean-file cache's life: a manager that cannot be built, the mount list it starts from,
// mount changes, a reset while events are still being scanned, settings for new events.
#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "framework/qeb/exception.h"
#include "nox_common/container_identification_tools.h"
#include "oas/file_events_processor.h"
#include "settings/oas_settings_printer.h"
#include "testing/event_builder.h"
#include "testing/fake_files_cache.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"
#include "testing/scoped_clock_override.h"

namespace {

using nox::oas::FileEventsProcessor;
using qeb::objptr_t;
using namespace qeb::testing;
namespace res = qeb::res;

vrel::EventParams MakeParams(uint64_t cookie, std::string_view name = "/srv/data/file.bin",
                             uint64_t dev = 2049) {
  vrel::EventParams p = MakeOpenEvent(cookie, name);
  p.dev = dev;
  return p;
}

ScannerScript Cacheable(vrel::BasicVerdict::BasicVerdict verdict = vrel::BasicVerdict::Allow) {
  return Answer(verdict, true);
}

// Holds every scan inside the scanner until opened, so a test can act while events
// are queued and still hold what they were created with.
class ScanGate {
 public:
  ScannerScript Wait(ScannerScript script) {
    std::unique_lock lock(m_mutex);
    ++m_entered;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return m_open; });
    return script;
  }
  void WaitEntered(size_t count) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_entered >= count; });
  }
  void Open() {
    std::lock_guard lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  size_t m_entered = 0;
  bool m_open = false;
};

class ProcessorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    gate.Open();
    processor = nullptr;
    if (auto pool = host.threadPoolFactory->LastPool()) pool->WaitIdle();
    scanner->ReleaseKept();
    EXPECT_EQ(qeb::module::ObjectCount(), 0u);
  }

  objptr_t<FileEventsProcessor> Make() {
    return qeb::CreateObject<FileEventsProcessor>(host.Locator(), scanner.Get(), 1000,
                                                  FakeCacheList(cacheLog));
  }
  void WaitIdle() { host.threadPoolFactory->LastPool()->WaitIdle(); }
  size_t TasksRun() { return host.threadPoolFactory->LastPool()->TasksRun(); }
  void GateScans(ScannerScript script) {
    scanner->SetChooser([this, script](vrel::IEvent085*) { return gate.Wait(script); });
  }

  FakeHost host;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  std::shared_ptr<FilesCacheLog> cacheLog = std::make_shared<FilesCacheLog>();
  ScanGate gate;
  objptr_t<FileEventsProcessor> processor;
};

TEST_F(ProcessorTest, PoolSizing) {
  const std::pair<unsigned, uint32_t> sizes[] = {{0, 4}, {1, 4}, {2, 4}, {3, 6}, {16, 32}};
  for (auto [hardware, maximum] : sizes) {
    const auto params = FileEventsProcessor::PoolParams(hardware);
    EXPECT_EQ(params.minThreads, 4u) << hardware;
    EXPECT_EQ(params.maxThreads, maximum) << hardware;
    EXPECT_EQ(params.idleTimeout, 30000u);
    EXPECT_EQ(params.options, 0u);
  }
}

TEST_F(ProcessorTest, MissingServicesFailConstruction) {
  const std::pair<qeb::iid_t, const char*> required[] = {
      {qeb::IThreadPoolFactory::IID, "Cannot get IThreadPoolFactory interface"},
      {nox::IUserInfoCache::IID, "Cannot get IUserInfoCache interface"},
      {nox::IFileInfoCache::IID, "Cannot get IFileInfoCache interface"},
      {nox::containers::IContainersMonitor::IID, "Cannot get containers::IContainersMonitor interface"},
  };
  for (auto [iid, text] : required) {
    host.locator->Fail(iid, 0, res::NoInterface);
    try {
      Make();
      ADD_FAILURE() << text;
    } catch (const qeb::CheckResultFailedException& e) {
      EXPECT_EQ(std::get<std::string>(e.Properties().Find(qeb::kPropText)->value), text);
    }
    host.locator->Restore(iid);
  }
  host.locator->Remove(qeb::ITracer::IID);
  EXPECT_THROW(Make(), qeb::GetInterfaceException);
  EXPECT_EQ(qeb::module::ObjectCount(), 0u);
}

TEST_F(ProcessorTest, AnswersForIgnoredCleanAndQueuedEvents) {
  processor = Make();
  const uint32_t baseline = qeb::module::ObjectCount();

  vrel::EventParams noHandle = MakeParams(1);
  noHandle.replyHandle = 0;
  EXPECT_EQ(processor->OnEvent(noHandle), 1);
  EXPECT_TRUE(host.userInfoCache->Notes().empty());
  EXPECT_EQ(host.threadPoolFactory->LastPool()->TasksRun(), 0u);

  scanner->SetScript(Cacheable());
  EXPECT_EQ(processor->OnEvent(MakeParams(2)), 0);
  WaitIdle();
  EXPECT_EQ(cacheLog->AddedCount(), 1u);
  EXPECT_EQ(qeb::module::ObjectCount(), baseline);

  // Known clean now: let through on the provider's thread, no event object made.
  EXPECT_EQ(processor->OnEvent(MakeParams(2)), 1);
  EXPECT_EQ(host.threadPoolFactory->LastPool()->TasksRun(), 1u);
  EXPECT_EQ(host.verdictNotifier->Verdicts().size(), 1u);
  EXPECT_EQ(host.verdictNotifier->Verdicts()[0].verdict, 1u);
  EXPECT_EQ(host.userInfoCache->Notes().size(), 2u);
}

// A deep-nested name is noted by its descriptor instead of its name, and is otherwise an
// event like any other: a file found clean passes from the cache at once.
TEST_F(ProcessorTest, DeepNestedNamesAreNotedByDescriptorAndStillCached) {
  processor = Make();
  scanner->SetScript(Cacheable());
  const std::pair<std::string_view, bool> names[] = {
      {"<PATH IS TOO LONG>", true},
      {"<PATH IS TOO LONG>/tail/of/it", true},
      {"/a/<PATH IS TOO LONG>", false},
      {"<PATH IS TOO LONG", false},
      {"", false},
  };
  size_t deep = 0, plain = 0;
  uint64_t cookie = 10;
  for (auto [name, deepNested] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(processor->OnEvent(MakeParams(++cookie, name)), 0);
    WaitIdle();
    EXPECT_EQ(processor->OnEvent(MakeParams(cookie, name)), 1) << "cached clean";
    deepNested ? deep += 2 : plain += 2;
    EXPECT_EQ(host.fileInfoCache->DeepNestedNotes().size(), deep);
    EXPECT_EQ(host.userInfoCache->Notes().size(), plain);
  }
  EXPECT_EQ(host.fileInfoCache->DeepNestedNotes()[0],
            std::make_pair(nox::containers::GetOwnMountNamespaceId(), int32_t{42}));
  EXPECT_EQ(host.userInfoCache->Notes()[0].fileName, "/a/<PATH IS TOO LONG>");
  EXPECT_EQ(host.userInfoCache->Notes()[0].uid, 1000u);
  EXPECT_EQ(host.tracer->Count("Deep nested file detected, fd: 42"), 4u);
  EXPECT_EQ(scanner->Calls().size(), 5u);
}

TEST_F(ProcessorTest, FailuresToDispatchBlockTheFileWithoutLeaks) {
  host.threadPoolFactory->RefuseTasks(res::NotReady);
  processor = Make();
  const uint32_t baseline = qeb::module::ObjectCount();
  for (uint64_t cookie = 1; cookie <= 3; ++cookie)
    EXPECT_EQ(processor->OnEvent(MakeParams(cookie)), res::AccessDenied);
  EXPECT_EQ(host.tracer->Count(
                "Unexpected exception in OnEvent. Blocking access to file: /srv/data/file.bin"),
            3u);
  EXPECT_EQ(qeb::module::ObjectCount(), baseline);
  EXPECT_TRUE(host.verdictNotifier->Verdicts().empty()) << "the failure answered them already";

  host.threadPoolFactory->LastPool()->Refuse(res::Ok);
  vrel::EventParams unlink = MakeParams(4, "/srv/gone");
  unlink.oper = vrel::VREL_ACTION_UNLINK;
  EXPECT_EQ(processor->OnEvent(unlink), res::AccessDenied);
  EXPECT_TRUE(host.tracer->Contains("Blocking access to file: /srv/gone"));
  EXPECT_EQ(qeb::module::ObjectCount(), baseline);
  EXPECT_EQ(scanner->Calls().size(), 0u);
}

TEST_F(ProcessorTest, WithoutMountProviderThereIsNoCacheAndEveryEventIsQueued) {
  host.locator->Remove(nox::IMountProvider::IID);
  processor = Make();
  EXPECT_EQ(qeb::module::ObjectCount(), 1u) << "the half-built cache manager is released";

  const auto errors = host.tracer->Texts(300);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with(
      "oas/file_events_processor(98): Expression failed. Properties:\n"
      "qeb.result=0x80000001\nqeb.expression=qeb::GetInterface(m_serviceLocator)\n"
      "qeb.text=Cannot get IMountProvider interface\nCall stack:\n"))
      << errors[0];

  EXPECT_EQ(processor->OnMountListChanged({{2049, "/srv", "ext4", false}}, {}, {}), 0);
  EXPECT_EQ(processor->OnNamespaceMountListChanged(4026532999, {}, {{2049, "/srv", "ext4", false}},
                                                   {}),
            0);
  scanner->SetScript(Cacheable());
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(processor->OnEvent(MakeParams(7)), 0) << round;
    WaitIdle();
  }
  EXPECT_EQ(TasksRun(), 3u);
  EXPECT_EQ(cacheLog->AddedCount(), 0u);
  EXPECT_EQ(host.verdictNotifier->Verdicts().size(), 3u);
}

TEST_F(ProcessorTest, NewManagerStartsFromTheCurrentMountList) {
  ScopedClockOverride clock;
  host.mountProvider->SetMounts({{2049, "/srv", "ext4", false}, {2050, "/home", "xfs", false}});
  processor = Make();
  EXPECT_EQ(host.metricsRegistry->Collect(), 1u);
  EXPECT_EQ(host.metricsFactory->Gauge(nox::oas::CacheManager::MetricDevices), 2);

  // Files made clean before the new manager existed: its device table is read at
  // creation, so a device listed now counts as mounted after those entries were made.
  auto log = std::make_shared<FilesCacheLog>();
  auto caches = FakeCacheList(log);
  const auto listed = MakeParams(30, "/srv/data/file.bin", 2049);
  const auto unlisted = MakeParams(31, "/srv/data/file.bin", 2051);
  ASSERT_EQ(caches[0]->Add(listed), res::Ok);
  ASSERT_EQ(caches[0]->Add(unlisted), res::Ok);
  clock.Advance(1000);
  processor->ResetCache(std::move(caches));

  EXPECT_EQ(processor->OnEvent(unlisted), 1);
  EXPECT_EQ(processor->OnEvent(listed), 0) << "remounted";
  WaitIdle();

  // A device known from the start keeps its time when announced again.
  scanner->SetScript(Cacheable());
  const auto fresh = MakeParams(32, "/srv/data/file.bin", 2050);
  EXPECT_EQ(processor->OnEvent(fresh), 0);
  WaitIdle();
  clock.Advance(1000);
  EXPECT_EQ(processor->OnMountListChanged({{2050, "/home", "xfs", false}}, {}, {}), 0);
  EXPECT_EQ(processor->OnEvent(fresh), 1);
}

TEST_F(ProcessorTest, MountChangesReachTheCacheManager) {
  ScopedClockOverride clock;
  processor = Make();
  scanner->SetScript(Cacheable());
  const auto cacheFile = [&](uint64_t cookie, uint64_t dev) {
    vrel::EventParams p = MakeParams(cookie);
    p.dev = dev;
    EXPECT_EQ(processor->OnEvent(p), 0);
    WaitIdle();
    EXPECT_EQ(processor->OnEvent(p), 1) << "cached clean";
    return p;
  };
  const auto hostFile = cacheFile(20, 2049);
  const auto containerFile = cacheFile(21, 2050);
  clock.Advance(1000);

  // Only the first two lists are passed on: a device in the third is no news.
  EXPECT_EQ(processor->OnMountListChanged({}, {}, {{2049, "/srv", "ext4", false}}), 0);
  EXPECT_EQ(processor->OnEvent(hostFile), 1);
  EXPECT_EQ(processor->OnMountListChanged({{2049, "/srv", "ext4", false}}, {}, {}), 0);
  EXPECT_EQ(processor->OnEvent(hostFile), 0) << "remounted device";
  EXPECT_EQ(processor->OnNamespaceMountListChanged(4026532999, {{2050, "/c", "overlay", false}},
                                                   {}, {}),
            0);
  EXPECT_EQ(processor->OnEvent(containerFile), 0);
}

TEST_F(ProcessorTest, ResetKeepsTheOldCacheForQueuedEvents) {
  processor = Make();
  GateScans(Cacheable());
  EXPECT_EQ(processor->OnEvent(MakeParams(40)), 0);
  gate.WaitEntered(1);

  auto newLog = std::make_shared<FilesCacheLog>();
  processor->ResetCache(FakeCacheList(newLog));
  EXPECT_TRUE(host.tracer->Contains("ResetCache"));
  const uint32_t withOldManager = qeb::module::ObjectCount();
  gate.Open();
  WaitIdle();
  EXPECT_EQ(cacheLog->AddedCount(), 1u) << "the queued event's verdict lands in the old cache";
  EXPECT_EQ(newLog->AddedCount(), 0u);
  EXPECT_LT(qeb::module::ObjectCount(), withOldManager) << "the old manager goes with its event";

  // The new manager has not seen the file: it is scanned again and cached there.
  EXPECT_EQ(processor->OnEvent(MakeParams(40)), 0);
  WaitIdle();
  EXPECT_EQ(newLog->AddedCount(), 1u);
  EXPECT_EQ(processor->OnEvent(MakeParams(40)), 1);
  EXPECT_EQ(cacheLog->AddedCount(), 1u);
  EXPECT_EQ(TasksRun(), 2u);
}

TEST_F(ProcessorTest, SettingsAreTracedAndReachOnlyEventsMadeAfterThem) {
  processor = Make();
  nox::settings::OASSettings settings;
  settings.skipPlainTextFiles = true;
  settings.ScanSettings.ScanSettingsBase.infected_action = 5;

  GateScans(Cacheable(vrel::BasicVerdict::Deny));
  EXPECT_EQ(processor->OnEvent(MakeParams(50)), 0);  // created before the settings
  processor->ApplySettings(settings);
  EXPECT_EQ(processor->OnEvent(MakeParams(51)), 0);
  settings.ScanSettings.ScanSettingsBase.infected_action = 4;
  processor->ApplySettings(settings);
  EXPECT_EQ(processor->OnEvent(MakeParams(52)), 0);
  gate.Open();
  WaitIdle();

  std::map<uint64_t, uint32_t> verdicts;
  for (const auto& v : host.verdictNotifier->Verdicts()) verdicts[v.cookie] = v.verdict;
  EXPECT_EQ(verdicts, (std::map<uint64_t, uint32_t>{{50, 4}, {51, 2}, {52, 4}}));
  EXPECT_EQ(cacheLog->AddedCount(), 0u) << "a denied file is never cached";

  EXPECT_EQ(host.tracer->Count("void nox::oas::FileEventsProcessor::ApplySettings(const "
                               "nox::settings::OASSettings&), settings={" +
                               nox::settings::ToString(settings) + "}"),
            1u);
}

}  // namespace
