// Both operations touch the recency order, so both take the entry's mutex; neither
// calls out while holding it.
#include "oas/cache_impl/clean_file_info_pid.h"

#include <iterator>

namespace nox::oas {

CleanFileInfoPid::CleanFileInfoPid() { m_positions.max_load_factor(1.0f); }

bool CleanFileInfoPid::CheckProcess(const system_interceptors::process_manager::ProcessInfo& info) {
  std::lock_guard lock(m_mutex);
  auto it = m_positions.find(info.m_uniqueId);
  if (it == m_positions.end()) return false;
  m_order.splice(m_order.end(), m_order, it->second);
  return true;
}

void CleanFileInfoPid::AddProcess(uint64_t identity) {
  std::lock_guard lock(m_mutex);
  if (auto it = m_positions.find(identity); it != m_positions.end()) {
    m_order.splice(m_order.end(), m_order, it->second);
    return;
  }
  if (m_order.size() >= MaxProcesses) {
    m_positions.erase(m_order.front());
    m_order.pop_front();
  }
  m_order.push_back(identity);
  try {
    m_positions.emplace(identity, std::prev(m_order.end()));
  } catch (...) {
    m_order.pop_back();
    throw;
  }
}

size_t CleanFileInfoPid::ProcessCount() const {
  std::lock_guard lock(m_mutex);
  return m_order.size();
}

}  // namespace nox::oas
