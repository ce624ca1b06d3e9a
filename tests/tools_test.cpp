// Process tools against the fake host's process manager and the machine's own account
// database: each failing step is traced with its expression and handed back.
#include <csignal>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "framework/qeb/result_text.h"
#include "nox_common/tools.h"
#include "testing/fake_host.h"

namespace {

using qeb::testing::FakeHost;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

constexpr uint32_t Pid = 4242;

TEST(GetProcessInfo, EachFailingStepIsTracedAndReturned) {
  const struct {
    std::function<void(FakeHost&)> setUp;
    qeb::result_t result;
    std::string expression, sentence;
  } cases[] = {
      {[](FakeHost& h) { h.locator->Remove(system_interceptors::process_manager::IProcessManager::IID); },
       res::NoInterface, "qeb::GetInterface(sl, manager.Ref())", "Cannot get IProcessManager interface"},
      {[](FakeHost&) {}, res::NotFound, "manager->GetInformation(pid, process.Ref())",
       "Cannot get IProcessInformation for pid: 4242"},
      // The process ends between the lookup and the read.
      {[](FakeHost& h) {
         h.processManager->AddProcess(Pid, 7);
         h.processManager->VanishAfterLookup(Pid);
       },
       res::NotFound, "process->GetInformation(processInfo)", "Cannot get info for pid: 4242"},
  };
  for (const auto& c : cases) {
    FakeHost host;
    c.setUp(host);
    ProcessInfo info;
    EXPECT_EQ(nox::tools::GetProcessInfo(host.Locator(), Pid, info), c.result);
    const auto lines = host.tracer->Texts(qeb::trace::LevelError);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("nox_common/tools:", 0), 0u) << lines[0];
    EXPECT_TRUE(lines[0].ends_with("(" + c.expression + "),(QEB_SUCCEEDED(_result)) failed: result = " +
                                   qeb::ResultText(c.result) + c.sentence))
        << lines[0];
  }
}

TEST(GetProcessUserName, RootByUidAndFailuresLeaveTheNameEmpty) {
  FakeHost host;
  host.processManager->AddProcess(1, 11, 0);
  std::u16string name = u"stale";
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), 1, name), res::Ok);
  EXPECT_EQ(name, u"root");

  host.processManager->AddProcess(Pid, 1, 2147483632);  // no such account
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), Pid, name), res::NotFound);
  EXPECT_TRUE(name.empty());
  host.processManager->FailInformation(Pid, res::AccessDenied);
  name = u"stale";
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), Pid, name), res::AccessDenied);
  EXPECT_TRUE(name.empty());
}

volatile sig_atomic_t g_segvRaised = 0;
void CountSegv(int) { g_segvRaised = g_segvRaised + 1; }

TEST(WriteDumpAndDie, TracesThenRaisesSegv) {
  FakeHost host;
  struct sigaction counting {}, previous{};
  counting.sa_handler = CountSegv;
  sigemptyset(&counting.sa_mask);
  ASSERT_EQ(sigaction(SIGSEGV, &counting, &previous), 0);
  const qeb::result_t r = nox::tools::WriteDumpAndDie(host.Locator());
  sigaction(SIGSEGV, &previous, nullptr);
  EXPECT_EQ(g_segvRaised, 1);
  EXPECT_EQ(r, res::Ok);
  EXPECT_EQ(host.tracer->Texts(qeb::trace::LevelDetail), std::vector<std::string>{"WriteDumpAndDie() "});
}

}  // namespace
