// A clean text file's entry: the base times plus the processes seen with the file, a
// bounded recency-ordered set of process identities. The set is guarded by the entry's
// own mutex because the cache that records processes and the manager that checks them
// hold different locks. Shared between its cache and the lookups that found it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <unordered_map>

#include "oas/files_cache.h"

namespace nox::oas {

class CleanFileInfoPid final : public CleanFileInfo {
 public:
  static constexpr size_t MaxProcesses = 100;

  CleanFileInfoPid();

  // True when the process was seen with this file; it then becomes the most recent one.
  bool CheckProcess(const system_interceptors::process_manager::ProcessInfo& info) override;

  // Remembers a process identity as the most recent; the oldest goes when the set is full.
  void AddProcess(uint64_t identity);
  size_t ProcessCount() const;

 private:
  using Order = std::list<uint64_t>;

  mutable std::mutex m_mutex;
  Order m_order;  // oldest first
  std::unordered_map<uint64_t, Order::iterator> m_positions;
};

}  // namespace nox::oas
