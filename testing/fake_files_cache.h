// A per-kind clean-file cache for tests: it accepts every file it is offered, answers
// lookups with a fresh entry for each recorded file, and shares its log with the test,
// which keeps a handle after the cache itself has been moved into a cache manager.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "oas/files_cache.h"
#include "oas/monotonic_clock.h"

namespace qeb::testing {

struct FilesCacheLog {
  std::mutex mutex;
  std::vector<vrel::EventParams> added;
  // Called on every Add, before the file is recorded.
  std::function<void(const vrel::EventParams&)> onAdd;

  size_t AddedCount() {
    std::lock_guard lock(mutex);
    return added.size();
  }
};

class FakeFilesCache : public nox::oas::IFilesCache {
 public:
  explicit FakeFilesCache(std::shared_ptr<FilesCacheLog> log) : m_log(std::move(log)) {}

  result_t Find(const nox::oas::FileId& id,
                std::shared_ptr<nox::oas::CleanFileInfo>& out) override {
    std::lock_guard lock(m_log->mutex);
    auto it = m_entries.find(Key(id));
    if (it == m_entries.end()) return res::NotFound;
    out = it->second;
    return res::Ok;
  }

  result_t Add(const vrel::EventParams& event) override {
    if (m_log->onAdd) m_log->onAdd(event);
    std::lock_guard lock(m_log->mutex);
    m_log->added.push_back(event);
    auto entry = std::make_shared<Entry>();
    entry->addedTime = nox::oas::RawMonotonicNow();
    entry->changeTime = vrel::ToNanoseconds(event.ctime);
    m_entries[Key(nox::oas::FileId::FromEvent(event))] = std::move(entry);
    return res::Ok;
  }

  result_t Remove(const nox::oas::FileId& id) override {
    std::lock_guard lock(m_log->mutex);
    return m_entries.erase(Key(id)) ? res::Ok : res::NotFound;
  }
  result_t Clear() override {
    std::lock_guard lock(m_log->mutex);
    m_entries.clear();
    return res::Ok;
  }
  size_t Size() override {
    std::lock_guard lock(m_log->mutex);
    return m_entries.size();
  }

 private:
  struct Entry : nox::oas::CleanFileInfo {
    bool CheckProcess(const system_interceptors::process_manager::ProcessInfo&) override {
      return true;
    }
  };
  using EntryKey = std::tuple<uint64_t, uint64_t, std::string>;
  static EntryKey Key(const nox::oas::FileId& id) {
    return {id.ino, id.dev, std::string(id.name.view())};
  }

  std::shared_ptr<FilesCacheLog> m_log;
  std::map<EntryKey, std::shared_ptr<Entry>> m_entries;
};

// A cache list of one fake cache writing to log.
inline std::vector<std::unique_ptr<nox::oas::IFilesCache>> FakeCacheList(
    const std::shared_ptr<FilesCacheLog>& log) {
  std::vector<std::unique_ptr<nox::oas::IFilesCache>> caches;
  caches.push_back(std::make_unique<FakeFilesCache>(log));
  return caches;
}

}  // namespace qeb::testing
