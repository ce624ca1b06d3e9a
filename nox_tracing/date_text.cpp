// Date to text. Framework time counts 100 ns units, so seconds are taken with a
// floor division to keep times before 1970 on the right second.
#include "nox_tracing/date_text.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace qeb::trace {
namespace {

constexpr int64_t kUnitsPerSecond = 10'000'000;

int64_t ToPosixSeconds(datetime::time_t time) noexcept {
  int64_t seconds = time / kUnitsPerSecond;
  if (time % kUnitsPerSecond < 0) --seconds;
  return seconds;
}

result_t ErrnoResult(int error) noexcept {
  if (error <= 0 || error > 0xFFFF) return res::Unspecified;
  return static_cast<result_t>(static_cast<uint32_t>(res::ErrnoFacilityBase) |
                               static_cast<uint32_t>(error));
}

std::tm ToLocalTime(datetime::time_t time) {
  const ::time_t seconds = static_cast<::time_t>(ToPosixSeconds(time));
  std::tm local{};
  errno = 0;
  if (!::localtime_r(&seconds, &local)) {
    const int error = errno;
    throw SystemException(__FILE__, __LINE__,
                          SystemFunctionErrorText("::localtime_r", __FILE__, __LINE__),
                          ErrnoResult(error ? error : EOVERFLOW));
  }
  return local;
}

}  // namespace

std::string SystemFunctionErrorText(const char* function, const char* file, unsigned line) {
  std::string text = "System function '";
  text.append(function).append("' ends with error. In ").append(file).append(":");
  text.append(std::to_string(line));
  return text;
}

std::string DateToText(datetime::time_t time, const char* format) {
  const std::tm local = ToLocalTime(time);
  if (!format) format = kDefaultDateFormat;
  if (::strnlen(format, kMaxDateFormatLength) >= kMaxDateFormatLength) {
    throw std::length_error("Format specification is too long");
  }
  char text[kMaxDateFormatLength];
  const size_t length = std::strftime(text, sizeof text, format, &local);
  return std::string(text, length);
}

}  // namespace qeb::trace
