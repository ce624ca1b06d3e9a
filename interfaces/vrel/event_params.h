// The file event record shared with the interception layer, byte for byte. The module
// reads the named fields and carries every other one untouched, so a verdict hands the
// record back exactly as it came. Copies own their strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/qeb/basic_string.h"

namespace vrel {

enum : uint32_t {
  VREL_ACTION_NONE = 0,
  VREL_ACTION_OPEN = 1,
  VREL_ACTION_CLOSE = 2,
  VREL_ACTION_EXEC = 3,
  VREL_ACTION_RENAME = 4,
  VREL_ACTION_UNLINK = 5,
  VREL_ACTION_LONG_NAME = 6,
  VREL_ACTION_CLOSE_MODIFY = 7,
  VREL_ACTION_ACCESS = 8,
};

struct Timespec {
  int64_t sec = 0;
  int64_t nsec = 0;
  bool operator==(const Timespec&) const = default;
};

// Filesystem magics the module treats as network filesystems.
constexpr uint64_t FS_MAGIC_NFS = 0x6969;
constexpr uint64_t FS_MAGIC_SMB = 0x517B;
constexpr uint64_t FS_MAGIC_SMB2 = 0xFE534D42;
constexpr uint64_t FS_MAGIC_CIFS = 0xFF534D42;

// NFS, SMB, SMB2 and CIFS (the last two differ only in bit 0x01000000).
constexpr bool IsNetworkFilesystem(uint64_t fsType) noexcept {
  return fsType == FS_MAGIC_NFS || fsType == FS_MAGIC_SMB ||
         (fsType & ~uint64_t{0x01000000}) == FS_MAGIC_SMB2;
}

struct EventParams {
  qeb::basic_string_t fileName;
  uint64_t cookie = 0;
  uint32_t uid = 0;
  uint8_t flag60 = 0;
  uint8_t pad61[3] = {};
  int32_t pid = 0;
  int32_t fd = -1;
  uint64_t nsid = 0;
  uint64_t dev = 0;
  uint64_t ino = 0;
  uint32_t value96 = 0;
  uint8_t pad100[4] = {};
  uint64_t value104 = 0;
  uint32_t value112 = 0;
  uint8_t pad116[4] = {};
  uint64_t fsType = 0;
  Timespec mtime;
  Timespec ctime;
  uint32_t oper = VREL_ACTION_NONE;
  uint16_t queue_id = 0;
  uint8_t flag166 = 0;
  uint8_t pad167 = 0;
  uint64_t replyHandle = 0;
  uint32_t value176 = 0;
  uint8_t flag180 = 0;
  uint8_t pad181[3] = {};
  std::string text184;
  uint64_t value216 = 0;
  uint64_t upid = 0;
  qeb::basic_string_t text232;

  bool operator==(const EventParams&) const = default;
};

// Nanoseconds as the caches compare times: seconds * 1,000,000,000 + nanoseconds. A record
// carries whatever times the interception layer read, so a far-off time wraps around in
// two's complement instead of overflowing.
constexpr int64_t ToNanoseconds(const Timespec& t) noexcept {
  return static_cast<int64_t>(static_cast<uint64_t>(t.sec) * 1'000'000'000u +
                              static_cast<uint64_t>(t.nsec));
}

static_assert(sizeof(std::string) == 32, "the record carries a 32-byte standard string");
static_assert(sizeof(EventParams) == 280);
static_assert(offsetof(EventParams, fileName) == 0);
static_assert(offsetof(EventParams, cookie) == 48);
static_assert(offsetof(EventParams, uid) == 56);
static_assert(offsetof(EventParams, flag60) == 60);
static_assert(offsetof(EventParams, pid) == 64);
static_assert(offsetof(EventParams, fd) == 68);
static_assert(offsetof(EventParams, nsid) == 72);
static_assert(offsetof(EventParams, dev) == 80);
static_assert(offsetof(EventParams, ino) == 88);
static_assert(offsetof(EventParams, value96) == 96);
static_assert(offsetof(EventParams, value104) == 104);
static_assert(offsetof(EventParams, value112) == 112);
static_assert(offsetof(EventParams, fsType) == 120);
static_assert(offsetof(EventParams, mtime) == 128);
static_assert(offsetof(EventParams, ctime) == 144);
static_assert(offsetof(EventParams, oper) == 160);
static_assert(offsetof(EventParams, queue_id) == 164);
static_assert(offsetof(EventParams, flag166) == 166);
static_assert(offsetof(EventParams, replyHandle) == 168);
static_assert(offsetof(EventParams, value176) == 176);
static_assert(offsetof(EventParams, flag180) == 180);
static_assert(offsetof(EventParams, text184) == 184);
static_assert(offsetof(EventParams, value216) == 216);
static_assert(offsetof(EventParams, upid) == 224);
static_assert(offsetof(EventParams, text232) == 232);

}  // namespace vrel
