// How a scanner learns where to reopen an intercepted file: its path and, for a
// process outside the host's own mount namespace, that namespace. The provider owns
// the data; the pointer it hands out stays valid while the provider lives.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "interfaces/qeb/object.h"

namespace nox {

struct ReopenData {
  std::string path;
  // Empty when the file is to be opened in the host's own mount namespace.
  std::optional<uint64_t> mountNamespace;
};

struct IReopenDataProvider : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x2b0e6d14;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetReopenData(const ReopenData*& data) noexcept = 0;

 protected:
  ~IReopenDataProvider() = default;
};

}  // namespace nox
