// The host's event publisher and the processing-error event the module reports when a
// scan does not finish in time. The publisher takes the event over; the module keeps
// nothing of it after the call.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/qeb/object.h"

namespace nox {

struct ProcessingErrorEvent {
  // Wall-clock seconds since the epoch; -1 when the clock could not be read.
  int64_t time = -1;
  uint32_t eventKind = 0;
  uint32_t severity = 0;
  uint32_t errorCategory = 0;
  std::u16string reason;
  std::u16string fileName;
  // From the file-information cache.
  uint64_t fileSize = 0;
  std::string fileMd5;
  std::string fileSha256;
  // From the user-information cache.
  std::u16string userName;
  std::u16string userId;
  // From the task manager.
  std::u16string taskName;
  uint32_t taskId = 0;
};

// The values a scan timeout is reported with.
constexpr uint32_t PROCESSING_ERROR_EVENT_KIND = 13;
constexpr uint32_t PROCESSING_ERROR_SEVERITY = 4;
constexpr uint32_t PROCESSING_ERROR_CATEGORY = 2;

struct IEventPublisher : qeb::IObject {
  static constexpr qeb::iid_t IID = 0xDE3A4E4A;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Publish(ProcessingErrorEvent&& event) noexcept = 0;

 protected:
  ~IEventPublisher() = default;
};

}  // namespace nox
