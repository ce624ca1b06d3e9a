// A directory is taken only when oasd made it, or it is root's, mode 0700, a real directory
// (not a link) on a tmpfs: whoever could write there could swap the engine's extracted files.
// The /dev/shm one has an unpredictable name, made atomically by mkdtemp.
#include "host/engine/engine_scratch_dir.h"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace oasd {
namespace {

bool OnTmpfs(const std::string& path) {
  struct statfs fs {};
  return ::statfs(path.c_str(), &fs) == 0 &&
         (fs.f_type == TMPFS_MAGIC || fs.f_type == RAMFS_MAGIC);
}

bool PrivateDirectory(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() &&
         (st.st_mode & 077) == 0 && OnTmpfs(path);
}

struct Owned {
  EngineScratchDir dir;
  bool made = false;
  ~Owned() {
    if (made) ::rmdir(dir.path.c_str());
  }
};

Owned Make() {
  Owned owned;
  const std::string runtime = "/run/oasd/tmp";
  if (OnTmpfs("/run/oasd") && (::mkdir(runtime.c_str(), 0700) == 0 || errno == EEXIST) &&
      PrivateDirectory(runtime)) {
    owned.dir = {runtime, "temporary files in " + runtime + " (tmpfs)"};
    return owned;
  }
  std::string shm = "/dev/shm/oasd-engine.XXXXXX";
  std::vector<char> name(shm.begin(), shm.end());
  name.push_back('\0');
  if (OnTmpfs("/dev/shm") && ::mkdtemp(name.data()) && PrivateDirectory(name.data())) {
    owned.made = true;
    owned.dir = {name.data(), std::string("temporary files in ") + name.data() + " (tmpfs)"};
    return owned;
  }
  owned.dir.note = "no private tmpfs directory (neither /run/oasd nor /dev/shm is a tmpfs): "
                   "temporary files go to libclamav's default, on disk each scan is slower";
  return owned;
}

}  // namespace

const EngineScratchDir& ScratchDirForEngine() {
  static const Owned owned = Make();
  return owned.dir;
}

}  // namespace oasd
