// With CL_SCAN_HEURISTIC_EXCEEDS_MAX libclamav reports a hit limit as a detection named
// Heuristics.Limits.Exceeded.<limit>; without it, it answers clean. The limits are set on
// every engine explicitly, so what oasd promises does not drift with libclamav's defaults.
#include "host/engine/scan_limits.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "host/common/host_metrics.h"

namespace oasd {
namespace {

constexpr std::string_view kLimitPrefix = "Heuristics.Limits.Exceeded";
// A file cut into more pieces than this is scanned up to the limit, holes and all.
constexpr int kMaxExtents = 1024;

}  // namespace

const char* ReasonName(UnscannedReason reason) noexcept {
  return HostMetrics::UnprocessedReasons[static_cast<size_t>(reason)];
}

EngineLimits LimitsFor(const HostOptions& options) noexcept {
  const auto& base = options.settings.ScanSettings.ScanSettingsBase;
  EngineLimits limits;
  if (base.size_limit != 0) limits.fileSize = std::min(base.size_limit, EngineLimits::LargestFileSize);
  limits.scanSize = std::max(limits.scanSize, limits.fileSize);
  if (base.time_limit != 0) {
    constexpr uint64_t kLongest = std::numeric_limits<uint32_t>::max() / 1000;
    limits.scanTimeMs = static_cast<uint32_t>(std::min<uint64_t>(base.time_limit, kLongest) * 1000);
  }
  return limits;
}

cl_error_t ApplyLimits(cl_engine* engine, const EngineLimits& limits) noexcept {
  const std::pair<cl_engine_field, long long> values[] = {
      {CL_ENGINE_MAX_FILESIZE, static_cast<long long>(limits.fileSize)},
      {CL_ENGINE_MAX_SCANSIZE, static_cast<long long>(limits.scanSize)},
      {CL_ENGINE_MAX_SCANTIME, limits.scanTimeMs},
      {CL_ENGINE_MAX_RECURSION, limits.recursion},
      {CL_ENGINE_MAX_FILES, limits.files},
  };
  for (const auto& [field, value] : values)
    if (const cl_error_t r = cl_engine_set_num(engine, field, value); r != CL_SUCCESS) return r;
  return CL_SUCCESS;
}

std::optional<UnscannedReason> LimitNamed(std::string_view name) noexcept {
  if (!name.starts_with(kLimitPrefix)) return std::nullopt;
  if (name.find("MaxFileSize") != std::string_view::npos) return UnscannedReason::SizeLimit;
  if (name.find("MaxScanTime") != std::string_view::npos) return UnscannedReason::TimeLimit;
  return UnscannedReason::ScanLimit;
}

UnscannedReason ReasonOfError(cl_error_t error) noexcept {
  switch (error) {
    case CL_ETIMEOUT: return UnscannedReason::TimeLimit;
    case CL_EMAXREC:
    case CL_EMAXSIZE:
    case CL_EMAXFILES: return UnscannedReason::ScanLimit;
    default: return UnscannedReason::ScanError;
  }
}

uint64_t HeadScanLength(int fd, uint64_t size, uint64_t limit) noexcept {
  const uint64_t window = std::min(size, limit);
  uint64_t end = 0;
  off_t at = 0;
  for (int extent = 0; extent < kMaxExtents; ++extent) {
    const off_t data = ::lseek(fd, at, SEEK_DATA);
    if (data < 0) return errno == ENXIO ? end : window;  // ENXIO: no data past `at`
    if (static_cast<uint64_t>(data) >= window) return end;
    const off_t hole = ::lseek(fd, data, SEEK_HOLE);
    if (hole < 0) return window;
    end = std::min(static_cast<uint64_t>(hole), window);
    if (end == window) return window;
    at = hole;
  }
  return window;
}

}  // namespace oasd
