// The mount table as the module sees it: the kernel's escaped mountinfo text parsed into
// records, changes diffed into added/removed lists, and the watcher delivering them (and
// share changes) to subscribers that may unsubscribe from inside their own callback.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>

#include "host/system/mount_table.h"
#include "testing/capturing_tracer.h"
#include "testing/host_object.h"

namespace {

using nox::MountList;
using nox::MountRecord;
using qeb::objptr_t;

constexpr const char* kBase =
    "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
    "23 22 0:21 / /proc rw,nosuid shared:5 - proc proc rw\n"
    "24 22 8:2 / /mnt/my\\040data\\134x rw master:3 shared:7 - xfs /dev/sda2 rw\n"
    "this line is not a mount\n"
    "25 22 0:40 / /srv\\011tab rw - tmpfs tmpfs rw\n";

TEST(MountInfoParse, EscapesDevicesTypesAndSkips) {
  const MountList mounts = oasd::ParseMountInfo(kBase);
  ASSERT_EQ(mounts.size(), 4u);
  EXPECT_EQ(mounts[0].mountPoint, "/");
  EXPECT_EQ(mounts[0].dev, makedev(8, 1));
  EXPECT_FALSE(mounts[0].skip);
  EXPECT_EQ(mounts[1].fsType, "proc");
  EXPECT_TRUE(mounts[1].skip);
  // Two optional fields before the separator, a space and a backslash escaped in the path.
  EXPECT_EQ(mounts[2].mountPoint, "/mnt/my data\\x");
  EXPECT_EQ(mounts[2].fsType, "xfs");
  EXPECT_EQ(mounts[2].dev, makedev(8, 2));
  // No optional field at all.
  EXPECT_EQ(mounts[3].mountPoint, "/srv\ttab");
  EXPECT_EQ(mounts[3].dev, makedev(0, 40));

  EXPECT_EQ(oasd::UnescapeMountField("a\\04"), "a\\04");  // truncated escape stays literal
  EXPECT_EQ(oasd::UnescapeMountField("a\\09x"), "a\\09x");  // 9 is not octal
}

TEST(MountInfoDiff, StackedMountsRemountsAndShares) {
  const MountRecord root{makedev(8, 1), "/", "ext4", false};
  const MountRecord tmpA{makedev(0, 40), "/tmp", "tmpfs", false};
  const MountRecord tmpB{makedev(0, 41), "/tmp", "tmpfs", false};
  const MountRecord share{makedev(0, 50), "/net", "nfs4", false};

  // A second tmpfs stacked on /tmp is one addition, not zero.
  auto diff = oasd::DiffMounts({root, tmpA}, {root, tmpA, tmpA});
  ASSERT_EQ(diff.added.size(), 1u);
  EXPECT_TRUE(diff.removed.empty());

  // Same mount point on a new device: the old record goes, the new one comes.
  diff = oasd::DiffMounts({root, tmpA}, {root, tmpB});
  ASSERT_EQ(diff.added.size(), 1u);
  ASSERT_EQ(diff.removed.size(), 1u);
  EXPECT_EQ(diff.added[0].dev, tmpB.dev);
  EXPECT_EQ(diff.removed[0].dev, tmpA.dev);
  EXPECT_FALSE(diff.TouchesShares());

  EXPECT_TRUE(oasd::DiffMounts({root}, {root}).Empty());
  EXPECT_TRUE(oasd::DiffMounts({root}, {root, share}).TouchesShares());
  EXPECT_TRUE(oasd::DiffMounts({root, share}, {root}).TouchesShares());
  EXPECT_TRUE(oasd::IsNetworkFilesystemType("fuse.sshfs"));
  EXPECT_FALSE(oasd::IsNetworkFilesystemType("fuse"));
}

// Records every notification; optionally unsubscribes itself from inside the first one.
class Subscriber : public qeb::object::Ifaces<nox::IMountEvents, nox::ISharesParserEvents> {
 public:
  qeb::result_t OnMountListChanged(const MountList& added, const MountList& removed,
                                   const MountList& current) noexcept override {
    {
      std::lock_guard lock(m_mutex);
      ++m_changes;
      m_added = added;
      m_removed = removed;
      m_current = current;
    }
    if (m_watcher) m_watcher->Unsubscribe(static_cast<nox::IMountEvents*>(this));
    return qeb::res::Ok;
  }
  qeb::result_t OnNamespaceMountListChanged(ino_t, const MountList&, const MountList&,
                                            const MountList&) noexcept override {
    return qeb::res::Ok;
  }
  qeb::result_t OnSharesChanged() noexcept override {
    ++m_shareChanges;
    return qeb::res::Ok;
  }

  void UnsubscribeInCallback(oasd::MountWatcher* watcher) { m_watcher = watcher; }
  int Changes() {
    std::lock_guard lock(m_mutex);
    return m_changes;
  }
  MountList Added() {
    std::lock_guard lock(m_mutex);
    return m_added;
  }
  MountList Removed() {
    std::lock_guard lock(m_mutex);
    return m_removed;
  }
  size_t CurrentSize() {
    std::lock_guard lock(m_mutex);
    return m_current.size();
  }
  std::atomic<int> m_shareChanges{0};

 private:
  std::mutex m_mutex;
  int m_changes = 0;
  MountList m_added, m_removed, m_current;
  oasd::MountWatcher* m_watcher = nullptr;
};

class MountWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/oasd-mountinfo-XXXXXX";
    const int fd = ::mkstemp(name);
    ASSERT_GE(fd, 0);
    ::close(fd);
    m_path = name;
    Write(kBase);
  }
  void TearDown() override { std::remove(m_path.c_str()); }

  // Rewritten in place (not renamed), as the watcher keeps its descriptor open.
  void Write(const std::string& text) { std::ofstream(m_path, std::ios::trunc) << text; }

  objptr_t<oasd::MountWatcher> MakeWatcher(std::chrono::milliseconds period = std::chrono::hours(1)) {
    auto tracer = qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
    return qeb::testing::MakeHostObject<oasd::MountWatcher>(objptr_t<qeb::ITracer>(tracer.Get()),
                                                            m_path, period);
  }

  std::string m_path;
};

TEST_F(MountWatcherTest, RefreshNotifiesDifferencesAndShareChanges) {
  auto watcher = MakeWatcher();
  ASSERT_EQ(watcher->SetUp(), qeb::res::Ok);
  MountList list;
  ASSERT_EQ(watcher->GetMountList(list), qeb::res::Ok);
  EXPECT_EQ(list.size(), 4u);

  auto plain = qeb::testing::MakeHostObject<Subscriber>();
  auto leaving = qeb::testing::MakeHostObject<Subscriber>();
  leaving->UnsubscribeInCallback(watcher.Get());
  ASSERT_EQ(watcher->Subscribe(static_cast<nox::IMountEvents*>(plain.Get())), qeb::res::Ok);
  ASSERT_EQ(watcher->Subscribe(static_cast<nox::ISharesParserEvents*>(plain.Get())), qeb::res::Ok);
  ASSERT_EQ(watcher->Subscribe(static_cast<nox::IMountEvents*>(leaving.Get())), qeb::res::Ok);

  // Nothing changed: nobody hears anything.
  ASSERT_EQ(watcher->Refresh(), qeb::res::Ok);
  EXPECT_EQ(plain->Changes(), 0);

  // A local mount comes and /proc goes: a mount change, no share change.
  Write("22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "30 22 0:60 / /data rw - ext4 /dev/sdb rw\n");
  ASSERT_EQ(watcher->Refresh(), qeb::res::Ok);
  ASSERT_EQ(plain->Changes(), 1);
  EXPECT_EQ(plain->Added().size(), 1u);
  EXPECT_EQ(plain->Added()[0].mountPoint, "/data");
  EXPECT_EQ(plain->Removed().size(), 3u);
  EXPECT_EQ(plain->CurrentSize(), 2u);
  EXPECT_EQ(plain->m_shareChanges, 0);
  EXPECT_EQ(leaving->Changes(), 1);  // and it unsubscribed itself from inside the callback

  // A share appears: both notifications, and the departed subscriber hears nothing.
  Write("22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "30 22 0:60 / /data rw - ext4 /dev/sdb rw\n"
        "31 22 0:61 / /net rw - nfs4 server:/x rw\n");
  ASSERT_EQ(watcher->Refresh(), qeb::res::Ok);
  EXPECT_EQ(plain->Changes(), 2);
  EXPECT_EQ(plain->m_shareChanges, 1);
  EXPECT_EQ(leaving->Changes(), 1);
  EXPECT_EQ(watcher->Unsubscribe(static_cast<nox::IMountEvents*>(leaving.Get())), qeb::res::NotFound);
  watcher->TearDown();
}

TEST_F(MountWatcherTest, PollThreadPicksUpChangesAndStops) {
  auto watcher = MakeWatcher(std::chrono::milliseconds(10));
  ASSERT_EQ(watcher->SetUp(), qeb::res::Ok);
  auto subscriber = qeb::testing::MakeHostObject<Subscriber>();
  ASSERT_EQ(watcher->Subscribe(static_cast<nox::IMountEvents*>(subscriber.Get())), qeb::res::Ok);
  watcher->Start();
  Write("22 1 8:1 / / rw - ext4 /dev/sda1 rw\n");
  for (int i = 0; i < 1000 && subscriber->Changes() == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_GE(subscriber->Changes(), 1);
  watcher->TearDown();
  watcher->TearDown();  // idempotent
}

// The kernel's change notice alone (the fallback period is an hour) must wake the watcher.
// Runs in a child with a private mount namespace, so the tmpfs is seen by nobody else.
int WatchRealMountInChild() {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return 2;
  char dir[] = "/tmp/oasd-mnt-XXXXXX";
  if (!::mkdtemp(dir)) return 3;
  int code = 4;
  {
    auto watcher = qeb::testing::MakeHostObject<oasd::MountWatcher>(nullptr, "/proc/self/mountinfo",
                                                                  std::chrono::hours(1));
    auto subscriber = qeb::testing::MakeHostObject<Subscriber>();
    if (watcher->SetUp() != qeb::res::Ok) return 5;
    watcher->Subscribe(static_cast<nox::IMountEvents*>(subscriber.Get()));
    watcher->Start();
    if (::mount("oasd-test", dir, "tmpfs", 0, nullptr) != 0) return 6;
    for (int i = 0; i < 1000 && subscriber->Changes() == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const MountList added = subscriber->Added();
    if (added.size() == 1 && added[0].mountPoint == dir && added[0].fsType == "tmpfs") code = 0;
    watcher->TearDown();
  }
  ::umount(dir);
  ::rmdir(dir);
  return code;
}

TEST(MountWatcherReal, KernelChangeNoticeWakesThePollThread) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs in a private namespace needs root";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(WatchRealMountInChild());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2 unshare, 3 mkdtemp, 4 no notice, 5 set-up, 6 mount";
}

TEST(MountWatcherReal, ReadsOwnMountTable) {
  auto watcher = qeb::testing::MakeHostObject<oasd::MountWatcher>(nullptr);
  ASSERT_EQ(watcher->SetUp(), qeb::res::Ok);
  MountList list;
  ASSERT_EQ(watcher->GetMountList(list), qeb::res::Ok);
  EXPECT_TRUE(std::any_of(list.begin(), list.end(), [](const MountRecord& m) { return m.mountPoint == "/"; }));
}

}  // namespace
