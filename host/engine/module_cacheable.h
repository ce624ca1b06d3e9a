// Whether an engine lets the module remember a clean file. The module's clean-file cache
// keeps each file's path (up to 100,000 files), so a file with a long path is answered clean
// but not cacheable: its next opens are answered by the engine's checked cache, whose
// entries have a fixed size. Stateless.
#pragma once

#include <cstddef>

#include "interfaces/vrel/event.h"

namespace oasd {

// Paths up to this many UTF-16 units (most real ones) stay in the module's cache.
constexpr size_t kMaxModuleCachedPath = 512;

// Adds the cacheable target verdict to a clean answer when the file's path is short enough.
void AllowModuleCacheIfShortPath(vrel::IEvent085* event) noexcept;

}  // namespace oasd
