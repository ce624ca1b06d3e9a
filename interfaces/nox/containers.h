// The host's containers monitor: describes the container or image behind a mount
// namespace, for the scan-area names the scanner receives.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/qeb/object.h"

namespace nox::containers {

struct ContainerDescription {
  std::string id;
  std::string name;
  std::string imageName;  // carried, not used by the module
  bool isImage = false;
};

struct IContainersMonitor : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x48556324;
  using BaseInterface = qeb::IObject;

  // Fills what it knows of the namespace's container; a failure leaves it as given.
  virtual qeb::result_t DescribeNamespace(uint64_t mountNamespace,
                                          ContainerDescription& description) noexcept = 0;

 protected:
  ~IContainersMonitor() = default;
};

}  // namespace nox::containers
