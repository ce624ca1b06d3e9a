// The written-files table: a noted write moves the stamped change time of that file only,
// and a table that overflows never moves any file's stamp back.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "host/system/written_files.h"

namespace {

int64_t Stamp(const oasd::WrittenFiles& writes, uint64_t ino, int64_t nsec = 0) {
  struct stat st {};
  st.st_dev = 7;
  st.st_ino = ino;
  st.st_ctim = timespec{100, nsec};
  const vrel::Timespec stamped = writes.StampedChangeTime(st);
  EXPECT_LT(stamped.nsec, 1'000'000'000);
  return vrel::ToNanoseconds(stamped);
}

TEST(WrittenFilesTest, AWriteMovesTheStampOfThatFileOnlyAndAFullTableNeverLowersOne) {
  oasd::WrittenFiles writes(8);
  EXPECT_EQ(Stamp(writes, 1, 999'999'999), 100'999'999'999);
  writes.NoteWrite(7, 1);
  EXPECT_GT(Stamp(writes, 1, 999'999'999), 100'999'999'999);
  EXPECT_EQ(Stamp(writes, 2), 100'000'000'000);

  std::vector<int64_t> last(100, 0);
  for (uint64_t write = 0; write < 300; ++write) {
    writes.NoteWrite(7, write * 7 % last.size());
    ASSERT_LE(writes.Size(), 8u);
    for (uint64_t ino = 0; ino < last.size(); ++ino)
      ASSERT_GE(Stamp(writes, ino), std::exchange(last[ino], Stamp(writes, ino))) << ino;
  }
}

}  // namespace
