// The fake process manager: a table of processes by pid, each with the record the
// host would fill. Information objects read the table when asked, so a failure scripted
// after the lookup hits the second step as it would for a process that just exited.
// Tests script per-pid failures of either step; the table is shared with handed-out
// information objects and lives as long as any of them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/process.h"

namespace qeb::testing {

class FakeProcessManager
    : public object::Ifaces<system_interceptors::process_manager::IProcessManager> {
 public:
  using ProcessInfo = system_interceptors::process_manager::ProcessInfo;
  using IProcessInformation = system_interceptors::process_manager::IProcessInformation;

  FakeProcessManager();

  result_t GetInformation(uint32_t pid, IProcessInformation** process) noexcept override;

  // Adds or replaces the process with pid info.m_pid.
  void AddProcess(const ProcessInfo& info);
  // Convenience: a process with this pid, identity and owner.
  void AddProcess(uint32_t pid, uint64_t uniqueId, uint32_t uid = 0);

  // The manager's lookup of pid answers code (until RestorePid).
  void FailLookup(uint32_t pid, result_t code);
  // Reading the information object of pid answers code (until RestorePid).
  void FailInformation(uint32_t pid, result_t code);
  void RestorePid(uint32_t pid);

  size_t Lookups() const;

 private:
  struct Table;
  std::shared_ptr<Table> m_table;
};

}  // namespace qeb::testing
