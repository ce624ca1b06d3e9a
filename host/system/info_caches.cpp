// User names come from the password database once per uid; file sizes from stat, or from
// fstat for the deep-nested files the intake path notes by descriptor (their path is read
// back from /proc/self/fd when the kernel can still print it).
#include "host/system/info_caches.h"

#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "framework/qeb/utf.h"

namespace oasd {
namespace {

std::string LookUpUserName(uint32_t uid) {
  std::vector<char> buffer(4096);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < 1 << 20) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error || !found || !found->pw_name) return std::to_string(uid);
    return found->pw_name;
  }
}

uint64_t Rotl(uint64_t x, int bits) noexcept { return (x << bits) | (x >> (64 - bits)); }

// SipHash-2-4: a keyed hash that stands up to inputs chosen to collide.
uint64_t SipHash24(const std::array<uint64_t, 2>& key, std::string_view in) noexcept {
  uint64_t v0 = 0x736f6d6570736575ULL ^ key[0], v1 = 0x646f72616e646f6dULL ^ key[1];
  uint64_t v2 = 0x6c7967656e657261ULL ^ key[0], v3 = 0x7465646279746573ULL ^ key[1];
  const auto round = [&] {
    v0 += v1, v1 = Rotl(v1, 13), v1 ^= v0, v0 = Rotl(v0, 32);
    v2 += v3, v3 = Rotl(v3, 16), v3 ^= v2;
    v0 += v3, v3 = Rotl(v3, 21), v3 ^= v0;
    v2 += v1, v1 = Rotl(v1, 17), v1 ^= v2, v2 = Rotl(v2, 32);
  };
  const auto absorb = [&](uint64_t m) {
    v3 ^= m;
    round();
    round();
    v0 ^= m;
  };
  size_t i = 0;
  for (; i + 8 <= in.size(); i += 8) {
    uint64_t m = 0;
    std::memcpy(&m, in.data() + i, 8);
    absorb(m);
  }
  uint64_t last = static_cast<uint64_t>(in.size()) << 56;
  for (size_t j = 0; i + j < in.size(); ++j)
    last |= static_cast<uint64_t>(static_cast<unsigned char>(in[i + j])) << (8 * j);
  absorb(last);
  v2 ^= 0xff;
  for (int r = 0; r < 4; ++r) round();
  return v0 ^ v1 ^ v2 ^ v3;
}

std::array<uint64_t, 2> RandomKey() noexcept {
  std::array<uint64_t, 2> key{};
  if (::getrandom(key.data(), sizeof key, 0) == static_cast<ssize_t>(sizeof key)) return key;
  // Without the kernel's randomness the digest still works, only less hard to aim at.
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return {static_cast<uint64_t>(now.tv_nsec) ^ static_cast<uint64_t>(::getpid()),
          reinterpret_cast<uintptr_t>(&key)};
}

std::string DescriptorPath(int32_t fd) {
  std::vector<char> buffer(65536);
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = ::readlink(link.c_str(), buffer.data(), buffer.size());
  if (n <= 0 || static_cast<size_t>(n) >= buffer.size()) return {};
  return std::string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace

FileKey FileKeyOf(uint64_t mountNamespace, std::string_view path) noexcept {
  static const std::array<uint64_t, 2> key = RandomKey();
  return {mountNamespace, SipHash24(key, path)};
}

uint64_t OwnMountNamespace() noexcept {
  struct stat st {};
  if (::stat("/proc/self/ns/mnt", &st) != 0) return 0;
  return st.st_ino;
}

std::string UserNames::NameOf(uint32_t uid) {
  {
    std::lock_guard lock(m_mutex);
    if (auto name = m_names.Get(uid)) return *name;
  }
  std::string name = LookUpUserName(uid);
  std::lock_guard lock(m_mutex);
  m_names.Put(uid, name);
  return name;
}

qeb::result_t UserInfoCache::NoteEventUser(uint64_t mountNamespace, const std::string& fileName,
                                           uint32_t uid) noexcept {
  try {
    std::lock_guard lock(m_mutex);
    m_owners.Put(FileKeyOf(mountNamespace, fileName), uid);
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t UserInfoCache::GetFileOwner(uint64_t mountNamespace, const std::string& fileName,
                                          nox::UserInfo& info) noexcept {
  try {
    std::optional<uint32_t> uid;
    {
      std::lock_guard lock(m_mutex);
      uid = m_owners.Get(FileKeyOf(mountNamespace, fileName));
    }
    if (!uid) return qeb::res::NotFound;
    info.userName = qeb::Utf8ToUtf16(m_names.NameOf(*uid));
    info.userId = qeb::Utf8ToUtf16(std::to_string(*uid));
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

FileInfoCache::FileInfoCache() : m_ownNamespace(OwnMountNamespace()) {}

qeb::result_t FileInfoCache::NoteDeepNestedFile(uint64_t mountNamespace, int32_t fd) noexcept {
  try {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return qeb::res::ErrnoFacilityBase + errno;
    std::string path = DescriptorPath(fd);
    if (path.empty()) return qeb::res::NotFound;
    nox::FileInfo info;
    info.size = static_cast<uint64_t>(st.st_size);
    std::lock_guard lock(m_mutex);
    m_files.Put(FileKeyOf(mountNamespace, path), std::move(info));
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t FileInfoCache::GetFileInfo(uint64_t mountNamespace, const std::string& fileName,
                                         nox::FileInfo& info) noexcept {
  try {
    {
      std::lock_guard lock(m_mutex);
      if (auto noted = m_files.Get(FileKeyOf(mountNamespace, fileName))) {
        info = std::move(*noted);
        return qeb::res::Ok;
      }
    }
    if (mountNamespace != m_ownNamespace) return qeb::res::NotFound;
    struct stat st {};
    if (::stat(fileName.c_str(), &st) != 0) return qeb::res::ErrnoFacilityBase + errno;
    info.size = static_cast<uint64_t>(st.st_size);
    info.md5.clear();
    info.sha256.clear();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

}  // namespace oasd
