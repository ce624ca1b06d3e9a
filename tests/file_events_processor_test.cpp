// The file events processor against the fake host: construction and pool sizing, the
// answers of OnEvent (let through, queued, blocked), the host-cache notes, mount changes
// reaching the clean-file cache, and a many-thread run in which every event is answered
// exactly once and no module object is left behind.
#include <unistd.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "testing/event_builder.h"

#include "framework/qeb/exception.h"
#include "nox_common/container_identification_tools.h"
#include "oas/file_events_processor.h"
#include "testing/fake_files_cache.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"
#include "testing/scoped_clock_override.h"

namespace {

using nox::oas::FileEventsProcessor;
using qeb::objptr_t;
using namespace qeb::testing;
namespace res = qeb::res;

vrel::EventParams MakeParams(uint64_t cookie, std::string_view name = "/srv/data/file.bin") {
  return qeb::testing::MakeOpenEvent(cookie, name);
}

ScannerScript CacheableAllow() {
  ScannerScript script;
  script.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
  return script;
}

std::string ExceptionText(const qeb::exception& e) {
  const auto* text = e.Properties().Find(qeb::kPropText);
  return text ? std::get<std::string>(text->value) : std::string();
}

class ProcessorTest : public ::testing::Test {
 protected:
  void TearDown() override {
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

  FakeHost host;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  std::shared_ptr<FilesCacheLog> cacheLog = std::make_shared<FilesCacheLog>();
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
  processor = Make();
  const auto requests = host.threadPoolFactory->Requests();
  ASSERT_EQ(requests.size(), 1u);
  const uint32_t expectedMax = FileEventsProcessor::PoolParams(std::thread::hardware_concurrency()).maxThreads;
  EXPECT_EQ(requests[0].maxThreads, expectedMax);
  EXPECT_TRUE(host.tracer->Contains("FileEventsProcessor: minimum threads: 4, maximum threads: " +
                                    std::to_string(expectedMax)));
  std::string name;
  EXPECT_EQ(processor->GetName(name), 0);
  EXPECT_EQ(name, "OasFileEventsProcessor");
  processor = nullptr;
  EXPECT_TRUE(host.tracer->Contains("nox::oas::FileEventsProcessor::~FileEventsProcessor()"));
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
      EXPECT_EQ(ExceptionText(e), text);
    }
    host.locator->Restore(iid);
  }
  host.threadPoolFactory->Fail(res::OutOfMemory);
  try {
    Make();
    ADD_FAILURE() << "created without a pool";
  } catch (const qeb::CheckResultFailedException& e) {
    EXPECT_EQ(ExceptionText(e), "Cannot create ThreadPool2");
    EXPECT_EQ(e.Code(), res::OutOfMemory);
  }
  host.threadPoolFactory->Fail(res::Ok);
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

  scanner->SetScript(CacheableAllow());
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

TEST_F(ProcessorTest, DeepNestedNamesAreNotedByDescriptor) {
  processor = Make();
  const std::pair<std::string_view, bool> names[] = {
      {"<PATH IS TOO LONG>", true},
      {"<PATH IS TOO LONG>/tail/of/it", true},
      {"/a/<PATH IS TOO LONG>", false},
      {"<PATH IS TOO LONG", false},
      {"", false},
  };
  size_t deep = 0, plain = 0;
  for (auto [name, deepNested] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(processor->OnEvent(MakeParams(10, name)), 0);
    deepNested ? ++deep : ++plain;
    EXPECT_EQ(host.fileInfoCache->DeepNestedNotes().size(), deep);
    EXPECT_EQ(host.userInfoCache->Notes().size(), plain);
  }
  EXPECT_EQ(host.fileInfoCache->DeepNestedNotes()[0],
            std::make_pair(nox::containers::GetOwnMountNamespaceId(), int32_t{42}));
  EXPECT_EQ(host.userInfoCache->Notes()[0].fileName, "/a/<PATH IS TOO LONG>");
  EXPECT_EQ(host.userInfoCache->Notes()[0].uid, 1000u);
  EXPECT_EQ(host.tracer->Count("Deep nested file detected, fd: 42"), 2u);
  WaitIdle();
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

TEST_F(ProcessorTest, WithoutACacheManagerEveryEventIsScanned) {
  host.locator->Remove(system_interceptors::process_manager::IProcessManager::IID);
  processor = Make();
  EXPECT_TRUE(host.tracer->Contains("Cannot get system_interceptors::process_manager::IProcessManager"));
  EXPECT_EQ(processor->OnMountListChanged({{2049, "/srv", "ext4", false}}, {}, {}), 0);
  scanner->SetScript(CacheableAllow());
  EXPECT_EQ(processor->OnEvent(MakeParams(5)), 0);
  WaitIdle();
  EXPECT_EQ(processor->OnEvent(MakeParams(5)), 0);
  WaitIdle();
  EXPECT_EQ(scanner->Calls().size(), 2u);
  EXPECT_EQ(cacheLog->AddedCount(), 0u);
}

TEST_F(ProcessorTest, MountChangesReachTheCacheManager) {
  ScopedClockOverride clock;
  processor = Make();
  scanner->SetScript(CacheableAllow());
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

TEST_F(ProcessorTest, ForceActionPassReachesNewEvents) {
  processor = Make();
  ScannerScript deny;
  deny.verdict = vrel::BasicVerdict::Deny;
  scanner->SetScript(deny);
  nox::settings::OASSettings settings;
  settings.ScanSettings.ScanSettingsBase.infected_action = 5;
  processor->ApplySettings(settings);
  processor->OnEvent(MakeParams(30));
  WaitIdle();
  settings.ScanSettings.ScanSettingsBase.infected_action = 4;
  processor->ApplySettings(settings);
  processor->OnEvent(MakeParams(31));
  WaitIdle();
  const auto verdicts = host.verdictNotifier->Verdicts();
  ASSERT_EQ(verdicts.size(), 2u);
  EXPECT_EQ(verdicts[0].verdict, 2u);
  EXPECT_EQ(verdicts[1].verdict, 4u);
}

// Providers on several threads, a scanner answering in every way it can, and a timer
// firing all the while: each queued event ends with exactly one verdict.
TEST_F(ProcessorTest, ManyThreadsEveryEventAnsweredOnce) {
  constexpr int kProviders = 6;
  constexpr int kPerProvider = 500;
  processor = Make();
  std::atomic<uint64_t> chooserCalls{0};
  scanner->SetChooser([&](vrel::IEvent085*) {
    const uint64_t n = chooserCalls++;
    ScannerScript script;
    script.verdict = n % 3 == 0 ? vrel::BasicVerdict::Deny : vrel::BasicVerdict::Allow;
    if (n % 4 == 0) script.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
    const ScannerAction actions[] = {ScannerAction::Reply, ScannerAction::ReplyTwice,
                                     ScannerAction::NeverReply, ScannerAction::Throw,
                                     ScannerAction::Reply, ScannerAction::ReplyAfterDelay};
    script.action = actions[n % 6];
    script.delay = std::chrono::milliseconds(n % 2);
    return script;
  });

  std::atomic<bool> stop{false};
  std::thread ticker([&] {
    while (!stop) {
      host.timer->FireAll();
      std::this_thread::yield();
    }
  });
  std::vector<std::map<uint64_t, qeb::result_t>> answers(kProviders);
  std::vector<std::thread> providers;
  for (int t = 0; t < kProviders; ++t) {
    providers.emplace_back([&, t] {
      for (int i = 0; i < kPerProvider; ++i) {
        const uint64_t cookie = uint64_t(t) * kPerProvider + i + 1;
        vrel::EventParams p = MakeParams(cookie);
        p.ino = cookie % 40;  // repeated files: some become clean cache hits
        answers[t][cookie] = processor->OnEvent(p);
      }
    });
  }
  for (auto& p : providers) p.join();
  processor = nullptr;
  WaitIdle();
  stop = true;
  ticker.join();
  scanner->ReleaseKept();

  const auto counts = host.verdictNotifier->CountsByCookie();
  size_t queued = 0;
  for (const auto& perProvider : answers) {
    for (const auto& [cookie, answer] : perProvider) {
      ASSERT_TRUE(answer == 0 || answer == 1) << cookie << ": " << answer;
      const auto it = counts.find(cookie);
      const size_t delivered = it == counts.end() ? 0 : it->second;
      EXPECT_EQ(delivered, answer == 0 ? 1u : 0u) << cookie;
      queued += answer == 0;
    }
  }
  EXPECT_EQ(host.verdictNotifier->Verdicts().size(), queued);
  EXPECT_GT(queued, 0u);
  EXPECT_EQ(qeb::module::ObjectCount(), 0u);
}

}  // namespace
