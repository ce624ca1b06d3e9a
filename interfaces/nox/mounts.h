// Mount-list notifications and the host's mount provider. A mount record names the
// device, where it is mounted, its filesystem type and whether the provider says to skip it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "interfaces/qeb/object.h"

namespace nox {

struct MountRecord {
  uint64_t dev = 0;
  std::string mountPoint;
  std::string fsType;
  bool skip = false;
};
using MountList = std::vector<MountRecord>;

// Lists: added or changed mounts, removed mounts, and the whole current list.
struct IMountEvents : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x6b1f2e40;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t OnMountListChanged(const MountList& added, const MountList& removed,
                                           const MountList& current) noexcept = 0;
  virtual qeb::result_t OnNamespaceMountListChanged(ino_t mountNamespace, const MountList& added,
                                                    const MountList& removed,
                                                    const MountList& current) noexcept = 0;

 protected:
  ~IMountEvents() = default;
};

struct IMountSubscription : qeb::IObject {
  static constexpr qeb::iid_t IID = 0xa4053eee;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Subscribe(IMountEvents* subscriber) noexcept = 0;
  virtual qeb::result_t Unsubscribe(IMountEvents* subscriber) noexcept = 0;

 protected:
  ~IMountSubscription() = default;
};

struct IMountProvider : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x2d6c90b5;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetMountList(MountList& mounts) noexcept = 0;

 protected:
  ~IMountProvider() = default;
};

}  // namespace nox
