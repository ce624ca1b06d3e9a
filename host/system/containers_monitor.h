// The host's containers monitor: finds a process living in the asked mount namespace and
// reads its cgroup path for the marks container runtimes leave there. Owns a bounded cache
// of answers per namespace (negative ones too); a namespace inode is not reused while a
// process keeps it, and a stale answer only changes a scan-area label.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/system/info_caches.h"
#include "interfaces/nox/containers.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// The container a /proc/<pid>/cgroup text names (docker, containerd, podman), or none
// for a host process. The description's name is the 12-character short identifier.
std::optional<nox::containers::ContainerDescription> ContainerFromCgroup(std::string_view text);

class ContainersMonitor : public qeb::object::Ifaces<nox::containers::IContainersMonitor> {
 public:
  static constexpr size_t Capacity = 256;

  explicit ContainersMonitor(qeb::objptr_t<qeb::ITracer> tracer, std::string procRoot = "/proc");

  // NotFound for oasd's own namespace, for a namespace no process lives in, and for one
  // whose processes belong to no known container runtime.
  qeb::result_t DescribeNamespace(uint64_t mountNamespace,
                                  nox::containers::ContainerDescription& description) noexcept override;

 private:
  struct Answer {
    bool conclusive = false;  // a process of the namespace was found and read
    std::optional<nox::containers::ContainerDescription> container;
  };
  Answer Lookup(uint64_t mountNamespace) const;

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  const std::string m_procRoot;
  const uint64_t m_ownNamespace;
  std::mutex m_mutex;
  BoundedMap<uint64_t, std::optional<nox::containers::ContainerDescription>> m_cache{Capacity};
};

}  // namespace oasd
