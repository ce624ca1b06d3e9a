// A whole interceptor life over the fake host with one host call failing at a time. The
// life runs once to count its host calls, then once per call with that call failing and
// once more with it throwing. Whatever fails, the run must not crash or leak, every file
// event must be answered exactly once, and the module must be unloadable once the host
// has let go of everything. OAS_FAULT_CALL=N limits a sweep to call N, to reproduce one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "framework/qeb/objptr.h"
#include "interfaces/vrel/file_interceptor.h"
#include "oas/file_events_processor.h"
#include "testing/answer_ledger.h"
#include "testing/event_builder.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"
#include "testing/fault_injection.h"
#include "testing/loaded_module.h"

namespace {

using qeb::objptr_t;
using qeb::result_t;
using namespace qeb::testing;
namespace res = qeb::res;

constexpr const char* kDatabaseServer = "/usr/lib/postgresql/bin/postgres";
constexpr uint64_t kContainerNamespace = 4026539999;

nox::settings::OASSettings Settings(bool journals) {
  nox::settings::OASSettings settings;
  settings.skipPlainTextFiles = true;
  settings.skipDatabaseJournals = journals;
  settings.ScanScopeWithTrustedPrograms.scan_scope.push_back(ShareClassArea());
  return settings;
}

// One life of an interceptor, from creation to unload. In the fault-free run each step's
// outcome is checked too, so the sweep is known to walk the paths it claims to.
class InterceptorLife {
 public:
  InterceptorLife(const LoadedModule& module, bool faultFree)
      : m_module(module), m_faultFree(faultFree) {
    system_interceptors::process_manager::ProcessInfo self;
    self.m_pid = static_cast<uint64_t>(getpid());
    self.m_uniqueId = 77;
    self.m_uid = getuid();
    self.m_imagePath = kDatabaseServer;
    m_host.processManager->AddProcess(self);
    m_host.applications->AddApplication(kDatabaseServer, {u"PostgreSQL"});
    m_notes = m_dir.Write("notes.txt", "plain words\n");
  }

  void Run() {
    if (Create()) {
      Start();
      Events();
      Changes();
      Restart();
      StopWithAnEventHeld();
    }
    Finish();
  }

  std::vector<std::string> Breaches() const { return m_ledger.Breaches(*m_host.verdictNotifier); }
  uint32_t CanUnloadAtEnd() const { return m_canUnloadAtEnd; }
  size_t Subscribers() const { return m_subscribersAtEnd; }

 private:
  bool Create() {
    qeb::IObject* raw = nullptr;
    const result_t created = m_module.create(qeb::CLSID_FileInterceptor, m_host.Locator(), &raw);
    Strict(created, 0, "create");
    if (QEB_FAILED(created)) {
      EXPECT_EQ(raw, nullptr) << "a failed create wrote its out pointer";
      return false;
    }
    auto object = objptr_t<qeb::IObject>::Attach(raw);
    qeb::QueryInterface(object.Get(), m_interceptor.Ref());
    qeb::QueryInterface(object.Get(), m_settings.Ref());
    return m_interceptor && m_settings;
  }

  void Start() {
    Strict(m_interceptor->Init(1000), 0, "Init");
    Strict(m_settings->SetSettings(Settings(true)), 0, "SetSettings");
    Strict(m_interceptor->SetupFilters(0xF, m_scanner.Get()), 0, "SetupFilters");
  }

  void Events() {
    // A clean text file is scanned once, then passes from the cache, and after a change
    // of its own passes once the process and the bases are asked.
    Strict(Deliver(FileEvent(m_notes), Answer(vrel::BasicVerdict::Allow, true)), 0, "clean text");
    Strict(Deliver(FileEvent(m_notes)), 1, "cached text");
    auto touched = FileEvent(m_notes);
    touched.ctime.sec += 10;
    Strict(Deliver(touched), 1, "cached text changed since");

    // Clean but neither text nor a journal: the journals cache reads it, through the
    // descriptor the event carries, and declines.
    auto opened = FileEvent(m_image);
    opened.fd = m_imageFd.Get();
    Strict(Deliver(opened, Answer(vrel::BasicVerdict::Allow, true)), 0, "clean binary");
    Strict(Deliver(FileEvent(m_image), Answer(vrel::BasicVerdict::Deny)), 0, "dirty binary");

    auto deep = FileEvent(m_notes);
    const std::string deepName = std::string(nox::oas::FileEventsProcessor::DeepNestingMarker) + "/a/b";
    deep.fileName = std::string_view(deepName);
    Strict(Deliver(deep, Answer(vrel::BasicVerdict::Deny)), 0, "deep nested");
    auto contained = FileEvent(m_image);
    contained.nsid = kContainerNamespace;
    Strict(Deliver(contained, Answer(vrel::BasicVerdict::Allow)), 0, "container");
    auto closed = FileEvent(m_image);
    closed.oper = vrel::VREL_ACTION_CLOSE_MODIFY;
    Strict(Deliver(closed, Answer(vrel::BasicVerdict::Allow)), 0, "close after write");
    auto unanswerable = FileEvent(m_image);
    unanswerable.replyHandle = 0;
    Strict(Deliver(unanswerable), 1, "no reply handle");

    // The scanner sits on one: the timeout reports it, the release lets it pass.
    Strict(Deliver(FileEvent(m_image), Answer(vrel::BasicVerdict::Allow, false, ScannerAction::NeverReply)),
           0, "slow scan");
    const size_t published = m_host.eventPublisher->Events().size();
    m_host.timer->FireAll();
    Strict(m_host.eventPublisher->Events().size(), published + 1, "timeout published");
    m_scanner->ReleaseKept();
    if (m_faultFree) {
      const auto verdicts = m_host.verdictNotifier->Verdicts();
      std::vector<uint32_t> values;
      for (const auto& v : verdicts) values.push_back(v.verdict);
      EXPECT_EQ(values, (std::vector<uint32_t>{1, 1, 4, 4, 2, 2, 2}));
    }
  }

  void Changes() {
    struct stat st {};
    ASSERT_EQ(stat(m_notes.c_str(), &st), 0);
    m_host.mountSubscription->AnnounceChange({{st.st_dev, m_dir.Path(), "ext4", false}}, {}, {});
    m_host.mountSubscription->AnnounceNamespaceChange(kContainerNamespace, {},
                                                      {{st.st_dev, "/mnt", "ext4", false}}, {});
    m_host.metricsRegistry->Collect();
    Strict(Deliver(FileEvent(m_notes), Answer(vrel::BasicVerdict::Allow, true)), 0, "after remount");

    Strict(m_host.sharesParser->AnnounceChange(), 0, "shares change");
    Strict(m_interceptor->ResetCache(), 0, "ResetCache");
    Strict(m_settings->SetSettings(Settings(false)), 0, "changed settings");
    Strict(Deliver(FileEvent(m_notes)), 0, "after the reset");
  }

  void Restart() {
    Strict(m_interceptor->SetupFilters(0xF, m_scanner.Get()), 0, "SetupFilters while running");
    Strict(m_interceptor->SetState(qeb::IState::STATE_REQUEST_STOP), 0, "SetState stop");
    Strict(m_interceptor->RemoveFilters(), 0, "RemoveFilters");
    Strict(m_interceptor->SetupFilters(0x3, m_scanner.Get()), 0, "SetupFilters again");
    Strict(Deliver(FileEvent(m_image), Answer(vrel::BasicVerdict::Deny)), 0, "after the restart");
  }

  // The scanner still holds an event when the host stops interception and lets go of
  // the interceptor: that event alone keeps the module loaded, and answers on release.
  void StopWithAnEventHeld() {
    Strict(Deliver(FileEvent(m_notes), Answer(vrel::BasicVerdict::Allow, false, ScannerAction::NeverReply)),
           0, "held over the stop");
    Strict(m_interceptor->RemoveFilters(), 0, "final RemoveFilters");
    m_interceptor = nullptr;
    m_settings = nullptr;
    Strict(m_module.canUnload(), 1u, "unload while the scanner holds an event");
    m_host.timer->FireAll();
    m_scanner->ReleaseKept();
  }

  void Finish() {
    m_interceptor = nullptr;
    m_settings = nullptr;
    m_scanner->SetScript(Answer(vrel::BasicVerdict::Allow));
    // A timer firing after its events are gone must find nothing left to call.
    m_host.timer->FireAll();
    m_scanner->ReleaseKept();
    m_subscribersAtEnd = m_host.eventsProvider->Receivers().Count() +
                         m_host.mountSubscription->Subscribers().Count() +
                         m_host.sharesParser->Subscribers().Count();
    m_host.Shutdown();
    m_scanner->ReleaseKept();
    m_canUnloadAtEnd = m_module.canUnload();
  }

  vrel::EventParams FileEvent(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    vrel::EventParams p = MakeOpenEvent(m_ledger.NextCookie(), path);
    p.uid = getuid();
    p.fd = -1;  // read by name: the fake host has no descriptor of its own to lend
    p.dev = st.st_dev;
    p.ino = st.st_ino;
    p.ctime = {st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
    return p;
  }

  // Delivers and waits until the pool has run what the event queued, so each run makes
  // its host calls in the same order.
  result_t Deliver(const vrel::EventParams& params, std::optional<ScannerScript> script = std::nullopt) {
    if (script) m_scanner->SetScript(*script);
    const result_t answer = m_host.eventsProvider->Deliver(params);
    m_ledger.Record(params.cookie, answer);
    if (auto pool = m_host.threadPoolFactory->LastPool()) pool->WaitIdle();
    return answer;
  }

  template <class T, class U>
  void Strict(const T& actual, const U& expected, const char* step) {
    if (m_faultFree) {
      EXPECT_EQ(actual, static_cast<T>(expected)) << step;
    }
  }

  const LoadedModule& m_module;
  const bool m_faultFree;
  FakeHost m_host;
  objptr_t<FakeScanner> m_scanner = MakeHostObject<FakeScanner>();
  TempDir m_dir;
  std::string m_notes;
  std::string m_image = m_dir.Write("image.bin", std::string("\x7f" "ELF\x02\x01\x01\x00", 8));
  ReadFd m_imageFd{m_image};  // lent to an event, so the image is also read by descriptor
  AnswerLedger m_ledger;
  objptr_t<vrel::IPosixFileInterceptor> m_interceptor;
  objptr_t<nox::oas::IFileMonitoringTaskSettings> m_settings;
  uint32_t m_canUnloadAtEnd = 1;
  size_t m_subscribersAtEnd = 0;
};

class FaultInjection : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { s_module = std::make_unique<LoadedModule>(OAS_SHARED_LIBRARY); }
  static void TearDownTestSuite() { s_module.reset(); }
  void SetUp() override { ASSERT_TRUE(s_module->Loaded()) << s_module->Error(); }

  // The fault-free life, counted: how many host calls a sweep has to fail in turn.
  uint64_t CountCalls() {
    ScopedFaultPlan plan;
    FaultPlan::CountOnly();
    {
      InterceptorLife life(*s_module, true);
      life.Run();
      EXPECT_EQ(life.Breaches(), std::vector<std::string>{});
      EXPECT_EQ(life.CanUnloadAtEnd(), 0u);
      EXPECT_EQ(life.Subscribers(), 0u);
    }
    return FaultPlan::Calls();
  }

  void Sweep(FaultMode mode) {
    const uint64_t calls = CountCalls();
    ASSERT_FALSE(HasFailure()) << "the fault-free life must pass before faults are injected";
    uint64_t first = 1;
    uint64_t last = calls;
    if (const char* only = std::getenv("OAS_FAULT_CALL")) first = last = std::strtoull(only, nullptr, 10);

    std::set<std::string> failed;
    size_t failingRuns = 0;
    for (uint64_t n = first; n <= last && failingRuns < 10; ++n) {
      ScopedFaultPlan plan;
      FaultPlan::FailCall(n, mode);
      InterceptorLife life(*s_module, false);
      life.Run();
      const std::string hit = FaultPlan::Hit();
      failed.insert(hit);
      SCOPED_TRACE("call " + std::to_string(n) + " of " + std::to_string(calls) + " (" + hit + ")");
      const int before = Failures();
      EXPECT_EQ(life.Breaches(), std::vector<std::string>{});
      EXPECT_EQ(life.CanUnloadAtEnd(), 0u) << "module objects alive after the host let go";
      // Only a refused unsubscribe may leave the host holding a subscriber.
      if (hit.find("Unsubscribe") == std::string::npos) {
        EXPECT_EQ(life.Subscribers(), 0u);
      }
      if (Failures() != before) ++failingRuns;
    }
    std::cout << "host calls per life: " << calls << "; operations failed in turn: " << failed.size()
              << '\n';
    for (const auto& operation : failed) std::cout << "  " << operation << '\n';
  }

  static int Failures() {
    return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
  }

  static std::unique_ptr<LoadedModule> s_module;
};

std::unique_ptr<LoadedModule> FaultInjection::s_module;

TEST_F(FaultInjection, EveryHostCallFailingInTurn) { Sweep(FaultMode::Fail); }

TEST_F(FaultInjection, EveryHostCallThrowingInTurn) { Sweep(FaultMode::Throw); }

}  // namespace
