// The clean-file cache for plain-text files: at most MaxFiles entries in least-recently-
// used order, each remembering the processes seen with its file. It owns its entries
// (shared with lookups), its lock and its references to the host's format recognizer
// and file factories; the cache manager that holds it decides when entries are stale.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "framework/qeb/objptr.h"
#include "interfaces/nox/files.h"
#include "interfaces/qeb/tracer.h"
#include "oas/cache_impl/clean_file_info_pid.h"
#include "oas/cache_impl/lru_file_map.h"
#include "oas/files_cache.h"

namespace nox::oas {

class TextFilesCache final : public IFilesCache {
 public:
  static constexpr size_t MaxFiles = 100'000;

  // Missing host services are traced; the cache then works but admits no file.
  explicit TextFilesCache(qeb::IServiceLocator* sl);

  qeb::result_t Find(const FileId& id, std::shared_ptr<CleanFileInfo>& out) override;
  qeb::result_t Add(const vrel::EventParams& event) override;
  qeb::result_t Remove(const FileId& id) override;
  qeb::result_t Clear() override;
  size_t Size() override;

  qeb::IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }
  qeb::ITracer* GetTracer() const noexcept { return m_tracer.Get(); }

 private:
  void InitFormatRecognizer() noexcept;
  bool IsTextFile(const vrel::EventParams& event) noexcept;
  qeb::objptr_t<qeb::IIO> OpenIo(const vrel::EventParams& event);
  qeb::objptr_t<qeb::IIO> OpenByFd(const vrel::EventParams& event) noexcept;
  qeb::objptr_t<qeb::IIO> OpenByName(const std::string& path) noexcept;
  bool Recognize(qeb::IIO* io) noexcept;
  void TraceVerdict(const vrel::EventParams& event, bool isText) noexcept;
  // Refreshes or creates the entry; the process lookup happens before the lock.
  void Record(const vrel::EventParams& event, const FileId& id);

  qeb::objptr_t<qeb::IServiceLocator> m_serviceLocator;
  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<IIoRecognizer> m_ioRecognizer;
  qeb::objptr_t<IFileFactory> m_filenameFileFactory;
  qeb::objptr_t<IFdFileFactory> m_fdFileFactory;

  std::mutex m_mutex;
  LruFileMap<CleanFileInfoPid> m_files{MaxFiles};
};

}  // namespace nox::oas
