// Builds the ordered list of per-kind clean-file caches that the settings ask for. The
// list and every cache in it pass to the caller, who hands them to a cache manager.
#pragma once

#include <memory>
#include <vector>

#include "interfaces/qeb/object.h"
#include "oas/files_cache.h"
#include "settings/oas_settings.h"

namespace nox::oas {

using FilesCacheList = std::vector<std::unique_ptr<IFilesCache>>;

// Text files first, then database journals; empty when neither kind is enabled.
// Throws only on allocation failure.
FilesCacheList BuildCacheList(qeb::IServiceLocator* sl,
                              const nox::settings::OASSettings& settings);

}  // namespace nox::oas
