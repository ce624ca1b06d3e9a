// Loading liboas.so: the dlopen handle and the two entry points resolved from it. The
// loader owns the handle only; objects the module creates belong to whoever asked for
// them and must all be released before Unload, which refuses to unmap a module that
// still reports live objects (its code would vanish under them).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "host/common/host_options.h"
#include "interfaces/qeb/module.h"

namespace oasd {

// HostOptions::modulePath, else liboas.so next to the running executable, else the
// install directory; the first that exists, or the install path when none does.
std::string FindModule(const HostOptions& options);

class ModuleLoader {
 public:
  ModuleLoader() = default;
  ~ModuleLoader();
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;

  // Throws std::runtime_error naming the path and the loader's reason.
  void Load(const std::string& path);
  qeb::result_t CreateObject(uint32_t classId, qeb::IServiceLocator* locator,
                             qeb::IObject** object) const noexcept;
  bool CanUnload() const noexcept;
  // Waits up to timeout for the module's objects to go, then unmaps it. False (and the
  // module left mapped) when objects are still alive.
  bool Unload(std::chrono::milliseconds timeout) noexcept;

 private:
  void* m_handle = nullptr;
  qebCreateObject_t m_create = nullptr;
  qebCanUnloadModule_t m_canUnload = nullptr;
};

}  // namespace oasd
