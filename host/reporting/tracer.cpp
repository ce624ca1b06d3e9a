// Records carry the level they were created at, so the line's level word is the one the
// writer asked for even if the ceiling changes meanwhile. A failed write has nowhere to
// be reported and is dropped.
#include "host/reporting/tracer.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "host/reporting/log_text.h"
#include "host/reporting/output_file.h"

namespace oasd {
namespace {

class Record : public qeb::object::Ifaces<qeb::ITraceRecord> {
 public:
  explicit Record(uint32_t level) : m_level(level) {}
  char* Buffer(size_t* capacity) noexcept override {
    if (capacity) *capacity = sizeof m_buffer;
    return m_buffer;
  }
  uint32_t Level() const noexcept { return m_level; }

 private:
  uint32_t m_level;
  char m_buffer[512];
};

}  // namespace

std::string FormatUtcTime(std::chrono::system_clock::time_point when) {
  using namespace std::chrono;
  const auto ms = duration_cast<milliseconds>(when.time_since_epoch()).count();
  const time_t seconds = static_cast<time_t>(ms / 1000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[40];
  const size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(ms % 1000));
  return text;
}

const char* LevelName(uint32_t level) noexcept {
  if (level <= qeb::trace::LevelError) return "ERROR";
  if (level <= qeb::trace::LevelNotice) return "NOTICE";
  return "DETAIL";
}

HostTracer::HostTracer(uint32_t ceiling) : m_ceiling(ceiling) {}

std::string HostTracer::OpenLogFile(const std::string& path) {
  std::string error;
  UniqueFd file;
  if (!path.empty() && !(file = OpenAppendFile(path, error)).Valid()) return error;
  std::lock_guard lock(m_writeMutex);
  std::swap(m_file, file);  // the old file is closed outside the lock
  return {};
}

qeb::result_t HostTracer::CreateRecord(uint32_t level, qeb::ITraceRecord** record) noexcept {
  if (!record) return qeb::res::InvalidArgument;
  *record = nullptr;
  if (level > m_ceiling.load(std::memory_order_relaxed)) return qeb::res::False;
  try {
    *record = qeb::host::MakeHostObject<Record>(level).Detach();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t HostTracer::CommitRecord(qeb::ITraceRecord* record, const char* text,
                                       size_t length) noexcept {
  if (!record || (!text && length)) return qeb::res::InvalidArgument;
  try {
    const uint32_t level = static_cast<Record*>(record)->Level();
    std::string line = FormatUtcTime(std::chrono::system_clock::now());
    line += ' ';
    line += LevelName(level);
    line += ' ';
    line += EscapeLogText(std::string_view(text, length));
    line += '\n';
    WriteLine(line);
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

void HostTracer::WriteLine(const std::string& line) noexcept {
  std::lock_guard lock(m_writeMutex);
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(m_file.Valid() ? m_file.Get() : 2, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace oasd
