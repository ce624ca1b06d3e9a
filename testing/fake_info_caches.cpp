// Both caches keep their tables under one mutex each; nothing here calls out.
#include "testing/fake_info_caches.h"

#include "framework/qeb/utf.h"
#include "testing/fault_injection.h"

namespace qeb::testing {

result_t FakeUserInfoCache::NoteEventUser(uint64_t mountNamespace, const std::string& fileName,
                                          uint32_t uid) noexcept {
  OAS_FAULT_POINT("user info cache NoteEventUser");
  try {
    std::lock_guard lock(m_mutex);
    m_notes.push_back({mountNamespace, fileName, uid});
    m_owners[{mountNamespace, fileName}] = uid;
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

result_t FakeUserInfoCache::GetFileOwner(uint64_t mountNamespace, const std::string& fileName,
                                         nox::UserInfo& info) noexcept {
  OAS_FAULT_POINT("user info cache GetFileOwner");
  try {
    const result_t failure = m_failure;
    if (QEB_FAILED(failure)) return failure;
    std::lock_guard lock(m_mutex);
    auto it = m_owners.find({mountNamespace, fileName});
    if (it == m_owners.end()) return res::NotFound;
    const std::string uid = std::to_string(it->second);
    info.userName = Utf8ToUtf16("user" + uid);
    info.userId = Utf8ToUtf16(uid);
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

result_t FakeFileInfoCache::NoteDeepNestedFile(uint64_t mountNamespace, int32_t fd) noexcept {
  OAS_FAULT_POINT("file info cache NoteDeepNestedFile");
  try {
    std::lock_guard lock(m_mutex);
    m_deepNested.emplace_back(mountNamespace, fd);
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

result_t FakeFileInfoCache::GetFileInfo(uint64_t mountNamespace, const std::string& fileName,
                                        nox::FileInfo& info) noexcept {
  OAS_FAULT_POINT("file info cache GetFileInfo");
  try {
    const result_t failure = m_failure;
    if (QEB_FAILED(failure)) return failure;
    std::lock_guard lock(m_mutex);
    auto it = m_files.find({mountNamespace, fileName});
    if (it == m_files.end()) return res::NotFound;
    info = it->second;
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

void FakeFileInfoCache::Set(uint64_t mountNamespace, const std::string& fileName,
                            nox::FileInfo info) {
  std::lock_guard lock(m_mutex);
  m_files[{mountNamespace, fileName}] = std::move(info);
}

}  // namespace qeb::testing
