// The kernel's clean-file cache: an evictable fanotify inode ignore mark, for open and exec
// permission events, on a file the module allowed as clean. It owns the bookkeeping only
// (marks placed since the last flush, when that was, the oldest event a mark may still come
// from); the group is the responder's, lent for each call under its lock, the event
// descriptor is borrowed, and the marks themselves are the kernel's.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <shared_mutex>

#include "host/common/host_metrics.h"
#include "host/interception/permission_table.h"
#include "host/system/written_files.h"

namespace oasd {

class KernelCache {
 public:
  enum class FlushReason : size_t { Settings, Mount, Reload, Age, Full };
  using Clock = std::chrono::steady_clock;
  // The module trusts its own entries for 600 s; a mark placed with the entry is flushed
  // well before (this, plus the daemon's check interval).
  static constexpr std::chrono::seconds MaxAge{300};

  KernelCache(HostMetrics& metrics, const WrittenFiles& writes, size_t capacity);

  // Whether group takes evictable ignore marks (kernel 6.0 and later); probed on a memfd.
  static bool Supported(int group) noexcept;

  // Marks the file behind fd ignored in group, unless a flush came after the event was read
  // or the file is no longer as the event saw it. True when the mark is in place.
  bool Add(int group, int fd, const CleanFile& seen) noexcept;
  void Remove(int group, int fd) noexcept;
  // Drops every mark; events read before it (cookie up to readUpTo) may not place one later.
  // readUpTo 0 keeps the present floor: the reason is not a change of what is clean.
  void Flush(int group, FlushReason reason, uint64_t readUpTo) noexcept;
  bool Aged(Clock::time_point now) const noexcept;

 private:
  bool Place(int group, int fd, const CleanFile& seen) noexcept;

  HostMetrics& m_metrics;
  const WrittenFiles& m_writes;
  const size_t m_capacity;
  std::atomic<size_t> m_marks{0};
  std::atomic<Clock::rep> m_lastFlush;
  // Shared by placements, exclusive for a flush: no mark decided before a flush lands after it.
  std::shared_mutex m_mutex;
  uint64_t m_floor = 0;  // guarded by m_mutex
};

}  // namespace oasd
