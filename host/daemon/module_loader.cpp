// The unload wait polls: the module has no way to announce that its last object went,
// and a few milliseconds' latency at shutdown costs nothing.
#include "host/daemon/module_loader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

namespace oasd {
namespace {

constexpr const char* kModuleFile = "liboas.so";

std::string ExecutableDirectory() {
  std::error_code error;
  const auto exe = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : exe.parent_path().string();
}

std::string DlError() {
  const char* text = dlerror();
  return text ? text : "unknown error";
}

}  // namespace

std::string FindModule(const HostOptions& options) {
  if (!options.modulePath.empty()) return options.modulePath;
  const std::string exeDir = ExecutableDirectory();
  if (!exeDir.empty()) {
    const std::string beside = exeDir + "/" + kModuleFile;
    if (::access(beside.c_str(), R_OK) == 0) return beside;
  }
  return std::string(OASD_INSTALL_MODULE_DIR) + "/" + kModuleFile;
}

ModuleLoader::~ModuleLoader() { Unload(std::chrono::milliseconds(0)); }

void ModuleLoader::Load(const std::string& path) {
  if (m_handle) throw std::runtime_error("a module is already loaded");
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) throw std::runtime_error("cannot load " + path + ": " + DlError());
  auto create = reinterpret_cast<qebCreateObject_t>(dlsym(handle, "qebCreateObject"));
  auto canUnload = reinterpret_cast<qebCanUnloadModule_t>(dlsym(handle, "qebCanUnloadModule"));
  if (!create || !canUnload) {
    dlclose(handle);
    throw std::runtime_error(path + " does not export qebCreateObject and qebCanUnloadModule");
  }
  m_handle = handle;
  m_create = create;
  m_canUnload = canUnload;
}

qeb::result_t ModuleLoader::CreateObject(uint32_t classId, qeb::IServiceLocator* locator,
                                         qeb::IObject** object) const noexcept {
  if (!m_create) return qeb::res::NotReady;
  return m_create(classId, locator, object);
}

bool ModuleLoader::CanUnload() const noexcept { return !m_canUnload || m_canUnload() == 0; }

bool ModuleLoader::Unload(std::chrono::milliseconds timeout) noexcept {
  if (!m_handle) return true;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!CanUnload() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!CanUnload()) return false;
  dlclose(m_handle);
  m_handle = nullptr;
  m_create = nullptr;
  m_canUnload = nullptr;
  return true;
}

}  // namespace oasd
