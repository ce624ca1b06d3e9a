// The interception layer's action mask: built from the host's four filter flags and
// printed by name for the start-up trace. Stateless apart from the name table, which is
// built once on first use.
#pragma once

#include <cstdint>
#include <string>

namespace nox::oas {

// Flag 0x1 open, 0x2 exec, 0x4 close-after-write, 0x8 rename; other bits are ignored.
uint32_t FlagsToActionMask(uint32_t flags) noexcept;

// " NAME|NAME|..." for every action bit the mask shares; empty for an empty mask.
std::string ActionMaskText(uint32_t mask);

}  // namespace nox::oas
