// Process tools against the fake host's process manager and the machine's own account
// database: each failing step is traced with its expression and handed back.
#include <csignal>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "framework/qeb/result_text.h"
#include "nox_common/tools.h"
#include "testing/fake_host.h"

namespace {

using qeb::testing::FakeHost;
using system_interceptors::process_manager::IProcessManager;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

constexpr uint32_t Pid = 4242;

// The one error line written, which must be the failed-check shape for expression
// with the result's text followed directly by the sentence.
void ExpectSingleCheckLine(const FakeHost& host, const std::string& expression, qeb::result_t code,
                           const std::string& sentence) {
  const auto lines = host.tracer->Texts(qeb::trace::LevelError);
  ASSERT_EQ(lines.size(), 1u);
  const std::string& line = lines.front();
  EXPECT_EQ(line.rfind("nox_common/tools.cpp:", 0), 0u) << line;
  const std::string tail = "(" + expression + "),(QEB_SUCCEEDED(_result)) failed: result = " +
                           qeb::ResultText(code) + sentence;
  ASSERT_GE(line.size(), tail.size()) << line;
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail) << line;
}

// A non-root account straight from the local account file, if there is one.
std::optional<std::pair<uint32_t, std::string>> LocalNonRootAccount() {
  std::ifstream passwd("/etc/passwd");
  std::string line;
  while (std::getline(passwd, line)) {
    std::stringstream fields(line);
    std::string name, password, uid;
    if (!std::getline(fields, name, ':') || !std::getline(fields, password, ':') ||
        !std::getline(fields, uid, ':'))
      continue;
    if (!name.empty() && !uid.empty() && uid != "0") return std::make_pair(std::stoul(uid), name);
  }
  return std::nullopt;
}

bool UidInLocalAccounts(uint32_t uid) {
  std::ifstream passwd("/etc/passwd");
  const std::string marker = ":" + std::to_string(uid) + ":";
  std::string line;
  while (std::getline(passwd, line))
    if (line.find(marker) != std::string::npos) return true;
  return false;
}

TEST(GetProcessInfo, FillsTheHostRecordOfALiveProcess) {
  FakeHost host;
  ProcessInfo process;
  process.m_pid = Pid;
  process.m_uniqueId = 0xABCDEF;
  process.m_uid = 1000;
  process.m_imagePath = "/usr/bin/editor";
  host.processManager->AddProcess(process);

  ProcessInfo info;
  EXPECT_EQ(nox::tools::GetProcessInfo(host.Locator(), Pid, info), res::Ok);
  EXPECT_EQ(info.m_uniqueId, 0xABCDEFu);
  EXPECT_EQ(info.m_uid, 1000u);
  EXPECT_EQ(info.m_imagePath, "/usr/bin/editor");
  EXPECT_TRUE(host.tracer->Texts(qeb::trace::LevelError).empty());
}

TEST(GetProcessInfo, EachFailingStepIsTracedAndReturned) {
  {
    FakeHost host;
    host.locator->Remove(IProcessManager::IID);
    ProcessInfo info;
    EXPECT_EQ(nox::tools::GetProcessInfo(host.Locator(), Pid, info), res::NoInterface);
    ExpectSingleCheckLine(host, "qeb::GetInterface(sl, manager.Ref())", res::NoInterface,
                          "Cannot get IProcessManager interface");
  }
  {
    FakeHost host;
    ProcessInfo info;
    EXPECT_EQ(nox::tools::GetProcessInfo(host.Locator(), Pid, info), res::NotFound);
    ExpectSingleCheckLine(host, "manager->GetInformation(pid, process.Ref())", res::NotFound,
                          "Cannot get IProcessInformation for pid: 4242");
  }
  {
    // The process ends between the lookup and the read.
    FakeHost host;
    host.processManager->AddProcess(Pid, 7);
    host.processManager->VanishAfterLookup(Pid);
    ProcessInfo info;
    EXPECT_EQ(nox::tools::GetProcessInfo(host.Locator(), Pid, info), res::NotFound);
    ExpectSingleCheckLine(host, "process->GetInformation(processInfo)", res::NotFound,
                          "Cannot get info for pid: 4242");
  }
  {
    // A missing tracer only silences the lines.
    FakeHost host;
    host.locator->Remove(qeb::ITracer::IID);
    ProcessInfo info;
    EXPECT_EQ(nox::tools::GetProcessInfo(host.Locator(), Pid, info), res::NotFound);
    EXPECT_TRUE(host.tracer->Lines().empty());
  }
}

TEST(GetProcessUserName, NamesTheOwnerFromTheAccountDatabase) {
  FakeHost host;
  host.processManager->AddProcess(1, 11, 0);
  std::u16string name = u"stale";
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), 1, name), res::Ok);
  EXPECT_EQ(name, u"root");

  const auto account = LocalNonRootAccount();
  if (!account) GTEST_SKIP() << "no non-root account in /etc/passwd";
  host.processManager->AddProcess(2, 22, account->first);
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), 2, name), res::Ok);
  EXPECT_EQ(name, std::u16string(account->second.begin(), account->second.end()));
}

TEST(GetProcessUserName, FailuresLeaveTheNameEmpty) {
  FakeHost host;
  constexpr uint32_t UnknownUid = 2147483632;
  ASSERT_FALSE(UidInLocalAccounts(UnknownUid));
  host.processManager->AddProcess(Pid, 1, UnknownUid);
  std::u16string name = u"stale";
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), Pid, name), res::NotFound);
  EXPECT_TRUE(name.empty());

  // The record itself cannot be read: the inner line, then the caller's own with no sentence.
  host.processManager->FailInformation(Pid, res::AccessDenied);
  name = u"stale";
  EXPECT_EQ(nox::tools::GetProcessUserName(host.Locator(), Pid, name), res::AccessDenied);
  EXPECT_TRUE(name.empty());
  const auto lines = host.tracer->Texts(qeb::trace::LevelError);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("Cannot get info for pid: 4242"), std::string::npos);
  const std::string tail =
      "(GetProcessInfo(sl, pid, info)),(QEB_SUCCEEDED(_result)) failed: result = " +
      qeb::ResultText(res::AccessDenied);
  ASSERT_GE(lines[1].size(), tail.size());
  EXPECT_EQ(lines[1].substr(lines[1].size() - tail.size()), tail) << lines[1];
}

volatile sig_atomic_t g_segvRaised = 0;
void CountSegv(int) { g_segvRaised = g_segvRaised + 1; }

TEST(WriteDumpAndDie, TracesThenRaisesSegv) {
  FakeHost host;
  struct sigaction counting {}, previous{};
  counting.sa_handler = CountSegv;
  sigemptyset(&counting.sa_mask);
  ASSERT_EQ(sigaction(SIGSEGV, &counting, &previous), 0);
  g_segvRaised = 0;
  const qeb::result_t r = nox::tools::WriteDumpAndDie(host.Locator());
  sigaction(SIGSEGV, &previous, nullptr);

  EXPECT_EQ(g_segvRaised, 1);
  EXPECT_EQ(r, res::Ok);
  EXPECT_EQ(host.tracer->Texts(qeb::trace::LevelDetail),
            std::vector<std::string>{"WriteDumpAndDie() "});
}

TEST(WriteDumpAndDieDeathTest, EndsTheProcessUnderTheDefaultHandler) {
  FakeHost host;
  EXPECT_DEATH(nox::tools::WriteDumpAndDie(host.Locator()), "");
}

}  // namespace
