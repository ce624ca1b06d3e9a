// Where an event's path lies for oasd when the opener reached the file through another mount
// of the same filesystem: a wrong answer lets a watched file through unscanned.
#include "host/interception/event_scope.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

namespace {

using oasd::FilesystemScope;
using Placement = FilesystemScope::Placement;

// Ids 30 and 31 show the filesystem's root at /w and /srv/w, 32 its subdirectory sub at
// /bound, 33 a directory outside /w's view of it; 40 is another filesystem.
constexpr char kMountInfo[] =
    "30 1 0:50 / /w rw,relatime shared:5 - tmpfs oasd rw\n"
    "31 1 0:50 / /srv/w rw - tmpfs oasd rw\n"
    "32 1 0:50 /sub /bound rw - tmpfs oasd rw\n"
    "malformed line\n"
    "33 1 0:51 /x /with\\040space rw - tmpfs other rw\n"
    "40 1 8:1 / / rw - ext4 /dev/sda1 rw\n";

TEST(EventScope, OwnMountsAreParsedWithTheirRootsAndUnescapedPoints) {
  const auto mounts = oasd::ParseOwnMounts(kMountInfo);
  ASSERT_EQ(mounts.size(), 5u);
  EXPECT_EQ(mounts[2].id, 32u);
  EXPECT_EQ(mounts[2].dev, makedev(0, 50));
  EXPECT_EQ(mounts[2].root, "/sub");
  EXPECT_EQ(mounts[3].mountPoint, "/with space");
}

TEST(EventScope, PathsThroughOtherMountsAreReadAsTheCanonicalMountShowsThem) {
  const uint64_t dev = makedev(0, 50);
  const FilesystemScope scope(oasd::ParseOwnMounts(kMountInfo), {{dev, "/w", false}});
  const auto place = [&](uint64_t mountId, std::string path) {
    const Placement placement = scope.Place(-1, dev, mountId, path);
    return std::make_pair(placement, path);
  };
  EXPECT_EQ(place(30, "/w/a"), std::make_pair(Placement::AsRead, std::string("/w/a")));
  EXPECT_EQ(place(31, "/srv/w/a"), std::make_pair(Placement::Replaced, std::string("/w/a")));
  EXPECT_EQ(place(32, "/bound/x"), std::make_pair(Placement::Replaced, std::string("/w/sub/x")));
  EXPECT_EQ(place(32, "/bound"), std::make_pair(Placement::Replaced, std::string("/w/sub")));
  // Another namespace's mount, and no anchor to find the file by its handle: it is scanned.
  EXPECT_EQ(place(99, "/w/a").first, Placement::Unplaced);
  // A filesystem with no canonical mount (one whose mark outlived its mounts).
  std::string path = "/x";
  EXPECT_EQ(scope.Place(-1, makedev(8, 1), 40, path), Placement::Unplaced);
}

}  // namespace
