// What a local user can plant at or above one of oasd's output paths: each plant is refused
// with a message naming it, and whatever a planted link points at stays untouched. Plants
// are made by root and handed to uid 65534, so the tests need root.
#include "host/reporting/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
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

std::string MakeDir(const std::string& path, mode_t mode, uid_t owner = 0) {
  ::mkdir(path.c_str(), mode);
  ::chmod(path.c_str(), mode);  // past the umask
  return ::lchown(path.c_str(), owner, owner) == 0 ? path : "";
}

// A link or an empty file at path, owned by owner; answers path.
std::string Plant(const std::string& path, const std::string& linkTo, uid_t owner = kNobody,
                  mode_t mode = 0600) {
  if (!linkTo.empty()) {
    fs::create_symlink(linkTo, path);
  } else {
    std::ofstream(path) << "";
    ::chmod(path.c_str(), mode);
  }
  return ::lchown(path.c_str(), owner, owner) == 0 ? path : "";
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
  const std::string through = m_private + "/created-through-the-link";
  const struct {
    std::string path;
    const char* message;
  } cases[] = {
      {Plant(m_shared + "/events.jsonl", m_victim), "is a symbolic link"},
      {Plant(m_shared + "/dangling.jsonl", through), "is a symbolic link"},
      {Plant(m_private + "/root-link.log", m_victim, 0), "is a symbolic link"},
      {Plant(m_private + "/theirs.jsonl", ""), "is owned by uid 65534"},
      {Plant(m_private + "/open.jsonl", "", 0, 0666), "may be written by group or others (mode 0666)"},
      {(fs::create_hard_link(m_victim, m_private + "/hard.log"), m_private + "/hard.log"),
       "has other hard links"},
      {(::mkfifo((m_private + "/fifo.log").c_str(), 0600), m_private + "/fifo.log"), "fifo.log"},
      {MakeDir(m_shared + "/theirs", 0755, kNobody) + "/events.jsonl", "is owned by uid 65534"},
      {Plant(m_shared + "/logs", m_private) + "/events.jsonl", "is a symbolic link owned by uid 65534"},
      {MakeDir(m_dir.Path() + "/open", 0777) + "/events.jsonl", "is writable by others and not sticky"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(oasd::OpenAppendFile(c.path, error).Valid()) << c.path;
    EXPECT_NE(error.find(c.message), std::string::npos) << c.path << ": " << error;
    EXPECT_NE(oasd::CheckOutputFile(c.path).find(c.message), std::string::npos) << c.path;
    EXPECT_NE(oasd::ReplaceFile(c.path, "page\n", 0644).find(c.message), std::string::npos) << c.path;
  }
  EXPECT_EQ(Content(m_victim), "root's own data\n");
  EXPECT_FALSE(fs::exists(through));
  EXPECT_FALSE(fs::exists(m_private + "/events.jsonl"));
}

// A fresh file is root's alone, in a directory made for it; a page goes through a temporary
// whose name cannot be guessed, so links left at likely names catch nothing.
TEST_F(OutputFile, FreshFilesAreRootsAloneAndTemporariesUnguessable) {
  std::string error;
  const oasd::UniqueFd fd = oasd::OpenAppendFile(m_private + "/logs/events.jsonl", error);
  ASSERT_TRUE(fd.Valid()) << error;
  for (const char* guess : {"/metrics.prom.tmp", "/.metrics.prom.tmp", "/.metrics.prom.XXXXXX"})
    Plant(m_shared + guess, m_victim);
  ASSERT_EQ(oasd::ReplaceFile(m_shared + "/metrics.prom", "page\n", 0644), "");
  const auto mode = [](const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
  };
  EXPECT_EQ(mode(m_private + "/logs"), 0750u);
  EXPECT_EQ(mode(m_private + "/logs/events.jsonl"), 0640u);
  EXPECT_EQ(mode(m_shared + "/metrics.prom"), 0644u);
  EXPECT_EQ(Content(m_victim), "root's own data\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(m_shared), fs::directory_iterator()), 4);  // no temporary left
}

}  // namespace
