// The path is measured in the form the event lends (UTF-16 with its terminator); nothing is
// converted or copied.
#include "host/engine/module_cacheable.h"

namespace oasd {

void AllowModuleCacheIfShortPath(vrel::IEvent085* event) noexcept {
  const void* data = nullptr;
  uint32_t size = 0;
  if (QEB_FAILED(event->GetParam(vrel::_PARAM_FILE_NAME_USER_W, data, size)) ||
      size / 2 > kMaxModuleCachedPath + 1)
    return;
  event->AddReplyTargetVerdict(vrel::TargetVerdict{vrel::TARGET_VERDICT_CACHEABLE, 1});
}

}  // namespace oasd
