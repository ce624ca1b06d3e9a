// The path is measured in the form the event lends (UTF-16 with its terminator), nothing is
// converted or copied; the change time is read from the event's descriptor after the scan.
#include "host/engine/module_cacheable.h"

#include <sys/stat.h>
#include <time.h>

#include "host/engine/checked_cache.h"

namespace oasd {
namespace {

bool ShortPath(vrel::IEvent085* event) noexcept {
  const void* data = nullptr;
  uint32_t size = 0;
  return QEB_SUCCEEDED(event->GetParam(vrel::_PARAM_FILE_NAME_USER_W, data, size)) &&
         size / 2 <= kMaxModuleCachedPath + 1;
}

bool ChangeSettledNow(vrel::IEvent085* event) noexcept {
  const void* data = nullptr;
  uint32_t size = 0;
  struct stat st {};
  timespec now{};
  if (QEB_FAILED(event->GetParam(vrel::_PARAM_OBJECT_CLIENTID1, data, size)) || !data ||
      size != sizeof(int32_t) || ::fstat(*static_cast<const int32_t*>(data), &st) != 0 ||
      ::clock_gettime(CLOCK_REALTIME, &now) != 0)
    return false;
  return ChangeSettled(CheckedKey{.ctimeSec = st.st_ctim.tv_sec, .ctimeNsec = st.st_ctim.tv_nsec},
                       now);
}

}  // namespace

void AllowModuleCache(vrel::IEvent085* event) noexcept {
  if (ShortPath(event) && ChangeSettledNow(event))
    event->AddReplyTargetVerdict(vrel::TargetVerdict{vrel::TARGET_VERDICT_CACHEABLE, 1});
}

}  // namespace oasd
