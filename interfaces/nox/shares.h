// Network-share changes: the host's shares parser calls its subscribers when the set
// of mounted shares changes.
#pragma once

#include "interfaces/qeb/object.h"

namespace nox {

struct ISharesParserEvents : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x1c9a7d33;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t OnSharesChanged() noexcept = 0;

 protected:
  ~ISharesParserEvents() = default;
};

struct ISharesParser : qeb::IObject {
  static constexpr qeb::iid_t IID = 0xf0c485bd;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Subscribe(ISharesParserEvents* subscriber) noexcept = 0;
  virtual qeb::result_t Unsubscribe(ISharesParserEvents* subscriber) noexcept = 0;

 protected:
  ~ISharesParser() = default;
};

}  // namespace nox
