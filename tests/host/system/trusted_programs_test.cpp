// Trusted programs over real processes: a program is trusted by its file, only while that
// file is closed to other users, only within its area, and only while it runs: its pid
// after it exits is a stranger.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "host/system/trusted_programs.h"
#include "testing/fake_files.h"

namespace {

pid_t Start(const std::string& program, const char* arg) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl(program.c_str(), program.c_str(), arg, static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

// The child has run exec once its executable is no longer ours.
void AwaitExec(pid_t pid, const std::string& program) {
  struct stat exe {}, target {};
  ::stat(program.c_str(), &target);
  for (int i = 0; i < 500; ++i) {
    if (::stat(("/proc/" + std::to_string(pid) + "/exe").c_str(), &exe) == 0 &&
        exe.st_ino == target.st_ino && exe.st_dev == target.st_dev)
      return;
    ::usleep(10000);
  }
}

TEST(TrustedProgramsTest, TrustsTheRunningFileWithinItsAreaAndForgetsItsPidOnceItExits) {
  if (::geteuid() != 0) GTEST_SKIP() << "trusted programs must be root's files";
  const qeb::testing::TempDir dir;
  const std::string sleeper = dir.Path() + "/sleeper", copy = dir.Path() + "/copy";
  ASSERT_EQ(std::system(("cp /bin/sleep " + sleeper + " && cp /bin/sleep " + copy).c_str()), 0);
  ::chmod(dir.Path().c_str(), 0755);
  nox::settings::ProgramExclusion entry;
  entry.TrustedProgram.programPath = sleeper;
  entry.TrustedProgram.useTrustedProgram = true;
  entry.path = "/data";
  entry.area_mask = {"*.db"};
  oasd::TrustedPrograms trusted;
  trusted.Apply({entry});

  const pid_t pid = Start(sleeper, "30"), other = Start(copy, "30");
  AwaitExec(pid, sleeper);
  AwaitExec(other, copy);
  EXPECT_TRUE(trusted.Trusted(pid, "/data/a/b.db"));
  EXPECT_FALSE(trusted.Trusted(pid, "/data/a/b.txt"));
  EXPECT_FALSE(trusted.Trusted(pid, "/database/b.db"));
  EXPECT_FALSE(trusted.Trusted(other, "/data/a/b.db"));

  // Writable by others, the file could be anything by the time it runs: nothing is trusted.
  ::chmod(sleeper.c_str(), 0757);
  trusted.Apply({entry});
  EXPECT_FALSE(trusted.Trusted(pid, "/data/a/b.db"));
  ::chmod(sleeper.c_str(), 0755);
  trusted.Apply({entry});
  EXPECT_TRUE(trusted.Trusted(pid, "/data/a/b.db"));

  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  EXPECT_FALSE(trusted.Trusted(pid, "/data/a/b.db"));
  ::kill(other, SIGKILL);
  ::waitpid(other, nullptr, 0);
}

}  // namespace
