// Filesystem types whose mounts are never monitored: kernel pseudo filesystems, desktop
// and remote-session fuse helpers, and cluster filesystems. The set is built once, on
// first use, and is read without locks afterwards; callers only ask questions of it.
#pragma once

#include <string_view>
#include <unordered_set>

#include "interfaces/nox/mounts.h"

namespace nox::settings {

const std::unordered_set<std::string_view>& NeverMonitoredFilesystems();

// Exact, case-sensitive match on the whole type: "fuse" is in the set, "fuse.sshfs" is not.
bool IsNeverMonitoredFilesystem(std::string_view type);

// Monitored unless its type is never monitored or the mount provider marked it to skip.
bool IsMonitoredMount(const nox::MountRecord& mount);

}  // namespace nox::settings
