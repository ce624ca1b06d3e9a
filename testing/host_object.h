// The fakes build their objects with the host object wrapper: reference counted, but never
// counted as module objects, so the unload tests see only what the module itself holds.
#pragma once

#include "framework/qeb/host_object.h"

namespace qeb::testing {
using host::HostObject;
using host::MakeHostObject;
}  // namespace qeb::testing
