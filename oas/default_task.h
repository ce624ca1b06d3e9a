// The name of the default on-access task, as the host's task manager knows it.
#pragma once

namespace nox::oas {

inline constexpr char16_t Name4DefaultOasTask[] = u"File_Threat_Protection";

}  // namespace nox::oas
