// The quarantine: a root-only directory holding each removed file's content (ID.data) and
// a JSON record of where it came from (ID.json: path, owner, group, mode, time, threat).
// It owns nothing in memory beyond the directory's path; each call opens what it needs.
// The engine moves infected files in; `oasd --restore` and `--list-quarantine` read it.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

namespace oasd {

class Quarantine {
 public:
  explicit Quarantine(std::string directory) : m_dir(std::move(directory)) {}

  // Copies the file behind fd (opened at path) in, then unlinks path if it still names
  // that file. Answers the new ID; on failure an empty ID and why in `error`.
  std::string Move(int fd, const std::string& path, const std::string& threat, std::string& error) const;
  // Writes the file back where it was, with its owner and mode, and forgets it. Refuses
  // a path that now holds a file or leads through a symbolic link, and a directory owned
  // by anyone but root or the file's owner. Answers the path restored to.
  std::string Restore(const std::string& id) const;  // throws std::runtime_error
  // The records, one JSON object each.
  std::vector<std::string> List() const;

 private:
  int OpenDirectory() const;  // creates it 0700 when missing; refuses one others may reach
  std::string m_dir;
  // One move at a time: openers sharing one scan all report its detection, and only the
  // first may find the file still at its path.
  mutable std::mutex m_moveMutex;
};

}  // namespace oasd
