// The event a scanner receives for one intercepted file operation: its identity header,
// its parameters and the verdict channel back to the interception layer. The header is
// a fixed binary layout shared with separately built scanners; the event object owns
// every buffer it hands out through GetParam for its whole life.
#pragma once

#include <cstddef>
#include <cstdint>

#include "interfaces/qeb/object.h"

namespace qeb {
// The framework's 32-bit boolean as it crosses interfaces: 0 is false, anything else true.
using bool_t = uint32_t;
}  // namespace qeb

namespace vrel {

// Time intervals the event protocol carries: milliseconds, unsigned 32-bit.
using duration_t = uint32_t;

namespace BasicVerdict {
enum BasicVerdict : uint32_t {
  Allow = 1,
  Deny = 2,
};
}  // namespace BasicVerdict

namespace ProcessingType {
enum ProcessingType : uint32_t {
  // The operation waits for the scanner's answer.
  Synchronous = 0,
  // The scanner is told after the fact.
  Asynchronous = 1,
};
}  // namespace ProcessingType

// A verdict addressed to one consumer of the reply, identified by targetId.
struct TargetVerdict {
  uint32_t targetId = 0;
  uint32_t value = 0;
};
static_assert(sizeof(TargetVerdict) == 8);
static_assert(offsetof(TargetVerdict, targetId) == 0);
static_assert(offsetof(TargetVerdict, value) == 4);

// The target whose non-zero value lets an allowed file be cached as clean.
constexpr uint32_t TARGET_VERDICT_CACHEABLE = 0x6EBE9F0A;

// Parameter identifiers understood by IEvent085::GetParam.
enum ParamId : uint32_t {
  _PARAM_OBJECT_URL_W = 11,
  _PARAM_OBJECT_CONTEXT_FLAGS = 13,
  _PARAM_OBJECT_CLIENTID1 = 19,
  _PARAM_OBJECT_CLIENTID2 = 20,
  _PARAM_SESSION_ID = 60,
  _PARAM_SCAN_AREA_ID = 205,
  _PARAM_FILE_NAME_USER_W = 1001,
  _PARAM_DEST_FILE_NAME_USER_W = 1002,
};

// Bits of _PARAM_OBJECT_CONTEXT_FLAGS.
constexpr uint32_t CONTEXT_FLAG_CLOSE = 0x00000001;
constexpr uint32_t CONTEXT_FLAG_EXECUTE = 0x00000010;
constexpr uint32_t CONTEXT_FLAG_OPEN = 0x00400000;
constexpr uint32_t CONTEXT_FLAG_NETWORK = 0x04000000;

struct EventHeader {
  uint64_t sequenceNumber = 0;
  uint32_t functionGroup = 0;
  uint32_t functionType = 0;
  int32_t reserved16 = 0;
  uint32_t reserved20 = 0;
  uint32_t reserved24 = 0;
  uint32_t timeout = 0;
  int32_t processId = 0;
  int32_t reserved36 = 0;
};
static_assert(sizeof(EventHeader) == 40);
static_assert(offsetof(EventHeader, sequenceNumber) == 0);
static_assert(offsetof(EventHeader, functionGroup) == 8);
static_assert(offsetof(EventHeader, functionType) == 12);
static_assert(offsetof(EventHeader, reserved16) == 16);
static_assert(offsetof(EventHeader, reserved20) == 20);
static_assert(offsetof(EventHeader, reserved24) == 24);
static_assert(offsetof(EventHeader, timeout) == 28);
static_assert(offsetof(EventHeader, processId) == 32);
static_assert(offsetof(EventHeader, reserved36) == 36);

struct IEvent085 : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x3f5d0b85;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetEventHeader(EventHeader& header) noexcept = 0;
  virtual qeb::result_t GetSequenceNumber(uint64_t& sequenceNumber) noexcept = 0;
  // First word: function group (low half), function type (high half); second word:
  // the two header fields that follow.
  virtual qeb::result_t GetFunction(uint64_t& function, uint64_t& functionExtra) noexcept = 0;
  virtual qeb::result_t GetParam(uint32_t id, const void*& data, uint32_t& size) noexcept = 0;
  virtual qeb::result_t GetProcessingType(ProcessingType::ProcessingType& type) noexcept = 0;
  virtual qeb::result_t Pend(duration_t timeout) noexcept = 0;
  virtual qeb::result_t Postpone(qeb::bool_t requestPostponeTimeImpersonating) noexcept = 0;
  virtual qeb::result_t ImpersonateImmediately() noexcept = 0;
  virtual qeb::result_t IsImpersonating(qeb::bool_t& impersonating) noexcept = 0;
  virtual qeb::result_t AddReplyTargetVerdict(const TargetVerdict& verdict) noexcept = 0;
  virtual qeb::result_t ResetReplyTargetVerdict(uint32_t targetId) noexcept = 0;
  virtual qeb::result_t Reply(BasicVerdict::BasicVerdict verdict) noexcept = 0;
  virtual qeb::result_t PreReply(BasicVerdict::BasicVerdict verdict, duration_t timeout) noexcept = 0;
  virtual qeb::result_t SetUserPtrContext(void* context) noexcept = 0;
  virtual qeb::result_t GetUserPtrContext(void*& context) noexcept = 0;
  virtual qeb::result_t SetUserObjectContext(qeb::IObject* context) noexcept = 0;
  // The stored object, without a new reference.
  virtual qeb::result_t GetUserObjectContext(qeb::IObject*& context) noexcept = 0;

 protected:
  ~IEvent085() = default;
};

}  // namespace vrel
