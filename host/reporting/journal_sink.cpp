// Fields: OASD_EVENT (detection, unprocessed, processing_error), OASD_PATH, OASD_THREAT,
// OASD_PID, OASD_UID, OASD_OPERATION, OASD_REASON; what is not known is left out. MESSAGE
// is the escaped log form, for a reader of plain journalctl output.
#include "host/reporting/journal_sink.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "framework/qeb/utf.h"
#include "host/reporting/log_text.h"

namespace oasd {

namespace {

class Entry {
 public:
  Entry(const char* event, int priority) {
    Add("OASD_EVENT", event);
    Add("PRIORITY", std::to_string(priority));
    Add("SYSLOG_IDENTIFIER", "oasd");
  }
  void Add(const char* key, const std::string& value) { m_fields.push_back(std::string(key) + '=' + value); }
  void Add(const char* key, const std::optional<uint32_t>& value) {
    if (value) Add(key, std::to_string(*value));
  }
  void Send(const std::string& message) {
    Add("MESSAGE", EscapeLogText(message));
    std::vector<iovec> parts;
    for (auto& field : m_fields) parts.push_back({field.data(), field.size()});
    ::sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
  }

 private:
  std::vector<std::string> m_fields;
};

}  // namespace

bool StderrIsJournal() noexcept {
  const char* stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0, inode = 0;
  struct stat st {};
  if (!stream || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2 || ::fstat(2, &st) != 0)
    return false;
  return st.st_dev == device && st.st_ino == inode;
}

void JournalDetection(const DetectionRecord& record) noexcept {
  try {
    Entry entry("detection", LOG_WARNING);
    entry.Add("OASD_PATH", record.path);
    entry.Add("OASD_THREAT", record.threat);
    entry.Add("OASD_PID", record.pid);
    entry.Add("OASD_UID", record.uid);
    entry.Add("OASD_OPERATION", record.operation);
    entry.Send("detected " + record.threat + " in " + record.path + (record.late ? " (late)" : ""));
  } catch (...) {
  }
}

void JournalUnprocessed(const UnprocessedRecord& record) noexcept {
  try {
    Entry entry("unprocessed", LOG_NOTICE);
    entry.Add("OASD_PATH", record.path);
    entry.Add("OASD_REASON", record.reason);
    entry.Add("OASD_PID", record.pid);
    entry.Add("OASD_UID", record.uid);
    entry.Add("OASD_OPERATION", record.operation);
    entry.Send("not scanned whole (" + record.reason + "): " + record.path);
  } catch (...) {
  }
}

void JournalProcessingError(const nox::ProcessingErrorEvent& event) noexcept {
  try {
    Entry entry("processing_error", LOG_ERR);
    const std::string path = qeb::Utf16ToUtf8(event.fileName);
    const std::string reason = qeb::Utf16ToUtf8(event.reason);
    entry.Add("OASD_PATH", path);
    entry.Add("OASD_REASON", reason);
    entry.Add("OASD_UID", qeb::Utf16ToUtf8(event.userId));
    entry.Add("OASD_OPERATION", std::to_string(event.eventKind));
    entry.Send("processing error (" + reason + "): " + path);
  } catch (...) {
  }
}

}  // namespace oasd
