// Event records as the fake host's provider would deliver them: a host process opening a
// file, with a reply handle so the module processes it. Callers adjust what they test.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string_view>

#include "interfaces/vrel/event_params.h"
#include "nox_common/container_identification_tools.h"

namespace qeb::testing {

inline vrel::EventParams MakeOpenEvent(uint64_t cookie, std::string_view name) {
  vrel::EventParams p;
  p.fileName = name;
  p.cookie = cookie;
  p.uid = 1000;
  p.pid = getpid();
  p.fd = 42;
  p.nsid = nox::containers::GetOwnMountNamespaceId();
  p.dev = 2049;
  p.ino = cookie;
  p.oper = vrel::VREL_ACTION_OPEN;
  p.replyHandle = 1;
  return p;
}

}  // namespace qeb::testing
