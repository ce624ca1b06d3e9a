// A failed call leaves the caller's list untouched, as a provider that could not read
// the mount table has nothing to report.
#include "testing/fake_mount_provider.h"

#include <utility>

#include "testing/fault_injection.h"

namespace qeb::testing {

result_t FakeMountProvider::GetMountList(nox::MountList& mounts) noexcept {
  OAS_FAULT_POINT("mount provider GetMountList");
  try {
    std::lock_guard lock(m_mutex);
    ++m_calls;
    if (QEB_FAILED(m_failure)) return m_failure;
    mounts = m_mounts;
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

void FakeMountProvider::SetMounts(nox::MountList mounts) {
  std::lock_guard lock(m_mutex);
  m_mounts = std::move(mounts);
}

void FakeMountProvider::Fail(result_t code) {
  std::lock_guard lock(m_mutex);
  m_failure = code;
}

size_t FakeMountProvider::Calls() const {
  std::lock_guard lock(m_mutex);
  return m_calls;
}

}  // namespace qeb::testing
