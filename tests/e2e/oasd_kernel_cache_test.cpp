// oasd end to end with the kernel answering for clean files (fanotify ignore marks): once a
// file is found clean its opens no longer reach oasd, every way an ordinary user can change
// its contents brings the next open back to the engine, and so do the changes that may make
// a clean file unclean (settings, signatures, a remount).
#include <sys/mman.h>

#include <cstring>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

const std::string kHalf(kEicar, sizeof kEicar / 2);
const std::string kCleanOfEicarSize(sizeof kEicar - 1, 'a');

uint64_t Events(Sandbox& s) { return MetricValue(s.Metrics(), "oasd_events_total").value_or(0); }

int OpenMany(const std::string& path, int times) {
  for (int i = 0; i < times; ++i)
    if (const int error = OpenAndRead(path)) return error;
  return 0;
}

// The first open is scanned and cached; the next thousand must not be read by oasd at all.
// The file is left a moment first: a ctime within the current tick is never cached.
void CacheInKernel(Sandbox& s, const std::string& path, int opens = 1000) {
  std::this_thread::sleep_for(150ms);
  const Exit first = InChild([&] { return OpenAndRead(path); });
  s.Expect(first.Is(0), "first open of " + path + ": " + first.Text());
  const uint64_t before = Events(s);
  const Exit more = InChild([&] { return OpenMany(path, opens); });
  s.Expect(more.Is(0), "opening " + path + " again: " + more.Text());
  const std::string page = s.Metrics();
  const uint64_t after = MetricValue(page, "oasd_events_total").value_or(0);
  s.Expect(after == before, path + ": " + std::to_string(after - before) + " of " +
                                std::to_string(opens) + " cached opens reached oasd\n" + page);
}

int WriteWith(const std::string& path, int flags, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | flags);
  if (fd < 0) return errno;
  const int error = ::write(fd, text.data(), text.size()) < 0 ? errno : 0;
  ::close(fd);
  return error;
}

int WriteThroughMapping(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR);
  if (fd < 0) return errno;
  const size_t size = sizeof kEicar - 1;
  void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) return errno;
  std::memcpy(map, kEicar, size);
  return ::munmap(map, size) == 0 ? 0 : errno;
}

TEST(OasdKernelCache, CachedOpensSkipOasdAndEveryWayOfWritingBringsTheNextOpenBack) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string appended = s.Watched("appended"), rewritten = s.Watched("rewritten"),
                      mapped = s.Watched("mapped"), renamed = s.Watched("renamed"),
                      linked = s.Watched("linked"), other = s.Watched("other"),
                      link = s.Watched("link");
    WriteFile(appended, kHalf);
    WriteFile(rewritten, "clean for now\n");
    WriteFile(mapped, kCleanOfEicarSize);
    WriteFile(renamed, "clean for now\n");
    WriteFile(linked, "clean for now\n");
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    for (const auto& file : {appended, rewritten, mapped, renamed, linked})
      CacheInKernel(s, file, file == appended ? 1000 : 10);

    s.Expect(InChild([&] { return WriteWith(appended, O_APPEND, kEicar + kHalf.size()); }).Is(0), "append");
    s.Expect(InChild([&] { return WriteWith(rewritten, O_TRUNC, kEicar); }).Is(0), "rewrite");
    s.Expect(InChild([&] { return WriteThroughMapping(mapped); }).Is(0), "mapping");
    // The mapping's writes show only at its close, which oasd reads after the writer goes.
    s.Expect(s.AwaitEvent("detection", mapped), "no detection after the mapping went");
    WriteFile(other, kEicar);
    s.Expect(::rename(other.c_str(), renamed.c_str()) == 0, "rename over");
    s.Expect(::link(linked.c_str(), link.c_str()) == 0, "link");
    s.Expect(InChild([&] { return WriteWith(link, O_TRUNC, kEicar); }).Is(0), "write through the link");

    for (const auto& file : {appended, rewritten, mapped, renamed, linked}) {
      const Exit reader = InChild([&] { return OpenAndRead(file); });
      s.Expect(reader.Denied(), "opening " + file + " after EICAR was written: " + reader.Text());
    }
  });
}

// Each change must reach the kernel cache before the next open: that open is read by oasd.
// Each round caches a file the module has not seen: once it has, the module answers from its
// own cache, and only its verdict on a scan places a mark.
TEST(OasdKernelCache, SettingsSignaturesAndMountChangesEachFlushTheKernelCache) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string files[] = {s.Watched("reload"), s.Watched("settings"), s.Watched("mount")};
    for (const auto& file : files) WriteFile(file, "clean\n");
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const auto flushes = [&](const char* reason) {
      return MetricValue(s.Metrics(), std::string("oasd_kernel_cache_flushes_total{reason=\"") +
                                          reason + "\"}").value_or(0);
    };
    // change: what to do once files[round] is cached; reason: the flush it must cause.
    const auto round = [&](int i, const char* reason, const std::function<void()>& change) {
      CacheInKernel(s, files[i], 10);
      const uint64_t flushed = flushes(reason);
      change();
      s.Expect(WaitUntil([&] { return flushes(reason) > flushed; }, kEventLimit),
               std::string("no flush for ") + reason);
      const uint64_t before = Events(s);
      s.Expect(InChild([&] { return OpenAndRead(files[i]); }).Is(0), files[i] + ": open");
      s.Expect(Events(s) > before, std::string(reason) + ": the next open did not reach oasd");
    };
    // The same configuration: the signatures are loaded again.
    round(0, "reload", [&] { ::kill(s.Oasd(), SIGHUP); });
    round(1, "settings", [&] {
      s.WriteConfig(R"("engine": "clamav",)"
                    R"( "settings": {"ScanSettings": {"ScanSettingsBase": {"size_limit": 1048576}}})");
      ::kill(s.Oasd(), SIGHUP);
    });
    round(2, "mount", [&] { s.Expect(s.MountTmpfs(s.State("more"), "mode=0755").empty(), "mount"); });
  });
}

}  // namespace
}  // namespace oasd_e2e
