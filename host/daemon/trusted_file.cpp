// The owner of the executable is trusted so that a developer's build, run through sudo, may
// load its own module and configuration; anyone else's hand on those files is refused.
#include "host/daemon/trusted_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace oasd {
namespace {

bool TrustedOwner(uid_t owner) {
  struct stat self {};
  return owner == 0 || owner == ::geteuid() ||
         (::stat("/proc/self/exe", &self) == 0 && owner == self.st_uid);
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

std::string UntrustedFile(const std::string& path) {
  struct stat file {}, dir {};
  const std::string parent = std::filesystem::path(path).parent_path().string();
  if (::stat(path.c_str(), &file) != 0 || ::stat(parent.empty() ? "." : parent.c_str(), &dir) != 0)
    return {};  // a missing file is the reader's to report
  if (!S_ISREG(file.st_mode)) return Quoted(path) + " is not a regular file";
  if (!TrustedOwner(file.st_uid))
    return Quoted(path) + " is owned by uid " + std::to_string(file.st_uid) + ", not by root";
  if (file.st_mode & (S_IWGRP | S_IWOTH)) return Quoted(path) + " may be written by group or others";
  if (!TrustedOwner(dir.st_uid) || ((dir.st_mode & S_IWOTH) && !(dir.st_mode & S_ISVTX)))
    return "the directory of " + Quoted(path) + " may be changed by another user";
  return {};
}

}  // namespace oasd
