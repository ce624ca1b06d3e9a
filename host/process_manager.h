// The host's process manager over /proc. A lookup reads the whole record at once through
// a descriptor of /proc/<pid>, so every field comes from the same process even if the pid
// is reused meanwhile; the information object then owns that snapshot. The identity
// combines the boot-relative start time with the pid and is never reused while the host runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/info_caches.h"
#include "interfaces/nox/process.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// Appends the whole of a small /proc file (dir: a directory descriptor, or AT_FDCWD).
bool ReadFileAt(int dir, const char* name, std::string& text);

struct StatFields {
  uint64_t parentPid = 0;
  uint64_t startTicks = 0;  // clock ticks since boot
};
// Fields of a /proc/<pid>/stat line; the command name may hold spaces and parentheses.
std::optional<StatFields> ParseProcStat(std::string_view text);
// Pids fit in 22 bits (the kernel's largest pid_max), start ticks fill the rest.
constexpr uint64_t ProcessIdentity(uint64_t startTicks, uint64_t pid) noexcept {
  return (startTicks << 22) | (pid & ((uint64_t{1} << 22) - 1));
}

class ProcessManager
    : public qeb::object::Ifaces<system_interceptors::process_manager::IProcessManager> {
 public:
  explicit ProcessManager(qeb::objptr_t<qeb::ITracer> tracer, std::string procRoot = "/proc");

  // NotFound for a pid that does not exist or exits during the lookup.
  qeb::result_t GetInformation(
      uint32_t pid,
      system_interceptors::process_manager::IProcessInformation** process) noexcept override;

 private:
  qeb::result_t ReadProcess(uint32_t pid,
                            system_interceptors::process_manager::ProcessInfo& info);

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  const std::string m_procRoot;
  UserNames m_userNames;
};

}  // namespace oasd
