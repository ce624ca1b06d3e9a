// Microbenchmarks of the clean-file cache path against the fake host: the manager's lookup
// (hit and miss) over a text files cache of 1,000 / 10,000 / 100,000 files, the cache's
// Add once full (every Add evicts), one entry's process set at its bound, and the heap
// cost of one cached file. Each filled cache is built once per size and kept for the run;
// tracing stays at error level so the numbers are those of a production configuration.
#include <malloc.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_host.h"
#include "oas/cache_impl/clean_file_info_pid.h"
#include "oas/cache_impl/text_files_cache.h"
#include "oas/cache_manager.h"

namespace {

using nox::oas::CacheManager;
using nox::oas::CleanFileInfoPid;
using nox::oas::IFilesCache;
using nox::oas::TextFilesCache;

using Host = oas_bench::TextFileHost;

Host& SharedHost() {
  static Host shared;
  return shared;
}

void Fill(IFilesCache& cache, const Host& host, uint64_t files) {
  for (uint64_t ino = 1; ino <= files; ++ino) cache.Add(host.Event(ino));
}

// A manager over one text files cache holding `files` files, built on first use.
CacheManager& ManagerWith(uint64_t files) {
  static std::map<uint64_t, qeb::objptr_t<CacheManager>> managers;
  auto& manager = managers[files];
  if (!manager) {
    Host& host = SharedHost();
    auto cache = std::make_unique<TextFilesCache>(host.host.Locator());
    Fill(*cache, host, files);
    std::vector<std::unique_ptr<IFilesCache>> caches;
    caches.push_back(std::move(cache));
    manager = qeb::CreateObject<CacheManager>(host.host.Locator(), std::move(caches));
  }
  return *manager;
}

void BM_IsCleanFile_Hit(benchmark::State& state) {
  const auto files = static_cast<uint64_t>(state.range(0));
  CacheManager& manager = ManagerWith(files);
  std::vector<vrel::EventParams> events;
  for (uint64_t ino = 1; ino <= files; ino += files / 64 + 1) events.push_back(SharedHost().Event(ino));
  if (!manager.IsCleanFile(events.front())) return state.SkipWithError("cached file not found clean");
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(manager.IsCleanFile(events[i]));
    if (++i == events.size()) i = 0;
  }
}
BENCHMARK(BM_IsCleanFile_Hit)->Arg(1'000)->Arg(10'000)->Arg(100'000);

void BM_IsCleanFile_Miss(benchmark::State& state) {
  const auto files = static_cast<uint64_t>(state.range(0));
  CacheManager& manager = ManagerWith(files);
  const vrel::EventParams event = SharedHost().Event(files + 1'000'000);
  if (manager.IsCleanFile(event)) return state.SkipWithError("uncached file found clean");
  for (auto _ : state) benchmark::DoNotOptimize(manager.IsCleanFile(event));
}
BENCHMARK(BM_IsCleanFile_Miss)->Arg(1'000)->Arg(10'000)->Arg(100'000);

// A full cache: each Add admits a new file (descriptor read included) and evicts the
// least recently used one.
void BM_TextFilesCache_Add_Evicting(benchmark::State& state) {
  Host& host = SharedHost();
  TextFilesCache cache(host.host.Locator());
  Fill(cache, host, TextFilesCache::MaxFiles);
  std::vector<vrel::EventParams> events;
  for (uint64_t ino = 1; ino <= 4096; ++ino) events.push_back(host.Event(10'000'000 + ino));
  uint64_t next = 20'000'000;
  size_t i = 0;
  for (auto _ : state) {
    events[i].ino = ++next;  // never cached before, so always an insertion
    benchmark::DoNotOptimize(cache.Add(events[i]));
    if (++i == events.size()) i = 0;
  }
  if (cache.Size() != TextFilesCache::MaxFiles) state.SkipWithError("cache not at its bound");
}
BENCHMARK(BM_TextFilesCache_Add_Evicting);

// An entry holding its full 100 identities.
void BM_CleanFileInfoPid_CheckProcess_Hit(benchmark::State& state) {
  CleanFileInfoPid entry;
  for (uint64_t id = 1; id <= CleanFileInfoPid::MaxProcesses; ++id) entry.AddProcess(id);
  system_interceptors::process_manager::ProcessInfo info;
  uint64_t id = 0;
  for (auto _ : state) {
    info.m_uniqueId = ++id % CleanFileInfoPid::MaxProcesses + 1;
    benchmark::DoNotOptimize(entry.CheckProcess(info));
  }
}
BENCHMARK(BM_CleanFileInfoPid_CheckProcess_Hit);

void BM_CleanFileInfoPid_CheckProcess_Miss(benchmark::State& state) {
  CleanFileInfoPid entry;
  for (uint64_t id = 1; id <= CleanFileInfoPid::MaxProcesses; ++id) entry.AddProcess(id);
  system_interceptors::process_manager::ProcessInfo info;
  info.m_uniqueId = 1'000'000;
  for (auto _ : state) benchmark::DoNotOptimize(entry.CheckProcess(info));
}
BENCHMARK(BM_CleanFileInfoPid_CheckProcess_Miss);

// New identities only: each one evicts the oldest.
void BM_CleanFileInfoPid_AddProcess_Evicting(benchmark::State& state) {
  CleanFileInfoPid entry;
  for (uint64_t id = 1; id <= CleanFileInfoPid::MaxProcesses; ++id) entry.AddProcess(id);
  uint64_t id = CleanFileInfoPid::MaxProcesses;
  for (auto _ : state) entry.AddProcess(++id);
  if (entry.ProcessCount() != CleanFileInfoPid::MaxProcesses) state.SkipWithError("set not at its bound");
}
BENCHMARK(BM_CleanFileInfoPid_AddProcess_Evicting);

// Resident set size of the whole process in bytes, from /proc/self/statm.
size_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0;
  size_t resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

double PerFile(size_t before, size_t after) {
  return after > before ? static_cast<double>(after - before) / TextFilesCache::MaxFiles : 0;
}

// Bytes per cached file once a fresh cache is filled to its bound (one process identity
// per entry), two ways: the allocator's own count of bytes in use (mallinfo2, the
// figure to compare) and the growth of the resident set (pages touched, so it also
// counts allocator overhead and can read low when freed pages are reused). Not a timing.
void BM_TextFilesCache_Memory(benchmark::State& state) {
  Host& host = SharedHost();
  double heapPerFile = 0;
  double rssPerFile = 0;
  for (auto _ : state) {
    state.PauseTiming();
    malloc_trim(0);
    const size_t heapBefore = mallinfo2().uordblks;
    const size_t rssBefore = ResidentBytes();
    {
      TextFilesCache cache(host.host.Locator());
      Fill(cache, host, TextFilesCache::MaxFiles);
      heapPerFile = PerFile(heapBefore, mallinfo2().uordblks);
      rssPerFile = PerFile(rssBefore, ResidentBytes());
    }
    state.ResumeTiming();
  }
  state.counters["mallinfo2_uordblks_bytes_per_file"] = heapPerFile;
  state.counters["rss_bytes_per_file"] = rssPerFile;
}
BENCHMARK(BM_TextFilesCache_Memory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
