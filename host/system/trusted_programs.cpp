// A program is its file, not its name: a process counts as a trusted program when its
// executable is the very inode at programPath now, and that file and its directory are
// root's and closed to others, so a copy elsewhere, a rename or a file a user could
// rewrite is not trusted. /proc is read through a descriptor of /proc/<pid>, so every
// field comes from one process even if the pid is reused; an opener waits in open() until
// it is answered, so the process read is the opener unless it was killed meanwhile, and
// then its open never returns. Ancestors are followed only while each started no later
// than its child, which a reused parent pid cannot.
#include "host/system/trusted_programs.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "host/common/unique_fd.h"
#include "host/system/process_manager.h"

namespace oasd {
namespace {

constexpr int kMaxAncestors = 64;

UniqueFd ProcessDir(int64_t pid) {
  const std::string path = "/proc/" + std::to_string(pid);
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::optional<StatFields> StatOf(int dir) {
  std::string text;
  if (!ReadFileAt(dir, "stat", text)) return std::nullopt;
  return ParseProcStat(text);
}

bool RootOnly(const struct stat& st) { return st.st_uid == 0 && (st.st_mode & 022) == 0; }

// The trusted program's file as it is now, or nothing when it is missing or a user could
// change what runs under its name.
std::optional<struct stat> ProgramFile(const std::string& programPath) {
  struct stat file {}, dir {};
  const std::string parent = programPath.substr(0, programPath.rfind('/') + 1);
  if (!programPath.starts_with('/') || ::stat(programPath.c_str(), &file) != 0 ||
      ::stat(parent.c_str(), &dir) != 0 || !RootOnly(file) || !RootOnly(dir))
    return std::nullopt;
  return file;
}

bool IsProgram(int dir, const std::string& programPath) {
  struct stat exe {};
  const auto program = ProgramFile(programPath);
  return program && ::fstatat(dir, "exe", &exe, 0) == 0 && exe.st_dev == program->st_dev &&
         exe.st_ino == program->st_ino;
}

bool InArea(const nox::settings::ProgramExclusion& entry, const std::string& path) {
  std::string area = entry.path;
  while (area.size() > 1 && area.ends_with('/')) area.pop_back();
  const bool inArea = area.empty() || area == "/" || path == area || path.starts_with(area + "/") ||
                      ::fnmatch(area.c_str(), path.c_str(), 0) == 0;
  return inArea && (entry.area_mask.empty() ||
                    std::any_of(entry.area_mask.begin(), entry.area_mask.end(),
                                [&](const std::string& mask) { return MaskMatches(mask, path); }));
}

}  // namespace

bool MaskMatches(const std::string& mask, const std::string& path) noexcept {
  if (mask.find('/') != std::string::npos) return ::fnmatch(mask.c_str(), path.c_str(), 0) == 0;
  const size_t slash = path.rfind('/');
  const char* name = path.c_str() + (slash == std::string::npos ? 0 : slash + 1);
  return ::fnmatch(mask.c_str(), name, 0) == 0;
}

void TrustedPrograms::Apply(const std::vector<nox::settings::ProgramExclusion>& entries) {
  auto inForce = std::make_shared<std::vector<nox::settings::ProgramExclusion>>();
  for (const auto& entry : entries)
    if (entry.TrustedProgram.useTrustedProgram && !entry.TrustedProgram.programPath.empty())
      inForce->push_back(entry);
  std::lock_guard lock(m_mutex);
  m_entries = std::move(inForce);
  m_decided.clear();
}

bool TrustedPrograms::Empty() const {
  std::lock_guard lock(m_mutex);
  return m_entries->empty();
}

bool TrustedPrograms::Trusted(int32_t pid, const std::string& path) {
  std::shared_ptr<const std::vector<nox::settings::ProgramExclusion>> entries;
  {
    std::lock_guard lock(m_mutex);
    entries = m_entries;
  }
  if (entries->empty() || pid <= 0) return false;
  const UniqueFd dir = ProcessDir(pid);
  struct stat exe {};
  const auto fields = dir.Valid() ? StatOf(dir.Get()) : std::nullopt;
  if (!fields || ::fstatat(dir.Get(), "exe", &exe, 0) != 0) return false;
  const ProcessKey key{pid, fields->startTicks, exe.st_dev, exe.st_ino};
  std::vector<bool> matched;
  {
    std::lock_guard lock(m_mutex);
    if (const auto found = m_decided.find(key); found != m_decided.end() && entries == m_entries)
      matched = found->second;
  }
  if (matched.empty()) {
    matched = EntriesOf(dir.Get(), fields->startTicks, *entries);
    // Read under the entries in force at the start; newer ones decide afresh.
    std::lock_guard lock(m_mutex);
    if (entries == m_entries) {
      if (m_decided.size() >= kMaxProcesses) m_decided.clear();
      m_decided.emplace(key, matched);
    }
  }
  for (size_t i = 0; i < entries->size(); ++i)
    if (matched[i] && InArea((*entries)[i], path)) return true;
  return false;
}

std::vector<bool> TrustedPrograms::EntriesOf(
    int dir, uint64_t startTicks, const std::vector<nox::settings::ProgramExclusion>& entries) {
  std::vector<bool> matched(entries.size(), false);
  for (size_t i = 0; i < entries.size(); ++i)
    matched[i] = IsProgram(dir, entries[i].TrustedProgram.programPath);
  auto fields = StatOf(dir);
  uint64_t childStart = startTicks;
  for (int depth = 0; fields && fields->parentPid > 1 && depth < kMaxAncestors; ++depth) {
    const UniqueFd parent = ProcessDir(static_cast<int64_t>(fields->parentPid));
    fields = parent.Valid() ? StatOf(parent.Get()) : std::nullopt;
    if (!fields || fields->startTicks > childStart) break;  // gone, or its pid reused
    for (size_t i = 0; i < entries.size(); ++i)
      if (entries[i].TrustedProgram.applyToDescendants && !matched[i])
        matched[i] = IsProgram(parent.Get(), entries[i].TrustedProgram.programPath);
    childStart = fields->startTicks;
  }
  return matched;
}

}  // namespace oasd
