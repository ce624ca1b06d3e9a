// The never-monitored filesystem set. Names are string literals, so the set holds views
// and owns only its buckets; the function-local static gives thread-safe construction.
#include "settings/never_monitored_filesystems.h"

namespace nox::settings {

const std::unordered_set<std::string_view>& NeverMonitoredFilesystems() {
  static const std::unordered_set<std::string_view> types = {
      "autofs",        "binfmt_misc",       "bpf",         "cgroup",      "cgroup2",
      "configfs",      "debugfs",           "devpts",      "devtmpfs",    "fuse",
      "fuse.gvfsd-fuse", "fuse.portal",     "fuse.smbnetfs", "fuse.xrdp-chansrv", "fusectl",
      "gfs2",          "gvfs",              "hugetlbfs",   "mqueue",      "nfsd",
      "parsecfs",      "pipefs",            "proc",        "pstore",      "rpc_pipefs",
      "securityfs",    "selinuxfs",         "sysfs",       "tracefs",     "usbfs",
      "gpfs",
  };
  return types;
}

bool IsNeverMonitoredFilesystem(std::string_view type) {
  return NeverMonitoredFilesystems().contains(type);
}

bool IsMonitoredMount(const nox::MountRecord& mount) {
  return !mount.skip && !IsNeverMonitoredFilesystem(mount.fsType);
}

}  // namespace nox::settings
