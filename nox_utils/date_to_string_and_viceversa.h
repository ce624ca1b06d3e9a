// Framework time to and from date text, for settings and event fields that carry dates
// as text. Stateless: results are returned by value or through the caller's output.
// The text-to-date direction reports by result code only; the date-to-text direction
// throws, like the trace formatter it delegates to.
#pragma once

#include <cstddef>
#include <string>

#include "framework/qeb/datetime.h"
#include "interfaces/qeb/result.h"
#include "nox_tracing/date_text.h"

namespace nox::utils {

inline constexpr const char* DEFAULT_DATE_FORMAT = qeb::trace::kDefaultDateFormat;
// Formats of this many characters or more are refused in both directions.
inline constexpr size_t MAX_DATE_FORMAT_LENGTH = qeb::trace::kMaxDateFormatLength;
inline constexpr size_t MAX_DATE_TEXT_LENGTH = 2047;

// A text of digits only is POSIX seconds; any other text is parsed with format (the
// default one when null) as local time. date is written only on success. Returns
// InvalidArgument for an empty text or a number that does not fit, Unspecified for
// every other failure. Never throws.
qeb::result_t StringToDate(const std::string& text, qeb::datetime::time_t& date,
                           const char* format = nullptr) noexcept;

// Local time through strftime with format (the default one when null). Throws
// SystemException when the local-time conversion fails and std::length_error for a
// format of MAX_DATE_FORMAT_LENGTH characters or more.
std::string DateToString(qeb::datetime::time_t date, const char* format = nullptr);

}  // namespace nox::utils
