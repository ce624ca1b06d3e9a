// Process tools shared across the product line: the host's information record for a
// pid, the name of the account that owns a process, and a deliberate crash for a dump.
// Stateless: every call obtains and releases its own host references.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/nox/process.h"
#include "interfaces/qeb/object.h"

namespace nox::tools {

// Fills info from the host's process manager. Failures are traced at error level.
qeb::result_t GetProcessInfo(
    qeb::IServiceLocator* sl, uint32_t pid,
    system_interceptors::process_manager::ProcessInfo& processInfo) noexcept;

// The owner's account name in UTF-16: 0 when found, NotFound when the account database
// has no entry, Unspecified when the lookup failed. The name is empty on any failure.
qeb::result_t GetProcessUserName(qeb::IServiceLocator* sl, uint32_t pid,
                                 std::u16string& userName) noexcept;

// Raises SIGSEGV so that the host's crash handler writes a dump and ends the process.
// Answers 0 only if the signal returns.
qeb::result_t WriteDumpAndDie(qeb::IServiceLocator* sl) noexcept;

}  // namespace nox::tools
