// Conversion from POSIX seconds and microseconds to framework time. Stateless; range
// violations leave as TimeSystemError carrying the header's source position, which is
// where callers look for the conversion's contract.
#include "framework/qeb/datetime.h"

#include <string>

namespace qeb::datetime {
namespace {

constexpr const char* kHeaderPath = "framework/qeb/datetime.h";
constexpr unsigned kEpochLine = 160;
constexpr unsigned kUsecLine = 163;
constexpr unsigned kUtcLine = 166;

constexpr int64_t kMaxSeconds = 922'337'203'685;
constexpr int64_t kMaxMicroseconds = 922'337'203'685'477'580;
// 1601-01-01 in framework time: nothing earlier can be represented on this platform.
constexpr int64_t kMinTime = -116'444'736'000'000'000;

bool Exceeds(int64_t value, int64_t limit) noexcept { return value > limit || value < -limit; }

// The exact sum can leave the 64-bit range, so it is printed from a wider integer.
std::string ToString(__int128 value) {
  const bool negative = value < 0;
  unsigned __int128 magnitude =
      negative ? 0 - static_cast<unsigned __int128>(value) : static_cast<unsigned __int128>(value);
  std::string digits;
  do {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(magnitude % 10)));
    magnitude /= 10;
  } while (magnitude != 0);
  return negative ? "-" + digits : digits;
}

}  // namespace

TimeSystemError::TimeSystemError(unsigned line, std::string message)
    : ExceptionBase(kHeaderPath, line, std::move(message), res::InvalidArgument) {}

time_t FromPosix(int64_t seconds, int64_t microseconds) {
  if (Exceeds(seconds, kMaxSeconds))
    throw TimeSystemError(kEpochLine, "Invalid timestamp: epoch " + std::to_string(seconds));
  if (Exceeds(microseconds, kMaxMicroseconds))
    throw TimeSystemError(kUsecLine, "Invalid timestamp: usec " + std::to_string(microseconds));
  const __int128 result =
      static_cast<__int128>(seconds) * 10'000'000 + static_cast<__int128>(microseconds) * 10;
  if (result < kMinTime || result > INT64_MAX)
    throw TimeSystemError(kUtcLine, "Invalid utc timestamp for posix platform " + ToString(result));
  return static_cast<time_t>(result);
}

}  // namespace qeb::datetime
