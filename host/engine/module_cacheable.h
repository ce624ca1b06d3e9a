// Whether an engine lets the module remember a clean file. The module's clean-file cache
// keeps each file's path (up to 100,000 files) and trusts an unchanged ctime, so a file is
// answered clean but not cacheable when its path is long or its last change is still within
// the current timestamp tick; its next opens go to the engine. Stateless.
#pragma once

#include <cstddef>

#include "interfaces/vrel/event.h"

namespace oasd {

// Paths up to this many UTF-16 units (most real ones) stay in the module's cache.
constexpr size_t kMaxModuleCachedPath = 512;

// Adds the cacheable target verdict to a clean answer when the path is short enough and the
// file's ctime is settled (checked_cache.h): a write in the same tick would not move it.
void AllowModuleCache(vrel::IEvent085* event) noexcept;

}  // namespace oasd
