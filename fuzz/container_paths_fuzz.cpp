// Fuzzes the container path helpers: ParseContainerScanPath over any text (most inputs are
// put under the scan folder or a process root so the deeper checks are reached), process-
// root stripping and the scan-area name. Checks that a parsed path puts back together into
// the text it came from. Stateless apart from one tracer kept for the run.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_tracer.h"
#include "nox_common/container_identification_tools.h"

namespace {

namespace containers = nox::containers;

std::string Narrow(const std::u16string& wide) {
  std::string text;
  for (const char16_t c : wide) {
    if (c > 0xFF) std::abort();  // widened from bytes, so never beyond one
    text.push_back(static_cast<char>(c));
  }
  return text;
}

std::string ConsumePath(FuzzedDataProvider& in) {
  const int prefix = in.ConsumeIntegralInRange(0, 2);
  std::string path = in.ConsumeRandomLengthString();
  if (prefix == 1) return std::string(containers::CONTAINER_SCAN_FOLDER) + path;
  if (prefix == 2) return "/proc/" + path;
  return path;
}

void CheckScanPath(const std::string& path) {
  containers::ContainerScanPath parsed;
  if (!containers::ParseContainerScanPath(&oas_fuzz::Tracer(), path, parsed)) return;
  const size_t folder = path.find(containers::CONTAINER_SCAN_FOLDER);
  if (folder == std::string::npos || parsed.innerPath.empty()) std::abort();
  const std::string rebuilt = Narrow(parsed.sessionId) + "/" + Narrow(parsed.containerId) + "/" +
                              parsed.innerPath;
  if (path.substr(folder + containers::CONTAINER_SCAN_FOLDER.size()) != rebuilt) std::abort();
}

void CheckProcessRoot(const std::string& path) {
  const std::string stripped = containers::StripProcessRoot(path);
  if (stripped.empty()) return;
  if (path.rfind("/proc/", 0) != 0 || stripped.size() > 4096) std::abort();
  if (stripped.find_first_of(" \t\n\v\f\r") != std::string::npos) std::abort();
}

void CheckScanArea(FuzzedDataProvider& in) {
  containers::ContainerDescription d;
  d.isImage = in.ConsumeBool();
  d.id = in.ConsumeRandomLengthString();
  d.name = in.ConsumeRandomLengthString();
  const std::string text = containers::MakeScanAreaString(d);
  if (text.front() != '[' || text.back() != ']') std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const std::string path = ConsumePath(in);
  CheckScanPath(path);
  CheckProcessRoot(path);
  CheckScanArea(in);
  oas_fuzz::Tracer().Clear();
  return 0;
}
