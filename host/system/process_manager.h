// The host's process manager over /proc. A lookup reads the whole record at once through
// a descriptor of /proc/<pid>, so every field comes from the same process even if the pid
// is reused meanwhile; the information object then owns that snapshot, and the manager
// keeps it a short while for the next lookup of the same pid. The identity combines the
// boot-relative start time with the pid and is never reused while the host runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/system/info_caches.h"
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

// What was read about processes lately, by pid, with no lock of its own. Opens come in
// bursts from the same processes, so /proc is read once per process and Lifetime. A pid
// names another process only after the pid space wraps, and a wrap inside one lifetime is
// what it would take for an entry to describe the wrong process. An exec keeps the pid
// and the start time but changes the program: that shows one lifetime late at most.
template <class Value>
class RecentProcesses {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds DefaultLifetime{1000};
  static constexpr size_t Capacity = 4096;

  explicit RecentProcesses(Clock::duration lifetime = DefaultLifetime) : m_lifetime(lifetime) {}

  // The value read within the lifetime before now; null when there is none. The pointer
  // is good until the next Put.
  const Value* Find(int64_t pid, Clock::time_point now) const {
    const auto it = m_entries.find(pid);
    return it != m_entries.end() && now - it->second.readAt < m_lifetime ? &it->second.value
                                                                         : nullptr;
  }

  void Put(int64_t pid, Value value, Clock::time_point now) {
    MakeRoom(now);
    m_entries.insert_or_assign(pid, Entry{std::move(value), now});
  }

 private:
  struct Entry {
    Value value;
    Clock::time_point readAt;
  };

  // Full of live entries means a burst of short-lived processes: starting afresh costs
  // one read per process, no more than a table without them would.
  void MakeRoom(Clock::time_point now) {
    if (m_entries.size() < Capacity) return;
    std::erase_if(m_entries,
                  [&](const auto& item) { return now - item.second.readAt >= m_lifetime; });
    if (m_entries.size() >= Capacity) m_entries.clear();
  }

  const Clock::duration m_lifetime;
  std::unordered_map<int64_t, Entry> m_entries;
};

class ProcessManager
    : public qeb::object::Ifaces<system_interceptors::process_manager::IProcessManager> {
 public:
  using Recent = RecentProcesses<
      qeb::objptr_t<system_interceptors::process_manager::IProcessInformation>>;

  explicit ProcessManager(qeb::objptr_t<qeb::ITracer> tracer, std::string procRoot = "/proc",
                          Recent::Clock::duration lifetime = Recent::DefaultLifetime);

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
  // Held for the table only, never across a read of /proc. The snapshots it drops are
  // plain data: releasing one under the lock calls nothing.
  std::mutex m_mutex;
  Recent m_recent;
};

}  // namespace oasd
