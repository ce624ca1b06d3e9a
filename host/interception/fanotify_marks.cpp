// Mount points are compared as the mount table spells them (unescaped), area paths after
// NormalizeAreaPath; both are absolute paths in oasd's own mount namespace.
#include "host/interception/fanotify_marks.h"

#include <fnmatch.h>

#include <algorithm>
#include <map>

#include "host/system/mount_table.h"
#include "settings/never_monitored_filesystems.h"

namespace oasd {
namespace {

// The top-most record at each mount point, in the order the points first appear.
std::vector<const nox::MountRecord*> TopMounts(const nox::MountList& mounts) {
  std::vector<const nox::MountRecord*> top;
  std::map<std::string_view, size_t> index;
  for (const auto& mount : mounts) {
    const auto [it, inserted] = index.try_emplace(mount.mountPoint, top.size());
    if (inserted) top.push_back(&mount);
    else top[it->second] = &mount;
  }
  return top;
}

// The mount the area's own path lies on: the longest mount point above it.
const nox::MountRecord* HoldingMount(const std::vector<const nox::MountRecord*>& top,
                                     std::string_view area) {
  const nox::MountRecord* holding = nullptr;
  for (const auto* mount : top)
    if (PathIsUnder(area, mount->mountPoint) &&
        (!holding || mount->mountPoint.size() > holding->mountPoint.size()))
      holding = mount;
  return holding;
}

void AddMark(std::vector<Mark>& marks, const nox::MountRecord& mount) {
  if (!nox::settings::IsMonitoredMount(mount)) return;
  const bool known = std::any_of(marks.begin(), marks.end(),
                                 [&](const Mark& m) { return m.mountPoint == mount.mountPoint; });
  if (!known) marks.push_back(Mark{mount.mountPoint, mount.dev});
}

}  // namespace

std::string NormalizeAreaPath(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path.empty() ? std::string("/") : std::string(path);
}

bool PathIsUnder(std::string_view path, std::string_view area) noexcept {
  if (area == "/") return path.starts_with('/');
  return path.starts_with(area) && (path.size() == area.size() || path[area.size()] == '/');
}

std::vector<Mark> ChooseMountMarks(const std::vector<nox::ScanArea>& areas,
                                   const nox::MountList& mounts) {
  const std::vector<const nox::MountRecord*> top = TopMounts(mounts);
  std::vector<Mark> marks;
  for (const auto& area : areas) {
    const std::string path = NormalizeAreaPath(area.path);
    if (const auto* holding = HoldingMount(top, path)) AddMark(marks, *holding);
    for (const auto* mount : top)
      if (PathIsUnder(mount->mountPoint, path)) AddMark(marks, *mount);
  }
  return marks;
}

std::vector<Mark> ChooseFilesystemMarks(const std::vector<Mark>& mountMarks) {
  std::vector<Mark> marks;
  for (const auto& mark : mountMarks)
    if (std::none_of(marks.begin(), marks.end(), [&](const Mark& m) { return m.dev == mark.dev; }))
      marks.push_back(mark);
  return marks;
}

bool MayWaitOnServer(std::string_view fsType) {
  return fsType == "fuse" || fsType == "fuseblk" || fsType.starts_with("fuse.") ||
         IsNetworkFilesystemType(fsType);
}

std::vector<size_t> ChooseLanes(const std::vector<Mark>& filesystemMarks,
                                const nox::MountList& mounts, size_t serverLanes) {
  const std::vector<const nox::MountRecord*> top = TopMounts(mounts);
  std::vector<size_t> lanes;
  size_t servers = 0;
  for (const auto& mark : filesystemMarks) {
    const auto mount = std::find_if(top.begin(), top.end(), [&](const nox::MountRecord* m) {
      return m->mountPoint == mark.mountPoint;
    });
    const bool server = mount != top.end() && MayWaitOnServer((*mount)->fsType);
    lanes.push_back(server && serverLanes > 0 ? 1 + std::min(servers++, serverLanes - 1) : 0);
  }
  return lanes;
}

PathFilter::PathFilter(const nox::FileEventsSubscription& subscription) {
  for (const auto& area : subscription.scanAreas) m_areas.push_back(MakeArea(area));
  for (const auto& area : subscription.excludedAreas) m_excluded.push_back(MakeArea(area));
}

PathFilter::Area PathFilter::MakeArea(const nox::ScanArea& area) {
  Area made{NormalizeAreaPath(area.path), area.masks, true};
  made.anyName = made.masks.empty() ||
                 std::find(made.masks.begin(), made.masks.end(), "*") != made.masks.end();
  return made;
}

bool PathFilter::Holds(const Area& area, std::string_view path, const char* name) {
  if (!PathIsUnder(path, area.path)) return false;
  if (area.anyName) return true;
  return std::any_of(area.masks.begin(), area.masks.end(), [&](const std::string& mask) {
    return ::fnmatch(mask.c_str(), name, 0) == 0;
  });
}

// The name is read in place: this runs for every event on a marked mount.
bool PathFilter::Covers(const std::string& path) const {
  const size_t slash = path.rfind('/');
  const char* name = path.c_str() + (slash == std::string::npos ? 0 : slash + 1);
  for (const auto& area : m_excluded)
    if (Holds(area, path, name)) return false;
  return std::any_of(m_areas.begin(), m_areas.end(),
                     [&](const Area& area) { return Holds(area, path, name); });
}

}  // namespace oasd
