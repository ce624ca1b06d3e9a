// The file interceptor against the fake host: its state table, each refused host
// subscription, SetState's requests, the filter mask trace, the fanotify-only results,
// destruction while running, concurrent control calls, and the settings, cache-reset and
// shares-change paths with their traces.
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/result_text.h"
#include "oas/file_interceptor.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using nox::oas::FileInterceptor;
using qeb::objptr_t;
using qeb::result_t;
using namespace qeb::testing;
namespace res = qeb::res;

constexpr result_t Code(uint32_t value) { return static_cast<result_t>(value); }

uint32_t RefCount(const objptr_t<FakeScanner>& scanner) {
  return static_cast<HostObject<FakeScanner>*>(scanner.Get())->RefCount();
}

nox::settings::OASSettings WithArea(const std::string& path, bool enabled) {
  nox::settings::OASSettings settings;
  nox::settings::ScanScope area;
  area.path = path;
  area.area_mask = {"*"};
  area.use_scan_area = enabled;
  settings.ScanScopeWithTrustedPrograms.scan_scope.push_back(area);
  return settings;
}

class InterceptorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    interceptor = nullptr;
    EXPECT_EQ(host.mountSubscription->Subscribers().Count(), 0u);
    EXPECT_EQ(host.eventsProvider->Receivers().Count(), 0u);
    EXPECT_EQ(host.sharesParser->Subscribers().Count(), 0u);
    EXPECT_EQ(RefCount(scanner), 1u) << "the interceptor kept the handler";
    EXPECT_EQ(qeb::module::ObjectCount(), 0u);
  }

  uint32_t State() {
    uint32_t state = 0;
    EXPECT_EQ(interceptor->GetState(&state), 0);
    return state;
  }
  // Subscribed to all three host services exactly as a running interceptor is.
  void ExpectSubscribed(size_t count) {
    EXPECT_EQ(host.mountSubscription->Subscribers().Count(), count);
    EXPECT_EQ(host.eventsProvider->Receivers().Count(), count);
    EXPECT_EQ(host.sharesParser->Subscribers().Count(), count);
  }
  ::testing::AssertionResult HasCheck(const std::string& expression, result_t code,
                                      const std::string& sentence) {
    if (host.tracer->Contains(expression + "),(QEB_SUCCEEDED(_result)) failed: result = " +
                                 qeb::ResultText(code) + sentence))
      return ::testing::AssertionSuccess();
    auto failure = ::testing::AssertionFailure() << "error lines:";
    for (const auto& line : host.tracer->Texts(qeb::trace::LevelError)) failure << "\n  " << line;
    return failure;
  }

  FakeHost host;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  objptr_t<FileInterceptor> interceptor = qeb::CreateObject<FileInterceptor>(
      host.Locator(), host.sharesParser.Get(), host.eventsProvider.Get(),
      host.mountSubscription.Get(), host.tracer.Get());
};

TEST_F(InterceptorTest, StateTableThroughStartAndStop) {
  EXPECT_EQ(State(), 0x94u);
  EXPECT_EQ(interceptor->Init(3000), 0);
  EXPECT_TRUE(host.tracer->Contains("Init() timeout=3000"));
  EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  EXPECT_EQ(State(), 0x300031u);
  ExpectSubscribed(1);
  EXPECT_EQ(host.eventsProvider->Subscriptions().at(0).flags, 0x1Bu);
  EXPECT_TRUE(host.tracer->Contains(
      "SetupFilters: vrel mask:  VREL_ACTION_FILTER_OPEN|VREL_ACTION_FILTER_EXEC|"
      "VREL_ACTION_FILTER_CLOSE_MODIFIED|VREL_ACTION_FILTER_RENAME"));

  // Setting up again replaces the processor rather than adding a second one.
  EXPECT_EQ(interceptor->SetupFilters(0x10, scanner.Get()), 0);
  ExpectSubscribed(1);
  EXPECT_EQ(host.eventsProvider->Subscriptions().back().flags, 0u);
  EXPECT_TRUE(host.tracer->Contains("SetupFilters: vrel mask: "));
  for (const auto& line : host.tracer->Lines()) {
    if (!line.text.starts_with("SetupFilters: vrel mask:")) continue;
    EXPECT_TRUE(line.text == "SetupFilters: vrel mask: " ||
                  line.text.ends_with(" VREL_ACTION_FILTER_OPEN|VREL_ACTION_FILTER_EXEC|"
                                      "VREL_ACTION_FILTER_CLOSE_MODIFIED|VREL_ACTION_FILTER_RENAME"))
        << line.text;
  }

  EXPECT_EQ(interceptor->RemoveFilters(), 0);
  EXPECT_EQ(State(), 0x94u);
  ExpectSubscribed(0);

  // A failed start, then a stop from the failed state.
  host.mountSubscription->Subscribers().Refuse(res::AccessDenied);
  EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), Code(0xa0340001));
  EXPECT_EQ(State(), 0x4000f0u);
  EXPECT_EQ(interceptor->RemoveFilters(), 0);
  EXPECT_EQ(State(), 0x94u);
}

TEST_F(InterceptorTest, EachRefusedSubscriptionFailsTheStart) {
  struct Case {
    const char* name;
    std::function<void(result_t)> refuse;
    std::string expression;
    std::string sentence;
  };
  const result_t refusal = res::AccessDenied;
  const Case cases[] = {
      {"mount", [&](result_t c) { host.mountSubscription->Subscribers().Refuse(c); },
       "oas/file_interceptor.cpp:112(m_mountsSubscription->Subscribe(processor)",
       "Cannot subscribe to mount events"},
      {"file events", [&](result_t c) { host.eventsProvider->Receivers().Refuse(c); },
       "oas/file_interceptor.cpp:119(m_eventsProvider->Subscribe(processor, {settings, settings, flags})",
       "Cannot subscribe to file events"},
      {"shares", [&](result_t c) { host.sharesParser->Subscribers().Refuse(c); },
       "oas/file_interceptor.cpp:125(m_sharesParser->Subscribe(this)",
       "Cannot subscribe to shares events"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    host.tracer->Clear();
    c.refuse(refusal);
    EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), Code(0xa0340001));
    EXPECT_EQ(State(), 0x4000f0u);
    const auto errors = host.tracer->Texts(qeb::trace::LevelError);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with(c.expression + ")")) << errors[0];
    EXPECT_TRUE(errors[0].ends_with(qeb::ResultText(refusal) + c.sentence)) << errors[0];
    EXPECT_EQ(RefCount(scanner), c.name == std::string("shares") ? 2u : 1u)
        << "only the processor kept after a shares refusal holds the handler";
    c.refuse(res::Ok);
    EXPECT_EQ(interceptor->RemoveFilters(), 0);
    ExpectSubscribed(0);
    EXPECT_EQ(RefCount(scanner), 1u);
  }
}

TEST_F(InterceptorTest, ProcessorThatCannotBeBuiltIsAFailedStart) {
  host.threadPoolFactory->Fail(res::OutOfMemory);
  EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), Code(0xa0340001));
  EXPECT_EQ(State(), 0x4000f0u);
  EXPECT_TRUE(host.tracer->Contains("Cannot create ThreadPool2"));
  ExpectSubscribed(0);
  host.threadPoolFactory->Fail(res::Ok);
  // The serialisation was released: the next start goes through.
  EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  EXPECT_EQ(State(), 0x300031u);
}

TEST_F(InterceptorTest, SetStateStartsAndStopsButKeepsTheState) {
  using qeb::IState;
  // A fresh object starts with mask 0 and no handler; the state stays "created".
  interceptor->SetState(IState::STATE_REQUEST_RUN);
  EXPECT_EQ(State(), 0x94u);
  EXPECT_TRUE(host.tracer->Contains("SetState() stateRequest=STATE_REQUEST_RUN"));
  EXPECT_EQ(interceptor->RemoveFilters(), 0);
  ExpectSubscribed(0);

  EXPECT_EQ(interceptor->SetupFilters(0x1, scanner.Get()), 0);
  EXPECT_EQ(interceptor->SetState(IState::STATE_REQUEST_PAUSE), 0);
  EXPECT_EQ(State(), 0x300031u);
  ExpectSubscribed(0);
  EXPECT_EQ(interceptor->SetState(IState::STATE_REQUEST_PAUSE), 0) << "stops again, harmlessly";
  EXPECT_EQ(interceptor->SetState(IState::STATE_REQUEST_RUN), 1);
  EXPECT_TRUE(host.tracer->Contains("SetState: : Already running"));
  ExpectSubscribed(0);

  EXPECT_EQ(interceptor->RemoveFilters(), 0);
  EXPECT_EQ(interceptor->SetState(IState::STATE_REQUEST_STOP), 1);
  EXPECT_TRUE(host.tracer->Contains("SetState: : Already stopped"));

  EXPECT_EQ(interceptor->SetupFilters(0x1, scanner.Get()), 0);
  const size_t subscribeCalls = host.mountSubscription->Subscribers().SubscribeCalls();
  for (uint32_t request : {0u, 3u, 8u}) {
    EXPECT_EQ(interceptor->SetState(request), Code(0x80000046)) << request;
    EXPECT_EQ(State(), 0x300031u);
  }
  EXPECT_TRUE(host.tracer->Contains("SetState() stateRequest="));
  EXPECT_EQ(host.tracer->Count("SetState: : Invalid state request"), 3u);
  EXPECT_EQ(host.mountSubscription->Subscribers().SubscribeCalls(), subscribeCalls);
  ExpectSubscribed(1);
}

TEST_F(InterceptorTest, FanotifyOnlyResults) {
  EXPECT_EQ(interceptor->AddProcessExclusion(12), Code(0x80000043));
  EXPECT_EQ(interceptor->RemoveProcessExclusion(12), Code(0x80000043));
  EXPECT_EQ(interceptor->ClearProcessExclusions(), 0);
  EXPECT_TRUE(host.tracer->Contains("Not Implemented for fanotify."));
  EXPECT_EQ(interceptor->AddPathExclusion("/tmp"), Code(0x80000042));
  EXPECT_EQ(interceptor->RemovePathExclusion("/tmp"), Code(0x80000042));
  EXPECT_EQ(interceptor->ClearPathExclusions(), Code(0x80000042));
  EXPECT_EQ(interceptor->SetSequenceTimeout(5), 0);
  EXPECT_TRUE(host.tracer->Contains("Not Implemented for fanotify: timeout =5"));
  uint32_t timeout = 77;
  EXPECT_EQ(interceptor->GetSequenceTimeout(&timeout), Code(0x80000042));
  EXPECT_EQ(timeout, 77u);

  const uint32_t objects = qeb::module::ObjectCount();
  EXPECT_EQ(interceptor->CreateStatisticsCollector(nullptr), Code(0x80000046));
  EXPECT_EQ(qeb::module::ObjectCount(), objects);
  vrel::IFileInterceptorStatisticsCollector* collector = nullptr;
  ASSERT_EQ(interceptor->CreateStatisticsCollector(&collector), 0);
  ASSERT_NE(collector, nullptr);
  EXPECT_EQ(qeb::module::ObjectCount(), objects + 1);
  EXPECT_EQ(collector->Release(), 0u);
  EXPECT_EQ(qeb::module::ObjectCount(), objects);
}

TEST_F(InterceptorTest, DestroyingARunningInterceptorUnsubscribesEverything) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  ExpectSubscribed(1);
  interceptor = nullptr;  // TearDown checks every fake and the handler's references
  EXPECT_TRUE(host.tracer->Contains("~FileInterceptor"));
}

TEST_F(InterceptorTest, ConcurrentStartsAndStopsAreSerialised) {
  const uint32_t startRefs = RefCount(scanner);
  const auto churn = [&] {
    for (int i = 0; i < 25; ++i) {
      EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
      EXPECT_EQ(interceptor->RemoveFilters(), 0);
    }
  };
  std::thread first(churn), second(churn);
  first.join();
  second.join();
  EXPECT_EQ(State(), 0x94u);
  ExpectSubscribed(0);
  EXPECT_EQ(host.mountSubscription->Subscribers().SubscribeCalls(), 50u);
  EXPECT_EQ(RefCount(scanner), startRefs);
}

TEST_F(InterceptorTest, SettingsResetOnlyWhenChanged) {
  nox::settings::OASSettings current;
  EXPECT_EQ(interceptor->SetSettings(current), 0);
  EXPECT_EQ(interceptor->ResetCache(), res::NotReady) << "stopped";
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), 0u);

  ASSERT_EQ(interceptor->SetupFilters(0x3, scanner.Get()), 0);
  EXPECT_EQ(interceptor->SetSettings(current), 0);
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), 0u) << "equal settings keep the caches";

  auto changed = WithArea("/home", true);
  changed.skipPlainTextFiles = true;
  EXPECT_EQ(interceptor->SetSettings(changed), 0);
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), 1u);
  const nox::FileEventsSubscription expected{{{"/home", {"*"}}}, {}, 0x3};
  EXPECT_EQ(host.eventsProvider->Subscriptions().back(), expected);
  nox::settings::OASSettings read;
  EXPECT_EQ(interceptor->GetSettings(read), 0);
  EXPECT_EQ(read, changed);

  host.eventsProvider->RefuseResubscribe(res::AccessDenied);
  EXPECT_EQ(interceptor->ResetCache(), res::AccessDenied);
  EXPECT_TRUE(host.tracer->Contains("Cannot resubscribe"));
  EXPECT_EQ(State(), 0x300031u);
}

TEST_F(InterceptorTest, SharesChanges) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);

  // No share-dependent area: the settings are refreshed, nothing is reset.
  EXPECT_EQ(host.sharesParser->AnnounceChange(), 1);
  EXPECT_TRUE(host.tracer->Contains("OnSharesChanged() m_needSharesSubscription=0"));
  EXPECT_EQ(host.taskManager->Refreshed(), std::vector<std::u16string>{u"File_Threat_Protection"});
  EXPECT_TRUE(host.tracer->Contains("RefreshOasSettings() <- "));
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), 0u);

  // A disabled share area does not count.
  EXPECT_EQ(interceptor->SetSettings(WithArea("smb://*", false)), 0);
  const size_t resets = host.eventsProvider->ResubscribeCalls();
  EXPECT_EQ(interceptor->OnSharesChanged(), 1);
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), resets);

  EXPECT_EQ(interceptor->SetSettings(WithArea("smb://*", true)), 0);
  const size_t before = host.eventsProvider->ResubscribeCalls();
  EXPECT_EQ(host.sharesParser->AnnounceChange(), 0);
  EXPECT_TRUE(host.tracer->Contains("OnSharesChanged() m_needSharesSubscription=1"));
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), before + 1);

  host.taskManager->FailRefresh(res::AccessDenied);
  EXPECT_EQ(interceptor->OnSharesChanged(), res::AccessDenied);
  EXPECT_TRUE(HasCheck("oas/file_interceptor.cpp:66(tm->RefreshTaskSettings(Name4DefaultOasTask)",
                       res::AccessDenied, "Cannot refresh settings for 'File_Threat_Protection' task"));
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), before + 1);

  host.locator->Fail(nox::INoxTaskManager::IID, 0, res::NoInterface);
  host.tracer->Clear();
  EXPECT_EQ(interceptor->OnSharesChanged(), res::NoInterface);
  EXPECT_TRUE(HasCheck("oas/file_interceptor.cpp:63(qeb::GetInterface(sl, tm.Ref())", res::NoInterface,
                       "Cannot get INoxTaskManager interface"));
  EXPECT_TRUE(HasCheck("(RefreshOasSettings(GetServiceLocator(), GetTracer())", res::NoInterface,
                       "Failed to refresh oas settings"));
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), before + 1);

  // A reset that fails after a shares change is reported as such.
  host.locator->Restore(nox::INoxTaskManager::IID);
  host.taskManager->FailRefresh(res::Ok);
  host.eventsProvider->RefuseResubscribe(res::AccessDenied);
  EXPECT_EQ(interceptor->OnSharesChanged(), res::AccessDenied);
  EXPECT_TRUE(HasCheck("(ResetCache()", res::AccessDenied, "Failed to reset cache"));
}

TEST_F(InterceptorTest, ResetCacheWhenStoppedTouchesNothing) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  ASSERT_EQ(interceptor->RemoveFilters(), 0);
  EXPECT_EQ(interceptor->ResetCache(), Code(0x80000063));
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), 0u);
  EXPECT_EQ(host.eventsProvider->Subscriptions().size(), 1u);
}

}  // namespace
