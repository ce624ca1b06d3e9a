// Framework time: 100-nanosecond units since 1970-01-01, converted from POSIX time
// with range checks that throw TimeSystemError. Stateless.
#pragma once

#include <cstdint>

#include "framework/qeb/exception.h"

namespace qeb::datetime {

using time_t = int64_t;  // 100 ns units since the POSIX epoch

class TimeSystemError : public ExceptionBase<TimeSystemError, SystemException> {
 public:
  TimeSystemError(unsigned line, std::string message);
};

// seconds * 10,000,000 + microseconds * 10; throws TimeSystemError when out of range.
time_t FromPosix(int64_t seconds, int64_t microseconds);

}  // namespace qeb::datetime
