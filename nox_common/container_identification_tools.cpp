// The cached mount-namespace identifier lives here, process-wide, written once it is known;
// several threads may compute it at once and all store the same value. The path parser only
// reads its input and builds the caller's result after every check has passed.
#include "nox_common/container_identification_tools.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "nox_tracing/tracing.h"

namespace nox::containers {
namespace {

using NativePath = std::string_view;

constexpr size_t kScanAreaIdLength = 12;
// The longest remainder the process-root pattern reads, as its %4096s says.
constexpr size_t kMaxProcessRootRemainder = 4096;

std::atomic<uint64_t> g_ownMountNamespace{UNKNOWN_MOUNT_NAMESPACE};

// Byte by byte, not decoded: the identifiers the scanner writes are ASCII.
std::u16string WidenBytes(std::string_view text) {
  std::u16string wide;
  wide.reserve(text.size());
  for (const char c : text) wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
  return wide;
}

// "<id>/<rest>" into its two parts; false (traced) when nothing follows the slash.
bool SplitFirstComponent(qeb::ITracer* tracer, std::string_view path, std::string_view& id,
                         std::string_view& rest) {
  const size_t slash = path.find('/');
  const size_t relPathIt = slash == NativePath::npos ? path.size() : slash + 1;
  QEB_CONDITION_TRACE(tracer, relPathIt < path.size(), "false")
      << "Incorrect length of threat object path: " << path;
  if (relPathIt >= path.size()) return false;
  id = path.substr(0, slash);
  rest = path.substr(relPathIt);
  return true;
}

}  // namespace

namespace detail {

uint64_t ReadMountNamespaceId(const char* nsPath) noexcept {
  struct stat st {};
  if (::stat(nsPath, &st) == 0) return static_cast<uint64_t>(st.st_ino);
  return errno == ENOENT ? 0 : UNKNOWN_MOUNT_NAMESPACE;
}

uint64_t CachedMountNamespaceId(std::atomic<uint64_t>& cache, const char* nsPath) noexcept {
  const uint64_t cached = cache.load(std::memory_order_acquire);
  if (cached < UNKNOWN_MOUNT_NAMESPACE) return cached;
  const uint64_t value = ReadMountNamespaceId(nsPath);
  // A failed read leaves the cache unknown, so that a later call tries again.
  if (value != UNKNOWN_MOUNT_NAMESPACE) {
    // A sequentially consistent read-modify-write is the full fence here: unlike a
    // standalone fence, the thread sanitizer understands it.
    cache.exchange(value, std::memory_order_seq_cst);
  }
  return value;
}

}  // namespace detail

uint64_t GetOwnMountNamespaceId() noexcept {
  return detail::CachedMountNamespaceId(g_ownMountNamespace, "/proc/self/ns/mnt");
}

std::string MakeScanAreaString(const ContainerDescription& description) {
  const std::string_view label = !description.name.empty()
                                     ? std::string_view(description.name)
                                     : std::string_view(description.id).substr(0, kScanAreaIdLength);
  std::string text = "[";
  text += description.isImage ? "image" : "container";
  text += ':';
  text += label;
  text += ']';
  return text;
}

std::string StripProcessRoot(const std::string& path) {
  // The pattern's own semantics are kept on purpose, the cut at white space included.
  char remainder[kMaxProcessRootRemainder + 1] = {};
  int pid = 0;
  if (std::sscanf(path.c_str(), "/proc/%d/root%4096s", &pid, remainder) != 2) return {};
  return remainder;
}

bool ParseContainerScanPath(qeb::ITracer* tracer, std::string_view path,
                            ContainerScanPath& result) {
  QEB_TRACE(tracer, qeb::trace::LevelDetail) << "ParseContainerScanPath";

  const size_t scanFolderIt = path.find(CONTAINER_SCAN_FOLDER);
  QEB_CONDITION_TRACE(tracer, scanFolderIt != NativePath::npos, "false")
      << "Not ContainerScanPath: " << path;
  if (scanFolderIt == NativePath::npos) return false;

  std::string_view sessionId, afterSession;
  if (!SplitFirstComponent(tracer, path.substr(scanFolderIt + CONTAINER_SCAN_FOLDER.size()),
                           sessionId, afterSession)) {
    return false;
  }
  QEB_TRACE(tracer, qeb::trace::LevelDetail)
      << "sessionId: " << sessionId << ", path: " << afterSession;

  std::string_view containerId, innerPath;
  if (!SplitFirstComponent(tracer, afterSession, containerId, innerPath)) return false;
  QEB_TRACE(tracer, qeb::trace::LevelDetail)
      << "containerId: " << containerId << ", path: " << innerPath;

  result.sessionId = WidenBytes(sessionId);
  result.containerId = WidenBytes(containerId);
  result.innerPath = std::string(innerPath);
  return true;
}

}  // namespace nox::containers
