// liboas.so as a host loads it: dlopen'ed, reached only through its two exported entry
// points. The handle is owned here and closed only when the module says it may be
// unloaded, so a test that leaks a module object cannot unmap code still referenced.
#pragma once

#include <dlfcn.h>

#include <string>

#include "interfaces/qeb/module.h"

namespace qeb::testing {

class LoadedModule {
 public:
  explicit LoadedModule(const char* path) : m_handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (!m_handle) {
      m_error = dlerror();
      return;
    }
    create = reinterpret_cast<qebCreateObject_t>(dlsym(m_handle, "qebCreateObject"));
    canUnload = reinterpret_cast<qebCanUnloadModule_t>(dlsym(m_handle, "qebCanUnloadModule"));
    if (!create || !canUnload) m_error = "entry points missing";
  }
  ~LoadedModule() {
    if (m_handle && canUnload && canUnload() == 0) dlclose(m_handle);
  }
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  bool Loaded() const { return m_error.empty(); }
  const std::string& Error() const { return m_error; }

  qebCreateObject_t create = nullptr;
  qebCanUnloadModule_t canUnload = nullptr;

 private:
  void* m_handle;
  std::string m_error;
};

}  // namespace qeb::testing
