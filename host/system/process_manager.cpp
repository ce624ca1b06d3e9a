// Every file of a process is read through one descriptor of its /proc directory: once
// the process exits, reads through that descriptor fail instead of reaching a newer
// process that took the pid. The information object only hands out the snapshot, so the
// same object may serve every lookup of the pid while it is recent. A failed read is not
// remembered: the next lookup tries again.
#include "host/system/process_manager.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <sstream>
#include <utility>
#include <vector>

#include "framework/qeb/utf.h"

namespace oasd {
namespace {

using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::ProcessInfo;

class ProcessInformation : public qeb::object::Ifaces<IProcessInformation> {
 public:
  explicit ProcessInformation(ProcessInfo info) : m_info(std::move(info)) {}

  qeb::result_t GetInformation(ProcessInfo& info) noexcept override {
    try {
      info = m_info;
      return qeb::res::Ok;
    } catch (...) {
      return qeb::res::OutOfMemory;
    }
  }

 private:
  const ProcessInfo m_info;
};

// Closes the /proc/<pid> descriptor however the read ends.
class DirFd {
 public:
  explicit DirFd(int fd) noexcept : m_fd(fd) {}
  ~DirFd() {
    if (m_fd >= 0) ::close(m_fd);
  }
  DirFd(const DirFd&) = delete;
  DirFd& operator=(const DirFd&) = delete;
  int Get() const noexcept { return m_fd; }

 private:
  int m_fd;
};

std::string ReadLinkAt(int dir, const char* name) {
  std::vector<char> buffer(4096);
  const ssize_t n = ::readlinkat(dir, name, buffer.data(), buffer.size());
  if (n <= 0) return {};
  return std::string(buffer.data(), static_cast<size_t>(n));
}

// The second number of a "Uid:" or "Gid:" line: the effective id.
bool ParseEffectiveId(const std::string& status, std::string_view key, uint32_t& id) {
  const size_t at = status.find(std::string("\n") + std::string(key));
  if (at == std::string::npos) return false;
  std::istringstream line(status.substr(at + key.size() + 1, 64));
  uint32_t real = 0;
  return static_cast<bool>(line >> real >> id);
}

// NUL-separated arguments joined with spaces.
std::string JoinCommandLine(std::string text) {
  while (!text.empty() && text.back() == '\0') text.pop_back();
  for (char& c : text)
    if (c == '\0') c = ' ';
  return text;
}

bool ParseNumber(std::string_view text, uint64_t& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool ReadFileAt(int dir, const char* name, std::string& text) {
  const int fd = ::openat(dir, name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::array<char, 4096> buffer;
  ssize_t n = 0;
  while ((n = ::read(fd, buffer.data(), buffer.size())) > 0) text.append(buffer.data(), static_cast<size_t>(n));
  ::close(fd);
  return n == 0;
}

// Fields after the command name (which ends at the LAST ')'): state is field 3, the parent
// pid field 4, the start time field 22.
std::optional<StatFields> ParseProcStat(std::string_view text) {
  const size_t close = text.rfind(')');
  if (close == std::string_view::npos) return std::nullopt;
  std::vector<std::string_view> fields;
  size_t pos = close + 1;
  while (pos < text.size()) {
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\n')) ++pos;
    const size_t end = std::min(text.find_first_of(" \n", pos), text.size());
    if (end > pos) fields.push_back(text.substr(pos, end - pos));
    pos = end;
  }
  constexpr size_t kParent = 4 - 3, kStart = 22 - 3;
  StatFields stat;
  if (fields.size() <= kStart || !ParseNumber(fields[kParent], stat.parentPid) ||
      !ParseNumber(fields[kStart], stat.startTicks))
    return std::nullopt;
  return stat;
}

ProcessManager::ProcessManager(qeb::objptr_t<qeb::ITracer> tracer, std::string procRoot,
                               Recent::Clock::duration lifetime)
    : m_tracer(std::move(tracer)), m_procRoot(std::move(procRoot)), m_recent(lifetime) {}

qeb::result_t ProcessManager::ReadProcess(uint32_t pid, ProcessInfo& info) {
  const std::string dir = m_procRoot + "/" + std::to_string(pid);
  DirFd proc(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (proc.Get() < 0) return errno == ENOENT ? qeb::res::NotFound : qeb::res::ErrnoFacilityBase + errno;
  std::string statText, status, cmdline;
  if (!ReadFileAt(proc.Get(), "stat", statText) || !ReadFileAt(proc.Get(), "status", status))
    return qeb::res::NotFound;  // it exited between the open and the reads
  const auto stat = ParseProcStat(statText);
  if (!stat || !ParseEffectiveId(status, "Uid:", info.m_uid) ||
      !ParseEffectiveId(status, "Gid:", info.m_gid))
    return qeb::res::Unexpected;
  ReadFileAt(proc.Get(), "cmdline", cmdline);
  info.m_pid = pid;
  info.m_parentPid = stat->parentPid;
  info.m_uniqueId = ProcessIdentity(stat->startTicks, pid);
  info.m_imagePath = ReadLinkAt(proc.Get(), "exe");  // empty for kernel threads
  info.m_commandLine = JoinCommandLine(std::move(cmdline));
  info.m_userName = qeb::Utf8ToUtf16(m_userNames.NameOf(info.m_uid));
  return qeb::res::Ok;
}

qeb::result_t ProcessManager::GetInformation(uint32_t pid, IProcessInformation** process) noexcept {
  if (!process) return qeb::res::InvalidArgument;
  *process = nullptr;
  try {
    const auto now = Recent::Clock::now();
    {
      std::lock_guard lock(m_mutex);
      if (const auto* recent = m_recent.Find(pid, now)) {
        *process = qeb::objptr_t<IProcessInformation>(*recent).Detach();
        return qeb::res::Ok;
      }
    }
    ProcessInfo info;
    const qeb::result_t result = ReadProcess(pid, info);
    if (QEB_FAILED(result)) return result;
    qeb::objptr_t<IProcessInformation> read(
        qeb::host::MakeHostObject<ProcessInformation>(std::move(info)));
    {
      std::lock_guard lock(m_mutex);
      m_recent.Put(pid, read, now);
    }
    *process = read.Detach();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

}  // namespace oasd
