// The host's process manager: an information object per live process id, and the
// record it fills. The third 64-bit word is the process identity that, unlike a pid,
// is never reused while the host runs.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/qeb/object.h"

namespace system_interceptors::process_manager {

struct ProcessInfo {
  uint64_t m_pid = 0;
  uint64_t m_parentPid = 0;
  uint64_t m_uniqueId = 0;  // the process identity
  uint32_t m_uid = 0;
  uint32_t m_gid = 0;
  std::string m_imagePath;
  std::string m_commandLine;
  std::u16string m_userName;
};

struct IProcessInformation : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x5a0c3e71;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetInformation(ProcessInfo& info) noexcept = 0;

 protected:
  ~IProcessInformation() = default;
};

struct IProcessManager : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x476789db;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetInformation(uint32_t pid, IProcessInformation** process) noexcept = 0;

 protected:
  ~IProcessManager() = default;
};

}  // namespace system_interceptors::process_manager
