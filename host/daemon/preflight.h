// What --check-config asks beyond the configuration's own shape: that the run it describes
// can start. Owns nothing past the call; the module and the signatures it loads to find
// out are let go before it returns.
#pragma once

#include "host/common/host_options.h"

namespace oasd {

// Throws ConfigError naming the key when the module does not load, the signatures do not
// load, or an output file could not be opened as the daemon opens it; and when the file
// type database does not load.
void CheckRunNeeds(const HostOptions& options);

}  // namespace oasd
