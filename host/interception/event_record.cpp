// A process is read through one descriptor of its /proc directory, so the uid, the
// namespace and the start time all belong to the same process even if the pid is reused
// in the middle of the reads. On a cache hit a record costs one readlink and one statx.
#include "host/interception/event_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <utility>

#include "host/common/unique_fd.h"

namespace oasd {

ProcessContextCache::ProcessContextCache(uint64_t ownNamespace, std::string procRoot)
    : m_ownNamespace(ownNamespace), m_procRoot(std::move(procRoot)) {}

ProcessContext ProcessContextCache::Lookup(int32_t pid, Clock::time_point now) {
  if (const ProcessContext* recent = m_recent.Find(pid, now)) return *recent;
  ProcessContext context;
  context.nsid = m_ownNamespace;
  if (Read(pid, context)) m_recent.Put(pid, context, now);
  return context;
}

bool ProcessContextCache::Read(int32_t pid, ProcessContext& context) const {
  const std::string path = m_procRoot + "/" + std::to_string(pid);
  const UniqueFd dir(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat st {};
  if (!dir.Valid() || ::fstat(dir.Get(), &st) != 0) return false;
  context.uid = st.st_uid;
  if (::fstatat(dir.Get(), "ns/mnt", &st, 0) == 0) context.nsid = st.st_ino;
  std::string statText;
  if (!ReadFileAt(dir.Get(), "stat", statText)) return false;
  if (const auto fields = ParseProcStat(statText))
    context.upid = ProcessIdentity(fields->startTicks, static_cast<uint64_t>(pid));
  return true;
}

uint64_t FilesystemTypeCache::TypeOf(int fd, uint64_t dev) {
  if (const auto it = m_types.find(dev); it != m_types.end()) return it->second;
  struct statfs st {};
  if (::fstatfs(fd, &st) != 0) return 0;
  // Magics are 32-bit; the wider field must not carry a sign into the record.
  const uint64_t type = static_cast<uint64_t>(st.f_type) & 0xFFFFFFFFu;
  m_types.emplace(dev, type);
  return type;
}

EventRecordBuilder::EventRecordBuilder(uint64_t ownNamespace, const WrittenFiles& writes)
    : m_processes(ownNamespace), m_writes(writes) {}

bool EventRecordBuilder::ReadPath(int fd) {
  char link[32] = "/proc/self/fd/";
  constexpr size_t prefix = sizeof "/proc/self/fd/" - 1;
  *std::to_chars(link + prefix, link + sizeof link - 1, fd).ptr = '\0';
  const ssize_t n = ::readlink(link, m_link.data(), m_link.size());
  if (n < 0 && errno != ENAMETOOLONG) return false;
  if (n < 0 || static_cast<size_t>(n) == m_link.size()) m_path = PathTooLong;
  else m_path.assign(m_link.data(), static_cast<size_t>(n));
  return true;
}

// statx, not fstat: the same call names the descriptor's mount, which places its path.
void EventRecordBuilder::ReadMetadata(int fd) {
  struct statx stx {};
  m_hasMetadata = ::statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT,
                          STATX_BASIC_STATS | STATX_MNT_ID, &stx) == 0;
  m_mountId = m_hasMetadata && (stx.stx_mask & STATX_MNT_ID) ? stx.stx_mnt_id : 0;
  if (!m_hasMetadata) return;
  m_stat = {};
  m_stat.st_dev = ::makedev(stx.stx_dev_major, stx.stx_dev_minor);
  m_stat.st_ino = stx.stx_ino;
  m_stat.st_mode = stx.stx_mode;
  m_stat.st_nlink = stx.stx_nlink;
  m_stat.st_uid = stx.stx_uid;
  m_stat.st_gid = stx.stx_gid;
  m_stat.st_size = static_cast<off_t>(stx.stx_size);
  m_stat.st_mtim = timespec{stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec};
  m_stat.st_ctim = timespec{stx.stx_ctime.tv_sec, stx.stx_ctime.tv_nsec};
  m_stat.st_atim = timespec{stx.stx_atime.tv_sec, stx.stx_atime.tv_nsec};
}

void EventRecordBuilder::FillFromStat(vrel::EventParams& p, int fd, const struct stat* st) {
  if (!st) {
    p.dev = p.ino = p.fsType = 0;
    p.mtime = p.ctime = vrel::Timespec{};
    return;
  }
  p.dev = st->st_dev;
  p.ino = st->st_ino;
  p.mtime = vrel::Timespec{st->st_mtim.tv_sec, st->st_mtim.tv_nsec};
  // The module trusts an unchanged ctime; a write oasd saw must change it.
  p.ctime = m_writes.StampedChangeTime(*st);
  p.fsType = m_filesystems.TypeOf(fd, p.dev);
}

const vrel::EventParams& EventRecordBuilder::Build(int fd, int32_t pid, uint32_t oper,
                                                   uint64_t cookie, Clock::time_point now) {
  vrel::EventParams& p = m_params;
  p.fileName.Assign(m_path.data(), m_path.size());
  FillFromStat(p, fd, m_hasMetadata ? &m_stat : nullptr);
  const ProcessContext process = m_processes.Lookup(pid, now);
  p.cookie = cookie;
  p.replyHandle = cookie;
  p.uid = process.uid;
  p.pid = pid;
  p.upid = process.upid;
  p.nsid = process.nsid;
  p.fd = fd;
  p.oper = oper;
  p.queue_id = 0;
  return p;
}

}  // namespace oasd
