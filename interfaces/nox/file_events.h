// The host's file-events provider and the receiver it calls for every intercepted
// operation. A subscription carries the areas in scope, the areas excluded, and the
// interception layer's action mask.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "interfaces/qeb/object.h"

namespace vrel {
struct EventParams;
}

namespace nox {

struct ScanArea {
  std::string path;
  std::vector<std::string> masks;
  bool operator==(const ScanArea&) const = default;
};

struct FileEventsSubscription {
  std::vector<ScanArea> scanAreas;
  std::vector<ScanArea> excludedAreas;
  uint32_t flags = 0;
  bool operator==(const FileEventsSubscription&) const = default;
};

struct IFileEventsReceiver : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x58e3c1a7;
  using BaseInterface = qeb::IObject;

  // 1: no scan needed, 0: queued (the verdict comes later), negative: block the file.
  virtual qeb::result_t OnEvent(const vrel::EventParams& params) noexcept = 0;
  virtual qeb::result_t GetName(std::string& name) noexcept = 0;

 protected:
  ~IFileEventsReceiver() = default;
};

struct IEventsProvider : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x9a899b8e;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Subscribe(IFileEventsReceiver* receiver,
                                  const FileEventsSubscription& subscription) noexcept = 0;
  virtual qeb::result_t Resubscribe(IFileEventsReceiver* receiver,
                                    const FileEventsSubscription& subscription) noexcept = 0;
  virtual qeb::result_t Unsubscribe(IFileEventsReceiver* receiver) noexcept = 0;

 protected:
  ~IEventsProvider() = default;
};

}  // namespace nox
