// The clean-file key's hash and printed form. Stateless; the key owns its name copy.
#include <functional>
#include <string_view>

#include "nox_tracing/tracing.h"
#include "oas/files_cache.h"

namespace nox::oas {
namespace {

// Boost-style mixing, widened to 64 bits, so that files sharing a name or an inode
// still spread over the buckets.
size_t Mix(size_t seed, size_t value) noexcept {
  return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 12) + (seed >> 4));
}

}  // namespace

size_t FileIdHash::operator()(const FileId& id) const noexcept {
  size_t seed = std::hash<uint64_t>{}(id.ino);
  seed = Mix(seed, std::hash<uint64_t>{}(id.dev));
  return Mix(seed, std::hash<std::string_view>{}(id.name.view()));
}

qeb::trace::Line& operator<<(qeb::trace::Line& line, const FileId& id) noexcept {
  return line << id.name.view() << " (ino: " << id.ino << ", dev: " << id.dev << ")";
}

}  // namespace nox::oas
