// The interceptor event against the fake host: its verdict protocol (one delivery, also
// under concurrent replies, the verdict table, the fallback notifier, the default verdict
// of an unanswered event), its parameters as the scanner reads them, and timeouts.
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "framework/qeb/exception.h"
#include "nox_common/container_identification_tools.h"
#include "oas/file_interceptor_event.h"
#include "testing/fake_files_cache.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using nox::oas::CacheManager;
using nox::oas::FileInterceptorEvent;
using qeb::objptr_t;
using qeb::result_t;
using namespace qeb::testing;
namespace res = qeb::res;

constexpr uint32_t kCacheable = vrel::TARGET_VERDICT_CACHEABLE;

vrel::EventParams MakeParams(uint32_t oper = vrel::VREL_ACTION_OPEN) {
  vrel::EventParams p;
  p.fileName = std::string_view("/home/user/report.doc");
  p.cookie = 0x1122334455667788;
  p.uid = 1000;
  p.pid = getpid();
  p.fd = 42;
  p.nsid = nox::containers::GetOwnMountNamespaceId();
  p.oper = oper;
  p.queue_id = 7;
  p.replyHandle = 1;
  p.ctime = {1700000000, 5};
  return p;
}

class InterceptorEventTest : public ::testing::Test {
 protected:
  void TearDown() override {
    scanner->ReleaseKept();
    EXPECT_EQ(qeb::module::ObjectCount(), 0u);
  }

  objptr_t<FileInterceptorEvent> Make(const vrel::EventParams& params, bool forcePass = false,
                                      CacheManager* cache = nullptr, uint32_t timeout = 1000) {
    return qeb::CreateObject<FileInterceptorEvent>(host.Locator(), params, timeout, scanner.Get(),
                                                   forcePass, cache, host.containersMonitor.Get());
  }
  objptr_t<CacheManager> MakeCache() {
    return qeb::CreateObject<CacheManager>(host.Locator(), FakeCacheList(cacheLog));
  }
  std::vector<uint32_t> Delivered() const {
    std::vector<uint32_t> out;
    for (const auto& v : host.verdictNotifier->Verdicts()) out.push_back(v.verdict);
    return out;
  }

  FakeHost host;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  std::shared_ptr<FilesCacheLog> cacheLog = std::make_shared<FilesCacheLog>();
};

TEST_F(InterceptorEventTest, VerdictTable) {
  struct Case {
    uint32_t basic;
    bool forcePass;
    std::vector<vrel::TargetVerdict> targets;
    std::vector<uint32_t> resets;
    uint32_t expected;
  };
  const Case cases[] = {
      {1, false, {}, {}, 2},
      {1, false, {{kCacheable, 1}}, {}, 1},
      {1, false, {{kCacheable, 1}}, {kCacheable}, 2},
      {1, false, {{kCacheable, 1}, {kCacheable, 0}}, {}, 2},
      {1, false, {{0x1234, 1}}, {}, 2},
      {1, false, {{kCacheable, 1}}, {0x1234}, 1},
      {1, true, {}, {}, 2},
      {1, true, {{kCacheable, 7}}, {}, 1},
      {2, false, {}, {}, 4},
      {2, true, {}, {}, 2},
      {2, false, {{kCacheable, 1}}, {}, 4},
      {0, false, {}, {}, 4},
      {0, true, {}, {}, 4},
  };
  auto cache = MakeCache();
  size_t deliveredAtCacheAdd = 99;
  cacheLog->onAdd = [&](const vrel::EventParams&) {
    deliveredAtCacheAdd = host.verdictNotifier->Verdicts().size();
  };
  size_t n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "case " << n);
    const size_t addedBefore = cacheLog->AddedCount();
    auto event = Make(MakeParams(), c.forcePass, cache.Get());
    for (const auto& t : c.targets) EXPECT_EQ(event->AddReplyTargetVerdict(t), 0);
    for (uint32_t id : c.resets) EXPECT_EQ(event->ResetReplyTargetVerdict(id), 0);
    EXPECT_EQ(event->Reply(static_cast<vrel::BasicVerdict::BasicVerdict>(c.basic)), 0);
    ASSERT_EQ(host.verdictNotifier->Verdicts().size(), ++n);
    EXPECT_EQ(Delivered().back(), c.expected);
    EXPECT_EQ(cacheLog->AddedCount() - addedBefore, c.expected == 1 ? 1u : 0u);
    if (c.expected == 1) {
      EXPECT_EQ(deliveredAtCacheAdd, n - 1) << "cached before delivery";
    }
    // The verdict went through the extended face, with the record itself.
    EXPECT_FALSE(host.verdictNotifier->Verdicts().back().key.has_value());
  }
  EXPECT_EQ(host.tracer->Count(", basic verdict: Deny"), 5u);
  EXPECT_EQ(host.tracer->Count(" was not processed!"), 0u);
}

TEST_F(InterceptorEventTest, PlainNotifierGetsTheReplyKeyAndPreReplyActsAsReply) {
  auto plain = MakeHostObject<FakeVerdictNotifier>();
  host.locator->Register<vrel::IFileVerdictNotifier>(plain);
  auto event = Make(MakeParams());
  EXPECT_EQ(event->PreReply(vrel::BasicVerdict::Deny, 123456), 0);
  EXPECT_EQ(event->Reply(vrel::BasicVerdict::Allow), 0);
  const auto verdicts = plain->Verdicts();
  ASSERT_EQ(verdicts.size(), 1u);
  EXPECT_EQ(verdicts[0].verdict, 4u);
  ASSERT_TRUE(verdicts[0].key.has_value());
  EXPECT_EQ(verdicts[0].key->cookie, 0x1122334455667788u);
  EXPECT_EQ(verdicts[0].key->fd, 42);
  EXPECT_EQ(verdicts[0].key->queue_id, 7u);
  EXPECT_EQ(host.tracer->Count("Can't query nox::vrelpp::IFileVerdictNotifierEx interface. "
                               "Fall back to vrel::IFileVerdictNotifier"),
            1u);
  EXPECT_EQ(host.tracer->Count("processed already"), 1u);
}

TEST_F(InterceptorEventTest, FailedDeliveryLeavesTheEventPendingForALaterAnswer) {
  auto event = Make(MakeParams());
  host.verdictNotifier->Fail(res::NotReady);
  EXPECT_EQ(event->Reply(vrel::BasicVerdict::Deny), res::NotReady);
  EXPECT_EQ(event->Postpone(1), res::NotSupported) << "the scanner cannot postpone instead";
  EXPECT_TRUE(host.tracer->Contains(
      "oas/file_interceptor_event:460(SetVerdict(vrelVerdict)),(QEB_SUCCEEDED(_result)) "
      "failed: result = 0x80000063 (Not ready)Cannot set verdict"));
  host.verdictNotifier->Fail(res::Ok);
  EXPECT_EQ(event->Reply(vrel::BasicVerdict::Deny), 0);
  event.Reset();
  EXPECT_EQ(Delivered(), std::vector<uint32_t>{4});

  // Still failing at destruction: the default verdict is attempted and lost, nothing throws.
  auto unanswered = Make(MakeParams());
  host.verdictNotifier->Fail(res::NotReady);
  unanswered.Reset();
  EXPECT_EQ(Delivered(), std::vector<uint32_t>{4});
}

// The default verdict leaves only once the timer can no longer fire for the event: a
// timeout racing with the release would publish for an event already answered.
TEST_F(InterceptorEventTest, UnansweredEventCancelsItsTimerThenIsAllowedUncached) {
  auto cache = MakeCache();
  auto event = Make(MakeParams(), false, cache.Get());
  event->AddReplyTargetVerdict({kCacheable, 1});
  ASSERT_EQ(host.timer->ArmedCount(), 1u);
  size_t armedAtDelivery = 99;
  host.verdictNotifier->OnDelivery([&](const vrel::EventParams&, uint32_t) {
    armedAtDelivery = host.timer->ArmedCount();
  });
  event.Reset();
  EXPECT_EQ(Delivered(), std::vector<uint32_t>{2});
  EXPECT_EQ(armedAtDelivery, 0u);
  EXPECT_EQ(cacheLog->AddedCount(), 0u);
  const auto errors = host.tracer->Texts(300);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].rfind(" Filename: /home/user/report.doc, cookie: ", 0), 0u);
  EXPECT_TRUE(errors[0].ends_with(" was not processed!"));
}

// A second reply arrives while the first is still being delivered: it must wait for the
// first and then find the event answered, so the layer hears one verdict per event.
TEST_F(InterceptorEventTest, ConcurrentRepliesDeliverOneVerdictPerEvent) {
  for (uint64_t cookie = 1; cookie <= 20; ++cookie) {
    SCOPED_TRACE(cookie);
    vrel::EventParams params = MakeParams();
    params.cookie = cookie;
    auto event = Make(params);
    std::latch firstDelivering(1), secondReplying(1), release(1);
    std::atomic<int> deliveries{0};
    host.verdictNotifier->OnDelivery([&](const vrel::EventParams&, uint32_t) {
      if (++deliveries != 1) return;
      firstDelivering.count_down();
      release.wait();
    });
    std::thread first([&] { EXPECT_EQ(event->Reply(vrel::BasicVerdict::Allow), 0); });
    firstDelivering.wait();
    host.tracer->OnLine([&](std::string_view line) {
      if (line.find(", basic verdict: Deny") != std::string_view::npos) secondReplying.count_down();
    });
    std::thread second([&] { EXPECT_EQ(event->Reply(vrel::BasicVerdict::Deny), 0); });
    secondReplying.wait();
    host.tracer->OnLine(nullptr);
    release.count_down();
    first.join();
    second.join();
    host.verdictNotifier->OnDelivery(nullptr);
    event.Reset();
    EXPECT_EQ(deliveries.load(), 1);
    EXPECT_EQ(host.verdictNotifier->CountsByCookie()[cookie], 1u);
    EXPECT_EQ(Delivered().back(), 2u) << "the first answer stands";
  }
  EXPECT_EQ(host.tracer->Count("processed already"), 20u);
}

TEST_F(InterceptorEventTest, RunWithoutAHandlerLetsTheFileThroughWhenReleased) {
  auto event = qeb::CreateObject<FileInterceptorEvent>(host.Locator(), MakeParams(), 1000u,
                                                       nullptr, false, nullptr,
                                                       host.containersMonitor.Get());
  EXPECT_EQ(static_cast<qeb::IRunnable*>(event.Get())->Run(), 0);
  EXPECT_TRUE(Delivered().empty());
  event.Reset();
  EXPECT_EQ(Delivered(), std::vector<uint32_t>{2});
}

TEST_F(InterceptorEventTest, RejectedOperationsFailConstructionWithoutAVerdict) {
  for (uint32_t oper : {0u, 5u, 6u, 8u, 9u}) {
    SCOPED_TRACE(oper);
    try {
      Make(MakeParams(oper));
      ADD_FAILURE() << "constructed";
    } catch (const qeb::CheckResultFailedException& e) {
      EXPECT_EQ(e.Code(), res::Unspecified);
      EXPECT_EQ(e.Line(), 54u);
    }
    EXPECT_TRUE(host.tracer->Contains("Unexpected action: " + std::to_string(oper)));
    EXPECT_EQ(qeb::module::ObjectCount(), 0u);
  }
  EXPECT_TRUE(host.verdictNotifier->Verdicts().empty());
  EXPECT_EQ(host.timer->ArmedCount(), 0u);
}

TEST_F(InterceptorEventTest, ParametersOfAHostEvent) {
  auto event = Make(MakeParams());
  const void* data = nullptr;
  uint32_t size = 0;
  const std::u16string name = u"/home/user/report.doc";
  for (uint32_t id : {11u, 1001u, 1002u}) {
    ASSERT_EQ(event->GetParam(id, data, size), 0);
    EXPECT_EQ(std::u16string(static_cast<const char16_t*>(data)), name);
    EXPECT_EQ(size, 2 * name.size() + 2);
  }
  ASSERT_EQ(event->GetParam(13, data, size), 0);
  EXPECT_EQ(*static_cast<const uint32_t*>(data), 0x00400000u);
  ASSERT_EQ(event->GetParam(19, data, size), 0);
  EXPECT_EQ(*static_cast<const int32_t*>(data), 42);
  ASSERT_EQ(event->GetParam(20, data, size), 0);
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(*static_cast<const uint64_t*>(data), nox::containers::GetOwnMountNamespaceId());
  ASSERT_EQ(event->GetParam(60, data, size), 0);
  EXPECT_EQ(*static_cast<const int32_t*>(data), getsid(getpid()));
  EXPECT_TRUE(host.tracer->Contains(", /home/user/report.doc, paramId: 1002"));
  EXPECT_TRUE(host.tracer->Contains("_PARAM_OBJECT_CLIENTID1: 42"));

  // Unknown ids and the empty scan area fail and leave the outputs alone.
  for (uint32_t id : {0u, 12u, 205u, 206u, 1003u}) {
    data = &size;
    size = 77;
    EXPECT_EQ(event->GetParam(id, data, size), res::NotSupported) << id;
    EXPECT_EQ(data, &size);
    EXPECT_EQ(size, 77u);
  }

  vrel::EventHeader header;
  ASSERT_EQ(event->GetEventHeader(header), 0);
  EXPECT_EQ(header.sequenceNumber, 7u);
  EXPECT_EQ(header.timeout, 1000u);
  EXPECT_EQ(header.processId, getpid());
  event->Reply(vrel::BasicVerdict::Allow);
}

TEST_F(InterceptorEventTest, ContainerEventsNameTheirScanArea) {
  vrel::EventParams params = MakeParams();
  params.nsid = 4026532999;
  host.containersMonitor->Add(params.nsid, {"0123456789abcdef", "web", "", false});
  auto described = Make(params);
  params.nsid = 4026533000;
  auto unknown = Make(params);

  const void* data = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(described->GetParam(205, data, size), 0);
  EXPECT_STREQ(static_cast<const char*>(data), "[container:web]");
  EXPECT_EQ(size, 16u);
  ASSERT_EQ(unknown->GetParam(205, data, size), 0);
  EXPECT_STREQ(static_cast<const char*>(data), "NonLocal");
  EXPECT_TRUE(host.tracer->Contains("_PARAM_SCAN_AREA_ID: 'NonLocal'"));
  const nox::ReopenData* reopen = nullptr;
  ASSERT_EQ(unknown->GetReopenData(reopen), 0);
  EXPECT_EQ(reopen->mountNamespace, std::optional<uint64_t>(4026533000));
  described->Reply(vrel::BasicVerdict::Allow);
  unknown->Reply(vrel::BasicVerdict::Allow);
}

TEST_F(InterceptorEventTest, OperationsMapToFunctionsFlagsAndHandlerEntries) {
  struct Case {
    uint32_t oper;
    uint64_t fsType;
    uint32_t group, type, flags, processing;
    bool notification;
  };
  const Case cases[] = {
      {vrel::VREL_ACTION_OPEN, 0x6969, 3, 0, 0x04400000, 0, false},
      {vrel::VREL_ACTION_CLOSE, 0xFF534D42, 3, 18, 0x04000001, 1, true},
      {vrel::VREL_ACTION_EXEC, 0xEF53, 8, 4, 0x00400010, 0, false},
      {vrel::VREL_ACTION_RENAME, 0xFE534D42, 3, 6, 0x04000000, 1, true},
      {vrel::VREL_ACTION_CLOSE_MODIFY, 0x517B, 3, 18, 0x04000001, 1, true},
  };
  std::string threadName;
  scanner->SetChooser([&](vrel::IEvent085*) {
    char name[16] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    threadName = name;
    return ScannerScript{};
  });
  size_t n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.oper);
    vrel::EventParams params = MakeParams(c.oper);
    params.fsType = c.fsType;
    auto event = Make(params);
    vrel::EventHeader header;
    event->GetEventHeader(header);
    EXPECT_EQ(header.functionGroup, c.group);
    EXPECT_EQ(header.functionType, c.type);
    const void* data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(event->GetParam(13, data, size), 0);
    EXPECT_EQ(*static_cast<const uint32_t*>(data), c.flags);
    vrel::ProcessingType::ProcessingType type{};
    ASSERT_EQ(event->GetProcessingType(type), 0);
    EXPECT_EQ(type, c.processing);

    std::thread([&] { event->Run(); }).join();
    ASSERT_EQ(scanner->Calls().size(), ++n);
    EXPECT_EQ(scanner->Calls().back().notification, c.notification);
    EXPECT_EQ(scanner->Calls().back().context, 0xFFFFFFFFu);
    EXPECT_EQ(threadName, "dornOASEvent");
  }
  EXPECT_EQ(Delivered(), std::vector<uint32_t>(5, 2));
}

TEST_F(InterceptorEventTest, TimeoutsPublishAndLeaveTheEventPending) {
  host.fileInfoCache->Set(MakeParams().nsid, "/home/user/report.doc", {4096, "aa", "bb"});
  host.userInfoCache->NoteEventUser(MakeParams().nsid, "/home/user/report.doc", 1000);
  auto event = Make(MakeParams(), false, nullptr, 0);
  ASSERT_EQ(host.timer->Arms().size(), 1u);
  EXPECT_EQ(host.timer->Arms()[0].timeout, FileInterceptorEvent::DefaultTimeout);

  EXPECT_EQ(host.timer->FireAll(), 1u);
  ASSERT_EQ(host.eventPublisher->Events().size(), 1u);
  const nox::ProcessingErrorEvent published = host.eventPublisher->Events()[0];
  EXPECT_GT(published.time, 1600000000);
  EXPECT_EQ(published.eventKind, 13u);
  EXPECT_EQ(published.severity, 4u);
  EXPECT_EQ(published.errorCategory, 2u);
  EXPECT_EQ(published.reason, u"timeout");
  EXPECT_EQ(published.fileName, u"/home/user/report.doc");
  EXPECT_EQ(published.fileSize, 4096u);
  EXPECT_EQ(published.fileSha256, "bb");
  EXPECT_EQ(published.userName, u"user1000");
  EXPECT_EQ(published.taskId, FakeTaskManager::TaskId);
  EXPECT_EQ(host.taskManager->FillUsers(), std::vector<std::u16string>{u"root"});
  EXPECT_TRUE(host.verdictNotifier->Verdicts().empty());

  // Pend re-arms; each firing while pending publishes once more.
  EXPECT_EQ(event->Pend(5000), 0);
  EXPECT_EQ(host.timer->Arms().back().timeout, 5000u);
  host.timer->FireAll();
  EXPECT_EQ(host.eventPublisher->Events().size(), 2u);

  EXPECT_EQ(event->Reply(vrel::BasicVerdict::Allow), 0);
  event->Pend(5000);
  host.timer->FireAll();
  EXPECT_EQ(host.eventPublisher->Events().size(), 2u);
  EXPECT_TRUE(host.tracer->Contains("File already processed, sequence no.: 7"));
  EXPECT_EQ(Delivered(), std::vector<uint32_t>{2});
}

TEST_F(InterceptorEventTest, TimeoutWithoutInformationOrPublisher) {
  host.fileInfoCache->FailLookups(res::NotFound);
  host.userInfoCache->FailLookups(res::NotFound);
  auto event = Make(MakeParams());
  EXPECT_EQ(event->OnTimeout(), 0);
  ASSERT_EQ(host.eventPublisher->Events().size(), 1u);
  EXPECT_EQ(host.eventPublisher->Events()[0].userName, u"root");
  EXPECT_EQ(host.eventPublisher->Events()[0].fileSize, 0u);
  EXPECT_TRUE(host.tracer->Contains("Cannot get file info for "));
  EXPECT_TRUE(host.tracer->Contains("Cannot get user info for the file "));

  host.eventPublisher->Fail(res::NotReady);
  EXPECT_EQ(event->OnTimeout(), res::NotReady);
  EXPECT_TRUE(host.tracer->Contains(
      "(eventPublisher->Publish(std::move(event))),(QEB_SUCCEEDED(_result)) failed: result = "
      "0x80000063 (Not ready)Failed to publish processing error event"));
  host.locator->Remove(nox::IEventPublisher::IID);
  EXPECT_EQ(event->OnTimeout(), res::NoInterface);
  EXPECT_TRUE(host.tracer->Contains(
      "(GetInterface(GetServiceLocator(), eventPublisher.Ref())),(QEB_SUCCEEDED(_result)) failed: "
      "result = 0x80000001 (Interface not supported)Failed to obtain event publisher interface"));
  event->Reply(vrel::BasicVerdict::Deny);
}

}  // namespace
