// Root moves files here on a user's behalf and back again, so neither move may be steered:
// the copy is made from the scanned descriptor, never reopened by name; the unlink happens
// only while the name still refers to that inode, through a parent opened without
// following links; the restore opens every component without following links and creates
// the file exclusively, owned by root and unreadable until its owner and mode are set.
#include "host/system/quarantine.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "host/common/unique_fd.h"

namespace oasd {
namespace {

using nlohmann::json;

std::string ErrnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

int OpenNoLinks(int dir, const std::string& path, uint64_t flags, mode_t mode = 0) {
  open_how how{};
  how.flags = flags | O_CLOEXEC | O_NOFOLLOW;
  how.mode = flags & O_CREAT ? mode : 0;
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(::syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how));
}

std::string NewId() {
  unsigned char bytes[8];
  if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return {};
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (const unsigned char b : bytes) id += {kHex[b >> 4], kHex[b & 15]};
  return id;
}

bool CopyAll(int from, int to) {
  char buffer[65536];
  for (off_t at = 0;;) {
    const ssize_t n = ::pread(from, buffer, sizeof buffer, at);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = ::write(to, buffer + done, static_cast<size_t>(n - done));
      if (w <= 0) return false;
      done += w;
    }
    at += n;
  }
}

bool WriteText(int dir, const std::string& name, const std::string& text) {
  const UniqueFd file(::openat(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  return file.Valid() && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string ReadText(int dir, const std::string& name) {
  const UniqueFd file(::openat(dir, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  std::string text;
  char buffer[4096];
  ssize_t n = 0;
  while (file.Valid() && (n = ::read(file.Get(), buffer, sizeof buffer)) > 0) text.append(buffer, n);
  return text;
}

// Unlinks path when it still names the inode of `st` (or only checks, with unlink false),
// through a parent opened without following links.
bool UnlinkIfSame(const std::string& path, const struct stat& st, bool unlink = true) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash + 1 == path.size()) return false;
  const UniqueFd parent(OpenNoLinks(AT_FDCWD, slash == 0 ? "/" : path.substr(0, slash), O_PATH | O_DIRECTORY));
  struct stat now {};
  const std::string name = path.substr(slash + 1);
  return parent.Valid() && ::fstatat(parent.Get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
         now.st_dev == st.st_dev && now.st_ino == st.st_ino &&
         (!unlink || ::unlinkat(parent.Get(), name.c_str(), 0) == 0);
}

bool ValidId(const std::string& id) {
  return id.size() == 16 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

// Missing parents are made as root's (0755 under oasd's umask), the quarantine itself 0700.
int Quarantine::OpenDirectory() const {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(m_dir).parent_path(), ec);
  if (::mkdir(m_dir.c_str(), 0700) != 0 && errno != EEXIST) return -1;
  const int dir = OpenNoLinks(AT_FDCWD, m_dir, O_RDONLY | O_DIRECTORY);
  struct stat st {};
  if (dir < 0 || ::fstat(dir, &st) != 0 || st.st_uid != 0 || (st.st_mode & 077) != 0) {
    if (dir >= 0) ::close(dir);
    errno = EPERM;
    return -1;
  }
  return dir;
}

std::string Quarantine::Move(int fd, const std::string& path, const std::string& threat,
                             std::string& error) const {
  std::lock_guard lock(m_moveMutex);
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !UnlinkIfSame(path, st, false)) {
    error = "the file is no longer at " + path + " (removed already?)";
    return {};
  }
  const UniqueFd dir(OpenDirectory());
  const std::string id = NewId();
  if (!dir.Valid() || id.empty()) {
    error = ErrnoText("cannot use the quarantine directory " + m_dir);
    return {};
  }
  const UniqueFd data(::openat(dir.Get(), (id + ".data").c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  const json record = {{"id", id}, {"path", path}, {"uid", st.st_uid}, {"gid", st.st_gid},
                       {"mode", st.st_mode & 07777}, {"size", st.st_size}, {"threat", threat},
                       {"time", std::chrono::duration_cast<std::chrono::seconds>(
                                    std::chrono::system_clock::now().time_since_epoch()).count()}};
  if (!data.Valid() || !CopyAll(fd, data.Get()) ||
      !WriteText(dir.Get(), id + ".json", record.dump(-1, ' ', false, json::error_handler_t::replace))) {
    error = ErrnoText("cannot copy into the quarantine");
    ::unlinkat(dir.Get(), (id + ".data").c_str(), 0);
    return {};
  }
  if (!UnlinkIfSame(path, st)) {
    error = ErrnoText("copied to the quarantine as " + id + ", but cannot remove " + path);
    return {};
  }
  return id;
}

std::string Quarantine::Restore(const std::string& id) const {
  if (!ValidId(id)) throw std::runtime_error("no such quarantine ID: " + id);
  const UniqueFd dir(OpenDirectory());
  if (!dir.Valid()) throw std::runtime_error(ErrnoText("cannot use the quarantine directory " + m_dir));
  const json record = json::parse(ReadText(dir.Get(), id + ".json"), nullptr, false);
  const UniqueFd data(::openat(dir.Get(), (id + ".data").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!record.is_object() || !data.Valid()) throw std::runtime_error("no such quarantine ID: " + id);
  const std::string path = record.value("path", "");
  const uid_t uid = record.value("uid", 0u);
  const size_t slash = path.rfind('/');
  if (!path.starts_with('/') || slash + 1 >= path.size()) throw std::runtime_error("bad record " + id);
  const UniqueFd parent(OpenNoLinks(AT_FDCWD, slash == 0 ? "/" : path.substr(0, slash), O_PATH | O_DIRECTORY));
  struct stat st {};
  if (!parent.Valid() || ::fstat(parent.Get(), &st) != 0)
    throw std::runtime_error(ErrnoText("cannot restore to " + path + " (a symbolic link on the way?)"));
  if (st.st_uid != 0 && st.st_uid != uid)
    throw std::runtime_error("cannot restore to " + path + ": its directory belongs to another user");
  const UniqueFd out(OpenNoLinks(parent.Get(), path.substr(slash + 1), O_WRONLY | O_CREAT | O_EXCL, 0600));
  if (!out.Valid()) throw std::runtime_error(ErrnoText("cannot create " + path));
  if (!CopyAll(data.Get(), out.Get()) || ::fchown(out.Get(), uid, record.value("gid", 0u)) != 0 ||
      ::fchmod(out.Get(), record.value("mode", 0600u)) != 0)
    throw std::runtime_error(ErrnoText("cannot write " + path));
  ::unlinkat(dir.Get(), (id + ".data").c_str(), 0);
  ::unlinkat(dir.Get(), (id + ".json").c_str(), 0);
  return path;
}

std::vector<std::string> Quarantine::List() const {
  std::vector<std::string> records;
  const int dir = OpenDirectory();
  if (dir < 0) return records;
  DIR* listing = ::fdopendir(dir);
  if (!listing) {
    ::close(dir);
    return records;
  }
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name.size() == 21 && name.ends_with(".json")) records.push_back(ReadText(::dirfd(listing), name));
  }
  ::closedir(listing);
  return records;
}

}  // namespace oasd
