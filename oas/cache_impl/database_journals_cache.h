// The clean-file cache for database write-ahead-log segments: at most MaxFiles entries
// in least-recently-used order. It owns its entries (shared with lookups), its lock and
// its references to the host's file factories and application services; an entry keeps
// its own copy of the categorizer, so it can judge a process after the cache is gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "framework/qeb/objptr.h"
#include "interfaces/nox/files.h"
#include "interfaces/nox/process.h"
#include "interfaces/qeb/tracer.h"
#include "oas/cache_impl/lru_file_map.h"
#include "oas/cache_impl/process_categorizer.h"
#include "oas/files_cache.h"

namespace nox::oas {

// A journal found clean: valid for any process of the database server's category.
class CleanFileInfoPostgres final : public CleanFileInfo {
 public:
  explicit CleanFileInfoPostgres(ProcessCategorizer categorizer) : m_categorizer(std::move(categorizer)) {}

  bool CheckProcess(const system_interceptors::process_manager::ProcessInfo& info) override;

 private:
  ProcessCategorizer m_categorizer;
};

class DatabaseJournalsCache final : public IFilesCache {
 public:
  static constexpr size_t MaxFiles = 100'000;
  // A segment's pages are this long; the first three pages' headers are checked.
  static constexpr uint64_t WalPageSize = 0x2000;
  static constexpr uint64_t WalCheckEnd = 0x6000;
  static constexpr uint32_t WalHeaderSize = 16;

  // Throws when a host service it needs is missing: the tracer, the process manager,
  // either file factory or the application services.
  explicit DatabaseJournalsCache(qeb::IServiceLocator* sl);

  qeb::result_t Find(const FileId& id, std::shared_ptr<CleanFileInfo>& out) override;
  qeb::result_t Add(const vrel::EventParams& fileEvent) override;
  qeb::result_t Remove(const FileId& id) override;
  qeb::result_t Clear() override;
  size_t Size() override;

  // 0 when the event's file is a write-ahead-log segment; 1 when it is not; a host
  // failure's code when it cannot be read.
  qeb::result_t IsWalFile(const vrel::EventParams& event) noexcept;
  // 0 when the process belongs to the database server's category.
  qeb::result_t CheckPostgresProcess(const system_interceptors::process_manager::ProcessInfo& info) const noexcept;

  qeb::IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }

 private:
  struct PageHeader {
    uint16_t magic = 0;
    uint16_t incrementalNumber = 0;  // bits 8 to 23 of the page's address
  };

  qeb::result_t AddWalFile(const vrel::EventParams& fileEvent);
  // Refreshes or creates the entry under the lock; false only when inserting it failed.
  bool Record(const vrel::EventParams& fileEvent, const FileId& id);
  void TraceInsertFailure() noexcept;
  qeb::result_t OpenIo(const vrel::EventParams& event, qeb::objptr_t<qeb::IIO>& io);
  qeb::result_t ReadHeader(qeb::IIO* io, uint64_t offset, uint32_t& read, PageHeader& header) noexcept;
  qeb::result_t CheckFirstPage(const PageHeader& header);
  qeb::result_t CheckNextPages(qeb::IIO* io, const PageHeader& first) noexcept;
  // "<operation>() <- <result text> <message>[value]"; answers result.
  qeb::result_t TraceResult(const char* operation, qeb::result_t result, const char* message) noexcept;
  qeb::result_t TraceResult(const char* operation, qeb::result_t result, const char* message,
                            uint32_t value) noexcept;

  qeb::objptr_t<qeb::IServiceLocator> m_serviceLocator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<system_interceptors::process_manager::IProcessManager> m_processManager;
  qeb::objptr_t<IFileFactory> m_filenameFileFactory;
  qeb::objptr_t<IFdFileFactory> m_fdFileFactory;
  ProcessCategorizer m_categorizer;

  std::mutex m_mutex;
  LruFileMap<CleanFileInfoPostgres> m_fileCache{MaxFiles};
};

}  // namespace nox::oas
