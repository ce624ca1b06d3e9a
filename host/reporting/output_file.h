// Opening the files oasd writes as root (events, log, metrics) so that a local user who can
// predict a path cannot redirect or read them. Owns nothing past a call: the descriptor it
// opens passes to the caller in a UniqueFd, and every refusal is a message naming the path.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/common/unique_fd.h"

namespace oasd {

// Checks the directories leading to path: each must exist, be owned by root (oasd's user),
// be a directory or a symbolic link owned by root, and not be writable by others unless
// sticky; the last must be writable. With `create`, a missing last directory is made 0750;
// without, it passes if it could be. Answers an empty string when fine.
std::string CheckOutputDirectory(const std::string& path, bool create);

// What a configuration check asks before anything is written: the directories as above
// (a missing last one passes if it could be made) and an existing file as below.
std::string CheckOutputFile(const std::string& path);

// Opens path for appending, creating it 0640 after checking its directories as above
// (creating the last one). Refused (an invalid descriptor and `error`
// set): a symbolic link, anything but a regular file, a file owned by another user,
// writable by group or others, or with a second hard link.
UniqueFd OpenAppendFile(const std::string& path, std::string& error);

// Replaces path with text through a temporary of unpredictable name, created exclusively
// in the same directory and renamed over it, so readers see whole pages only. An existing
// path that OpenAppendFile would refuse is refused here too, and so are its directories. Answers an empty string when done.
std::string ReplaceFile(const std::string& path, const std::string& text, mode_t mode);

}  // namespace oasd
