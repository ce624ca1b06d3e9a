// The host's caches of file and user information. The intake path notes each event's
// user (or, for a path too long to resolve, its descriptor) so that later lookups by
// namespace and path can answer without touching the file again.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/qeb/object.h"

namespace nox {

struct FileInfo {
  uint64_t size = 0;
  std::string md5;     // lower-case hexadecimal
  std::string sha256;  // lower-case hexadecimal
};

struct UserInfo {
  std::u16string userName;
  std::u16string userId;
};

struct IUserInfoCache : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x40717f62;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t NoteEventUser(uint64_t mountNamespace, const std::string& fileName,
                                      uint32_t uid) noexcept = 0;
  // The user noted for the file; NotFound when none was.
  virtual qeb::result_t GetFileOwner(uint64_t mountNamespace, const std::string& fileName,
                                     UserInfo& info) noexcept = 0;

 protected:
  ~IUserInfoCache() = default;
};

struct IFileInfoCache : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x11ac14ff;
  using BaseInterface = qeb::IObject;

  // A file whose path is too long to resolve, reachable only through the descriptor.
  virtual qeb::result_t NoteDeepNestedFile(uint64_t mountNamespace, int32_t fd) noexcept = 0;
  virtual qeb::result_t GetFileInfo(uint64_t mountNamespace, const std::string& fileName,
                                    FileInfo& info) noexcept = 0;

 protected:
  ~IFileInfoCache() = default;
};

}  // namespace nox
