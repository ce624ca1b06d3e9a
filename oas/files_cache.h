// The per-kind clean-file cache interface, its key and its shared entries. Entries are
// shared between a cache and the lookups that found them; the cache manager reads and
// updates their times and hit counts under its own mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "framework/qeb/basic_string.h"
#include "interfaces/nox/process.h"
#include "interfaces/qeb/result.h"
#include "interfaces/vrel/event_params.h"

namespace qeb::trace {
class Line;
}

namespace nox::oas {

struct FileId {
  uint64_t ino = 0;
  uint64_t dev = 0;
  qeb::basic_string_t name;

  static FileId FromEvent(const vrel::EventParams& event) {
    return FileId{event.ino, event.dev, event.fileName};
  }
  bool operator==(const FileId& o) const noexcept { return ino == o.ino && dev == o.dev && name == o.name; }
};

struct FileIdHash {
  size_t operator()(const FileId& id) const noexcept;
};

// The key as every cache line prints it: name (ino: N, dev: N).
qeb::trace::Line& operator<<(qeb::trace::Line& line, const FileId& id) noexcept;

class CleanFileInfo {
 public:
  virtual bool CheckProcess(const system_interceptors::process_manager::ProcessInfo& info) = 0;
  virtual ~CleanFileInfo() = default;

  uint64_t hitCount = 0;
  // Written by Add under the cache's mutex, read by the manager under its own: atomic so
  // a refresh racing a lookup is never a torn read.
  std::atomic<int64_t> addedTime{0};   // raw monotonic nanoseconds of the last Add
  std::atomic<int64_t> changeTime{0};  // the recorded event's ctime in nanoseconds
};

class IFilesCache {
 public:
  // 0 and the entry when present (it becomes most recently used); NotFound otherwise.
  virtual qeb::result_t Find(const FileId& id, std::shared_ptr<CleanFileInfo>& out) = 0;
  // 0 when recorded or refreshed, 1 when the file does not qualify.
  virtual qeb::result_t Add(const vrel::EventParams& event) = 0;
  // 0 when removed, NotFound when absent.
  virtual qeb::result_t Remove(const FileId& id) = 0;
  virtual qeb::result_t Clear() = 0;
  virtual size_t Size() = 0;
  virtual ~IFilesCache() = default;
};

}  // namespace nox::oas
