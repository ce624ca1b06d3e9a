// Microbenchmarks of event intake against the fake host: FileEventsProcessor::OnEvent for
// an event with no reply handle, for a file the clean-file cache already knows, and for a
// miss that builds an event object and queues it to the pool (the fake scanner answers at
// once on a pool thread); then the cost of a trace line that is off and of one that is on
// and prints a whole event record. Tracing is at error level, as in production.
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "testing/event_builder.h"

#include <cstdint>
#include <memory>

#include "nox_common/container_identification_tools.h"
#include "nox_tracing/tracing.h"
#include "oas/event_params_text.h"
#include "oas/file_events_processor.h"
#include "testing/fake_files_cache.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using nox::oas::FileEventsProcessor;
using qeb::objptr_t;
using namespace qeb::testing;

constexpr uint32_t ProductionTraceLevel = 300;
// Queued work is drained (off the clock) this often, so the pool's queue stays short.
constexpr size_t DrainEvery = 1024;

// Takes the notes and forgets them: the fake's own note log would grow with every event.
class NullUserInfoCache : public qeb::object::Ifaces<nox::IUserInfoCache> {
 public:
  qeb::result_t NoteEventUser(uint64_t, const std::string&, uint32_t) noexcept override { return 0; }
  qeb::result_t GetFileOwner(uint64_t, const std::string&, nox::UserInfo&) noexcept override {
    return qeb::res::NotFound;
  }
};

vrel::EventParams Params(uint64_t cookie) {
  auto p = qeb::testing::MakeOpenEvent(cookie, "/srv/data/reports/2026/quarterly-summary.txt");
  p.ctime = {1700000000, 5};
  return p;
}

struct Intake {
  Intake() {
    host.tracer->EnableUpTo(ProductionTraceLevel);
    host.locator->Register<nox::IUserInfoCache>(userInfoCache);
    processor = qeb::CreateObject<FileEventsProcessor>(host.Locator(), scanner.Get(), 1000,
                                                       FakeCacheList(cacheLog));
  }
  ~Intake() {
    processor = nullptr;
    Drain();
  }
  void Drain() {
    if (auto pool = host.threadPoolFactory->LastPool()) pool->WaitIdle();
  }

  FakeHost host;
  objptr_t<NullUserInfoCache> userInfoCache = MakeHostObject<NullUserInfoCache>();
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  std::shared_ptr<FilesCacheLog> cacheLog = std::make_shared<FilesCacheLog>();
  objptr_t<FileEventsProcessor> processor;
};

void BM_OnEvent_NoReplyHandle(benchmark::State& state) {
  Intake intake;
  vrel::EventParams p = Params(1);
  p.replyHandle = 0;
  for (auto _ : state) benchmark::DoNotOptimize(intake.processor->OnEvent(p));
}
BENCHMARK(BM_OnEvent_NoReplyHandle);

void BM_OnEvent_CleanCacheHit(benchmark::State& state) {
  Intake intake;
  ScannerScript cacheable;
  cacheable.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
  intake.scanner->SetScript(cacheable);
  const vrel::EventParams p = Params(2);
  intake.processor->OnEvent(p);
  intake.Drain();
  if (intake.processor->OnEvent(p) != qeb::res::False) return state.SkipWithError("file not cached clean");
  for (auto _ : state) benchmark::DoNotOptimize(intake.processor->OnEvent(p));
}
BENCHMARK(BM_OnEvent_CleanCacheHit);

// Each call builds an event object and hands it to the pool; the scanner's reply and the
// verdict run on pool threads and overlap the loop except when the queue is drained.
void BM_OnEvent_MissQueued(benchmark::State& state) {
  Intake intake;
  const vrel::EventParams p = Params(3);
  size_t queued = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(intake.processor->OnEvent(p));
    if (++queued % DrainEvery == 0) {
      state.PauseTiming();
      intake.Drain();
      state.ResumeTiming();
    }
  }
  intake.Drain();
  if (intake.cacheLog->AddedCount() != 0) state.SkipWithError("a miss was cached");
}
BENCHMARK(BM_OnEvent_MissQueued);

void BM_TraceLine_Disabled(benchmark::State& state) {
  FakeHost host;
  host.tracer->EnableUpTo(ProductionTraceLevel);
  qeb::ITracer* tracer = host.tracer.Get();
  const vrel::EventParams p = Params(4);
  for (auto _ : state) QEB_TRACE(tracer, qeb::trace::LevelDetail) << "OnEvent" << p;
  if (host.tracer->Lines().size() != 0) state.SkipWithError("a disabled line was written");
}
BENCHMARK(BM_TraceLine_Disabled);

// Includes the capturing tracer keeping the text; the kept lines are dropped off the clock.
void BM_TraceLine_EnabledWithEventParams(benchmark::State& state) {
  FakeHost host;
  host.tracer->EnableUpTo(ProductionTraceLevel);
  qeb::ITracer* tracer = host.tracer.Get();
  const vrel::EventParams p = Params(5);
  size_t written = 0;
  for (auto _ : state) {
    QEB_TRACE(tracer, qeb::trace::LevelError) << "OnEvent" << p;
    if (++written % DrainEvery == 0) {
      state.PauseTiming();
      host.tracer->Clear();
      state.ResumeTiming();
    }
  }
  if (written % DrainEvery != 0 && host.tracer->Lines().empty()) state.SkipWithError("no line written");
}
BENCHMARK(BM_TraceLine_EnabledWithEventParams);

}  // namespace
