// A fresh output file is root's alone, in a directory made for it, and a replaced page goes
// through a temporary whose name cannot be guessed, so links uid 65534 leaves at the likely
// names catch nothing. What else a user can plant is refused in oasd_files_test.
#include "host/reporting/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "testing/fake_files.h"

namespace {

namespace fs = std::filesystem;

mode_t Mode(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(OutputFile, FreshFilesAreRootsAloneAndTemporariesUnguessable) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to plant links of another user";
  qeb::testing::TempDir dir;
  const std::string shared = dir.Path() + "/shared", victim = dir.Write("victim", "root's\n");
  ::mkdir(shared.c_str(), 0755);
  ::chmod(shared.c_str(), 01777);  // world-writable and sticky, like /tmp
  for (const char* guess : {"/metrics.prom.tmp", "/.metrics.prom.tmp", "/.metrics.prom.XXXXXX"}) {
    fs::create_symlink(victim, shared + guess);
    ASSERT_EQ(::lchown((shared + guess).c_str(), 65534, 65534), 0);
  }
  std::string error;
  ASSERT_TRUE(oasd::OpenAppendFile(dir.Path() + "/logs/events.jsonl", error).Valid()) << error;
  ASSERT_EQ(oasd::ReplaceFile(shared + "/metrics.prom", "page\n", 0644), "");
  EXPECT_EQ(Mode(dir.Path() + "/logs"), 0750u);
  EXPECT_EQ(Mode(dir.Path() + "/logs/events.jsonl"), 0640u);
  EXPECT_EQ(Mode(shared + "/metrics.prom"), 0644u);
  std::ifstream in(victim);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "root's\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(shared), fs::directory_iterator()), 4);  // no temporary left
}

}  // namespace
