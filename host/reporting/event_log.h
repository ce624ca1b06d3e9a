// oasd's events file: processing errors the module publishes and detections the engine
// reports, one JSON object per line. It owns the events descriptor and its write-failure
// count; callers hand records over by value or reference and keep nothing shared with it.
// Without an events file it still counts what passes through, it only writes nothing.
// The file is opened as output_file.h says, and reopened on request for log rotation.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/common/host_metrics.h"
#include "host/common/unique_fd.h"
#include "interfaces/nox/event_publisher.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// What the engine reports about a file it refused; what is not known (the uid of a process
// that has exited) is absent, and left out of the line.
struct DetectionRecord {
  std::string path;
  std::string threat;
  std::optional<uint32_t> pid;
  std::optional<uint32_t> uid;
  std::string operation;
  bool late = false;  // found after the open was already answered (the deadline, a stop)
  std::string action{};  // what oasd did beyond the verdict ("blocked", "removed", ...); may be empty
  std::string note{};    // why the action is not the one asked for; may be empty
  std::string quarantineId{};  // when removed: the ID `oasd --restore` takes
};

// A file the settings ask to hear about although nothing is wrong with it: "clean" (a
// scan found nothing) or "packed" (the scan took objects out of it).
struct ObjectRecord {
  std::string type;
  std::string path;
  std::string detail;
  std::optional<uint32_t> pid;
  std::string operation;
};

// What the engine reports about a file it did not scan whole.
struct UnprocessedRecord {
  std::string path;
  std::string reason;  // one of HostMetrics::UnprocessedReasons
  std::string detail;  // what stopped the scan, in the engine's words
  std::optional<uint32_t> pid;
  std::optional<uint32_t> uid;
  std::string operation;
  bool denied = false;  // the unscanned policy's answer
};

// The JSON lines written for each record (newline included); paths that are not valid
// UTF-8 have their bad bytes replaced, never dropped silently or thrown on.
std::string ProcessingErrorLine(const nox::ProcessingErrorEvent& event,
                                std::chrono::system_clock::time_point now);
std::string DetectionLine(const DetectionRecord& record, std::chrono::system_clock::time_point now);
std::string UnprocessedLine(const UnprocessedRecord& record,
                            std::chrono::system_clock::time_point now);
std::string ObjectLine(const ObjectRecord& record, std::chrono::system_clock::time_point now);

class EventLog : public qeb::object::Ifaces<nox::IEventPublisher> {
 public:
  // journal: each record also goes to the journal with its fields (journal_sink.h).
  EventLog(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics, bool journal = false);
  ~EventLog();

  // Appends to path from now on; an empty path means no file. Called again with the same
  // path it reopens the file (log rotation). On failure the current file stays and the
  // answer says why, naming the path.
  std::string Open(const std::string& path);
  void TearDown() noexcept;

  qeb::result_t Publish(nox::ProcessingErrorEvent&& event) noexcept override;
  void Detection(const DetectionRecord& record) noexcept;
  // Counted by the engine, which knows the reason's index; only written here.
  void Unprocessed(const UnprocessedRecord& record) noexcept;
  void Object(const ObjectRecord& record) noexcept;

  uint64_t WriteFailures() const noexcept { return m_writeFailures; }

 private:
  void Append(const std::string& line) noexcept;
  void NoteWriteResult(bool ok, int error) noexcept;

  qeb::objptr_t<qeb::ITracer> m_tracer;
  HostMetrics& m_metrics;
  const bool m_journal;
  std::mutex m_mutex;
  std::string m_path;  // under m_mutex, with the file
  UniqueFd m_file;
  bool m_failing = false;  // under m_mutex: a failure streak is traced once, and its end
  std::atomic<uint64_t> m_writeFailures{0};
};

}  // namespace oasd
