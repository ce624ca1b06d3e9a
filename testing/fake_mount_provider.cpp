// A failed call leaves the caller's list untouched, as a provider that could not read
// the mount table has nothing to report.
#include "testing/fake_mount_provider.h"

#include <utility>

#include "testing/fault_injection.h"

namespace qeb::testing {

result_t FakeMountProvider::GetMountList(nox::MountList& mounts) noexcept {
  OAS_FAULT_POINT("mount provider GetMountList");
  try {
    ++m_calls;
    const result_t failure = m_failure;
    if (QEB_FAILED(failure)) return failure;
    std::lock_guard lock(m_mutex);
    mounts = m_mounts;
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

}  // namespace qeb::testing
