// Which mounts oasd marks for a subscription and which event paths reach the module: a
// mount missed is a hole in protection, a pseudo filesystem marked is a flood of events.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/interception/fanotify_marks.h"

namespace {

using oasd::ChooseFilesystemMarks;
using oasd::ChooseMountMarks;
using oasd::Mark;

nox::MountRecord Mount(std::string point, std::string type, uint64_t dev) {
  return nox::MountRecord{dev, std::move(point), std::move(type), false};
}

std::vector<std::string> Points(const std::vector<Mark>& marks) {
  std::vector<std::string> points;
  for (const auto& m : marks) points.push_back(m.mountPoint);
  return points;
}

std::vector<nox::ScanArea> Areas(std::vector<std::string> paths) {
  std::vector<nox::ScanArea> areas;
  for (auto& p : paths) areas.push_back({std::move(p), {"*"}});
  return areas;
}

const nox::MountList kMounts = {
    Mount("/", "ext4", 1),          Mount("/proc", "proc", 2),
    Mount("/data", "ext4", 3),      Mount("/data/usb", "vfat", 4),
    Mount("/data/usb/sys", "sysfs", 5), Mount("/database", "xfs", 6),
    Mount("/tmp", "tmpfs", 7),      Mount("/data/bind", "ext4", 3),
};

TEST(FanotifyMarks, AreaMarksItsOwnMountAndMonitoredMountsBeneathOnly) {
  EXPECT_EQ(Points(ChooseMountMarks(Areas({"/data"}), kMounts)),
            (std::vector<std::string>{"/data", "/data/usb", "/data/bind"}));
  // An area inside a mount needs that mount marked; the path filter does the rest.
  EXPECT_EQ(Points(ChooseMountMarks(Areas({"/tmp/work/", "/tmp"}), kMounts)),
            (std::vector<std::string>{"/tmp"}));
  EXPECT_EQ(Points(ChooseMountMarks(Areas({"/"}), kMounts)),
            (std::vector<std::string>{"/", "/data", "/data/usb", "/database", "/tmp", "/data/bind"}));
  EXPECT_TRUE(ChooseMountMarks(Areas({"/proc/self"}), kMounts).empty());
  nox::MountList skipped = kMounts;
  skipped[6].skip = true;  // the mount provider said so
  EXPECT_TRUE(ChooseMountMarks(Areas({"/tmp"}), skipped).empty());
}

TEST(FanotifyMarks, TheMountOnTopDecidesAndEachFilesystemIsMarkedOnce) {
  nox::MountList stacked = kMounts;
  stacked.push_back(Mount("/data", "tmpfs", 9));
  const auto marks = ChooseMountMarks(Areas({"/data"}), stacked);
  ASSERT_FALSE(marks.empty());
  EXPECT_EQ(marks[0], (Mark{"/data", 9}));
  stacked.push_back(Mount("/tmp", "proc", 10));
  EXPECT_TRUE(ChooseMountMarks(Areas({"/tmp"}), stacked).empty());

  // /data and its bind mount are one filesystem: one filesystem-wide mark.
  EXPECT_EQ(Points(ChooseFilesystemMarks(ChooseMountMarks(Areas({"/data"}), kMounts))),
            (std::vector<std::string>{"/data", "/data/usb"}));
}

// A server that stops answering holds its lane: it must never share the local one.
TEST(FanotifyMarks, FilesystemsThatWaitOnServersGetLanesOfTheirOwnBeyondTheLocalOne) {
  const nox::MountList mounts = {Mount("/w", "tmpfs", 1), Mount("/w/a", "fuse.sshfs", 2),
                                 Mount("/w/b", "nfs4", 3), Mount("/w/c", "fuse.x", 4),
                                 Mount("/w/d", "ext4", 5), Mount("/w/e", "fuseblk", 6)};
  const auto marks = ChooseFilesystemMarks(ChooseMountMarks(Areas({"/w"}), mounts));
  EXPECT_EQ(oasd::ChooseLanes(marks, mounts, 3), (std::vector<size_t>{0, 1, 2, 3, 0, 3}));
  EXPECT_EQ(oasd::ChooseLanes(marks, mounts, 0), (std::vector<size_t>{0, 0, 0, 0, 0, 0}));
}

TEST(FanotifyMarks, FilterTakesPathsInAreasOnNameBoundariesMinusExclusions) {
  nox::FileEventsSubscription subscription;
  subscription.scanAreas = {{"/data/", {"*"}}, {"/srv", {"*.txt", "*.sh"}}};
  subscription.excludedAreas = {{"/data/cache", {}}, {"/data/logs", {"*.log"}}};
  const oasd::PathFilter filter(subscription);

  EXPECT_TRUE(filter.Covers("/data/x"));
  EXPECT_TRUE(filter.Covers("/data"));
  EXPECT_FALSE(filter.Covers("/database/x"));
  EXPECT_FALSE(filter.Covers("/data/cache/x"));
  EXPECT_TRUE(filter.Covers("/data/cachefile"));
  EXPECT_FALSE(filter.Covers("/data/logs/today.log"));
  EXPECT_TRUE(filter.Covers("/data/logs/today.bin"));
  EXPECT_TRUE(filter.Covers("/srv/a/notes.txt"));
  EXPECT_FALSE(filter.Covers("/srv/a/image.bin"));
  EXPECT_FALSE(filter.Covers("/elsewhere"));

  nox::FileEventsSubscription everything;
  everything.scanAreas = {{"/", {}}};
  EXPECT_TRUE(oasd::PathFilter(everything).Covers("/any/path"));
  EXPECT_FALSE(oasd::PathFilter().Covers("/any/path"));
}

}  // namespace
