// A mark is placed before the opener is answered and checked afterwards against a fresh
// fstat: from the moment it is in place the kernel clears it on every write() or truncation
// (FS_MODIFY), so only a change before that moment can be hidden, and that the comparison
// sees. What remains: a write through a shared mapping, which the kernel never reports until
// the writer closes (the close-after-write event removes the mark), and a same-size rewrite
// within one timestamp tick whose FAN_MODIFY the reader has not yet noted (its note removes
// the mark, so the window is the reader's lag).
#include "host/interception/kernel_cache.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <mutex>

#include "host/common/unique_fd.h"

namespace oasd {
namespace {

constexpr uint64_t kIgnoredEvents = FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM;
// Without FAN_MARK_IGNORED_SURV_MODIFY: the kernel drops the mark's mask on modification.
constexpr unsigned kIgnoreMark = FAN_MARK_IGNORE | FAN_MARK_EVICTABLE;

bool SameTime(const timespec& t, const vrel::Timespec& seen) noexcept {
  return t.tv_sec == seen.sec && t.tv_nsec == seen.nsec;
}

}  // namespace

KernelCache::KernelCache(HostMetrics& metrics, const WrittenFiles& writes, size_t capacity)
    : m_metrics(metrics),
      m_writes(writes),
      m_capacity(capacity),
      m_lastFlush(Clock::now().time_since_epoch().count()) {}

bool KernelCache::Supported(int group) noexcept {
  const UniqueFd probe(::memfd_create("oasd-kernel-cache-probe", MFD_CLOEXEC));
  if (!probe.Valid() ||
      ::fanotify_mark(group, FAN_MARK_ADD | kIgnoreMark, kIgnoredEvents, probe.Get(), nullptr) != 0)
    return false;
  ::fanotify_mark(group, FAN_MARK_REMOVE | FAN_MARK_IGNORE, kIgnoredEvents, probe.Get(), nullptr);
  return true;
}

bool KernelCache::Add(int group, int fd, const CleanFile& seen) noexcept {
  if (m_marks.load(std::memory_order_relaxed) >= m_capacity) Flush(group, FlushReason::Full, 0);
  return Place(group, fd, seen);
}

bool KernelCache::Place(int group, int fd, const CleanFile& seen) noexcept {
  std::shared_lock lock(m_mutex);
  if (seen.cookie <= m_floor) return false;
  if (::fanotify_mark(group, FAN_MARK_ADD | kIgnoreMark, kIgnoredEvents, fd, nullptr) != 0)
    return false;
  struct stat st {};
  const bool unchanged = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == seen.size &&
                         SameTime(st.st_mtim, seen.mtime) &&
                         m_writes.StampedChangeTime(st) == seen.ctime;
  if (!unchanged) {
    ::fanotify_mark(group, FAN_MARK_REMOVE | FAN_MARK_IGNORE, kIgnoredEvents, fd, nullptr);
    m_metrics.kernelMarksRemoved.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  m_marks.fetch_add(1, std::memory_order_relaxed);
  m_metrics.kernelMarksAdded.fetch_add(1, std::memory_order_relaxed);
  return true;
}

// A file without a mark (the usual case for a write) answers ENOENT, and nothing is counted.
void KernelCache::Remove(int group, int fd) noexcept {
  if (::fanotify_mark(group, FAN_MARK_REMOVE | FAN_MARK_IGNORE, kIgnoredEvents, fd, nullptr) != 0)
    return;
  m_metrics.kernelMarksRemoved.fetch_add(1, std::memory_order_relaxed);
  size_t marks = m_marks.load(std::memory_order_relaxed);
  while (marks > 0 && !m_marks.compare_exchange_weak(marks, marks - 1, std::memory_order_relaxed)) {
  }
}

// oasd places filesystem marks only, so flushing the group's inode marks drops exactly the
// ignore marks. Removing marks only sends more events to oasd, never fewer: a flush opens no
// window; the floor keeps a verdict decided before it from placing a mark after it.
void KernelCache::Flush(int group, FlushReason reason, uint64_t readUpTo) noexcept {
  std::unique_lock lock(m_mutex);
  if (readUpTo > m_floor) m_floor = readUpTo;
  ::fanotify_mark(group, FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
  m_marks.store(0, std::memory_order_relaxed);
  m_lastFlush.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
  m_metrics.kernelFlushes[static_cast<size_t>(reason)].fetch_add(1, std::memory_order_relaxed);
}

bool KernelCache::Aged(Clock::time_point now) const noexcept {
  const Clock::time_point last{Clock::duration{m_lastFlush.load(std::memory_order_relaxed)}};
  return now - last >= MaxAge;
}

}  // namespace oasd
