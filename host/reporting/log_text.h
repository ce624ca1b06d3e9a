// Text for the log: whatever a line carries (a file name, a threat name, the module's own
// words) is made printable so that one record stays one line and cannot pass for another.
// Pure functions; no state.
#pragma once

#include <string>
#include <string_view>

namespace oasd {

// Control characters (C0, DEL and C1), the Unicode line and paragraph separators and every
// byte that is not part of valid UTF-8 become backslash escapes (\n, \r, \t, \xNN, \uNNNN);
// a backslash becomes two, so an escape in the input cannot pass for one made here.
std::string EscapeLogText(std::string_view text);

}  // namespace oasd
