// oasd end to end on writes that leave a file's change time as it was: EICAR written through
// a shared mapping over an already dirty page, and a same-size rewrite within one second on
// ext2 with 128-byte inodes. Neither may pass on the clean verdict the file had before.
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

const std::string kCleanOfEicarSize(sizeof kEicar - 1, 'a');

int64_t ChangeTimeNs(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_ctim.tv_sec * 1'000'000'000LL + st.st_ctim.tv_nsec;
}

// Opens the file twice from one process; the module's cache must serve one of the opens (the
// kernel's is off in these scenarios, oasd_kernel_cache_test.cpp has it on).
void CacheAsClean(Sandbox& s, const std::string& path) {
  const auto hits = [&] { return MetricValue(s.Metrics(), "oas_cache_hits_total").value_or(0); };
  const uint64_t before = hits();
  const Exit opens = InChild([&] {
    const int error = OpenAndRead(path);
    return error ? error : OpenAndRead(path);
  });
  s.Expect(opens.Is(0) && hits() > before, "the clean file was not served from the cache");
}

// The scenario maps the file, closes its descriptor and dirties the page (the fault that
// moves ctime); once the file is cached it writes EICAR over that page, which moves nothing,
// and unmaps: the unmap is the writer's close.
TEST(OasdWrites, CachedFileRewrittenThroughASharedMappingIsReportedAtUnmapAndRefusedAfter) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string file = s.Watched("mapped.txt");
    const size_t size = kCleanOfEicarSize.size();
    WriteFile(file, kCleanOfEicarSize);
    if (!s.StartOasd(R"("engine": "clamav", "kernel_cache": false)")) return;
    const int fd = ::open(file.c_str(), O_RDWR);
    void* mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    auto* map = static_cast<char*>(mapped);
    ::close(fd);
    if (map == MAP_FAILED) return s.Expect(false, "cannot map " + file);
    map[0] = 'b';
    std::this_thread::sleep_for(300ms);  // past a timestamp tick: the engine caches it too
    CacheAsClean(s, file);
    const int64_t cached = ChangeTimeNs(file);
    std::memcpy(map, kEicar, size);
    s.Expect(ChangeTimeNs(file) == cached, "the write moved ctime: it shows nothing");
    ::munmap(map, size);

    s.Expect(s.AwaitEvent("detection", file), "no detection when the mapping went");
    const Exit reader = InChild([&] { return OpenAndRead(file); });
    s.Expect(reader.Denied(), "opening the file rewritten through a mapping: " + reader.Text());
  });
}

TEST(OasdWrites, SameSecondSameSizeRewriteOnExt2IsRefusedOnTheNextOpen) {
  if (::access("/dev/loop-control", F_OK) != 0 || std::system("command -v mkfs.ext2 >/dev/null"))
    GTEST_SKIP() << "needs loop devices and mkfs.ext2 (e2fsprogs)";
  OASD_SCENARIO([](Sandbox& s) {
    const std::string image = s.State("ext2.img"), dir = s.Watched("ext2");
    const std::string make = "mkdir " + dir + " && truncate -s 16M " + image +
                             " && mkfs.ext2 -q -F -I 128 " + image +
                             " 2>/dev/null && mount -o loop " + image + " " + dir;
    if (std::system(make.c_str()) != 0) return s.Expect(false, "cannot make and mount " + image);
    if (!s.StartOasd(R"("engine": "clamav", "kernel_cache": false)")) return;
    // A second that turns in the middle leaves nothing to show: try again.
    for (int attempt = 0; attempt < 5; ++attempt) {
      const std::string file = dir + "/rewritten" + std::to_string(attempt) + ".txt";
      timespec now{};
      ::clock_gettime(CLOCK_REALTIME, &now);
      std::this_thread::sleep_for(std::chrono::nanoseconds(1'000'000'000 - now.tv_nsec) + 10ms);
      WriteFile(file, kCleanOfEicarSize);
      const int64_t written = ChangeTimeNs(file);
      const Exit clean = InChild([&] { return OpenAndRead(file); });
      s.Expect(clean.Is(0), "opening the clean file: " + clean.Text());
      const Exit writer = InChild([&] { return CreateWith(file, kEicar); });
      if (ChangeTimeNs(file) != written) continue;
      s.Expect(writer.Is(0) && written % 1'000'000'000 == 0, "not a same-second rewrite");
      const Exit reader = InChild([&] { return OpenAndRead(file); });
      s.Expect(reader.Denied(), "opening the file rewritten in the same second: " + reader.Text());
      return;
    }
    s.Expect(false, "every attempt straddled a second");
  });
}

}  // namespace
}  // namespace oasd_e2e
