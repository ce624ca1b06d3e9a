// The checked-object cache: files the engine found clean, keyed by identity (device, inode)
// and remembered with the change time, size and write generation (written_files.h) they had
// when scanned. It owns only that table; the engine decides what goes in. A generation
// number lets a signature reload void scans that were already running against the old
// signatures.
#pragma once

#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "host/system/written_files.h"

namespace oasd {

struct CheckedKey {
  uint64_t dev = 0;
  uint64_t ino = 0;
  int64_t ctimeSec = 0;
  int64_t ctimeNsec = 0;
  uint64_t size = 0;
  uint64_t writeGeneration = 0;  // a write oasd saw voids the entry even when ctime stayed
  bool operator==(const CheckedKey&) const = default;
};

// The key of what fd refers to now; nothing when fstat fails or it is not a regular file.
std::optional<CheckedKey> CheckedKeyOfFd(int fd, const WrittenFiles& writes);

// File times come from a clock that ticks coarsely, so a change made in the same tick as an
// earlier one may leave ctime as it was. A file is remembered only when its last change is
// at least one tick behind the moment its key was read: any later change then shows. A
// ctime on a whole second comes from a file system that keeps seconds only (ext2/ext3 with
// 128-byte inodes, FAT's two seconds); on others a tick is a few milliseconds.
constexpr std::chrono::milliseconds kChangeSettleTime{100};
constexpr std::chrono::milliseconds kCoarseChangeSettleTime{2000};
bool ChangeSettled(const CheckedKey& key, const timespec& keyReadAt) noexcept;

class CheckedCache {
 public:
  explicit CheckedCache(size_t capacity);

  // True when the file is known clean in exactly this state; a stale entry for the same
  // file is dropped on the way.
  bool Contains(const CheckedKey& key);
  // The generation to hand back to Insert for a scan about to start.
  uint64_t Generation() const;
  // Remembers a clean result, unless the cache was cleared since generation was read.
  void Insert(const CheckedKey& key, uint64_t generation);
  // Forgets everything and voids the generation of every running scan.
  void Clear();
  size_t Size() const;

 private:
  struct FileIdentity {
    uint64_t dev;
    uint64_t ino;
    bool operator==(const FileIdentity&) const = default;
  };
  struct IdentityHash {
    size_t operator()(const FileIdentity& id) const noexcept;
  };
  using Lru = std::list<CheckedKey>;  // most recently used first

  void EvictBeyondCapacity();

  const size_t m_capacity;
  mutable std::mutex m_mutex;
  Lru m_lru;
  std::unordered_map<FileIdentity, Lru::iterator, IdentityHash> m_index;
  uint64_t m_generation = 0;
};

}  // namespace oasd
