// What one scan of a file found, as the engine and whoever shares its scans pass it on. A
// plain value: it owns its texts and refers to nothing.
#pragma once

#include <string>

namespace oasd {

// Why a file was not scanned whole; in the order of HostMetrics::UnprocessedReasons.
enum class UnscannedReason { SizeLimit, TimeLimit, ScanLimit, ScanError };

// The name events and metrics carry for it.
const char* ReasonName(UnscannedReason reason) noexcept;

struct ScanOutcome {
  // Unscanned: the engine stopped short of the whole file (a limit, an error), so the
  // answer is the unscanned policy's and the file is never remembered as clean.
  enum Kind { Clean, Detected, Unscanned } kind = Unscanned;
  std::string threat;  // the signature's name when Detected, what stopped the scan otherwise
  UnscannedReason reason = UnscannedReason::ScanError;
  bool fromCache = false;
  std::string type;       // when Clean: libclamav's name for the file's type
  unsigned embedded = 0;  // when Clean: objects the scan took out of the file
};

}  // namespace oasd
