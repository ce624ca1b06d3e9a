// A host tracer that keeps every committed line in memory for tests to read. Levels are
// switched on and off one by one or up to a ceiling; lines carry their level.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/qeb/tracer.h"
#include "testing/locked.h"

namespace qeb::testing {

struct TraceLine {
  uint32_t level;
  std::string text;
};

class CapturingTracer : public object::Ifaces<ITracer> {
 public:
  result_t CreateRecord(uint32_t level, ITraceRecord** record) noexcept override;
  result_t CommitRecord(ITraceRecord* record, const char* text, size_t length) noexcept override;

  // Every level up to and including ceiling is on (the default ceiling is 800).
  void EnableUpTo(uint32_t ceiling);
  void Enable(uint32_t level, bool on);
  // Runs on the writing thread with each committed line, outside the tracer's lock.
  void OnLine(std::function<void(std::string_view)> hook);
  // CreateRecord answers this code (a failure switches tracing off altogether).
  void FailRecords(result_t code) { m_recordResult = code; }

  std::vector<TraceLine> Lines() const { return LockedCopy(m_mutex, m_lines); }
  std::vector<std::string> Texts(uint32_t level) const;
  // Lines at any level containing the fragment.
  size_t Count(std::string_view fragment) const;
  bool Contains(std::string_view fragment) const { return Count(fragment) > 0; }
  // Committed line count and records asked for (enabled or not).
  size_t RecordRequests() const { return m_requests; }
  void Clear();

 private:
  bool IsOn(uint32_t level) const;

  mutable std::mutex m_mutex;
  uint32_t m_ceiling = 800;
  std::set<uint32_t> m_forcedOn;
  std::set<uint32_t> m_forcedOff;
  std::atomic<result_t> m_recordResult{0};
  std::atomic<size_t> m_requests{0};
  std::vector<TraceLine> m_lines;
  std::function<void(std::string_view)> m_hook;
};

}  // namespace qeb::testing
