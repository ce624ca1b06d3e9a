// The loaded library under concurrent load: provider threads deliver file events while
// other threads change mounts, reset the caches, replace the settings, announce share
// changes, start and stop interception, fire the timers and collect metrics, and the
// scanner answers at once, late, from another thread, twice, by failing, or never (it
// keeps the event until a releaser lets go; the timeout only reports such an event, its
// release answers it). The run is cut into rounds of about a second, each on a fresh host
// and a fresh interceptor; after each round every event must have been answered exactly
// once and the module must be unloadable.
//
// OAS_STRESS_SECONDS sets the length (5 by default, what CI runs); a long run:
//   OAS_STRESS_SECONDS=600 ./build/stress_interceptor_test
// and under the thread sanitizer (see scripts/tsan.sh for the build):
//   OAS_STRESS_SECONDS=600 setarch "$(uname -m)" -R ./build-ci-tsan/stress_interceptor_test
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/objptr.h"
#include "interfaces/vrel/file_interceptor.h"
#include "oas/file_events_processor.h"
#include "testing/answer_ledger.h"
#include "testing/event_builder.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"
#include "testing/loaded_module.h"

namespace {

using qeb::objptr_t;
using qeb::result_t;
using namespace qeb::testing;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto kRound = std::chrono::seconds(1);
constexpr auto kSettleBound = std::chrono::seconds(60);
constexpr uint64_t kContainerNamespace = 4026539999;

std::chrono::seconds StressDuration() {
  const char* text = std::getenv("OAS_STRESS_SECONDS");
  const long seconds = text ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : 5);
}

// Each thread draws from its own generator; the seed only has to differ between threads.
unsigned Draw(unsigned bound) {
  thread_local std::minstd_rand generator(
      static_cast<unsigned>(std::hash<std::thread::id>{}(std::this_thread::get_id())));
  return static_cast<unsigned>(generator() % bound);
}

void Pause(unsigned upToMs) { std::this_thread::sleep_for(milliseconds(1 + Draw(upToMs))); }

ScannerScript RandomScript() {
  ScannerScript script;
  script.verdict = Draw(4) == 0 ? vrel::BasicVerdict::Deny : vrel::BasicVerdict::Allow;
  if (Draw(2) == 0) script.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
  const unsigned pick = Draw(20);
  if (pick < 9) script.action = ScannerAction::Reply;
  else if (pick < 11) script.action = ScannerAction::ReplyAfterDelay;
  else if (pick < 14) script.action = ScannerAction::ReplyTwice;
  else if (pick < 16) script.action = ScannerAction::ReplyLater;
  else if (pick < 18) script.action = ScannerAction::NeverReply;
  else script.action = ScannerAction::Throw;
  script.delay = milliseconds(Draw(3));
  return script;
}

nox::settings::OASSettings Settings(bool variant) {
  nox::settings::OASSettings settings;
  settings.skipPlainTextFiles = true;
  settings.skipDatabaseJournals = !variant;
  if (variant) settings.ScanSettings.ScanSettingsBase.infected_action = 5;  // force action pass
  settings.ScanScopeWithTrustedPrograms.scan_scope.push_back(ShareClassArea());
  return settings;
}

// Threads that repeat one action until the round ends.
class Crew {
 public:
  void Add(std::function<void()> action) {
    m_threads.emplace_back([this, action = std::move(action)] {
      while (!m_stop.load()) action();
    });
  }
  void StopAndJoin() {
    m_stop = true;
    for (auto& t : m_threads) t.join();
    m_threads.clear();
  }

 private:
  std::atomic<bool> m_stop{false};
  std::vector<std::thread> m_threads;
};

class StressRound {
 public:
  StressRound(const LoadedModule& module, const TempDir& dir) : m_module(module) {
    m_host.processManager->AddProcess(static_cast<uint32_t>(getpid()), 77, getuid());
    m_files = {dir.Write("notes.txt", "plain words\n"), dir.Write("more.txt", "more words\n"),
               dir.Write("image.bin", std::string("\x7f" "ELF\x02\x01\x01\x00", 8))};
    m_scanner->SetChooser([](vrel::IEvent085*) { return RandomScript(); });
  }

  void Run(Clock::duration length) {
    ASSERT_TRUE(Create());
    ASSERT_EQ(m_interceptor->Init(1000), 0);
    ASSERT_EQ(m_settings->SetSettings(Settings(false)), 0);
    ASSERT_EQ(m_interceptor->SetupFilters(0xF, m_scanner.Get()), 0);
    // A real host answers a settings refresh by pushing the task's settings again.
    nox::oas::IFileMonitoringTaskSettings* face = m_settings.Get();
    m_host.taskManager->OnRefresh([face] { face->SetSettings(Settings(false)); });

    Crew crew;
    const unsigned providers = std::max(3u, std::thread::hardware_concurrency());
    for (unsigned i = 0; i < providers; ++i) crew.Add([this] { DeliverOne(); });
    crew.Add([this] { ChangeMounts(); });
    crew.Add([this] { ChangeSettings(); });
    crew.Add([this] { StartAndStop(); });
    crew.Add([this] { FireTimers(); });
    crew.Add([this] { AnswerLateAndLetGo(); });
    std::this_thread::sleep_for(length);
    crew.StopAndJoin();

    m_host.taskManager->OnRefresh(nullptr);
    EXPECT_EQ(m_interceptor->RemoveFilters(), 0);
    m_interceptor = nullptr;
    m_settings = nullptr;
    Settle();
  }

  // Answers how many events were taken for scanning and how many timeouts were reported.
  std::pair<size_t, size_t> Check() const {
    EXPECT_EQ(m_module.canUnload(), 0u) << "module objects alive after the round";
    EXPECT_EQ(m_host.eventsProvider->Receivers().Count(), 0u);
    EXPECT_EQ(m_host.mountSubscription->Subscribers().Count(), 0u);
    EXPECT_EQ(m_host.sharesParser->Subscribers().Count(), 0u);
    const auto breaches = m_ledger.Breaches(*m_host.verdictNotifier);
    EXPECT_TRUE(breaches.empty()) << breaches.size() << " breaches, the first: " << breaches.front();
    return {m_ledger.AnswerCounts()[qeb::res::Ok], m_host.eventPublisher->Events().size()};
  }

 private:
  bool Create() {
    qeb::IObject* raw = nullptr;
    if (m_module.create(qeb::CLSID_FileInterceptor, m_host.Locator(), &raw) != 0) return false;
    auto object = objptr_t<qeb::IObject>::Attach(raw);
    qeb::QueryInterface(object.Get(), m_interceptor.Ref());
    qeb::QueryInterface(object.Get(), m_settings.Ref());
    return m_interceptor && m_settings;
  }

  void DeliverOne() {
    const std::string& path = m_files[Draw(static_cast<unsigned>(m_files.size()))];
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return;
    vrel::EventParams p = MakeOpenEvent(m_ledger.NextCookie(), path);
    p.fd = -1;
    p.dev = st.st_dev;
    p.ino = st.st_ino;
    p.ctime = {st.st_ctim.tv_sec, st.st_ctim.tv_nsec + Draw(2)};
    switch (Draw(16)) {
      case 0: p.replyHandle = 0; break;
      case 1: p.nsid = kContainerNamespace; break;
      case 2: p.oper = vrel::VREL_ACTION_CLOSE_MODIFY; break;
      case 3: p.fileName = std::string_view(m_deepName); break;
      default: break;
    }
    const result_t answer = m_host.eventsProvider->Deliver(p);
    m_ledger.Record(p.cookie, answer);
    // Nobody subscribed: interception is stopped for the moment, wait for the restart.
    if (answer == qeb::res::NotFound) Pause(1);
  }

  void ChangeMounts() {
    const nox::MountList mounts{{2049, "/srv", "ext4", false}, {2050, "/data", "xfs", false}};
    const nox::MountList one{mounts[Draw(2)]};
    if (Draw(2) == 0) m_host.mountSubscription->AnnounceChange(one, {}, mounts);
    else m_host.mountSubscription->AnnounceChange({}, one, mounts);
    m_host.mountSubscription->AnnounceNamespaceChange(kContainerNamespace, one, {}, one);
    m_host.metricsRegistry->Collect();
    Pause(2);
  }

  void ChangeSettings() {
    switch (Draw(3)) {
      case 0: m_settings->SetSettings(Settings(Draw(2) == 0)); break;
      case 1: m_interceptor->ResetCache(); break;
      default: m_host.sharesParser->AnnounceChange(); break;
    }
    Pause(5);
  }

  void StartAndStop() {
    switch (Draw(6)) {
      case 0: m_interceptor->RemoveFilters(); break;
      case 1: m_interceptor->SetState(qeb::IState::STATE_REQUEST_STOP); break;
      case 2: m_interceptor->SetState(qeb::IState::STATE_REQUEST_RUN); break;
      default: m_interceptor->SetupFilters(Draw(2) == 0 ? 0xF : 0x3, m_scanner.Get()); break;
    }
    Pause(20);
  }

  void FireTimers() {
    m_host.timer->FireAll();
    Pause(5);
  }

  void AnswerLateAndLetGo() {
    m_scanner->ReplyLate();
    if (Draw(4) == 0) m_scanner->ReleaseKept();
    m_host.tracer->Clear();  // the lines are not read; only their writing is exercised
    Pause(3);
  }

  // Everything still held is let go; the pools of the dropped processors drain as they
  // are destroyed, so the module object count falls to zero once all is answered.
  void Settle() {
    const auto bound = Clock::now() + kSettleBound;
    do {
      m_scanner->ReplyLate();
      m_scanner->ReleaseKept();
      m_host.timer->FireAll();
      if (m_module.canUnload() == 0) return;
      std::this_thread::sleep_for(milliseconds(2));
    } while (Clock::now() < bound);
  }

  const LoadedModule& m_module;
  FakeHost m_host;
  objptr_t<FakeScanner> m_scanner = MakeHostObject<FakeScanner>();
  std::vector<std::string> m_files;
  const std::string m_deepName =
      std::string(nox::oas::FileEventsProcessor::DeepNestingMarker) + "/deep/file";
  AnswerLedger m_ledger;
  objptr_t<vrel::IPosixFileInterceptor> m_interceptor;
  objptr_t<nox::oas::IFileMonitoringTaskSettings> m_settings;
};

TEST(StressInterceptor, EveryEventAnsweredOnceUnderConcurrentControl) {
  LoadedModule module(OAS_SHARED_LIBRARY);
  ASSERT_TRUE(module.Loaded()) << module.Error();
  TempDir dir;
  const auto end = Clock::now() + StressDuration();
  size_t taken = 0, timeouts = 0;
  while (Clock::now() < end && !::testing::Test::HasFailure()) {
    StressRound round(module, dir);
    round.Run(std::min<Clock::duration>(kRound, end - Clock::now()));
    const auto [roundTaken, roundTimeouts] = round.Check();
    taken += roundTaken;
    timeouts += roundTimeouts;
  }
  EXPECT_GT(taken, 0u) << "no event was taken for scanning";
  EXPECT_GT(timeouts, 0u);
}

}  // namespace
