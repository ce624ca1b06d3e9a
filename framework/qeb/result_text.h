// Messages and the printed form of result codes. The tables are constant and the
// lookups never allocate, so any thread may call them at any time.
#pragma once

#include <string>
#include <string_view>

#include "interfaces/qeb/result.h"

namespace qeb {

// The code's message, or "Unknown result code".
std::string_view ResultMessage(result_t r) noexcept;

// "0x" + 8 lower-case hexadecimal digits + " (" + message + ")".
std::string ResultText(result_t r);

// Appends the same form without allocating beyond the output's own growth.
void AppendResultText(std::string& out, result_t r);

}  // namespace qeb
