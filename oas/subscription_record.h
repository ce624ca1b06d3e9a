// Turns the on-access settings into the events provider's subscription record: the
// enabled scan areas, the enabled exclusions, and the action mask.
#pragma once

#include <cstdint>

#include "interfaces/nox/file_events.h"
#include "settings/oas_settings.h"

namespace nox::oas {

nox::FileEventsSubscription MakeSubscription(const nox::settings::OASSettings& settings,
                                             uint32_t actionMask);

}  // namespace nox::oas
