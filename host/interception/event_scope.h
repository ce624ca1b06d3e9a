// Places an event's file in oasd's own mount namespace, whichever mount the opener reached it
// through: another namespace's mount, a bind mount, a detached mount. It owns, for each marked
// filesystem, its canonical mount (the one its scan-area paths are read against) and a
// directory descriptor there; it is built whole on each mount change and shared read-only
// with the readers. Event descriptors are only borrowed.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/common/unique_fd.h"

namespace oasd {

// A mount of oasd's own namespace, as /proc/self/mountinfo lists it.
struct OwnMount {
  uint64_t id = 0;
  uint64_t dev = 0;
  std::string root;        // the directory of the filesystem shown at mountPoint
  std::string mountPoint;  // unescaped
};
std::vector<OwnMount> ParseOwnMounts(std::string_view mountinfo);

// A marked filesystem: where oasd opens it by handle only when its open never waits on a
// server (a stuck FUSE or network server would hold the thread placing marks).
struct ScopedFilesystem {
  uint64_t dev = 0;
  std::string mountPoint;  // where its marks were chosen: the scan areas' paths read from here
  bool anchored = false;
};

class FilesystemScope {
 public:
  enum class Placement {
    AsRead,    // the path read for the descriptor is already the canonical one
    Replaced,  // the path was rewritten to the canonical one
    Unplaced,  // no canonical path could be found: the caller scans it
  };

  FilesystemScope() = default;
  FilesystemScope(const std::vector<OwnMount>& mounts, const std::vector<ScopedFilesystem>& filesystems);

  // path: what /proc/self/fd reads for fd; dev and mountId: the descriptor's own. A device
  // with no canonical mount (metadata unread, a filesystem left since) is Unplaced too.
  Placement Place(int fd, uint64_t dev, uint64_t mountId, std::string& path) const;

 private:
  struct Canonical {
    OwnMount mount;
    std::shared_ptr<UniqueFd> anchor;  // a directory on anchorMount, a mount of the root
    OwnMount anchorMount;
  };
  bool ByHandle(const Canonical& canonical, int fd, std::string& path) const;

  std::unordered_map<uint64_t, Canonical> m_canonical;  // by device
  std::unordered_map<uint64_t, OwnMount> m_mounts;      // own mounts of marked devices, by id
};

}  // namespace oasd
