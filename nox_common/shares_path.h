// Classifies scan-area paths by how they refer to network shares, so the interceptor
// knows whether the set of files in scope changes when shares come and go.
#pragma once

#include <string_view>

#include "settings/oas_settings.h"

namespace nox::tools {

enum class SharesPathKind {
  Local = 0,        // an ordinary path: /home, /srv/data
  OneShare = 1,     // one named share: //server/share, smb://server/share, nfs://host/export
  ShareClass = 2,   // every share of a kind: //*, smb://*, nfs://*, cifs://*, and "*" hosts
};

// A share URL whose host part is "*" (or empty, as in "smb://") denotes every share of
// that protocol; one with a host names one share; anything else is a local path.
SharesPathKind ClassifySharesPath(std::string_view path) noexcept;

// True when an enabled area, scanned or excluded, denotes a class of shares.
bool NeedsSharesSubscription(const nox::settings::OASSettings& settings) noexcept;

}  // namespace nox::tools
