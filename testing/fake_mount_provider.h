// The fake host's mount provider: answers the mount list a test set, or a chosen failure
// code. It owns only its copy of the list; callers get their own copy on every call.
#pragma once

#include <atomic>
#include <mutex>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/mounts.h"
#include "testing/locked.h"

namespace qeb::testing {

class FakeMountProvider : public object::Ifaces<nox::IMountProvider> {
 public:
  result_t GetMountList(nox::MountList& mounts) noexcept override;

  void SetMounts(nox::MountList mounts) { LockedSet(m_mutex, m_mounts, std::move(mounts)); }
  // GetMountList answers code from now on (Ok to answer the list again).
  void Fail(result_t code) { m_failure = code; }
  size_t Calls() const { return m_calls; }

 private:
  mutable std::mutex m_mutex;
  nox::MountList m_mounts;
  std::atomic<result_t> m_failure{res::Ok};
  std::atomic<size_t> m_calls{0};
};

}  // namespace qeb::testing
