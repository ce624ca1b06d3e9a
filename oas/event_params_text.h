// The printed form of the file event record, as every trace line about an event shows it.
// Stateless: the text is written into the caller's line (or a string) and nothing is kept;
// the record is only read.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/vrel/event_params.h"
#include "nox_tracing/tracing.h"

namespace vrel {

// "VREL_ACTION_OPEN" for 1 and so on; null for a code outside the table.
const char* OperationName(uint32_t oper) noexcept;

// The record's printed form in decimal, for callers that build text outside a trace line.
std::string ToString(const EventParams& params);

}  // namespace vrel

namespace qeb::trace {

// " Filename: ..., cookie: ..., ... ctime: ..." in the line's current number base. The text
// starts with a blank so that it can follow a function name directly.
Line& operator<<(Line& line, const vrel::EventParams& params) noexcept;

}  // namespace qeb::trace
