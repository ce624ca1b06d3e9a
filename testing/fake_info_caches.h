// The fake host's user- and file-information caches. The user cache remembers the uid
// noted for each (namespace, file) and names it "user<uid>"; the file cache answers what
// a test stored and records deep-nested descriptors. Lookups can be told to fail.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/info_caches.h"
#include "testing/locked.h"

namespace qeb::testing {

struct NotedUser {
  uint64_t mountNamespace;
  std::string fileName;
  uint32_t uid;
};

class FakeUserInfoCache : public object::Ifaces<nox::IUserInfoCache> {
 public:
  result_t NoteEventUser(uint64_t mountNamespace, const std::string& fileName,
                         uint32_t uid) noexcept override;
  result_t GetFileOwner(uint64_t mountNamespace, const std::string& fileName,
                        nox::UserInfo& info) noexcept override;

  void FailLookups(result_t code) { m_failure = code; }
  std::vector<NotedUser> Notes() const { return LockedCopy(m_mutex, m_notes); }

 private:
  mutable std::mutex m_mutex;
  std::vector<NotedUser> m_notes;
  std::map<std::pair<uint64_t, std::string>, uint32_t> m_owners;
  std::atomic<result_t> m_failure{res::Ok};
};

class FakeFileInfoCache : public object::Ifaces<nox::IFileInfoCache> {
 public:
  result_t NoteDeepNestedFile(uint64_t mountNamespace, int32_t fd) noexcept override;
  result_t GetFileInfo(uint64_t mountNamespace, const std::string& fileName,
                       nox::FileInfo& info) noexcept override;

  void Set(uint64_t mountNamespace, const std::string& fileName, nox::FileInfo info);
  void FailLookups(result_t code) { m_failure = code; }
  std::vector<std::pair<uint64_t, int32_t>> DeepNestedNotes() const {
    return LockedCopy(m_mutex, m_deepNested);
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<std::pair<uint64_t, int32_t>> m_deepNested;
  std::map<std::pair<uint64_t, std::string>, nox::FileInfo> m_files;
  std::atomic<result_t> m_failure{res::Ok};
};

}  // namespace qeb::testing
