// The file events processor's clean-file cache lifecycle against the fake host: a cache
// manager that cannot be built (every event is then scanned), the mount list it starts
// from, a reset while events are still being scanned, and settings reaching new events.
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "nox_common/container_identification_tools.h"
#include "oas/file_events_processor.h"
#include "settings/oas_settings_printer.h"
#include "testing/fake_files_cache.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"
#include "testing/scoped_clock_override.h"

namespace {

using nox::oas::FileEventsProcessor;
using qeb::objptr_t;
using namespace qeb::testing;
namespace res = qeb::res;

vrel::EventParams MakeParams(uint64_t cookie, uint64_t dev = 2049) {
  vrel::EventParams p;
  p.fileName = std::string_view("/srv/data/file.bin");
  p.cookie = cookie;
  p.uid = 1000;
  p.pid = getpid();
  p.fd = 42;
  p.nsid = nox::containers::GetOwnMountNamespaceId();
  p.dev = dev;
  p.ino = cookie;
  p.oper = vrel::VREL_ACTION_OPEN;
  p.replyHandle = 1;
  return p;
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

class ProcessorCacheTest : public ::testing::Test {
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

  static ScannerScript Cacheable(vrel::BasicVerdict::BasicVerdict verdict) {
    ScannerScript script;
    script.verdict = verdict;
    script.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
    return script;
  }

  FakeHost host;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  std::shared_ptr<FilesCacheLog> cacheLog = std::make_shared<FilesCacheLog>();
  ScanGate gate;
  objptr_t<FileEventsProcessor> processor;
};

TEST_F(ProcessorCacheTest, WithoutMountProviderThereIsNoCacheAndEveryEventIsQueued) {
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
  scanner->SetScript(Cacheable(vrel::BasicVerdict::Allow));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(processor->OnEvent(MakeParams(7)), 0) << round;
    WaitIdle();
  }
  EXPECT_EQ(TasksRun(), 3u);
  EXPECT_EQ(cacheLog->AddedCount(), 0u);
  EXPECT_EQ(host.verdictNotifier->Verdicts().size(), 3u);
}

TEST_F(ProcessorCacheTest, UnreadableMountListAlsoLeavesNoCache) {
  host.mountProvider->Fail(res::NotReady);
  processor = Make();
  EXPECT_EQ(qeb::module::ObjectCount(), 1u);
  EXPECT_TRUE(host.tracer->Contains("qeb.text=Cannot get mount list"));
  EXPECT_EQ(processor->OnEvent(MakeParams(8)), 0);
  EXPECT_EQ(processor->OnEvent(MakeParams(8)), 0);
  WaitIdle();
  EXPECT_EQ(TasksRun(), 2u);

  // A reset asks again: once the provider answers, the new manager caches.
  host.mountProvider->Fail(res::Ok);
  processor->ResetCache(FakeCacheList(cacheLog));
  scanner->SetScript(Cacheable(vrel::BasicVerdict::Allow));
  EXPECT_EQ(processor->OnEvent(MakeParams(8)), 0);
  WaitIdle();
  EXPECT_EQ(processor->OnEvent(MakeParams(8)), 1);
}

TEST_F(ProcessorCacheTest, NewManagerStartsFromTheCurrentMountList) {
  ScopedClockOverride clock;
  host.mountProvider->SetMounts({{2049, "/srv", "ext4", false}, {2050, "/home", "xfs", false}});
  processor = Make();
  EXPECT_EQ(host.metricsRegistry->Collect(), 1u);
  EXPECT_EQ(host.metricsFactory->Gauge(nox::oas::CacheManager::MetricDevices), 2);

  // Files made clean before the new manager existed: its device table is read at
  // creation, so a device listed now counts as mounted after those entries were made.
  auto log = std::make_shared<FilesCacheLog>();
  auto caches = FakeCacheList(log);
  const auto listed = MakeParams(30, 2049);
  const auto unlisted = MakeParams(31, 2051);
  ASSERT_EQ(caches[0]->Add(listed), res::Ok);
  ASSERT_EQ(caches[0]->Add(unlisted), res::Ok);
  clock.Advance(1000);
  processor->ResetCache(std::move(caches));

  EXPECT_EQ(processor->OnEvent(unlisted), 1);
  EXPECT_EQ(processor->OnEvent(listed), 0) << "remounted";
  WaitIdle();

  // A device known from the start keeps its time when announced again.
  scanner->SetScript(Cacheable(vrel::BasicVerdict::Allow));
  const auto fresh = MakeParams(32, 2050);
  EXPECT_EQ(processor->OnEvent(fresh), 0);
  WaitIdle();
  clock.Advance(1000);
  EXPECT_EQ(processor->OnMountListChanged({{2050, "/home", "xfs", false}}, {}, {}), 0);
  EXPECT_EQ(processor->OnEvent(fresh), 1);
}

TEST_F(ProcessorCacheTest, ResetKeepsTheOldCacheForQueuedEvents) {
  processor = Make();
  GateScans(Cacheable(vrel::BasicVerdict::Allow));
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

TEST_F(ProcessorCacheTest, SettingsAreTracedAndReachOnlyNewEvents) {
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

  const auto lines = host.tracer->Texts(800);
  const auto applied = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("ApplySettings") != std::string::npos;
  });
  EXPECT_EQ(applied, 2);
  const std::string expected =
      "void nox::oas::FileEventsProcessor::ApplySettings(const nox::settings::OASSettings&), "
      "settings={" +
      nox::settings::ToString(settings) + "}";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), expected), 1) << expected;
  EXPECT_NE(expected.find(R"("skipPlainTextFiles":1, )"), std::string::npos);
  EXPECT_NE(expected.find(R"("infected_action":4)"), std::string::npos);
}

}  // namespace
