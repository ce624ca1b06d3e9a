// The channel through which verdicts reach the interception layer. The plain notifier
// identifies the operation by a 16-byte reply key; the extended one reads everything it
// needs from the record itself. Neither keeps the record beyond the call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "interfaces/qeb/object.h"
#include "interfaces/vrel/event_params.h"

namespace vrel {

// What the interception layer is told about a file.
enum NotifierVerdict : uint32_t {
  NOTIFIER_VERDICT_ALLOW_CLEAN = 1,  // allow, and the file may be cached as clean
  NOTIFIER_VERDICT_ALLOW = 2,
  NOTIFIER_VERDICT_DENY = 4,
};

struct ReplyKey {
  uint64_t cookie = 0;
  int32_t fd = -1;
  uint16_t queue_id = 0;
  uint8_t padding[2] = {};

  static ReplyKey FromEvent(const EventParams& params) noexcept {
    ReplyKey key;
    key.cookie = params.cookie;
    key.fd = params.fd;
    key.queue_id = params.queue_id;
    return key;
  }
};
static_assert(sizeof(ReplyKey) == 16);
static_assert(offsetof(ReplyKey, cookie) == 0);
static_assert(offsetof(ReplyKey, fd) == 8);
static_assert(offsetof(ReplyKey, queue_id) == 12);
static_assert(offsetof(ReplyKey, padding) == 14);

struct IFileVerdictNotifier : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x840198ed;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t SetVerdict(const ReplyKey& key, const EventParams& params,
                                   uint32_t verdict) noexcept = 0;

 protected:
  ~IFileVerdictNotifier() = default;
};

}  // namespace vrel

namespace nox::vrelpp {

struct IFileVerdictNotifierEx : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x323C0B5A;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t SetVerdict(const vrel::EventParams& params, uint32_t verdict) noexcept = 0;

 protected:
  ~IFileVerdictNotifierEx() = default;
};

}  // namespace nox::vrelpp
