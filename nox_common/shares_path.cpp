// The recognised share prefixes are deliberately few: a scan area written as a plain
// mount point of a share is a local path to this check, since its files do not depend
// on which shares exist.
#include "nox_common/shares_path.h"

#include <array>

namespace nox::tools {
namespace {

constexpr std::array<std::string_view, 5> kSharePrefixes = {"//", "smb://", "cifs://", "nfs://",
                                                            "nfs4://"};

// The text after a share prefix up to the next slash: the host part.
std::string_view HostPart(std::string_view rest) noexcept {
  const auto slash = rest.find('/');
  return slash == std::string_view::npos ? rest : rest.substr(0, slash);
}

}  // namespace

SharesPathKind ClassifySharesPath(std::string_view path) noexcept {
  for (const std::string_view prefix : kSharePrefixes) {
    if (!path.starts_with(prefix)) continue;
    const std::string_view host = HostPart(path.substr(prefix.size()));
    return host.empty() || host == "*" ? SharesPathKind::ShareClass : SharesPathKind::OneShare;
  }
  return SharesPathKind::Local;
}

// An excluded class of shares counts as much as a scanned one: which files it takes out
// of scope changes as shares come and go.
bool NeedsSharesSubscription(const nox::settings::OASSettings& settings) noexcept {
  const auto dependsOnShares = [](const auto& areas) {
    for (const auto& area : areas)
      if (area.use_scan_area && ClassifySharesPath(area.path) == SharesPathKind::ShareClass)
        return true;
    return false;
  };
  const auto& scope = settings.ScanScopeWithTrustedPrograms;
  return dependsOnShares(scope.scan_scope) || dependsOnShares(scope.excluded_from_scan_scope);
}

}  // namespace nox::tools
