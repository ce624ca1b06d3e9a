// The file interceptor against the fake host: its state table and refused subscriptions,
// SetState's requests, destruction while running, the serialisation of control calls,
// what reaches a running processor (settings, timeout, events after a stop), and the
// settings, cache-reset and shares-change paths with their traces.
#include <atomic>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/result_text.h"
#include "oas/file_interceptor.h"
#include "testing/check_line.h"
#include "testing/event_builder.h"
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

nox::settings::OASSettings WithArea(const std::string& path, bool enabled, bool excluded = false) {
  nox::settings::OASSettings settings;
  auto& scope = settings.ScanScopeWithTrustedPrograms;
  if (excluded)
    scope.excluded_from_scan_scope.push_back({path, {"*"}, enabled});
  else
    scope.scan_scope.push_back({u"", path, {"*"}, enabled});
  return settings;
}

class InterceptorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    interceptor = nullptr;
    ExpectSubscribed(0);
    EXPECT_EQ(RefCount(scanner), 1u) << "the interceptor kept the handler";
    EXPECT_EQ(qeb::module::ObjectCount(), 0u);
  }

  uint32_t State() {
    uint32_t state = 0;
    EXPECT_EQ(interceptor->GetState(&state), 0);
    return state;
  }
  void ExpectSubscribed(size_t count) {
    EXPECT_EQ(host.mountSubscription->Subscribers().Count(), count);
    EXPECT_EQ(host.eventsProvider->Receivers().Count(), count);
    EXPECT_EQ(host.sharesParser->Subscribers().Count(), count);
  }
  // Delivers one open event and waits for the verdict the module sends for it.
  uint32_t VerdictFor(uint64_t cookie) {
    const size_t before = host.verdictNotifier->Verdicts().size();
    EXPECT_EQ(host.eventsProvider->Deliver(MakeOpenEvent(cookie, "/srv/file")), 0);
    host.threadPoolFactory->LastPool()->WaitIdle();
    return host.verdictNotifier->Verdicts().at(before).verdict;
  }

  FakeHost host;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  objptr_t<FileInterceptor> interceptor = qeb::CreateObject<FileInterceptor>(
      host.Locator(), host.sharesParser.Get(), host.eventsProvider.Get(),
      host.mountSubscription.Get(), host.tracer.Get());
};

TEST_F(InterceptorTest, StateTableThroughStartAndStop) {
  EXPECT_EQ(State(), 0x94u);
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

  EXPECT_EQ(interceptor->RemoveFilters(), 0);
  EXPECT_EQ(State(), 0x94u);
  ExpectSubscribed(0);

  // A processor that cannot be built is a failed start, and a stop from there is clean.
  host.threadPoolFactory->Fail(res::OutOfMemory);
  EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), Code(0xa0340001));
  EXPECT_EQ(State(), 0x4000f0u);
  EXPECT_TRUE(host.tracer->Contains("Cannot create ThreadPool2"));
  EXPECT_EQ(RefCount(scanner), 1u);
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
  const Case cases[] = {
      {"mount", [&](result_t c) { host.mountSubscription->Subscribers().Refuse(c); },
       "oas/file_interceptor:112(m_mountsSubscription->Subscribe(processor)",
       "Cannot subscribe to mount events"},
      {"file events", [&](result_t c) { host.eventsProvider->Receivers().Refuse(c); },
       "oas/file_interceptor:119(m_eventsProvider->Subscribe(processor, {settings, settings, flags})",
       "Cannot subscribe to file events"},
      {"shares", [&](result_t c) { host.sharesParser->Subscribers().Refuse(c); },
       "oas/file_interceptor:125(m_sharesParser->Subscribe(this)",
       "Cannot subscribe to shares events"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    host.tracer->Clear();
    c.refuse(res::AccessDenied);
    EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), Code(0xa0340001));
    EXPECT_EQ(State(), 0x4000f0u);
    const auto errors = host.tracer->Texts(qeb::trace::LevelError);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], c.expression + "),(QEB_SUCCEEDED(_result)) failed: result = " +
                             qeb::ResultText(res::AccessDenied) + c.sentence);
    // Only after a shares refusal is a processor (holding the handler) left subscribed.
    EXPECT_EQ(RefCount(scanner), c.name == std::string("shares") ? 2u : 1u);
    c.refuse(res::Ok);
    EXPECT_EQ(interceptor->RemoveFilters(), 0);
    ExpectSubscribed(0);
  }
}

TEST_F(InterceptorTest, SetStateStartsAndStopsButKeepsTheState) {
  using qeb::IState;
  // A fresh object starts with mask 0 and no handler; the state stays "created".
  interceptor->SetState(IState::STATE_REQUEST_RUN);
  EXPECT_EQ(State(), 0x94u);
  EXPECT_EQ(interceptor->RemoveFilters(), 0);

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
  for (uint32_t request : {0u, 3u, 8u}) EXPECT_EQ(interceptor->SetState(request), Code(0x80000046));
  EXPECT_EQ(host.tracer->Count("SetState: : Invalid state request"), 3u);
  EXPECT_EQ(State(), 0x94u);
}

TEST_F(InterceptorTest, DestroyingARunningInterceptorUnsubscribesEverything) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  ExpectSubscribed(1);
  interceptor = nullptr;  // TearDown checks every fake and the handler's references
}

// One start is held inside its work while another thread asks for a start: the second
// must neither run alongside the first nor be left waiting once the first is done.
TEST_F(InterceptorTest, AStartWaitsForTheControlOperationInProgressAndThenRuns) {
  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE(round);
    std::latch firstHeld(1), secondAsked(1), release(1);
    std::atomic<int> starts{0};
    std::atomic<bool> overlapped{false}, firstInside{false};
    host.tracer->OnLine([&](std::string_view line) {
      if (line == "SetupFilters: vrel mask:  VREL_ACTION_FILTER_OPEN" && starts.load() == 1)
        secondAsked.count_down();
      if (line != "StartIntercepting") return;
      if (++starts == 1) {
        firstInside = true;
        firstHeld.count_down();
        release.wait();
        firstInside = false;
      } else if (firstInside) {
        overlapped = true;
      }
    });
    std::thread first([&] { EXPECT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0); });
    firstHeld.wait();
    std::thread second([&] { EXPECT_EQ(interceptor->SetupFilters(0x1, scanner.Get()), 0); });
    secondAsked.wait();
    release.count_down();
    first.join();
    second.join();
    host.tracer->OnLine(nullptr);
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(starts.load(), 2);
    EXPECT_EQ(host.eventsProvider->Subscriptions().back().flags, 0x1u) << "the second ran last";
    EXPECT_EQ(State(), 0x300031u);
    ExpectSubscribed(1);
    ASSERT_EQ(interceptor->RemoveFilters(), 0);
  }
}

TEST_F(InterceptorTest, SettingsAndTimeoutReachTheRunningProcessorsEvents) {
  ASSERT_EQ(interceptor->Init(4321), 0);
  EXPECT_TRUE(host.tracer->Contains("Init() timeout=4321"));
  nox::settings::OASSettings reportOnly;
  reportOnly.ScanSettings.ScanSettingsBase.infected_action = 5;
  ASSERT_EQ(interceptor->SetSettings(reportOnly), 0);
  scanner->SetScript(Answer(vrel::BasicVerdict::Deny));

  // A start builds its processor from the settings but leaves their options to the
  // SetSettings that follows it: until then a deny stays a deny.
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  EXPECT_EQ(VerdictFor(1), 4u);
  EXPECT_EQ(host.timer->Arms().back().timeout, 4321u);
  ASSERT_EQ(interceptor->SetSettings(reportOnly), 0);
  EXPECT_EQ(VerdictFor(2), 2u);
  ASSERT_EQ(interceptor->SetSettings(nox::settings::OASSettings{}), 0);
  EXPECT_EQ(VerdictFor(3), 4u);
  ASSERT_EQ(interceptor->RemoveFilters(), 0);
}

// A provider may still hold the processor after a stop (a late event, a refused
// unsubscribe): what it delivers then is scanned, never let through unchecked.
TEST_F(InterceptorTest, AnEventArrivingAfterTheStopIsScanned) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  auto receivers = host.eventsProvider->Receivers().Snapshot();
  ASSERT_EQ(receivers.size(), 1u);
  ASSERT_EQ(interceptor->RemoveFilters(), 0);
  scanner->SetScript(Answer(vrel::BasicVerdict::Deny));
  EXPECT_EQ(receivers[0]->OnEvent(MakeOpenEvent(9, "/srv/late")), 0);
  host.threadPoolFactory->LastPool()->WaitIdle();
  EXPECT_EQ(host.verdictNotifier->Verdicts().at(0).verdict, 4u);
  EXPECT_EQ(scanner->Calls().size(), 1u);
  receivers.clear();
}

TEST_F(InterceptorTest, SettingsResetOnlyWhenChanged) {
  nox::settings::OASSettings current;
  EXPECT_EQ(interceptor->SetSettings(current), 0);
  EXPECT_EQ(interceptor->ResetCache(), Code(0x80000063)) << "stopped";
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
  EXPECT_TRUE(HasCheckLine(*host.tracer,
                           "(m_eventsProvider->Resubscribe( m_processor, {oasSettings, oasSettings, vrelFlags})",
                           res::AccessDenied, "Cannot resubscribe"));
  EXPECT_EQ(State(), 0x300031u);
}

// Only a class of shares, scanned or excluded, makes the files in scope depend on which
// shares exist; a named share is as fixed as a local path.
TEST_F(InterceptorTest, TheSharesFlagFollowsShareClassesInBothScopeLists) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  const struct {
    const char* path;
    bool enabled, excluded;
    result_t changed;  // what a change of shares answers: 0 after a reset, 1 without
  } cases[] = {
      {"smb://*", true, false, 0},       {"smb://*", false, false, 1},
      {"//server/share", true, false, 1}, {"nfs://*", true, true, 0},
      {"cifs://", true, true, 0},         {"nfs://*", false, true, 1},
      {"//server/share", true, true, 1},  {"/home", true, false, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.path << (c.excluded ? " excluded" : " scanned")
                                      << (c.enabled ? "" : ", disabled"));
    ASSERT_EQ(interceptor->SetSettings(WithArea(c.path, c.enabled, c.excluded)), 0);
    const size_t resets = host.eventsProvider->ResubscribeCalls();
    EXPECT_EQ(host.sharesParser->AnnounceChange(), c.changed);
    EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), resets + (c.changed == 0 ? 1 : 0));
    EXPECT_TRUE(host.tracer->Contains(std::string("OnSharesChanged() m_needSharesSubscription=") +
                                      (c.changed == 0 ? "1" : "0")));
  }
  EXPECT_EQ(host.taskManager->Refreshed().size(), std::size(cases));
  EXPECT_EQ(host.taskManager->Refreshed().front(), u"File_Threat_Protection");
  EXPECT_TRUE(host.tracer->Contains("RefreshOasSettings() <- "));
}

TEST_F(InterceptorTest, SharesChangeFailures) {
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  ASSERT_EQ(interceptor->SetSettings(WithArea("smb://*", true)), 0);
  const size_t resets = host.eventsProvider->ResubscribeCalls();

  host.taskManager->FailRefresh(res::AccessDenied);
  EXPECT_EQ(interceptor->OnSharesChanged(), res::AccessDenied);
  EXPECT_TRUE(HasCheckLine(*host.tracer, "oas/file_interceptor:66(tm->RefreshTaskSettings(Name4DefaultOasTask)",
                           res::AccessDenied, "Cannot refresh settings for 'File_Threat_Protection' task"));

  host.locator->Fail(nox::INoxTaskManager::IID, 0, res::NoInterface);
  EXPECT_EQ(interceptor->OnSharesChanged(), res::NoInterface);
  EXPECT_TRUE(HasCheckLine(*host.tracer, "oas/file_interceptor:63(qeb::GetInterface(sl, tm.Ref())",
                           res::NoInterface, "Cannot get INoxTaskManager interface"));
  EXPECT_TRUE(HasCheckLine(*host.tracer, "(RefreshOasSettings(GetServiceLocator(), GetTracer())",
                           res::NoInterface, "Failed to refresh oas settings"));
  EXPECT_EQ(host.eventsProvider->ResubscribeCalls(), resets) << "caches left as they were";

  host.locator->Restore(nox::INoxTaskManager::IID);
  host.taskManager->FailRefresh(res::Ok);
  host.eventsProvider->RefuseResubscribe(res::AccessDenied);
  EXPECT_EQ(interceptor->OnSharesChanged(), res::AccessDenied);
  EXPECT_TRUE(HasCheckLine(*host.tracer, "(ResetCache()", res::AccessDenied, "Failed to reset cache"));
  for (const auto& line : host.tracer->Texts(qeb::trace::LevelError))
    EXPECT_EQ(line.rfind("oas/file_interceptor:", 0), 0u) << line;
}

}  // namespace
