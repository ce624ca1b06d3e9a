// Each record is formatted completely before the lock is taken and written under it, so
// concurrent writers never interleave inside a line, and a line is written whole or not at all. A failed write (a full
// disk, a vanished file system) costs the record, never the caller's operation.
#include "host/reporting/event_log.h"
#include "host/reporting/journal_sink.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <cstring>
#include <nlohmann/json.hpp>

#include "framework/qeb/utf.h"
#include "host/reporting/output_file.h"
#include "host/reporting/tracer.h"
#include "nox_tracing/tracing.h"

namespace oasd {
namespace {

using nlohmann::json;

std::string ToLine(const json& record) {
  return record.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

std::chrono::system_clock::time_point EventTime(int64_t seconds,
                                                std::chrono::system_clock::time_point now) {
  if (seconds < 0) return now;
  return std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
}

// Writes all of line or reports the errno that stopped it.
int WriteAll(int fd, const std::string& line) noexcept {
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

// A full disk may take part of a line: that part is cut off again, so the next record
// starts a line of its own instead of being glued to half a record.
int WriteWholeLine(int fd, const std::string& line) noexcept {
  const off_t before = ::lseek(fd, 0, SEEK_END);
  const int error = WriteAll(fd, line);
  if (error != 0 && before >= 0) {
    [[maybe_unused]] const int r = ::ftruncate(fd, before);
  }
  return error;
}

}  // namespace

std::string ProcessingErrorLine(const nox::ProcessingErrorEvent& event,
                                std::chrono::system_clock::time_point now) {
  const json record = {
      {"type", "processing_error"},
      {"time", FormatUtcTime(EventTime(event.time, now))},
      {"file", qeb::Utf16ToUtf8(event.fileName)},
      {"reason", qeb::Utf16ToUtf8(event.reason)},
      {"event_kind", event.eventKind},
      {"severity", event.severity},
      {"error_category", event.errorCategory},
      {"file_size", event.fileSize},
      {"md5", event.fileMd5},
      {"sha256", event.fileSha256},
      {"user", qeb::Utf16ToUtf8(event.userName)},
      {"user_id", qeb::Utf16ToUtf8(event.userId)},
      {"task", qeb::Utf16ToUtf8(event.taskName)},
      {"task_id", event.taskId},
  };
  return ToLine(record);
}

std::string DetectionLine(const DetectionRecord& record, std::chrono::system_clock::time_point now) {
  json line = {
      {"type", "detection"},     {"time", FormatUtcTime(now)}, {"path", record.path},
      {"threat", record.threat}, {"operation", record.operation}, {"late", record.late},
  };
  if (record.pid) line["pid"] = *record.pid;
  if (record.uid) line["uid"] = *record.uid;
  if (!record.action.empty()) line["action"] = record.action;
  if (!record.note.empty()) line["note"] = record.note;
  if (!record.quarantineId.empty()) line["quarantine_id"] = record.quarantineId;
  return ToLine(line);
}

std::string ObjectLine(const ObjectRecord& record, std::chrono::system_clock::time_point now) {
  json line = {{"type", record.type},     {"time", FormatUtcTime(now)},
               {"path", record.path},     {"detail", record.detail},
               {"operation", record.operation}};
  if (record.pid) line["pid"] = *record.pid;
  return ToLine(line);
}

std::string UnprocessedLine(const UnprocessedRecord& record,
                            std::chrono::system_clock::time_point now) {
  json line = {
      {"type", "unprocessed"},   {"time", FormatUtcTime(now)},   {"path", record.path},
      {"reason", record.reason}, {"detail", record.detail},      {"operation", record.operation},
      {"action", record.denied ? "deny" : "allow"},
  };
  if (record.pid) line["pid"] = *record.pid;
  if (record.uid) line["uid"] = *record.uid;
  return ToLine(line);
}

EventLog::EventLog(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics, bool journal)
    : m_tracer(std::move(tracer)), m_metrics(metrics), m_journal(journal) {}

EventLog::~EventLog() { TearDown(); }

std::string EventLog::Open(const std::string& path) {
  std::string error;
  UniqueFd file;
  if (!path.empty() && !(file = OpenAppendFile(path, error)).Valid()) return error;
  std::string oldPath = path;
  std::lock_guard lock(m_mutex);
  std::swap(m_file, file);  // the old file and path go outside the lock
  std::swap(m_path, oldPath);
  return {};
}

void EventLog::TearDown() noexcept {
  UniqueFd file;
  std::lock_guard lock(m_mutex);
  std::swap(m_file, file);
}

qeb::result_t EventLog::Publish(nox::ProcessingErrorEvent&& event) noexcept {
  m_metrics.processingErrors.fetch_add(1, std::memory_order_relaxed);
  if (m_journal) JournalProcessingError(event);
  try {
    Append(ProcessingErrorLine(event, std::chrono::system_clock::now()));
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

void EventLog::Detection(const DetectionRecord& record) noexcept {
  m_metrics.detections.fetch_add(1, std::memory_order_relaxed);
  m_metrics.lastDetectionAt.store(::time(nullptr), std::memory_order_relaxed);
  if (record.late) m_metrics.lateDetections.fetch_add(1, std::memory_order_relaxed);
  if (m_journal) JournalDetection(record);
  try {
    Append(DetectionLine(record, std::chrono::system_clock::now()));
  } catch (...) {
    NoteWriteResult(false, ENOMEM);
  }
}

void EventLog::Unprocessed(const UnprocessedRecord& record) noexcept {
  if (m_journal) JournalUnprocessed(record);
  try {
    Append(UnprocessedLine(record, std::chrono::system_clock::now()));
  } catch (...) {
    NoteWriteResult(false, ENOMEM);
  }
}

void EventLog::Object(const ObjectRecord& record) noexcept {
  try {
    Append(ObjectLine(record, std::chrono::system_clock::now()));
  } catch (...) {
    NoteWriteResult(false, ENOMEM);
  }
}

void EventLog::Append(const std::string& line) noexcept {
  int error = 0;
  {
    std::lock_guard lock(m_mutex);
    if (!m_file.Valid()) return;
    error = WriteWholeLine(m_file.Get(), line);
  }
  NoteWriteResult(error == 0, error);
}

// Traced outside the write lock: the tracer may be slow, and a full disk fails every
// record, so only the first failure of a streak and the recovery are worth a line.
void EventLog::NoteWriteResult(bool ok, int error) noexcept {
  if (!ok) m_writeFailures.fetch_add(1, std::memory_order_relaxed);
  bool changed = false;
  std::string path;
  {
    std::lock_guard lock(m_mutex);
    changed = m_failing == ok;
    m_failing = !ok;
    try {
      if (changed) path = m_path;
    } catch (...) {  // the line then names no path
    }
  }
  if (!changed) return;
  if (ok) {
    QEB_TRACE(m_tracer, qeb::trace::LevelNotice) << "Writing the events file " << path
                                                 << " works again";
  } else {
    QEB_TRACE(m_tracer, qeb::trace::LevelError)
        << "Cannot write the events file " << path << ": " << std::strerror(error)
        << "; records are dropped until writing works again";
  }
}

}  // namespace oasd
