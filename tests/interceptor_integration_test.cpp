// The loaded library end to end, as a host drives it: the interceptor created through the
// exported factory, events delivered by the fake events provider and answered by a fake
// scanner, a timeout fired by hand, a mount change, the stop, and the unload answer once
// the last event still held by the scanner has been let go.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "framework/qeb/objptr.h"
#include "interfaces/qeb/module.h"
#include "interfaces/vrel/file_interceptor.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using qeb::objptr_t;
using namespace qeb::testing;

// Polls a condition another thread makes true; gives up after a generous bound so that a
// hang shows up as a failure instead of a stuck run.
bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 2000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

class LoadedInterceptor : public ::testing::Test {
 protected:
  void SetUp() override {
    m_handle = dlopen(OAS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_handle, nullptr) << dlerror();
    create = reinterpret_cast<qebCreateObject_t>(dlsym(m_handle, "qebCreateObject"));
    canUnload = reinterpret_cast<qebCanUnloadModule_t>(dlsym(m_handle, "qebCanUnloadModule"));
    ASSERT_TRUE(create && canUnload);
    host.processManager->AddProcess(static_cast<uint32_t>(getpid()), getuid());
  }
  void TearDown() override {
    if (m_handle && canUnload() == 0) dlclose(m_handle);
  }

  vrel::EventParams FileEvent(const std::string& path, uint64_t cookie) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    vrel::EventParams p;
    p.fileName = std::string_view(path);
    p.cookie = cookie;
    p.uid = getuid();
    p.pid = getpid();
    p.fd = -1;
    p.dev = st.st_dev;
    p.ino = st.st_ino;
    p.ctime = {st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
    p.oper = vrel::VREL_ACTION_OPEN;
    p.replyHandle = 1;
    return p;
  }
  uint32_t VerdictFor(uint64_t cookie) {
    for (const auto& v : host.verdictNotifier->Verdicts())
      if (v.cookie == cookie) return v.verdict;
    return 0;
  }

  qebCreateObject_t create = nullptr;
  qebCanUnloadModule_t canUnload = nullptr;
  FakeHost host;
  TempDir dir;
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();

 private:
  void* m_handle = nullptr;
};

TEST_F(LoadedInterceptor, EventsFromStartToUnload) {
  qeb::IObject* raw = nullptr;
  ASSERT_EQ(create(qeb::CLSID_FileInterceptor, host.Locator(), &raw), 0);
  auto object = objptr_t<qeb::IObject>::Attach(raw);
  objptr_t<vrel::IPosixFileInterceptor> interceptor;
  objptr_t<nox::oas::IFileMonitoringTaskSettings> settingsFace;
  ASSERT_EQ(qeb::QueryInterface(object.Get(), interceptor.Ref()), 0);
  ASSERT_EQ(qeb::QueryInterface(object.Get(), settingsFace.Ref()), 0);
  object = nullptr;

  ASSERT_EQ(interceptor->Init(1000), 0);
  nox::settings::OASSettings settings;
  settings.skipPlainTextFiles = true;
  ASSERT_EQ(settingsFace->SetSettings(settings), 0);
  settingsFace = nullptr;
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  ASSERT_EQ(host.eventsProvider->Receivers().Count(), 1u);
  EXPECT_EQ(host.eventsProvider->Subscriptions().at(0).flags, 0x1Bu);

  // A clean text file: scanned once, then let through from the cache.
  const auto clean = FileEvent(dir.Write("notes.txt", "plain words\n"), 1);
  scanner->SetScript(Answer(vrel::BasicVerdict::Allow, true));
  EXPECT_EQ(host.eventsProvider->Deliver(clean), 0);
  host.verdictNotifier->WaitFor(1);
  EXPECT_EQ(VerdictFor(1), 1u);
  EXPECT_EQ(host.eventsProvider->Deliver(clean), 1);
  scanner->WaitForCalls(1);
  EXPECT_EQ(scanner->Calls().size(), 1u);

  // A dirty one is denied.
  scanner->SetScript(Answer(vrel::BasicVerdict::Deny));
  EXPECT_EQ(host.eventsProvider->Deliver(FileEvent(dir.Write("bad.txt", "evil\n"), 2)), 0);
  host.verdictNotifier->WaitFor(2);
  EXPECT_EQ(VerdictFor(2), 4u);

  // Never answered: the timeout publishes a processing error, the release lets it pass.
  scanner->SetScript(Answer(vrel::BasicVerdict::Allow, false, ScannerAction::NeverReply));
  EXPECT_EQ(host.eventsProvider->Deliver(FileEvent(dir.Write("slow.txt", "slow\n"), 3)), 0);
  ASSERT_TRUE(Eventually([&] { return scanner->KeptCount() == 1 && host.timer->ArmedCount() >= 1; }));
  EXPECT_GE(host.timer->FireAll(), 1u);
  host.eventPublisher->WaitFor(1);
  EXPECT_EQ(host.eventPublisher->Events().size(), 1u);
  EXPECT_EQ(VerdictFor(3), 0u) << "a timeout leaves the event pending";
  scanner->ReleaseKept();
  host.verdictNotifier->WaitFor(3);
  EXPECT_EQ(VerdictFor(3), 2u);

  // A remount of the clean file's device makes its cache entry untrustworthy.
  host.mountSubscription->AnnounceChange({{clean.dev, "/", "ext4", false}}, {}, {});
  scanner->SetScript(Answer(vrel::BasicVerdict::Allow, true));
  EXPECT_EQ(host.eventsProvider->Deliver(clean), 0);
  host.verdictNotifier->WaitFor(4);
  scanner->WaitForCalls(4);
  EXPECT_EQ(host.verdictNotifier->CountsByCookie()[1], 2u) << "scanned again after the remount";

  // One event is still held by the scanner when the host stops and lets go.
  scanner->SetScript(Answer(vrel::BasicVerdict::Allow, false, ScannerAction::NeverReply));
  EXPECT_EQ(host.eventsProvider->Deliver(FileEvent(dir.Write("held.txt", "held\n"), 5)), 0);
  ASSERT_TRUE(Eventually([&] { return scanner->KeptCount() == 1; }));
  EXPECT_EQ(interceptor->RemoveFilters(), 0);
  EXPECT_EQ(host.eventsProvider->Receivers().Count(), 0u);
  EXPECT_EQ(host.mountSubscription->Subscribers().Count(), 0u);
  EXPECT_EQ(host.sharesParser->Subscribers().Count(), 0u);
  interceptor = nullptr;
  EXPECT_EQ(canUnload(), 1u) << "the held event keeps the module loaded";

  scanner->ReleaseKept();
  EXPECT_TRUE(Eventually([&] { return canUnload() == 0; }));
  EXPECT_EQ(VerdictFor(5), 2u);
}

}  // namespace
