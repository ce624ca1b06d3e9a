// The adversary owns a world-writable directory's entries, not the directory: a symbolic
// link or a file of theirs at the path, a hard link to a file of root's, a FIFO that blocks
// the open. The path's directories are checked one by one because O_NOFOLLOW guards only
// the last component; every check after an open is made on the descriptor, never the name.
#include "host/reporting/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace oasd {
namespace {

namespace fs = std::filesystem;

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string ErrnoText(const std::string& path, int error) {
  return Quoted(path) + ": " + std::strerror(error);
}

bool Trusted(uid_t owner) { return owner == 0 || owner == ::geteuid(); }

// What makes an existing file unfit to be written as root; empty when fit.
std::string Unfit(const std::string& path, const struct stat& st) {
  if (!S_ISREG(st.st_mode)) return Quoted(path) + " is not a regular file";
  if (!Trusted(st.st_uid))
    return Quoted(path) + " is owned by uid " + std::to_string(st.st_uid) + ", not by root";
  if (st.st_mode & (S_IWGRP | S_IWOTH)) {
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    return Quoted(path) + " may be written by group or others (mode " + mode + ")";
  }
  if (st.st_nlink != 1) return Quoted(path) + " has other hard links";
  return {};
}

std::string UnfitDirectory(const std::string& dir, const struct stat& st) {
  if (!S_ISDIR(st.st_mode)) return Quoted(dir) + " is not a directory";
  if (!Trusted(st.st_uid))
    return "directory " + Quoted(dir) + " is owned by uid " + std::to_string(st.st_uid) +
           ", not by root";
  if ((st.st_mode & S_IWOTH) && !(st.st_mode & S_ISVTX))
    return "directory " + Quoted(dir) + " is writable by others and not sticky";
  return {};
}

// One directory of the path: a link must be root's, and what it leads to is checked too.
std::string CheckDirectory(const std::string& dir) {
  struct stat st {};
  if (::lstat(dir.c_str(), &st) != 0)
    return errno == ENOENT ? "directory " + Quoted(dir) + " does not exist" : ErrnoText(dir, errno);
  if (S_ISLNK(st.st_mode)) {
    if (!Trusted(st.st_uid))
      return Quoted(dir) + " is a symbolic link owned by uid " + std::to_string(st.st_uid);
    if (::stat(dir.c_str(), &st) != 0) return ErrnoText(dir, errno);
  }
  return UnfitDirectory(dir, st);
}

std::string WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::strerror(errno);
    if (n == 0) return std::strerror(EIO);
    done += static_cast<size_t>(n);
  }
  return {};
}

}  // namespace

std::string CheckOutputDirectory(const std::string& path, bool create) {
  std::error_code ec;
  const fs::path file = fs::absolute(path, ec).lexically_normal();
  if (ec || path.empty() || !file.has_filename()) return Quoted(path) + " does not name a file";
  const fs::path dir = file.parent_path();
  fs::path prefix;
  for (auto it = dir.begin(); it != dir.end(); ++it) {
    prefix /= *it;
    const bool last = std::next(it) == dir.end();
    if (last && ::access(prefix.c_str(), F_OK) != 0 && errno == ENOENT) {
      // Only the file's own directory is made, as the defaults under /var/log and /run need.
      if (!create) {
        if (::access(prefix.parent_path().c_str(), W_OK | X_OK) != 0)
          return "cannot create directory " + ErrnoText(prefix.string(), errno);
        return {};
      }
      if (::mkdir(prefix.c_str(), 0750) != 0 && errno != EEXIST)
        return "cannot create directory " + ErrnoText(prefix.string(), errno);
    }
    if (std::string fault = CheckDirectory(prefix.string()); !fault.empty()) return fault;
    if (last && ::access(prefix.c_str(), W_OK | X_OK) != 0)
      return "directory " + ErrnoText(prefix.string(), errno);
  }
  return {};
}

std::string CheckOutputFile(const std::string& path) {
  if (std::string fault = CheckOutputDirectory(path, false); !fault.empty()) return fault;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return {};
  if (S_ISLNK(st.st_mode)) return Quoted(path) + " is a symbolic link";
  return Unfit(path, st);
}

UniqueFd OpenAppendFile(const std::string& path, std::string& error) {
  if (error = CheckOutputDirectory(path, true); !error.empty()) return {};
  // O_NONBLOCK: a FIFO left at the path fails the open instead of hanging it.
  UniqueFd fd(::open(path.c_str(),
                     O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                     0640));
  if (!fd.Valid()) {
    // The kernel's own guards in sticky directories may answer EACCES first; the reason
    // worth reporting is what lies at the path.
    const int openError = errno;
    error = CheckOutputFile(path);
    if (error.empty()) error = ErrnoText(path, openError);
    return {};
  }
  struct stat st {};
  if (::fstat(fd.Get(), &st) != 0) {
    error = ErrnoText(path, errno);
    return {};
  }
  if (error = Unfit(path, st); !error.empty()) return {};
  const int flags = ::fcntl(fd.Get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    error = ErrnoText(path, errno);
    return {};
  }
  return fd;
}

std::string ReplaceFile(const std::string& path, const std::string& text, mode_t mode) {
  if (std::string fault = CheckOutputDirectory(path, true); !fault.empty()) return fault;
  if (std::string fault = CheckOutputFile(path); !fault.empty()) return fault;
  const fs::path target(path);
  std::string name = (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
  std::vector<char> temp(name.begin(), name.end());
  temp.push_back('\0');
  UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
  if (!fd.Valid()) return "cannot create a temporary beside " + ErrnoText(path, errno);
  name = temp.data();
  std::string error = ::fchmod(fd.Get(), mode) == 0 ? WriteAll(fd.Get(), text) : std::strerror(errno);
  fd.Reset();
  if (error.empty() && ::rename(name.c_str(), path.c_str()) != 0) error = std::strerror(errno);
  if (error.empty()) return {};
  ::unlink(name.c_str());
  return Quoted(path) + ": " + error;
}

}  // namespace oasd
