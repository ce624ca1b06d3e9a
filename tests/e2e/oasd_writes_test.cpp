// oasd end to end on writes that leave a file's change time as it was: a rewrite through a
// shared mapping (tmpfs does not move ctime for it) and a same-size rewrite within one
// second on ext2 with 128-byte inodes (whole-second times). Either must cost the file its
// clean verdict, in the module's cache and in the engine's checked cache alike.
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

const std::string kCleanOfEicarSize(sizeof kEicar - 1, 'a');

// A writer that maps the file shared, closes its descriptor and writes through the mapping:
// a first write (the fault that moves ctime), then, once told, EICAR over the dirty page,
// which moves nothing; the unmap is its close. Answers 0 or an errno.
int WriteThroughMapping(const std::string& path, int readyFd, int goFd) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return errno;
  const size_t size = sizeof kEicar - 1;
  void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) return errno;
  static_cast<char*>(map)[0] = 'b';
  char c = 0;
  if (::write(readyFd, "r\n", 2) != 2 || ::read(goFd, &c, 1) != 1) return EPIPE;
  std::memcpy(map, kEicar, size);
  return ::munmap(map, size) < 0 ? errno : 0;
}

int RewriteInPlace(const std::string& path, const std::string& content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  const int error = ::pwrite(fd, content.data(), content.size(), 0) < 0 ? errno : 0;
  return ::close(fd) < 0 ? errno : error;
}

timespec ChangeTime(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_ctim;
}

// Opens the file twice from one process; the module's cache must have served one of them.
void CacheAsClean(Sandbox& s, const std::string& path) {
  const auto hits = [&] { return MetricValue(s.Metrics(), "oas_cache_hits_total").value_or(0); };
  const uint64_t before = hits();
  const Exit opens = InChild([&] {
    const int error = OpenAndRead(path);
    return error ? error : OpenAndRead(path);
  });
  s.Expect(opens.Is(0), "opening the clean file: " + opens.Text());
  s.Expect(hits() > before, "the clean file was not served from the cache");
}

TEST(OasdWrites, CachedFileRewrittenThroughASharedMappingIsReportedAtUnmapAndRefusedAfter) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string file = s.Watched("mapped.txt");
    WriteFile(file, kCleanOfEicarSize);
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    int ready[2], go[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(go, O_CLOEXEC) != 0)
      return s.Expect(false, "pipe2 failed");
    const pid_t writer = Spawn([&] { return WriteThroughMapping(file, ready[1], go[0]); });
    s.Expect(ReadLine(ready[0], kOpenerLimit).has_value(), "the writer did not map the file");
    std::this_thread::sleep_for(300ms);  // past a timestamp tick: the engine caches it too
    CacheAsClean(s, file);
    const timespec cached = ChangeTime(file);

    s.Expect(::write(go[1], "g", 1) == 1, "cannot tell the writer to go on");
    const Exit written = WaitFor(writer, kOpenerLimit);
    s.Expect(written.Is(0), "writing through the mapping: " + written.Text());
    const timespec after = ChangeTime(file);
    s.Expect(after.tv_sec == cached.tv_sec && after.tv_nsec == cached.tv_nsec,
             "the write to the dirty mapped page moved ctime: nothing left to show");
    s.Expect(s.AwaitEvent("detection", file), "no detection when the mapping went");
    const Exit reader = InChild([&] { return OpenAndRead(file); });
    s.Expect(reader.Denied(), "opening the file rewritten through a mapping: " + reader.Text());
    for (const int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
  });
}

// Just after the wall clock's second turns, so what follows fits in the second.
void AwaitSecondStart() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::this_thread::sleep_for(std::chrono::nanoseconds(1'000'000'000 - now.tv_nsec) + 10ms);
}

bool CanLoopMountExt2() {
  return ::access("/dev/loop-control", F_OK) == 0 &&
         std::system("command -v mkfs.ext2 >/dev/null 2>&1") == 0;
}

// Whole-second change times: a clean file cached, then rewritten with EICAR at the same size
// within the same second. A second that turns in between leaves nothing to show: try again.
TEST(OasdWrites, SameSecondSameSizeRewriteOnExt2IsRefusedOnTheNextOpen) {
  if (!CanLoopMountExt2()) GTEST_SKIP() << "needs loop devices and mkfs.ext2 (e2fsprogs)";
  OASD_SCENARIO([](Sandbox& s) {
    const std::string image = s.State("ext2.img"), dir = s.Watched("ext2");
    ::mkdir(dir.c_str(), 0755);
    const std::string make = "truncate -s 16M " + image + " && mkfs.ext2 -q -F -I 128 " + image +
                             " 2>/dev/null && mount -o loop " + image + " " + dir;
    if (std::system(make.c_str()) != 0) return s.Expect(false, "cannot make and mount " + image);
    if (!s.StartOasd(R"("engine": "clamav")")) return;

    for (int attempt = 0; attempt < 5; ++attempt) {
      const std::string file = dir + "/rewritten" + std::to_string(attempt) + ".txt";
      AwaitSecondStart();
      WriteFile(file, kCleanOfEicarSize);
      const timespec written = ChangeTime(file);
      CacheAsClean(s, file);
      const Exit writer = InChild([&] { return RewriteInPlace(file, kEicar); });
      s.Expect(writer.Is(0), "rewriting in place: " + writer.Text());
      if (ChangeTime(file).tv_sec != written.tv_sec) continue;
      s.Expect(written.tv_nsec == 0, "ext2 with 128-byte inodes kept sub-second times");
      const Exit reader = InChild([&] { return OpenAndRead(file); });
      s.Expect(reader.Denied(), "opening the file rewritten in the same second: " + reader.Text());
      return;
    }
    s.Expect(false, "every attempt straddled a second");
  });
}

}  // namespace
}  // namespace oasd_e2e
