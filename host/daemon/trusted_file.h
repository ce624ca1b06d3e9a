// Whether a file oasd takes orders from (its configuration, the module it loads) could have
// been written by an ordinary user, who would then run code or choose paths as root. Owns
// nothing past the call; the answer is a message naming the file, empty when trusted.
#pragma once

#include <string>

namespace oasd {

// Trusted: a regular file (a link is judged by what it leads to) owned by root, by oasd's
// user or by the owner of oasd's own executable (who could replace oasd itself), writable
// by neither group nor others, in a directory the same people own that others may not
// write unless it is sticky.
std::string UntrustedFile(const std::string& path);

}  // namespace oasd
