// Where libclamav makes, and removes, the temporary directory it creates for every scan: a
// directory of oasd's own on a tmpfs, so a small file's scan does not wait on the disk. It
// owns that directory (made once per process, removed at exit when it made it); the engine
// only reads its path. Nothing else is ever put there by oasd.
#pragma once

#include <string>

namespace oasd {

struct EngineScratchDir {
  std::string path;  // empty: libclamav's default (TMPDIR, else /tmp)
  std::string note;  // where it is, or why there is none, for one log line
};

// First use makes it: /run/oasd/tmp when the runtime directory is a tmpfs (systemd's
// RuntimeDirectory), else a fresh root-only directory in /dev/shm; neither: none.
const EngineScratchDir& ScratchDirForEngine();

}  // namespace oasd
