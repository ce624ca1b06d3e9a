// Microbenchmarks of the clean-file cache path against the fake host: the manager's lookup
// (hit and miss) over a text files cache of 1,000 / 10,000 / 100,000 files, the cache's
// Add once full (every Add evicts), one entry's process set at its bound, and the heap
// cost of one cached file. Each filled cache is built once per size and kept for the run;
// tracing stays at error level so the numbers are those of a production configuration.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "oas/cache_impl/clean_file_info_pid.h"
#include "oas/cache_impl/text_files_cache.h"
#include "oas/cache_manager.h"
#include "testing/fake_files.h"
#include "testing/fake_host.h"

namespace {

using nox::oas::CacheManager;
using nox::oas::CleanFileInfoPid;
using nox::oas::IFilesCache;
using nox::oas::TextFilesCache;
using qeb::testing::FakeHost;
using qeb::testing::TempDir;

constexpr uint64_t Dev = 2049;
constexpr int32_t Pid = 4242;
constexpr uint64_t Identity = 99;
constexpr uint32_t ProductionTraceLevel = 300;

// One host and one real text file; every event reads that file through a descriptor, so
// admission costs a dup, a short pread and a close but no path lookup.
class Host {
 public:
  Host() {
    host.tracer->EnableUpTo(ProductionTraceLevel);
    host.processManager->AddProcess(static_cast<uint32_t>(Pid), Identity);
    host.formatRecognizer->SetPredicate([](std::string_view) { return true; });
    m_textPath = m_dir.Write("words.txt", "some plain words\n");
    m_fd = ::open(m_textPath.c_str(), O_RDONLY | O_CLOEXEC);
  }
  ~Host() {
    if (m_fd >= 0) ::close(m_fd);
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The names differ per file, as they do on a real disk; the key compares all of them.
  vrel::EventParams Event(uint64_t ino) const {
    vrel::EventParams event;
    const std::string name = "/srv/data/dir" + std::to_string(ino % 97) + "/file" + std::to_string(ino);
    event.fileName = std::string_view(name);
    event.ino = ino;
    event.dev = Dev;
    event.pid = Pid;
    event.fd = m_fd;
    event.fsType = 0xEF53;
    event.ctime = {1700000000, 5};
    return event;
  }

  FakeHost host;

 private:
  TempDir m_dir;
  std::string m_textPath;
  int m_fd = -1;
};

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

// Heap bytes in use per cached file, from the allocator's own accounting before and after
// filling a fresh cache to its bound (one process identity per entry). Not a timing.
void BM_TextFilesCache_Memory(benchmark::State& state) {
  Host& host = SharedHost();
  double perFile = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const size_t before = mallinfo2().uordblks;
    {
      TextFilesCache cache(host.host.Locator());
      Fill(cache, host, TextFilesCache::MaxFiles);
      const size_t after = mallinfo2().uordblks;
      perFile = after > before ? static_cast<double>(after - before) / TextFilesCache::MaxFiles : 0;
    }
    state.ResumeTiming();
  }
  state.counters["mallinfo2_uordblks_bytes_per_file"] = perFile;
}
BENCHMARK(BM_TextFilesCache_Memory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
