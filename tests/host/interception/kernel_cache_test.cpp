// The kernel cache's promises, on a real fanotify group that marks nothing but a memfd (no
// filesystem is ever marked, so no open anywhere can wait): a file changed since its event
// was read loses its mark at once, and no verdict read before a flush places one after it.
// The group's fdinfo shows which ignore marks the kernel holds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "host/common/unique_fd.h"
#include "host/interception/kernel_cache.h"

namespace {

using oasd::CleanFile;
using oasd::KernelCache;

class KernelCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_group.Reset(::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY));
    if (!m_group.Valid() || !KernelCache::Supported(m_group.Get()))
      GTEST_SKIP() << "needs root and a kernel with evictable ignore marks";
    m_file.Reset(::memfd_create("kernel-cache-test", MFD_CLOEXEC));
    ASSERT_EQ(::write(m_file.Get(), "clean", 5), 5);
  }

  CleanFile Seen(uint64_t cookie) const {
    struct stat st {};
    ::fstat(m_file.Get(), &st);
    return CleanFile{m_writes.StampedChangeTime(st), {st.st_mtim.tv_sec, st.st_mtim.tv_nsec},
                     st.st_size, cookie};
  }

  // Ignore marks the kernel holds in the group.
  int Marks() const {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(m_group.Get()));
    int marks = 0;
    for (std::string line; std::getline(in, line);)
      marks += line.starts_with("fanotify ino:") && line.find("ignored_mask:0 ") == std::string::npos;
    return marks;
  }

  oasd::HostMetrics m_metrics;
  oasd::WrittenFiles m_writes;
  oasd::UniqueFd m_group, m_file;
};

TEST_F(KernelCacheTest, AFileChangedSinceItsEventOrANotedWriteLosesItsMark) {
  KernelCache cache(m_metrics, m_writes, 16);
  CleanFile seen = Seen(1);
  ASSERT_EQ(::write(m_file.Get(), "+", 1), 1);  // written after the event was read
  EXPECT_FALSE(cache.Add(m_group.Get(), m_file.Get(), seen));
  EXPECT_EQ(Marks(), 0);

  seen = Seen(2);
  m_writes.NoteWriteTo(m_file.Get());  // a write that moved no time, noted by the reader
  EXPECT_FALSE(cache.Add(m_group.Get(), m_file.Get(), seen));
  EXPECT_EQ(Marks(), 0);

  EXPECT_TRUE(cache.Add(m_group.Get(), m_file.Get(), Seen(3)));
  EXPECT_EQ(Marks(), 1);
  cache.Remove(m_group.Get(), m_file.Get());
  EXPECT_EQ(Marks(), 0);
  EXPECT_EQ(m_metrics.kernelMarksRemoved.load(), 3u);
}

TEST_F(KernelCacheTest, AFlushDropsTheMarksAndRefusesVerdictsOnEventsReadBeforeIt) {
  KernelCache cache(m_metrics, m_writes, 16);
  EXPECT_TRUE(cache.Add(m_group.Get(), m_file.Get(), Seen(5)));
  cache.Flush(m_group.Get(), KernelCache::FlushReason::Reload, 7);
  EXPECT_EQ(Marks(), 0);
  EXPECT_FALSE(cache.Add(m_group.Get(), m_file.Get(), Seen(7)));  // read before the flush
  EXPECT_EQ(Marks(), 0);
  EXPECT_TRUE(cache.Add(m_group.Get(), m_file.Get(), Seen(8)));
  cache.Flush(m_group.Get(), KernelCache::FlushReason::Age, 0);  // keeps the floor
  EXPECT_TRUE(cache.Add(m_group.Get(), m_file.Get(), Seen(8)));
  EXPECT_EQ(m_metrics.kernelFlushes[static_cast<size_t>(KernelCache::FlushReason::Reload)].load(), 1u);
}

TEST_F(KernelCacheTest, PastItsCapacityTheCacheStartsAgain) {
  KernelCache cache(m_metrics, m_writes, 1);
  EXPECT_TRUE(cache.Add(m_group.Get(), m_file.Get(), Seen(1)));
  EXPECT_TRUE(cache.Add(m_group.Get(), m_file.Get(), Seen(2)));
  EXPECT_EQ(m_metrics.kernelFlushes[static_cast<size_t>(KernelCache::FlushReason::Full)].load(), 1u);
}

}  // namespace
