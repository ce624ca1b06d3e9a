// Events per second through the whole path over the fake host: provider threads call
// FileEventsProcessor::OnEvent with cache misses, the fake host's real worker pool runs
// each event, a handler replies at once, and a counting notifier takes the verdict. One
// iteration is a batch per provider thread and ends only when all of that thread's
// verdicts arrived. The pipeline is built once and shared by every thread count.
#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "bench/bench_host.h"
#include "interfaces/vrel/event.h"
#include "interfaces/vrel/event_handler.h"
#include "interfaces/vrel/verdict_notifier.h"
#include "oas/cache_impl/text_files_cache.h"
#include "oas/file_events_processor.h"
#include "testing/event_builder.h"

namespace {

using nox::oas::FileEventsProcessor;
using qeb::objptr_t;
using qeb::testing::MakeHostObject;

constexpr size_t MaxProviders = 8;
constexpr size_t BatchPerProvider = 256;
// A provider's slot rides in the cookie's top byte; the rest numbers its events.
constexpr unsigned SlotShift = 56;

// Counts verdicts per provider slot and wakes a provider once its batch is complete.
// Counting only, so it costs the path no more than a real notifier's bookkeeping.
class CountingVerdictNotifier
    : public qeb::object::Ifaces<nox::vrelpp::IFileVerdictNotifierEx, vrel::IFileVerdictNotifier> {
 public:
  qeb::result_t SetVerdict(const vrel::EventParams& params, uint32_t) noexcept override {
    Count(params.cookie >> SlotShift);
    return qeb::res::Ok;
  }
  qeb::result_t SetVerdict(const vrel::ReplyKey&, const vrel::EventParams& params,
                           uint32_t verdict) noexcept override {
    return SetVerdict(params, verdict);
  }

  uint64_t Delivered(size_t slot) const { return m_slots[slot].delivered.load(); }

  // Blocks until slot has seen total verdicts since the notifier was made.
  void WaitFor(size_t slot, uint64_t total) {
    Slot& s = m_slots[slot];
    s.target.store(total);
    std::unique_lock lock(s.mutex);
    s.done.wait(lock, [&] { return s.delivered.load() >= total; });
  }

 private:
  struct Slot {
    std::atomic<uint64_t> delivered{0};
    std::atomic<uint64_t> target{0};
    std::mutex mutex;
    std::condition_variable done;
  };

  // Either the waiter sees the count reach its target, or the verdict that reaches it
  // sees the target and wakes the waiter under the lock: no wake-up is lost.
  void Count(size_t slot) noexcept {
    if (slot >= MaxProviders) return;
    Slot& s = m_slots[slot];
    if (s.delivered.fetch_add(1) + 1 != s.target.load()) return;
    std::lock_guard lock(s.mutex);
    s.done.notify_all();
  }

  std::array<Slot, MaxProviders> m_slots;
};

// A scanner that has decided before it looked: every event is allowed at once.
class ReplyAtOnceHandler : public qeb::object::Ifaces<vrel::IEventHandler085> {
 public:
  qeb::result_t OnEvent(vrel::IEvent085* event, uint32_t) noexcept override {
    return event->Reply(vrel::BasicVerdict::Allow);
  }
  qeb::result_t OnEventCancelled(vrel::IEvent085*, uint32_t) noexcept override {
    return qeb::res::NotImplemented;
  }
  qeb::result_t OnNotification(vrel::IEvent085* event, uint32_t) noexcept override {
    return event->Reply(vrel::BasicVerdict::Allow);
  }
};

struct Pipeline {
  Pipeline() {
    host.host.locator->Register<vrel::IFileVerdictNotifier>(notifier);
    std::vector<std::unique_ptr<nox::oas::IFilesCache>> caches;
    caches.push_back(std::make_unique<nox::oas::TextFilesCache>(host.host.Locator()));
    processor = qeb::CreateObject<FileEventsProcessor>(host.host.Locator(), handler.Get(), 1000,
                                                       std::move(caches));
  }

  oas_bench::TextFileHost host;
  objptr_t<CountingVerdictNotifier> notifier = MakeHostObject<CountingVerdictNotifier>();
  objptr_t<ReplyAtOnceHandler> handler = MakeHostObject<ReplyAtOnceHandler>();
  objptr_t<FileEventsProcessor> processor;
};

Pipeline& SharedPipeline() {
  static Pipeline pipeline;
  return pipeline;
}

// Allowed without the cacheable mark, so every event stays a miss and takes the whole path.
void BM_WholePath_EventsPerSecond(benchmark::State& state) {
  Pipeline& pipeline = SharedPipeline();
  const auto slot = static_cast<size_t>(state.thread_index());
  vrel::EventParams event = qeb::testing::MakeOpenEvent(0, "/srv/data/reports/2026/summary.txt");
  event.ctime = {1700000000, 5};
  const uint64_t first = pipeline.notifier->Delivered(slot);
  uint64_t sent = first;
  for (auto _ : state) {
    for (size_t i = 0; i < BatchPerProvider; ++i) {
      event.cookie = (uint64_t{slot} << SlotShift) | ++sent;
      if (pipeline.processor->OnEvent(event) != qeb::res::Ok) {
        state.SkipWithError("an event was not queued");
        return;
      }
    }
    pipeline.notifier->WaitFor(slot, sent);
  }
  state.SetItemsProcessed(static_cast<int64_t>(pipeline.notifier->Delivered(slot) - first));
}
BENCHMARK(BM_WholePath_EventsPerSecond)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace
