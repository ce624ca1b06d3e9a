// The checker looks at nothing the callback lends: its answer does not depend on the
// object, only on how the daemon built it.
#include "host/system/object_skip_checker.h"

namespace oasd {

qeb::result_t ObjectSkipChecker::Check(const vrel::EventParams&,
                                       avengine::object_skip::IObjectSkipCallback*) {
  return m_allowSkip ? qeb::res::Ok : qeb::res::False;
}

}  // namespace oasd
