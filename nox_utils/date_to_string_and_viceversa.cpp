// Date text to framework time. Every failure is raised as an exception inside and turned
// into a result code at the function's edge, so callers see codes only. mktime reads
// the process's time zone; nothing here caches it.
#include "nox_utils/date_to_string_and_viceversa.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string_view>

namespace nox::utils {
namespace {

// A digit string that does not fit into the seconds count.
struct BadNumber {};

bool IsDigitsOnly(std::string_view text) noexcept {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

int64_t ToPosixSeconds(std::string_view digits) {
  int64_t seconds = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, seconds);
  if (error != std::errc{} || stop != end) throw BadNumber{};
  return seconds;
}

void CheckParseArguments(const std::string& text, const char* format) {
  if (::strnlen(format, MAX_DATE_FORMAT_LENGTH) >= MAX_DATE_FORMAT_LENGTH)
    throw std::out_of_range("So big format size");
  if (text.empty()) throw std::invalid_argument("No reason to convert to date nothing");
  if (text.size() > MAX_DATE_TEXT_LENGTH) throw std::out_of_range("So big date string length");
}

std::tm ParseBrokenDownTime(const std::string& text, const char* format) {
  std::tm parsed{};
  if (!::strptime(text.c_str(), format, &parsed)) {
    throw std::invalid_argument("\"" + text + "\" does not contain date in \"" + format +
                                "\" format");
  }
  return parsed;
}

// -1 is both mktime's failure value and a valid second (one before the epoch), so
// success is told by mktime filling in the weekday, which it ignores on input.
int64_t LocalTimeToPosixSeconds(std::tm local) {
  local.tm_isdst = -1;
  local.tm_wday = -1;
  const ::time_t seconds = std::mktime(&local);
  if (seconds == static_cast<::time_t>(-1) && local.tm_wday == -1) {
    throw qeb::SystemException(
        __FILE__, __LINE__, qeb::trace::SystemFunctionErrorText("std::mktime", __FILE__, __LINE__),
        qeb::res::Unspecified);
  }
  return static_cast<int64_t>(seconds);
}

qeb::datetime::time_t TextToDate(const std::string& text, const char* format) {
  if (IsDigitsOnly(text)) return qeb::datetime::FromPosix(ToPosixSeconds(text), 0);
  CheckParseArguments(text, format);
  const int64_t seconds = LocalTimeToPosixSeconds(ParseBrokenDownTime(text, format));
  return qeb::datetime::FromPosix(seconds, 0);
}

}  // namespace

qeb::result_t StringToDate(const std::string& text, qeb::datetime::time_t& date,
                           const char* format) noexcept {
  if (text.empty()) return qeb::res::InvalidArgument;
  try {
    date = TextToDate(text, format ? format : DEFAULT_DATE_FORMAT);
    return qeb::res::Ok;
  } catch (const BadNumber&) {
    return qeb::res::InvalidArgument;
  } catch (...) {
    return qeb::res::Unspecified;
  }
}

std::string DateToString(qeb::datetime::time_t date, const char* format) {
  return qeb::trace::DateToText(date, format);
}

}  // namespace nox::utils
