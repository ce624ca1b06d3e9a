// One entry per file identity: a newer state of the same file replaces the older one, so
// the table never fills with dead versions of a file that keeps changing. The lock covers
// only the list and the index; nothing here calls out.
#include "host/engine/checked_cache.h"

#include <sys/stat.h>

#include <functional>

namespace oasd {

std::optional<CheckedKey> CheckedKeyOfFd(int fd, const WrittenFiles& writes) {
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  const auto dev = static_cast<uint64_t>(st.st_dev), ino = static_cast<uint64_t>(st.st_ino);
  return CheckedKey{dev,
                    ino,
                    static_cast<int64_t>(st.st_ctim.tv_sec),
                    static_cast<int64_t>(st.st_ctim.tv_nsec),
                    static_cast<uint64_t>(st.st_size),
                    writes.GenerationOf(dev, ino)};
}

bool ChangeSettled(const CheckedKey& key, const timespec& keyReadAt) noexcept {
  constexpr int64_t kNs = 1'000'000'000;
  const int64_t changed = key.ctimeSec * kNs + key.ctimeNsec;
  const int64_t read = static_cast<int64_t>(keyReadAt.tv_sec) * kNs + keyReadAt.tv_nsec;
  const auto tick = key.ctimeNsec == 0 ? kCoarseChangeSettleTime : kChangeSettleTime;
  return read - changed >= std::chrono::nanoseconds(tick).count();
}

size_t CheckedCache::IdentityHash::operator()(const FileIdentity& id) const noexcept {
  return std::hash<uint64_t>{}(id.ino) ^ (std::hash<uint64_t>{}(id.dev) << 1);
}

CheckedCache::CheckedCache(size_t capacity) : m_capacity(capacity) {}

bool CheckedCache::Contains(const CheckedKey& key) {
  std::lock_guard lock(m_mutex);
  const auto found = m_index.find(FileIdentity{key.dev, key.ino});
  if (found == m_index.end()) return false;
  if (!(*found->second == key)) {
    m_lru.erase(found->second);
    m_index.erase(found);
    return false;
  }
  m_lru.splice(m_lru.begin(), m_lru, found->second);
  return true;
}

uint64_t CheckedCache::Generation() const {
  std::lock_guard lock(m_mutex);
  return m_generation;
}

void CheckedCache::Insert(const CheckedKey& key, uint64_t generation) {
  std::lock_guard lock(m_mutex);
  if (generation != m_generation || m_capacity == 0) return;
  const FileIdentity id{key.dev, key.ino};
  if (const auto found = m_index.find(id); found != m_index.end()) {
    *found->second = key;
    m_lru.splice(m_lru.begin(), m_lru, found->second);
    return;
  }
  m_lru.push_front(key);
  m_index.emplace(id, m_lru.begin());
  EvictBeyondCapacity();
}

void CheckedCache::EvictBeyondCapacity() {
  while (m_lru.size() > m_capacity) {
    const CheckedKey& oldest = m_lru.back();
    m_index.erase(FileIdentity{oldest.dev, oldest.ino});
    m_lru.pop_back();
  }
}

void CheckedCache::Clear() {
  std::lock_guard lock(m_mutex);
  m_lru.clear();
  m_index.clear();
  ++m_generation;
}

size_t CheckedCache::Size() const {
  std::lock_guard lock(m_mutex);
  return m_lru.size();
}

}  // namespace oasd
