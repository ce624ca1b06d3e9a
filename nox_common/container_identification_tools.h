// Telling host events from container events: the process's own mount-namespace identifier
// (the one process-wide cached value here), the scan-area name of a container, process-root
// stripping and recognition of the container scan paths. Everything else is stateless and
// returns fresh values that the caller owns.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "interfaces/nox/containers.h"
#include "interfaces/qeb/tracer.h"

namespace nox::containers {

// Where the product exposes the file systems of the containers and images it scans on demand.
inline constexpr std::string_view CONTAINER_SCAN_FOLDER =
    "/var/opt/halvik/dorn/private/scan-containers/";

// How a container or image is referred to in a scan path.
inline constexpr std::string_view CONTAINER_ID_KIND_NONE = "none";
inline constexpr std::string_view CONTAINER_ID_KIND_IMAGE_NAME = "image-name";
inline constexpr std::string_view CONTAINER_ID_KIND_IMAGE_ID = "image-id";
inline constexpr std::string_view CONTAINER_ID_KIND_CONTAINER_NAME = "container-name";
inline constexpr std::string_view CONTAINER_ID_KIND_CONTAINER_ID = "container-id";

// Returned while the identifier cannot be read; never cached.
inline constexpr uint64_t UNKNOWN_MOUNT_NAMESPACE = ~uint64_t{0};

// The inode number of this process's mount namespace, read once and cached; 0 when the system
// has no mount namespaces, UNKNOWN_MOUNT_NAMESPACE while it cannot be read (retried next call).
uint64_t GetOwnMountNamespaceId() noexcept;

// "[container:web]" or "[image:0123456789ab]": the name, or else the first 12 characters of
// the identifier.
std::string MakeScanAreaString(const ContainerDescription& description);

// "/proc/42/root/etc/passwd" gives "/etc/passwd". The remainder ends at the first white space;
// a path of another form, or nothing after "root", gives an empty string.
std::string StripProcessRoot(const std::string& path);

// The parts of a path under the container scan folder:
// <folder><session id>/<container id>/<inner path>.
struct ContainerScanPath {
  std::u16string sessionId;  // each byte widened on its own
  std::u16string containerId;
  std::string innerPath;  // relative to the container's root: no leading slash
};

// True when the path lies under the container scan folder (anywhere in it) and names a
// session, a container and a non-empty path inside it; only then is result filled.
// Failures are traced, never thrown (except allocation failure).
bool ParseContainerScanPath(qeb::ITracer* tracer, std::string_view path,
                            ContainerScanPath& result);

namespace detail {
// The uncached read: stat's inode number for path, 0 on ENOENT, UNKNOWN_MOUNT_NAMESPACE otherwise.
uint64_t ReadMountNamespaceId(const char* nsPath) noexcept;
// The caching rule over any cache variable and namespace link.
uint64_t CachedMountNamespaceId(std::atomic<uint64_t>& cache, const char* nsPath) noexcept;
}  // namespace detail

}  // namespace nox::containers
