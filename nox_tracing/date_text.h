// Framework time as local date text, the form traces print date fields in. Stateless;
// the text is returned by value. Errors are thrown to the caller, which decides
// whether they end up in a trace line or become a result code.
#pragma once

#include <string>

#include "framework/qeb/datetime.h"

namespace qeb::trace {

inline constexpr const char* kDefaultDateFormat = "%Y-%m-%d %H:%M:%S";
// Formats of this many characters or more are refused.
inline constexpr size_t kMaxDateFormatLength = 2048;

// The text of a failed system call: "System function '<name>' ends with error. In <file>:<line>".
std::string SystemFunctionErrorText(const char* function, const char* file, unsigned line);

// Local time through strftime with format (the default one when null). Throws
// SystemException when the local-time conversion fails and std::length_error
// ("Format specification is too long") for a format of kMaxDateFormatLength or more.
std::string DateToText(datetime::time_t time, const char* format = nullptr);

}  // namespace qeb::trace
