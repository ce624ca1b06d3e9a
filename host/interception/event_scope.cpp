// The kernel names a descriptor's file from the opener's mount: from oasd's root when that
// mount is oasd's, from the other namespace's root (or the detached mount's own root) when it
// is not. A path is therefore trusted only through a mount whose id oasd listed itself; any
// other is found again by its file handle through oasd's own mount of the filesystem's root.
#include "host/interception/event_scope.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "host/interception/fanotify_marks.h"
#include "host/system/mount_table.h"

namespace oasd {
namespace {

std::vector<std::string_view> Fields(std::string_view line) {
  std::vector<std::string_view> fields;
  while (!line.empty()) {
    const size_t space = line.find(' ');
    fields.push_back(line.substr(0, space));
    if (space == std::string_view::npos) break;
    line.remove_prefix(space + 1);
  }
  return fields;
}

bool ParseNumber(std::string_view text, uint64_t& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} && end == text.data() + text.size();
}

std::optional<OwnMount> ParseLine(std::string_view line) {
  const auto fields = Fields(line);
  if (fields.size() < 5) return std::nullopt;
  OwnMount mount;
  uint64_t major = 0, minor = 0;
  const size_t colon = fields[2].find(':');
  if (!ParseNumber(fields[0], mount.id) || colon == std::string_view::npos ||
      !ParseNumber(fields[2].substr(0, colon), major) ||
      !ParseNumber(fields[2].substr(colon + 1), minor))
    return std::nullopt;
  mount.dev = ::makedev(static_cast<unsigned>(major), static_cast<unsigned>(minor));
  mount.root = UnescapeMountField(fields[3]);
  mount.mountPoint = UnescapeMountField(fields[4]);
  return mount;
}

// prefix + tail, where both are absolute and "/" adds nothing.
std::string Join(std::string_view prefix, std::string_view tail) {
  std::string joined(prefix == "/" ? std::string_view{} : prefix);
  joined += tail;
  return joined.empty() ? std::string("/") : joined;
}

std::string_view Below(std::string_view path, std::string_view top) {
  return top == "/" ? path : path.substr(top.size());
}

// path, read through `reached`, as it lies under `canonical`; false when it lies outside.
bool Translate(const OwnMount& reached, const OwnMount& canonical, std::string& path) {
  if (!PathIsUnder(path, reached.mountPoint)) return false;
  const std::string inFilesystem = Join(reached.root, Below(path, reached.mountPoint));
  if (!PathIsUnder(inFilesystem, canonical.root)) return false;
  path = Join(canonical.mountPoint, Below(inFilesystem, canonical.root));
  return true;
}

bool ReadLink(int fd, std::string& path) {
  char link[32] = "/proc/self/fd/";
  constexpr size_t prefix = sizeof "/proc/self/fd/" - 1;
  *std::to_chars(link + prefix, link + sizeof link - 1, fd).ptr = '\0';
  char target[PATH_MAX];
  const ssize_t n = ::readlink(link, target, sizeof target);
  if (n <= 0 || static_cast<size_t>(n) == sizeof target) return false;
  path.assign(target, static_cast<size_t>(n));
  return true;
}

}  // namespace

std::vector<OwnMount> ParseOwnMounts(std::string_view mountinfo) {
  std::vector<OwnMount> mounts;
  while (!mountinfo.empty()) {
    const size_t end = std::min(mountinfo.find('\n'), mountinfo.size());
    if (auto mount = ParseLine(mountinfo.substr(0, end))) mounts.push_back(std::move(*mount));
    mountinfo.remove_prefix(std::min(end + 1, mountinfo.size()));
  }
  return mounts;
}

// The canonical mount is the top one at the mount point the marks were chosen from, so the
// scan areas' own paths read as they are written. The anchor may be any mount of the
// filesystem's root: a path found by handle through it is translated like any other.
FilesystemScope::FilesystemScope(const std::vector<OwnMount>& mounts,
                                 const std::vector<ScopedFilesystem>& filesystems) {
  for (const auto& fs : filesystems) {
    const OwnMount* canonical = nullptr;
    const OwnMount* root = nullptr;
    for (const auto& mount : mounts) {
      if (mount.dev != fs.dev) continue;
      m_mounts.emplace(mount.id, mount);
      if (mount.mountPoint == fs.mountPoint) canonical = &mount;
      if (mount.root == "/" && (!root || mount.mountPoint == fs.mountPoint)) root = &mount;
    }
    if (!canonical) continue;
    Canonical& entry = m_canonical[fs.dev];
    entry.mount = *canonical;
    if (!fs.anchored || !root) continue;
    auto anchor = std::make_shared<UniqueFd>(
        ::open(root->mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY));
    struct statx stx {};
    // A mount stacked there since the list was read would name files from its own root.
    if (anchor->Valid() &&
        ::statx(anchor->Get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &stx) == 0 &&
        (stx.stx_mask & STATX_MNT_ID) && stx.stx_mnt_id == root->id) {
      entry.anchor = std::move(anchor);
      entry.anchorMount = *root;
    }
  }
}

FilesystemScope::Placement FilesystemScope::Place(int fd, uint64_t dev, uint64_t mountId,
                                                  std::string& path) const {
  const auto canonical = m_canonical.find(dev);
  if (canonical == m_canonical.end()) return Placement::Unplaced;
  const Canonical& c = canonical->second;
  if (mountId == c.mount.id) return Placement::AsRead;
  if (const auto reached = m_mounts.find(mountId); reached != m_mounts.end()) {
    std::string translated = path;
    if (Translate(reached->second, c.mount, translated)) {
      path = std::move(translated);
      return Placement::Replaced;
    }
  }
  return ByHandle(c, fd, path) ? Placement::Replaced : Placement::Unplaced;
}

bool FilesystemScope::ByHandle(const Canonical& canonical, int fd, std::string& path) const {
  if (!canonical.anchor) return false;
  union {
    file_handle header;
    char bytes[sizeof(file_handle) + MAX_HANDLE_SZ];
  } handle{};
  handle.header.handle_bytes = MAX_HANDLE_SZ;
  int mountId = 0;
  if (::name_to_handle_at(fd, "", &handle.header, &mountId, AT_EMPTY_PATH) != 0) return false;
  const UniqueFd found(::open_by_handle_at(canonical.anchor->Get(), &handle.header, O_PATH | O_CLOEXEC));
  std::string ours;
  if (!found.Valid() || !ReadLink(found.Get(), ours) || !Translate(canonical.anchorMount, canonical.mount, ours))
    return false;
  path = std::move(ours);
  return true;
}

}  // namespace oasd
