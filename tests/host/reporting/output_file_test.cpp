// What a local user can plant at or above one of oasd's output paths: each plant is refused
// with a message naming it, and whatever a planted link points at stays untouched. Plants
// are made by root and handed to uid 65534, so the tests need root.
#include "host/reporting/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "testing/fake_files.h"

namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

std::string Content(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void Own(const std::string& path, uid_t uid = kNobody) { ASSERT_EQ(::lchown(path.c_str(), uid, uid), 0); }

std::string MakeDir(const std::string& path, mode_t mode) {
  ::mkdir(path.c_str(), mode);
  ::chmod(path.c_str(), mode);  // past the umask
  return path;
}

class OutputFile : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to plant files of another user";
    m_shared = MakeDir(m_dir.Path() + "/shared", 01777);  // world-writable and sticky, like /tmp
    m_private = MakeDir(m_dir.Path() + "/private", 0750);
    m_victim = m_dir.Write("victim", "root's own data\n");
  }

  qeb::testing::TempDir m_dir;
  std::string m_shared, m_private, m_victim;
};

TEST_F(OutputFile, EveryPlantIsRefusedNamingItAndLeftAlone) {
  const struct {
    const char* what;
    std::function<std::string()> plant;  // answers the output path
    const char* message;
  } cases[] = {
      {"another user's link in a sticky directory",
       [&] {
         const std::string path = m_shared + "/events.jsonl";
         fs::create_symlink(m_victim, path);
         Own(path);
         return path;
       },
       "is a symbolic link"},
      {"another user's dangling link",
       [&] {
         const std::string path = m_shared + "/dangling.jsonl";
         fs::create_symlink(m_private + "/created-through-the-link", path);
         Own(path);
         return path;
       },
       "is a symbolic link"},
      {"root's own link",
       [&] {
         fs::create_symlink(m_victim, m_private + "/root-link.log");
         return m_private + "/root-link.log";
       },
       "is a symbolic link"},
      {"another user's file",
       [&] {
         const std::string path = m_private + "/theirs.jsonl";
         std::ofstream(path) << "";
         Own(path);
         ::chmod(path.c_str(), 0600);
         return path;
       },
       "is owned by uid 65534"},
      {"a file others may write",
       [&] {
         const std::string path = m_private + "/open.jsonl";
         std::ofstream(path) << "";
         ::chmod(path.c_str(), 0666);
         return path;
       },
       "may be written by group or others (mode 0666)"},
      {"a hard link to root's file",
       [&] {
         fs::create_hard_link(m_victim, m_private + "/hard.log");
         return m_private + "/hard.log";
       },
       "has other hard links"},
      {"a FIFO, which would block the open",
       [&] {
         const std::string path = m_private + "/fifo.log";
         ::mkfifo(path.c_str(), 0600);
         return path;
       },
       "fifo.log"},
      {"another user's directory on the path",
       [&] {
         const std::string dir = MakeDir(m_shared + "/theirs", 0755);
         Own(dir);
         return dir + "/events.jsonl";
       },
       "is owned by uid 65534"},
      {"another user's link to a directory on the path",
       [&] {
         const std::string link = m_shared + "/logs";
         fs::create_directory_symlink(m_private, link);
         Own(link);
         return link + "/events.jsonl";
       },
       "is a symbolic link owned by uid 65534"},
      {"a directory anyone may write, not sticky",
       [&] { return MakeDir(m_dir.Path() + "/open", 0777) + "/events.jsonl"; },
       "is writable by others and not sticky"},
  };
  for (const auto& c : cases) {
    const std::string path = c.plant();
    std::string error;
    EXPECT_FALSE(oasd::OpenAppendFile(path, error).Valid()) << c.what;
    EXPECT_NE(error.find(c.message), std::string::npos) << c.what << ": " << error;
    EXPECT_NE(oasd::CheckOutputFile(path).find(c.message), std::string::npos) << c.what;
    EXPECT_NE(oasd::ReplaceFile(path, "page\n", 0644).find(c.message), std::string::npos) << c.what;
  }
  EXPECT_EQ(Content(m_victim), "root's own data\n");
  EXPECT_FALSE(fs::exists(m_private + "/created-through-the-link"));
  EXPECT_FALSE(fs::exists(m_private + "/events.jsonl"));
}

TEST_F(OutputFile, AFreshFileIsRootsAloneAndItsDirectoryIsMade) {
  const std::string path = m_private + "/logs/events.jsonl";
  EXPECT_EQ(oasd::CheckOutputFile(path), "");  // the directory would be made
  std::string error;
  oasd::UniqueFd fd = oasd::OpenAppendFile(path, error);
  ASSERT_TRUE(fd.Valid()) << error;
  struct stat file {}, dir {};
  ASSERT_EQ(::fstat(fd.Get(), &file), 0);
  ASSERT_EQ(::stat((m_private + "/logs").c_str(), &dir), 0);
  EXPECT_EQ(file.st_mode & 07777, 0640u);
  EXPECT_EQ(dir.st_mode & 07777, 0750u);
  EXPECT_EQ(::fcntl(fd.Get(), F_GETFL) & O_NONBLOCK, 0);
}

// The temporary's name cannot be guessed, so links left at names another user might expect
// catch nothing; the page replaces the file whole and no temporary is left behind.
TEST_F(OutputFile, AReplacedPageUsesAnUnguessableTemporary) {
  const std::string path = m_shared + "/metrics.prom";
  for (const char* guess : {"/metrics.prom.tmp", "/.metrics.prom.tmp", "/.metrics.prom.XXXXXX"}) {
    fs::create_symlink(m_victim, m_shared + guess);
    Own(m_shared + guess);
  }
  ASSERT_EQ(oasd::ReplaceFile(path, "first\n", 0644), "");
  ASSERT_EQ(oasd::ReplaceFile(path, "second\n", 0644), "");
  EXPECT_EQ(Content(path), "second\n");
  struct stat st {};
  ASSERT_EQ(::lstat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(Content(m_victim), "root's own data\n");
  size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(m_shared)) ++entries;
  EXPECT_EQ(entries, 4u);  // the page and the three links
}

}  // namespace
