// Disabled areas are left out here rather than passed on with their flag: the provider
// marks filesystems from this list, and a disabled area must cost it nothing.
#include "oas/subscription_record.h"

namespace nox::oas {

nox::FileEventsSubscription MakeSubscription(const nox::settings::OASSettings& settings,
                                             uint32_t actionMask) {
  const auto& scope = settings.ScanScopeWithTrustedPrograms;
  nox::FileEventsSubscription subscription;
  for (const auto& area : scope.scan_scope)
    if (area.use_scan_area) subscription.scanAreas.push_back({area.path, area.area_mask});
  for (const auto& area : scope.excluded_from_scan_scope)
    if (area.use_scan_area) subscription.excludedAreas.push_back({area.path, area.area_mask});
  subscription.flags = actionMask;
  return subscription;
}

}  // namespace nox::oas
