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
