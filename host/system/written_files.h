// The files oasd saw written, by identity (device, inode), each with the write generation of
// its last write. It owns that bounded table only: the interception side notes writes, and
// everyone who remembers a file as clean (the record handed to the module, the engine's
// checked cache) reads the generation back and keys on it. Shared by pointer, never copied.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "interfaces/vrel/event_params.h"

namespace oasd {

class WrittenFiles {
 public:
  // About 56 bytes a file: 64 Ki files, some 3.5 MB.
  static constexpr size_t DefaultCapacity = 65536;

  explicit WrittenFiles(size_t capacity = DefaultCapacity);

  // The file has been written: from now on its generation is higher than before.
  void NoteWrite(uint64_t dev, uint64_t ino);
  // fstat of fd, then NoteWrite; nothing when fstat fails or fd is not a regular file.
  void NoteWriteTo(int fd);

  // A file's generation never goes down and goes up at each noted write. A file no longer
  // held shares the floor, which is at least every generation ever dropped; so a full table
  // costs clean-cached files one more scan, never a missed write.
  uint64_t GenerationOf(uint64_t dev, uint64_t ino) const;

  // The file's change time as oasd hands it to the module: ctime plus the generation in
  // nanoseconds. It orders states of one file (a write moves it forward even when the
  // kernel left ctime as it was); it does not date them.
  vrel::Timespec StampedChangeTime(const struct stat& st) const;

  size_t Size() const;

 private:
  struct Identity {
    uint64_t dev;
    uint64_t ino;
    bool operator==(const Identity&) const = default;
  };
  struct IdentityHash {
    size_t operator()(const Identity& id) const noexcept;
  };

  // m_mutex held: drops the older half of the generations and raises the floor over them.
  void DropOlderHalf();

  const size_t m_capacity;
  mutable std::mutex m_mutex;
  std::unordered_map<Identity, uint64_t, IdentityHash> m_generations;
  uint64_t m_lastGeneration = 0;
  uint64_t m_floor = 0;
};

}  // namespace oasd
