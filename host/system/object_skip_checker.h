// The host's object-skip checker. oasd's engine keeps its own record of checked files and
// has no per-object knowledge to offer, so by default the checker never lets a cached
// object pass unscanned. It holds no state beyond that one answer and keeps no callback.
#pragma once

#include "framework/qeb/host_object.h"
#include "interfaces/nox/object_skip.h"

namespace oasd {

class ObjectSkipChecker : public qeb::object::Ifaces<avengine::object_skip::IObjectSkipChecker> {
 public:
  // allowSkip: answer 0 ("the bases allow skipping") instead of 1.
  explicit ObjectSkipChecker(bool allowSkip = false) noexcept : m_allowSkip(allowSkip) {}

  qeb::result_t Check(const vrel::EventParams& event,
                      avengine::object_skip::IObjectSkipCallback* callback) override;

 private:
  const bool m_allowSkip;
};

}  // namespace oasd
