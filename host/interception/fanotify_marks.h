// Which mounts a subscription needs marked, and which event paths it covers. Pure functions
// of the scan areas and the mount list: the events provider applies the marks and keeps the
// filter it builds here; nothing in this file touches the kernel or holds state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "interfaces/nox/file_events.h"
#include "interfaces/nox/mounts.h"

namespace oasd {

struct Mark {
  std::string mountPoint;  // reaches the top-most mount there
  uint64_t dev = 0;
  bool operator==(const Mark&) const = default;
};

// An area's path as marks and filters compare it: no trailing slash, "/" for the root.
std::string NormalizeAreaPath(std::string_view path);
// path is area or lies beneath it ("/data" holds "/data/x", never "/database").
bool PathIsUnder(std::string_view path, std::string_view area) noexcept;

// For each area: the mount holding it and every mount beneath it, each mount point once (the
// last mount listed there is the one on top), never a never-monitored filesystem type.
std::vector<Mark> ChooseMountMarks(const std::vector<nox::ScanArea>& areas,
                                   const nox::MountList& mounts);
// The first mark of each device: one filesystem-wide mark covers all of its mounts.
std::vector<Mark> ChooseFilesystemMarks(const std::vector<Mark>& mountMarks);

// A filesystem whose open or metadata calls may wait on a server: FUSE and network types.
bool MayWaitOnServer(std::string_view fsType);
// The lane of each filesystem mark: 0 for every filesystem that never waits on a server,
// then one lane each for those that may, in order, the last of serverLanes shared by the rest.
std::vector<size_t> ChooseLanes(const std::vector<Mark>& filesystemMarks,
                                const nox::MountList& mounts, size_t serverLanes);

// A mount mark sees the whole mount, so paths are filtered here: a path reaches the module
// when it lies in a scan area whose masks match its name and in no excluded area whose masks
// do. Masks are shell patterns on the file's name; none, or "*", match every name.
class PathFilter {
 public:
  PathFilter() = default;
  explicit PathFilter(const nox::FileEventsSubscription& subscription);

  bool Covers(const std::string& path) const;

 private:
  struct Area {
    std::string path;
    std::vector<std::string> masks;
    bool anyName = true;
  };
  static Area MakeArea(const nox::ScanArea& area);
  static bool Holds(const Area& area, std::string_view path, const char* name);

  std::vector<Area> m_areas;
  std::vector<Area> m_excluded;
};

}  // namespace oasd
