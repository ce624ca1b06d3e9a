// Fuzzes the date conversions both ways: any text with any format into a date, any date with
// any format into text, and two round trips that must hold (digit text, and the default
// format over years 1970 to 9999). Runs in UTC so that local time has no gaps or repeats.
// Stateless.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>

#include "framework/qeb/exception.h"
#include "nox_utils/date_to_string_and_viceversa.h"

namespace {

namespace utils = nox::utils;

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kYear10000 = 253'402'300'800;  // the first second %Y prints with five digits

const char* MaybeFormat(bool useDefault, const std::string& format) {
  return useDefault ? nullptr : format.c_str();
}

void TextToDate(const std::string& text, const char* format) {
  qeb::datetime::time_t date = 0;
  const qeb::result_t r = utils::StringToDate(text, date, format);
  if (text.empty() && r != qeb::res::InvalidArgument) std::abort();
}

void DateToText(qeb::datetime::time_t date, const char* format) {
  try {
    (void)utils::DateToString(date, format);
  } catch (const qeb::exception&) {
  } catch (const std::length_error&) {
  }
}

void DigitsRoundTrip(uint64_t seconds) {
  qeb::datetime::time_t date = 0;
  const qeb::result_t r = utils::StringToDate(std::to_string(seconds), date);
  if (r == qeb::res::Ok && date / kUnitsPerSecond != static_cast<int64_t>(seconds)) std::abort();
}

void DefaultFormatRoundTrip(int64_t seconds, int64_t fraction) {
  const qeb::datetime::time_t date = seconds * kUnitsPerSecond + fraction;
  qeb::datetime::time_t back = -1;
  if (utils::StringToDate(utils::DateToString(date), back) != qeb::res::Ok) std::abort();
  if (back != seconds * kUnitsPerSecond) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);
  tzset();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bool defaultFormat = in.ConsumeBool();
  const qeb::datetime::time_t date = in.ConsumeIntegral<int64_t>();
  const uint64_t digits = in.ConsumeIntegral<uint64_t>();
  const int64_t seconds = in.ConsumeIntegralInRange<int64_t>(0, kYear10000 - 1);
  const int64_t fraction = in.ConsumeIntegralInRange<int64_t>(0, kUnitsPerSecond - 1);
  const std::string format = in.ConsumeRandomLengthString();
  const std::string text = in.ConsumeRemainingBytesAsString();

  TextToDate(text, MaybeFormat(defaultFormat, format));
  DateToText(date, MaybeFormat(defaultFormat, format));
  DigitsRoundTrip(digits);
  DefaultFormatRoundTrip(seconds, fraction);
  return 0;
}
