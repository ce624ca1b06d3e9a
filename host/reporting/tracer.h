// oasd's tracer: the ITracer the module and every host service write through. It owns
// the log descriptor (stderr unless a log file is given) and the level ceiling; lines are
// formatted into records the caller owns, escaped (log_text.h) and written whole, one write
// per line, so lines from different threads never interleave and no text can add a line.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "framework/qeb/host_object.h"
#include "host/common/unique_fd.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// "2026-11-22T09:05:03.123Z": the time stamp of trace lines and event log records.
std::string FormatUtcTime(std::chrono::system_clock::time_point when);
// The level's word in a trace line: ERROR up to 300, NOTICE up to 700, DETAIL above.
const char* LevelName(uint32_t level) noexcept;

class HostTracer : public qeb::object::Ifaces<qeb::ITracer> {
 public:
  // Lines above ceiling are not produced at all; the writer starts on stderr.
  explicit HostTracer(uint32_t ceiling);

  // Appends to path from now on (opened as output_file.h says; an empty path means stderr).
  // Called again with the same path it reopens the file, as log rotation needs. On failure
  // the tracer stays where it was and the answer says why, naming the path.
  std::string OpenLogFile(const std::string& path);
  // A SIGHUP may bring a new level; lines in flight keep the level they were asked at.
  void SetCeiling(uint32_t ceiling) noexcept { m_ceiling = ceiling; }

  qeb::result_t CreateRecord(uint32_t level, qeb::ITraceRecord** record) noexcept override;
  qeb::result_t CommitRecord(qeb::ITraceRecord* record, const char* text,
                             size_t length) noexcept override;

 private:
  void WriteLine(const std::string& line) noexcept;

  std::atomic<uint32_t> m_ceiling;
  std::mutex m_writeMutex;
  UniqueFd m_file;  // the log file; stderr while it is not valid
};

}  // namespace oasd
