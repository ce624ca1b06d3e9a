// The process manager over a /proc tree the test writes: the record it reads, how long it
// may serve a snapshot, and the table of recent processes it shares with the event record
// (lifetime, and room made when full).
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "host/system/process_manager.h"
#include "testing/fake_files.h"
#include "testing/host_object.h"

namespace {

using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

// A /proc/<pid> directory with the files the manager reads.
class FakeProc {
 public:
  void Write(uint32_t pid, const std::string& command, uint64_t startTicks,
             const std::string& image) {
    const std::string dir = Dir(pid);
    ::mkdir(dir.c_str(), 0755);
    const std::string id = std::to_string(pid);
    m_root.Write(id + "/stat", id + " (" + command + ") S 1 " + id + " " + id +
                                   " 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 1 0 " +
                                   std::to_string(startTicks) + " 1 2 3\n");
    m_root.Write(id + "/status", "Name:\t" + command + "\nUid:\t1000\t1001\t1001\t1001\n"
                                 "Gid:\t2000\t2002\t2002\t2002\n");
    m_root.Write(id + "/cmdline", command + std::string("\0--flag\0", 8));
    ::unlink((dir + "/exe").c_str());
    EXPECT_EQ(::symlink(image.c_str(), (dir + "/exe").c_str()), 0);
  }
  const std::string& Root() const { return m_root.Path(); }

 private:
  std::string Dir(uint32_t pid) const { return m_root.Path() + "/" + std::to_string(pid); }
  qeb::testing::TempDir m_root;
};

qeb::result_t Lookup(oasd::ProcessManager& manager, uint32_t pid, ProcessInfo& info) {
  qeb::objptr_t<IProcessInformation> process;
  const qeb::result_t r = manager.GetInformation(pid, process.Ref());
  if (QEB_FAILED(r)) return r;
  return process->GetInformation(info);
}

TEST(ProcStat, FieldsCountFromTheLastParenthesisOfTheCommandName) {
  const auto stat = oasd::ParseProcStat(
      "77 (a) b (c) S 12 77 77 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 98765 1 2\n");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->parentPid, 12u);
  EXPECT_EQ(stat->startTicks, 98765u);
  EXPECT_FALSE(oasd::ParseProcStat("77 (cut short) S 12 77"));
  EXPECT_FALSE(oasd::ParseProcStat("77 no parenthesis"));
  EXPECT_NE(oasd::ProcessIdentity(98765, 77), oasd::ProcessIdentity(98766, 77));
  EXPECT_NE(oasd::ProcessIdentity(98765, 77), oasd::ProcessIdentity(98765, 78));
}

TEST(ProcessManagerTest, ReadsTheRecordAndServesItWhileRecent) {
  FakeProc proc;
  proc.Write(4242, "worker (two)", 500, "/usr/bin/worker");
  auto manager = qeb::testing::MakeHostObject<oasd::ProcessManager>(nullptr, proc.Root(),
                                                                    std::chrono::hours(1));
  ProcessInfo info;
  ASSERT_EQ(Lookup(*manager, 4242, info), res::Ok);
  EXPECT_EQ(info.m_pid, 4242u);
  EXPECT_EQ(info.m_parentPid, 1u);
  EXPECT_EQ(info.m_uid, 1001u);  // effective ids
  EXPECT_EQ(info.m_gid, 2002u);
  EXPECT_EQ(info.m_uniqueId, oasd::ProcessIdentity(500, 4242));
  EXPECT_EQ(info.m_imagePath, "/usr/bin/worker");
  EXPECT_EQ(info.m_commandLine, "worker (two) --flag");

  // Within its lifetime the snapshot answers, even for a pid that has since been reused.
  proc.Write(4242, "other", 900, "/usr/bin/other");
  ASSERT_EQ(Lookup(*manager, 4242, info), res::Ok);
  EXPECT_EQ(info.m_uniqueId, oasd::ProcessIdentity(500, 4242));

  // A pid that was not there is looked for again next time.
  EXPECT_EQ(Lookup(*manager, 5151, info), res::NotFound);
  proc.Write(5151, "late", 700, "/usr/bin/late");
  ASSERT_EQ(Lookup(*manager, 5151, info), res::Ok);
  EXPECT_EQ(info.m_imagePath, "/usr/bin/late");
}

TEST(ProcessManagerTest, AnExpiredSnapshotIsReadAgain) {
  FakeProc proc;
  proc.Write(4242, "before", 500, "/usr/bin/before");
  auto manager = qeb::testing::MakeHostObject<oasd::ProcessManager>(nullptr, proc.Root(),
                                                                    std::chrono::seconds(0));
  ProcessInfo info;
  ASSERT_EQ(Lookup(*manager, 4242, info), res::Ok);
  proc.Write(4242, "after", 900, "/usr/bin/after");
  ASSERT_EQ(Lookup(*manager, 4242, info), res::Ok);
  EXPECT_EQ(info.m_imagePath, "/usr/bin/after");
  EXPECT_EQ(info.m_uniqueId, oasd::ProcessIdentity(900, 4242));
}

TEST(RecentProcessesTest, EntriesLiveTheirLifetimeAndAFullTableMakesRoom) {
  using Recent = oasd::RecentProcesses<int>;
  using namespace std::chrono_literals;
  const auto t0 = Recent::Clock::time_point{} + 1h;
  Recent recent(1s);
  recent.Put(7, 70, t0);
  ASSERT_NE(recent.Find(7, t0 + 999ms), nullptr);
  EXPECT_EQ(*recent.Find(7, t0 + 999ms), 70);
  EXPECT_EQ(recent.Find(7, t0 + 1s), nullptr);
  EXPECT_EQ(recent.Find(8, t0), nullptr);

  // Full: the expired entries go first, and the live ones stay while there is room.
  for (int pid = 100; pid < 100 + static_cast<int>(Recent::Capacity) - 1; ++pid)
    recent.Put(pid, pid, t0 + 500ms);
  recent.Put(1, 1, t0 + 1200ms);
  EXPECT_NE(recent.Find(100, t0 + 1200ms), nullptr);
  EXPECT_NE(recent.Find(1, t0 + 1200ms), nullptr);

  // Full of live entries (a burst of new processes): it starts afresh.
  recent.Put(2, 2, t0 + 1300ms);
  EXPECT_EQ(recent.Find(100, t0 + 1300ms), nullptr);
  EXPECT_NE(recent.Find(2, t0 + 1300ms), nullptr);
}

}  // namespace
