// The name table walks in its declared order, so the printed names always appear in
// the same order whatever order the bits were requested in.
#include "oas/filter_mask.h"

#include <array>
#include <utility>

#include "interfaces/vrel/file_interceptor.h"

namespace nox::oas {
namespace {

struct ActionName {
  uint32_t value;
  const char* name;
};

const std::array<ActionName, 8>& ActionNames() {
  static const std::array<ActionName, 8> names = {{
      {vrel::VREL_ACTION_FILTER_NONE, "VREL_ACTION_FILTER_NONE"},
      {vrel::VREL_ACTION_FILTER_OPEN, "VREL_ACTION_FILTER_OPEN"},
      {vrel::VREL_ACTION_FILTER_EXEC, "VREL_ACTION_FILTER_EXEC"},
      {vrel::VREL_ACTION_FILTER_CLOSE, "VREL_ACTION_FILTER_CLOSE"},
      {vrel::VREL_ACTION_FILTER_CLOSE_MODIFIED, "VREL_ACTION_FILTER_CLOSE_MODIFIED"},
      {vrel::VREL_ACTION_FILTER_RENAME, "VREL_ACTION_FILTER_RENAME"},
      {vrel::VREL_ACTION_FILTER_ACCESS, "VREL_ACTION_FILTER_ACCESS"},
      {vrel::VREL_ACTION_FILTER_ONDIR, "VREL_ACTION_FILTER_ONDIR"},
  }};
  return names;
}

}  // namespace

uint32_t FlagsToActionMask(uint32_t flags) noexcept {
  static constexpr std::pair<uint32_t, uint32_t> kFlagToAction[] = {
      {0x1, vrel::VREL_ACTION_FILTER_OPEN},
      {0x2, vrel::VREL_ACTION_FILTER_EXEC},
      {0x4, vrel::VREL_ACTION_FILTER_CLOSE_MODIFIED},
      {0x8, vrel::VREL_ACTION_FILTER_RENAME},
  };
  uint32_t mask = 0;
  for (const auto& [flag, action] : kFlagToAction)
    if (flags & flag) mask |= action;
  return mask;
}

std::string ActionMaskText(uint32_t mask) {
  std::string text;
  char separator = ' ';
  for (const auto& entry : ActionNames()) {
    if ((entry.value & mask) == 0) continue;
    text += separator;
    text += entry.name;
    separator = '|';
  }
  return text;
}

}  // namespace nox::oas
