// Microbenchmarks of event intake against the fake host: FileEventsProcessor::OnEvent for
// an event with no reply handle, for a file the clean-file cache already knows (a fake
// cache, then a real text files cache of 1,000 / 10,000 / 100,000 files), and for a miss
// that builds an event object and queues it to the pool (the fake scanner answers at once
// on a pool thread); then the cost of a trace line that is off and of one that is on and
// prints a whole event record. Tracing is at error level, as in production.
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "bench/bench_host.h"
#include "nox_common/container_identification_tools.h"
#include "nox_tracing/tracing.h"
#include "oas/cache_impl/text_files_cache.h"
#include "oas/event_params_text.h"
#include "oas/file_events_processor.h"
#include "testing/event_builder.h"
#include "testing/fake_files_cache.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using nox::oas::FileEventsProcessor;
using qeb::objptr_t;
using namespace qeb::testing;

using oas_bench::NullUserInfoCache;
using oas_bench::ProductionTraceLevel;
// Queued work is drained (off the clock) this often, so the pool's queue stays short.
constexpr size_t DrainEvery = 1024;

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

// A processor over a real text files cache holding `files` files, built once per size
// and kept for the run, so the hit can be compared across cache sizes.
objptr_t<FileEventsProcessor> ProcessorWithTextCache(oas_bench::TextFileHost& host, uint64_t files) {
  static std::map<uint64_t, objptr_t<FileEventsProcessor>> processors;
  auto& processor = processors[files];
  if (processor) return processor;
  auto cache = std::make_unique<nox::oas::TextFilesCache>(host.host.Locator());
  for (uint64_t ino = 1; ino <= files; ++ino) cache->Add(host.Event(ino));
  std::vector<std::unique_ptr<nox::oas::IFilesCache>> caches;
  caches.push_back(std::move(cache));
  processor = qeb::CreateObject<FileEventsProcessor>(host.host.Locator(), nullptr, 1000,
                                                     std::move(caches));
  return processor;
}

void BM_OnEvent_CleanHit_TextCache(benchmark::State& state) {
  static oas_bench::TextFileHost host;
  const auto files = static_cast<uint64_t>(state.range(0));
  const auto processor = ProcessorWithTextCache(host, files);
  std::vector<vrel::EventParams> events;
  for (uint64_t ino = 1; ino <= files; ino += files / 64 + 1) events.push_back(host.Event(ino));
  for (const auto& event : events)
    if (processor->OnEvent(event) != qeb::res::False) return state.SkipWithError("file not cached clean");
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(processor->OnEvent(events[i]));
    if (++i == events.size()) i = 0;
  }
}
BENCHMARK(BM_OnEvent_CleanHit_TextCache)->Arg(1'000)->Arg(10'000)->Arg(100'000);

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
