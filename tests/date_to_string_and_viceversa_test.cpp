// Date text to framework time and back, under a fixed time zone with summer time so the
// local-time conversion is checked on both sides of the switch. The process's TZ is set
// for each test and restored afterwards; nothing else is shared between tests.
#include "nox_utils/date_to_string_and_viceversa.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace nox::utils {
namespace {

using qeb::datetime::time_t;

constexpr time_t kUnitsPerSecond = 10'000'000;
constexpr time_t kUntouched = 42;
// Central European time without the zone database: UTC+1, UTC+2 in summer.
constexpr const char* kZone = "CET-1CEST,M3.5.0,M10.5.0/3";

class DateTextTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = std::getenv("TZ")) m_savedZone = tz;
    ::setenv("TZ", kZone, 1);
    ::tzset();
  }
  void TearDown() override {
    if (m_savedZone) ::setenv("TZ", m_savedZone->c_str(), 1);
    else ::unsetenv("TZ");
    ::tzset();
  }

 private:
  std::optional<std::string> m_savedZone;
};

struct Case {
  const char* name;
  std::string text;
  const char* format;
  qeb::result_t result;
  time_t date;  // expected on success
};

std::string Padded(std::string text, size_t size) {
  text.resize(size, ' ');
  return text;
}

TEST_F(DateTextTest, TextToDate) {
  const std::string longFormat = Padded(DEFAULT_DATE_FORMAT, MAX_DATE_FORMAT_LENGTH - 1);
  const std::string tooLongFormat = Padded(DEFAULT_DATE_FORMAT, MAX_DATE_FORMAT_LENGTH);
  const Case cases[] = {
      {"posix seconds", "1700000000", nullptr, qeb::res::Ok, 17'000'000'000'000'000},
      {"digits bypass format", "1700000000", "%d/%m/%Y", qeb::res::Ok, 17'000'000'000'000'000},
      {"int64 overflow", "9223372036854775808", nullptr, qeb::res::InvalidArgument, 0},
      {"long digit run", std::string(2048, '9'), nullptr, qeb::res::InvalidArgument, 0},
      {"beyond time range", "922337203686", nullptr, qeb::res::Unspecified, 0},
      {"winter local time", "2023-11-14 23:13:20", nullptr, qeb::res::Ok, 1'700'000'000 * kUnitsPerSecond},
      {"summer local time", "2023-07-01 12:00:00", nullptr, qeb::res::Ok, 1'688'205'600 * kUnitsPerSecond},
      {"one second before epoch", "1970-01-01 00:59:59", nullptr, qeb::res::Ok, -kUnitsPerSecond},
      {"own format", "14/11/2023 23:13", "%d/%m/%Y %H:%M", qeb::res::Ok, 1'699'999'980 * kUnitsPerSecond},
      {"date alone", "2023-11-14", nullptr, qeb::res::Unspecified, 0},
      {"empty", "", nullptr, qeb::res::InvalidArgument, 0},
      {"text at limit", Padded("2023-11-14 23:13:20", 2047), nullptr, qeb::res::Ok, 1'700'000'000 * kUnitsPerSecond},
      {"text over limit", Padded("2023-11-14 23:13:20", 2048), nullptr, qeb::res::Unspecified, 0},
      {"format at limit", "2023-11-14 23:13:20", longFormat.c_str(), qeb::res::Ok, 1'700'000'000 * kUnitsPerSecond},
      {"format over limit", "2023-11-14 23:13:20", tooLongFormat.c_str(), qeb::res::Unspecified, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    time_t date = kUntouched;
    EXPECT_EQ(StringToDate(c.text, date, c.format), c.result);
    EXPECT_EQ(date, c.result == qeb::res::Ok ? c.date : kUntouched);
  }
}

}  // namespace
}  // namespace nox::utils
