// A pid missing from the table answers NotFound, the code a host gives for a pid it no
// longer knows.
#include "testing/fake_process_manager.h"

#include <functional>
#include <utility>

#include "testing/fault_injection.h"
#include "testing/host_object.h"

namespace qeb::testing {

using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::ProcessInfo;

struct FakeProcessManager::Table {
  mutable std::mutex mutex;
  std::map<uint32_t, ProcessInfo> processes;
  std::map<uint32_t, result_t> lookupFailures;
  std::map<uint32_t, result_t> readFailures;
  size_t lookups = 0;

  result_t Read(uint32_t pid, ProcessInfo& info) const {
    std::lock_guard lock(mutex);
    if (auto f = readFailures.find(pid); f != readFailures.end()) return f->second;
    auto it = processes.find(pid);
    if (it == processes.end()) return res::NotFound;
    info = it->second;
    return res::Ok;
  }
};

namespace {

class FakeProcessInformation : public object::Ifaces<IProcessInformation> {
 public:
  explicit FakeProcessInformation(std::function<result_t(ProcessInfo&)> read)
      : m_read(std::move(read)) {}

  result_t GetInformation(ProcessInfo& info) noexcept override {
    OAS_FAULT_POINT("process information GetInformation");
    return m_read(info);
  }

 private:
  std::function<result_t(ProcessInfo&)> m_read;
};

}  // namespace

FakeProcessManager::FakeProcessManager() : m_table(std::make_shared<Table>()) {}

result_t FakeProcessManager::GetInformation(uint32_t pid, IProcessInformation** process) noexcept {
  if (!process) return res::InvalidArgument;
  *process = nullptr;
  OAS_FAULT_POINT("process manager GetInformation");
  {
    std::lock_guard lock(m_table->mutex);
    ++m_table->lookups;
    const auto failure = m_table->lookupFailures.find(pid);
    if (failure != m_table->lookupFailures.end()) return failure->second;
    if (!m_table->processes.count(pid)) return res::NotFound;
  }
  std::shared_ptr<const Table> table = m_table;
  *process = MakeHostObject<FakeProcessInformation>(
                 [table, pid](ProcessInfo& info) { return table->Read(pid, info); })
                 .Detach();
  return res::Ok;
}

void FakeProcessManager::AddProcess(const ProcessInfo& info) {
  std::lock_guard lock(m_table->mutex);
  m_table->processes[static_cast<uint32_t>(info.m_pid)] = info;
}

void FakeProcessManager::AddProcess(uint32_t pid, uint64_t uniqueId, uint32_t uid) {
  ProcessInfo info;
  info.m_pid = pid;
  info.m_uniqueId = uniqueId;
  info.m_uid = uid;
  AddProcess(info);
}

void FakeProcessManager::FailLookup(uint32_t pid, result_t code) {
  std::lock_guard lock(m_table->mutex);
  m_table->lookupFailures[pid] = code;
}

void FakeProcessManager::FailInformation(uint32_t pid, result_t code) {
  std::lock_guard lock(m_table->mutex);
  m_table->readFailures[pid] = code;
}

void FakeProcessManager::RestorePid(uint32_t pid) {
  std::lock_guard lock(m_table->mutex);
  m_table->lookupFailures.erase(pid);
  m_table->readFailures.erase(pid);
}

size_t FakeProcessManager::Lookups() const {
  std::lock_guard lock(m_table->mutex);
  return m_table->lookups;
}

}  // namespace qeb::testing
