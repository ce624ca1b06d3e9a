// Trusted programs (excluded_for_program): whether an access by a process passes unscanned
// because its executable, or with applyToDescendants an ancestor's, is a trusted program
// and the path lies in the entry's area. Owns the entries in force and what was decided per
// process; it reads /proc itself and owns no descriptor beyond one call. The daemon hands it
// the settings; the engine asks it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "settings/oas_settings.h"

namespace oasd {

// A mask without '/' is matched against the file's name, one with '/' against the whole
// path, where '*' also spans '/': "*.log" and "/var/log/*" both match /var/log/a/b.log.
bool MaskMatches(const std::string& mask, const std::string& path) noexcept;

class TrustedPrograms {
 public:
  // Entries with useTrustedProgram; what was decided before is forgotten.
  void Apply(const std::vector<nox::settings::ProgramExclusion>& entries);
  bool Empty() const;
  // Whether pid's access to path passes unscanned. A process that cannot be read (it has
  // exited) is not trusted.
  bool Trusted(int32_t pid, const std::string& path);

 private:
  // A process as it runs now: start time and executable, so an exec or a reused pid is a
  // different key.
  using ProcessKey = std::tuple<int32_t, uint64_t, dev_t, ino_t>;
  // Which entries the process counts as (one flag per entry).
  static std::vector<bool> EntriesOf(int dir, uint64_t startTicks,
                                     const std::vector<nox::settings::ProgramExclusion>& entries);

  static constexpr size_t kMaxProcesses = 4096;
  mutable std::mutex m_mutex;  // guards both; /proc is read outside it
  std::shared_ptr<const std::vector<nox::settings::ProgramExclusion>> m_entries =
      std::make_shared<const std::vector<nox::settings::ProgramExclusion>>();
  std::map<ProcessKey, std::vector<bool>> m_decided;
};

}  // namespace oasd
