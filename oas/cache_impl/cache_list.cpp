// The lookup order of the caches is fixed here and nowhere else.
#include "oas/cache_impl/cache_list.h"

#include "oas/cache_impl/database_journals_cache.h"
#include "oas/cache_impl/text_files_cache.h"

namespace nox::oas {

FilesCacheList BuildCacheList(qeb::IServiceLocator* sl,
                              const nox::settings::OASSettings& settings) {
  FilesCacheList caches;
  if (settings.skipPlainTextFiles) caches.push_back(std::make_unique<TextFilesCache>(sl));
  if (settings.skipDatabaseJournals) caches.push_back(std::make_unique<DatabaseJournalsCache>(sl));
  return caches;
}

}  // namespace nox::oas
