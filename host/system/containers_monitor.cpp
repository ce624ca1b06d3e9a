// Container runtimes name a container's cgroup after its 64-digit identifier, behind a
// runtime-specific prefix. The monitor finds one process in the namespace by walking
// /proc (the walk runs outside the cache lock) and reads that process's cgroup file.
#include "host/system/containers_monitor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <memory>

#include "host/system/process_manager.h"
#include "nox_tracing/tracing.h"

namespace oasd {
namespace {

using nox::containers::ContainerDescription;

constexpr size_t kIdLength = 64;
constexpr size_t kShortIdLength = 12;

// docker (systemd and cgroupfs drivers), containerd's CRI plugin, CRI-O, podman.
constexpr std::array<std::string_view, 5> kMarkers = {"docker-", "/docker/", "cri-containerd-",
                                                      "crio-", "libpod-"};

bool IsHexId(std::string_view text) {
  if (text.size() < kIdLength) return false;
  for (size_t i = 0; i < kIdLength; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  return text.size() == kIdLength || !std::isxdigit(static_cast<unsigned char>(text[kIdLength]));
}

std::optional<std::string> IdAfterMarker(std::string_view text, std::string_view marker) {
  for (size_t at = text.find(marker); at != std::string_view::npos; at = text.find(marker, at + 1)) {
    const std::string_view rest = text.substr(at + marker.size());
    if (IsHexId(rest)) return std::string(rest.substr(0, kIdLength));
  }
  return std::nullopt;
}

bool IsPid(const char* name) {
  if (!*name) return false;
  for (; *name; ++name)
    if (!std::isdigit(static_cast<unsigned char>(*name))) return false;
  return true;
}

uint64_t NamespaceOf(const std::string& procRoot, const char* pid) {
  struct stat st {};
  const std::string path = procRoot + "/" + pid + "/ns/mnt";
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};

// The cgroup text of the first process found in the namespace; empty when none is.
std::string CgroupOfNamespace(const std::string& procRoot, uint64_t mountNamespace) {
  std::unique_ptr<DIR, DirCloser> dir(::opendir(procRoot.c_str()));
  if (!dir) return {};
  while (const dirent* entry = ::readdir(dir.get())) {
    if (!IsPid(entry->d_name) || NamespaceOf(procRoot, entry->d_name) != mountNamespace) continue;
    std::string text;
    const std::string path = procRoot + "/" + entry->d_name + "/cgroup";
    if (ReadFileAt(AT_FDCWD, path.c_str(), text) && !text.empty()) return text;
  }
  return {};
}

}  // namespace

std::optional<ContainerDescription> ContainerFromCgroup(std::string_view text) {
  for (std::string_view marker : kMarkers) {
    if (auto id = IdAfterMarker(text, marker)) {
      ContainerDescription description;
      description.name = id->substr(0, kShortIdLength);
      description.id = std::move(*id);
      return description;
    }
  }
  return std::nullopt;
}

ContainersMonitor::ContainersMonitor(qeb::objptr_t<qeb::ITracer> tracer, std::string procRoot)
    : m_tracer(std::move(tracer)), m_procRoot(std::move(procRoot)), m_ownNamespace(OwnMountNamespace()) {}

ContainersMonitor::Answer ContainersMonitor::Lookup(uint64_t mountNamespace) const {
  const std::string cgroup = CgroupOfNamespace(m_procRoot, mountNamespace);
  Answer answer{!cgroup.empty(), ContainerFromCgroup(cgroup)};
  QEB_TRACE(m_tracer, qeb::trace::LevelDetail)
      << "Mount namespace " << mountNamespace << ": "
      << (answer.container ? "container " + answer.container->id
                           : std::string(answer.conclusive ? "host" : "no process found"));
  return answer;
}

qeb::result_t ContainersMonitor::DescribeNamespace(uint64_t mountNamespace,
                                                   ContainerDescription& description) noexcept {
  if (mountNamespace == m_ownNamespace) return qeb::res::NotFound;
  try {
    std::optional<std::optional<ContainerDescription>> cached;
    {
      std::lock_guard lock(m_mutex);
      cached = m_cache.Get(mountNamespace);
    }
    if (!cached) {
      Answer answer = Lookup(mountNamespace);
      cached = answer.container;
      // With no process left to ask, a later event may still find one.
      std::lock_guard lock(m_mutex);
      if (answer.conclusive) m_cache.Put(mountNamespace, std::move(answer.container));
    }
    if (!*cached) return qeb::res::NotFound;
    description.id = (*cached)->id;
    description.name = (*cached)->name;
    description.isImage = false;
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

}  // namespace oasd
