// The written-files table: a noted write moves the file's stamped change time forward and
// no other file's, and a table that overflows never moves any file's stamp back.
#include <gtest/gtest.h>

#include "host/system/written_files.h"

namespace {

struct stat FileState(uint64_t ino, int64_t sec, int64_t nsec) {
  struct stat st {};
  st.st_dev = 7;
  st.st_ino = ino;
  st.st_ctim = timespec{sec, nsec};
  return st;
}

int64_t Stamp(const oasd::WrittenFiles& writes, const struct stat& st) {
  return vrel::ToNanoseconds(writes.StampedChangeTime(st));
}

TEST(WrittenFilesTest, AWriteMovesTheStampOfThatFileOnlyWhateverItsCtime) {
  oasd::WrittenFiles writes;
  const struct stat a = FileState(1, 100, 999'999'999), b = FileState(2, 100, 0);
  const int64_t aBefore = Stamp(writes, a), bBefore = Stamp(writes, b);
  EXPECT_EQ(aBefore, 100'999'999'999);

  writes.NoteWrite(7, 1);
  const vrel::Timespec stamped = writes.StampedChangeTime(a);
  EXPECT_GT(vrel::ToNanoseconds(stamped), aBefore);
  EXPECT_LT(stamped.nsec, 1'000'000'000);  // carried into the seconds
  EXPECT_EQ(Stamp(writes, b), bBefore);
  writes.NoteWrite(7, 1);
  EXPECT_GT(Stamp(writes, a), vrel::ToNanoseconds(stamped));
}

TEST(WrittenFilesTest, AFullTableStaysBoundedAndNeverLowersAStamp) {
  oasd::WrittenFiles writes(8);
  std::vector<int64_t> last(100, 0);
  for (uint64_t round = 0; round < 3; ++round) {
    for (uint64_t ino = 0; ino < last.size(); ++ino) {
      if ((ino + round) % 3 == 0) writes.NoteWrite(7, ino);
      for (uint64_t seen = 0; seen < last.size(); ++seen) {
        const int64_t stamp = Stamp(writes, FileState(seen, 100, 0));
        ASSERT_GE(stamp, last[seen]) << "file " << seen << " after a write to " << ino;
        last[seen] = stamp;
      }
      ASSERT_LE(writes.Size(), 8u);
    }
  }
}

}  // namespace
