// The host's user- and file-information caches, and the user-name lookup they share with
// the process manager. Each cache owns a bounded table under its own mutex (the oldest
// entry goes first when full); callers get copies. Files are keyed by a keyed 64-bit digest
// of their path, never the path itself, so an entry costs the same for any path length.
// File hashes are not computed: hashing would mean reading the whole file on the event
// path, so md5 and sha256 stay empty.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "framework/qeb/host_object.h"
#include "interfaces/nox/info_caches.h"

namespace oasd {

// A table that forgets its oldest entry once it holds Capacity entries.
template <class K, class V>
class BoundedMap {
 public:
  explicit BoundedMap(size_t capacity) : m_capacity(capacity ? capacity : 1) {}

  void Put(const K& key, V value) {
    auto [it, inserted] = m_map.insert_or_assign(key, std::move(value));
    if (!inserted) return;
    m_order.push_back(key);
    if (m_order.size() > m_capacity) {
      m_map.erase(m_order.front());
      m_order.pop_front();
    }
  }
  std::optional<V> Get(const K& key) const {
    auto it = m_map.find(key);
    if (it == m_map.end()) return std::nullopt;
    return it->second;
  }
  size_t Size() const noexcept { return m_map.size(); }

 private:
  const size_t m_capacity;
  std::map<K, V> m_map;
  std::deque<K> m_order;
};

// A file's key: its mount namespace and a digest of its path under a key chosen at random
// per process, so a local user cannot make two paths collide on purpose.
using FileKey = std::pair<uint64_t, uint64_t>;
FileKey FileKeyOf(uint64_t mountNamespace, std::string_view path) noexcept;

// Names of users by uid, from the password database (getpwuid_r); an unknown uid is
// named by its number. Thread-safe; the lookup runs outside the lock.
class UserNames {
 public:
  static constexpr size_t Capacity = 1024;
  std::string NameOf(uint32_t uid);

 private:
  std::mutex m_mutex;
  BoundedMap<uint32_t, std::string> m_names{Capacity};
};

class UserInfoCache : public qeb::object::Ifaces<nox::IUserInfoCache> {
 public:
  static constexpr size_t Capacity = 8192;

  qeb::result_t NoteEventUser(uint64_t mountNamespace, const std::string& fileName,
                              uint32_t uid) noexcept override;
  qeb::result_t GetFileOwner(uint64_t mountNamespace, const std::string& fileName,
                             nox::UserInfo& info) noexcept override;

 private:
  std::mutex m_mutex;
  BoundedMap<FileKey, uint32_t> m_owners{Capacity};
  UserNames m_names;
};

// Sizes come from stat of the path, for files in oasd's own mount namespace only (another
// namespace's path means nothing here); deep-nested descriptors are noted by fstat.
class FileInfoCache : public qeb::object::Ifaces<nox::IFileInfoCache> {
 public:
  static constexpr size_t Capacity = 1024;

  FileInfoCache();

  qeb::result_t NoteDeepNestedFile(uint64_t mountNamespace, int32_t fd) noexcept override;
  qeb::result_t GetFileInfo(uint64_t mountNamespace, const std::string& fileName,
                            nox::FileInfo& info) noexcept override;

 private:
  const uint64_t m_ownNamespace;
  std::mutex m_mutex;
  BoundedMap<FileKey, nox::FileInfo> m_files{Capacity};
};

// The inode of oasd's own mount namespace (0 when it cannot be read).
uint64_t OwnMountNamespace() noexcept;

}  // namespace oasd
