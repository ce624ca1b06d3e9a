// Turns a fanotify event into the record the module reads: the path behind the event's
// descriptor, the file's identity, times and mount, the filesystem's type, and the opener's
// uid, mount namespace and process identity. Each reader thread owns one builder with its
// caches (no locks); a miss reads /proc or statfs. The event's descriptor is only borrowed,
// and so is the written-files table, whose generation goes into the change time.
#pragma once

#include <limits.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/system/process_manager.h"
#include "host/system/written_files.h"
#include "interfaces/vrel/event_params.h"

namespace oasd {

struct ProcessContext {
  static constexpr uint32_t UnknownUid = 0xFFFFFFFF;
  uint32_t uid = UnknownUid;
  uint64_t nsid = 0;  // inode of the process's mount namespace
  uint64_t upid = 0;  // start time and pid: never reused while the host runs
};

// The three /proc reads are made once per process and lifetime (see RecentProcesses).
class ProcessContextCache {
 public:
  using Clock = RecentProcesses<ProcessContext>::Clock;

  // ownNamespace stands in for a process that is gone before it could be read.
  explicit ProcessContextCache(uint64_t ownNamespace, std::string procRoot = "/proc");

  // now: read once per batch of events.
  ProcessContext Lookup(int32_t pid, Clock::time_point now);

 private:
  // false when the process went away first.
  bool Read(int32_t pid, ProcessContext& context) const;

  const uint64_t m_ownNamespace;
  const std::string m_procRoot;
  RecentProcesses<ProcessContext> m_recent;
};

// Filesystem magics by device; cleared when the mount list changes, since a device number
// freed by an unmount may come back for another filesystem.
class FilesystemTypeCache {
 public:
  // The magic of the filesystem fd lies on (0 when statfs fails), fd being on device dev.
  uint64_t TypeOf(int fd, uint64_t dev);
  void Clear() noexcept { m_types.clear(); }

 private:
  std::unordered_map<uint64_t, uint64_t> m_types;
};

class EventRecordBuilder {
 public:
  using Clock = ProcessContextCache::Clock;
  // Stands for a path too long to resolve; the module recognises it by this prefix.
  static constexpr std::string_view PathTooLong = "<PATH IS TOO LONG>";

  EventRecordBuilder(uint64_t ownNamespace, const WrittenFiles& writes);

  // The path behind fd as the kernel names it (see FilesystemScope for whose view that is);
  // false when it cannot be read at all.
  bool ReadPath(int fd);
  const std::string& Path() const noexcept { return m_path; }
  // For FilesystemScope to replace with the path in oasd's own namespace.
  std::string& MutablePath() noexcept { return m_path; }
  bool PathIsTooLong() const noexcept { return m_path == PathTooLong; }
  // The file's identity, times and mount; on a filesystem whose server may not answer this
  // is the call that waits, so it runs only where such a wait holds nothing else.
  void ReadMetadata(int fd);
  bool HasMetadata() const noexcept { return m_hasMetadata; }
  uint64_t Device() const noexcept { return m_hasMetadata ? m_stat.st_dev : 0; }
  uint64_t MountId() const noexcept { return m_mountId; }
  int64_t Size() const noexcept { return m_hasMetadata ? static_cast<int64_t>(m_stat.st_size) : -1; }

  // The record for fd, with the path and metadata last read. The reply handle is the
  // cookie, so the module never mistakes an event for one that needs no answer.
  const vrel::EventParams& Build(int fd, int32_t pid, uint32_t oper, uint64_t cookie,
                                 Clock::time_point now);
  // The mount list changed: device numbers may have been reused.
  void ForgetFilesystems() noexcept { m_filesystems.Clear(); }

 private:
  // The one place the record takes the file's metadata from (null: it could not be read).
  void FillFromStat(vrel::EventParams& params, int fd, const struct stat* st);

  ProcessContextCache m_processes;
  FilesystemTypeCache m_filesystems;
  const WrittenFiles& m_writes;
  std::string m_path;
  struct stat m_stat {};
  uint64_t m_mountId = 0;
  bool m_hasMetadata = false;
  std::array<char, PATH_MAX> m_link{};
  vrel::EventParams m_params;  // reused: the module copies what it keeps
};

}  // namespace oasd
