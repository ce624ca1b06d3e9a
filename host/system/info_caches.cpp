// User names come from the password database once per uid; file sizes from stat, or from
// fstat for the deep-nested files the intake path notes by descriptor (their path is read
// back from /proc/self/fd when the kernel can still print it).
#include "host/system/info_caches.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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

std::string DescriptorPath(int32_t fd) {
  std::vector<char> buffer(65536);
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = ::readlink(link.c_str(), buffer.data(), buffer.size());
  if (n <= 0 || static_cast<size_t>(n) >= buffer.size()) return {};
  return std::string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace

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
    m_owners.Put({mountNamespace, fileName}, uid);
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
      uid = m_owners.Get({mountNamespace, fileName});
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
    m_files.Put({mountNamespace, std::move(path)}, std::move(info));
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
      if (auto noted = m_files.Get({mountNamespace, fileName})) {
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
