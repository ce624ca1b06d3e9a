// The fake host's containers monitor: describes the namespaces a test registered and
// fails for every other one, leaving the description as it was given.
#pragma once

#include <map>
#include <mutex>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/containers.h"
#include "testing/fault_injection.h"

namespace qeb::testing {

class FakeContainersMonitor : public object::Ifaces<nox::containers::IContainersMonitor> {
 public:
  result_t DescribeNamespace(uint64_t mountNamespace,
                             nox::containers::ContainerDescription& description) noexcept override {
    OAS_FAULT_POINT("containers monitor DescribeNamespace");
    std::lock_guard lock(m_mutex);
    auto it = m_containers.find(mountNamespace);
    if (it == m_containers.end()) return res::NotFound;
    description = it->second;
    return res::Ok;
  }

  void Add(uint64_t mountNamespace, nox::containers::ContainerDescription description) {
    std::lock_guard lock(m_mutex);
    m_containers[mountNamespace] = std::move(description);
  }

 private:
  mutable std::mutex m_mutex;
  std::map<uint64_t, nox::containers::ContainerDescription> m_containers;
};

}  // namespace qeb::testing
