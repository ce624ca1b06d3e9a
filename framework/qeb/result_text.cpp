// Message tables for the general (facility 0) and platform (facility 1) result codes,
// and the printed form of a result. The tables are constant, sorted by code and live
// in static storage; lookups hand out views into them and never allocate.
// Nothing here owns state that outlives a call.
#include "framework/qeb/result_text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace qeb {
namespace {

struct Entry {
  uint32_t code;
  std::string_view message;
};

constexpr std::string_view kUnknown = "Unknown result code";

// Unlisted codes between entries are deliberate gaps and must stay unknown.
constexpr Entry kGeneral[] = {
    {0x00000000, "No error"},
    {0x00000001, "False"},
    {0x80000001, "Interface not supported"},
    {0x80000040, "Unexpected"},
    {0x80000041, "Out of memory"},
    {0x80000042, "Not supported"},
    {0x80000043, "Not implemented"},
    {0x80000044, "Buffer too small"},
    {0x80000045, "Access denied"},
    {0x80000046, "Invalid argument"},
    {0x80000047, "Bad cast"},
    {0x8000004A, "Not matched"},
    {0x8000004B, "Unspecified error"},
    {0x8000004C, "Not found"},
    {0x8000004D, "Found"},
    {0x8000004F, "Locked"},
    {0x80000050, "Not locked"},
    {0x80000051, "Operation cancelled"},
    {0x80000057, "Method not found"},
    {0x80000058, "Stack is empty"},
    {0x80000059, "Media error"},
    {0x8000005A, "Invalid signature"},
    {0x8000005B, "Invalid version"},
    {0x8000005C, "Invalid size"},
    {0x8000005D, "Invalid type"},
    {0x8000005E, "Out of range"},
    {0x80000062, "Out of space"},
    {0x80000063, "Not ready"},
    {0x80000064, "Less than"},
    {0x80000065, "More than"},
    {0x80000066, "Prohibited"},
    {0x80000067, "Already done"},
    {0x80000068, "Need reboot"},
    {0x80000069, "Bases corrupted"},
    {0x8000006A, "Invalid state"},
    {0x8000006B, "Not initialized"},
    {0x8000006C, "Insufficient resources"},
    {0x80000071, "Invalid result"},
    {0x80000072, "Unknown exception"},
    {0x80000076, "Meta information not found"},
    {0x80000077, "Numerical type overflow"},
    {0x80000078, "File is too big"},
    // A failure value by its encoding, kept so on purpose.
    {0x80000079, "Trace level ok"},
    {0x8000007A, "Trace level prohibited"},
    {0x80000100, "Class not found"},
    {0x80000101, "Settings are required"},
    {0x80000102, "Unexpected settings"},
    {0x80000103, "Wrong settings type"},
    {0x80000104, "Wrong settings revision"},
    {0x80000105, "Settings not found"},
    {0x80000106, "Object is untrusted"},
    {0x80000150, "No current exception"},
    {0x80000151, "Exception has no result code"},
    {0x80000152, "Exception with successful result code"},
    {0x80000180, "Property not found"},
    {0x80000221, "Operation timeout"},
    {0x80000300, "Invalid symbol"},
    {0x80000301, "Non dec symbol"},
    {0x80000302, "Non hex symbol"},
    {0x80000303, "Non base64 symbol"},
    {0x80000310, "Syntax error"},
    {0x80000311, "GUID syntax error"},
    {0x80000312, "OID syntax error"},
    {0x80000313, "DateTime syntax error"},
};

// 0x8001010A to 0x8001010F are unassigned.
constexpr Entry kPlatform[] = {
    {0x80010100, "Unspecified platform error"},
    {0x80010101, "Invalid handle"},
    {0x80010102, "File not found"},
    {0x80010103, "Path not found"},
    {0x80010104, "Sharing violation"},
    {0x80010105, "Already exists"},
    {0x80010106, "Wait abandoned"},
    {0x80010107, "Symbol not found"},
    {0x80010108, "Sxs is incorrect"},
    {0x80010109, "Invalid path name"},
    {0x80010110, "Cannot open an anonymous level security token"},
    {0x80010111, "Password is invalid"},
    {0x80010112, "Module not found"},
    {0x80010113, "System image bad signature"},
    {0x80010114, "Cloud file request aborted"},
    {0x80010115, "Memory mapping failed"},
    {0x80010116, "Network error"},
    {0x80010117, "System image bad format"},
    {0x80010118, "System shutdown in progress"},
};

constexpr bool IsSorted(const Entry* first, const Entry* last) {
  for (const Entry* e = first; e + 1 < last; ++e)
    if (e->code >= (e + 1)->code) return false;
  return true;
}
static_assert(IsSorted(std::begin(kGeneral), std::end(kGeneral)));
static_assert(IsSorted(std::begin(kPlatform), std::end(kPlatform)));

template <size_t N>
std::string_view Find(const Entry (&table)[N], uint32_t code) noexcept {
  const auto it = std::lower_bound(std::begin(table), std::end(table), code,
                                   [](const Entry& e, uint32_t c) { return e.code < c; });
  return it != std::end(table) && it->code == code ? it->message : kUnknown;
}

constexpr uint32_t Facility(uint32_t code) noexcept { return (code >> 16) & 0x7FFF; }

}  // namespace

std::string_view ResultMessage(result_t r) noexcept {
  const auto code = static_cast<uint32_t>(r);
  switch (Facility(code)) {
    case 0: return Find(kGeneral, code);
    case 1: return Find(kPlatform, code);
    default: return kUnknown;
  }
}

void AppendResultText(std::string& out, result_t r) {
  char hex[16];
  const int n = std::snprintf(hex, sizeof hex, "0x%08x (", static_cast<uint32_t>(r));
  const std::string_view message = ResultMessage(r);
  out.reserve(out.size() + static_cast<size_t>(n) + message.size() + 1);
  out.append(hex, static_cast<size_t>(n));
  out.append(message);
  out.push_back(')');
}

std::string ResultText(result_t r) {
  std::string out;
  AppendResultText(out, r);
  return out;
}

}  // namespace qeb
