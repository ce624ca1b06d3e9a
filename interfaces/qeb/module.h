// The two functions a module exports, as the host resolves them after loading it.
#pragma once

#include <cstdint>

#include "interfaces/qeb/object.h"

extern "C" {
using qebCreateObject_t = qeb::result_t (*)(uint32_t classId, qeb::IServiceLocator* locator,
                                           qeb::IObject** object);
// 0: the module may be unloaded; 1: objects of the module are still alive.
using qebCanUnloadModule_t = uint32_t (*)();
}

namespace qeb {
constexpr uint32_t CLSID_FileInterceptor = 0x1cf30c89;
constexpr uint32_t CLSID_DeliberateCrash = 0xbad1bad1;
}  // namespace qeb
