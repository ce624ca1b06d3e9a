// The limits every libclamav engine is built with, and how a scan tells that it hit one.
// Derived from the options when an engine is loaded (start and SIGHUP); owns no engine and
// keeps no state: the engine applies the limits and reads the scan's names through here.
#pragma once

#include <clamav.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "host/common/host_options.h"
#include "host/engine/scan_outcome.h"

namespace oasd {

struct EngineLimits {
  // libclamav will not map more than this of one file.
  static constexpr uint64_t LargestFileSize = 2147483645;
  static constexpr uint64_t DefaultFileSize = 100ull << 20;
  static constexpr uint32_t DefaultScanTimeMs = 120000;

  uint64_t fileSize = DefaultFileSize;   // bytes of one file scanned: its head past this
  uint64_t scanSize = 400ull << 20;      // bytes of data taken out of containers, per scan
  uint32_t scanTimeMs = DefaultScanTimeMs;
  uint32_t recursion = 17;               // containers within containers
  uint32_t files = 10000;                // files taken out of containers, per scan
};

// settings' size_limit (bytes) and time_limit (seconds) where set, the defaults otherwise.
EngineLimits LimitsFor(const HostOptions& options) noexcept;
cl_error_t ApplyLimits(cl_engine* engine, const EngineLimits& limits) noexcept;

// The name libclamav reports when a limit stopped it, as a reason; nothing for a threat.
std::optional<UnscannedReason> LimitNamed(std::string_view name) noexcept;
UnscannedReason ReasonOfError(cl_error_t error) noexcept;

// Where a scan of the first `limit` bytes of a file of `size` may stop: after its last data
// byte before the limit, since a sparse file's holes read as zeros and hold nothing, so the
// scan costs what the file holds rather than what it claims. The limit when the extents
// cannot be told (no SEEK_DATA) or are too many to walk.
uint64_t HeadScanLength(int fd, uint64_t size, uint64_t limit) noexcept;

}  // namespace oasd
