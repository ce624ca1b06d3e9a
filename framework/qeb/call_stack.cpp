// Capturing return addresses at a throw and turning them into text. The loaded-module
// list is taken afresh for each formatting call and owned by that call only, so a
// library unloaded since the throw can never be named from stale data; captured
// stacks are plain address lists owned by the exception that holds them.
#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <string_view>

#include "framework/qeb/exception.h"

namespace qeb {
namespace {

constexpr int kMaxFrames = 64;

struct Module {
  uintptr_t base;
  uintptr_t size;
  std::string name;
};

std::string_view BaseName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

int CollectModule(dl_phdr_info* info, size_t, void* data) {
  uintptr_t low = UINTPTR_MAX;
  uintptr_t high = 0;
  for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD) continue;
    low = std::min<uintptr_t>(low, ph.p_vaddr);
    high = std::max<uintptr_t>(high, ph.p_vaddr + ph.p_memsz);
  }
  if (low >= high) return 0;
  // The main program reports an empty name.
  const char* path = info->dlpi_name && *info->dlpi_name ? info->dlpi_name
                                                          : program_invocation_short_name;
  auto* modules = static_cast<std::vector<Module>*>(data);
  modules->push_back({info->dlpi_addr + low, high - low, std::string(BaseName(path))});
  return 0;
}

std::vector<Module> LoadedModules() {
  std::vector<Module> modules;
  dl_iterate_phdr(CollectModule, &modules);
  std::sort(modules.begin(), modules.end(),
            [](const Module& a, const Module& b) { return a.base < b.base; });
  return modules;
}

// The module covering [base, base + size] that holds the address, or null.
const Module* FindModule(const std::vector<Module>& modules, uintptr_t address) {
  auto it = std::upper_bound(modules.begin(), modules.end(), address,
                             [](uintptr_t a, const Module& m) { return a < m.base; });
  if (it == modules.begin()) return nullptr;
  --it;
  return address - it->base <= it->size ? &*it : nullptr;
}

void AppendFrame(std::string& out, unsigned index, void* frame,
                 const std::vector<Module>& modules) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%2u# ", index);
  out += buf;
  const auto address = reinterpret_cast<uintptr_t>(frame);
  const Module* module = FindModule(modules, address);
  if (!module) {
    std::snprintf(buf, sizeof buf, "0x%" PRIxPTR "\n", address);
    out += buf;
    return;
  }
  Dl_info info{};
  const bool named = dladdr(frame, &info) != 0 && info.dli_sname != nullptr;
  out += module->name;
  out += '!';
  out += named ? std::string_view(info.dli_sname) : std::string_view(module->name);
  std::snprintf(buf, sizeof buf, "!0x%" PRIxPTR "\n", address - module->base);
  out += buf;
}

}  // namespace

std::vector<void*> CaptureCallStack(unsigned skip) {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  // This function's own frame is always the first one.
  const unsigned first = std::min<unsigned>(skip, static_cast<unsigned>(count));
  return std::vector<void*>(frames + first, frames + count);
}

std::string FormatCallStack(const std::vector<void*>& frames) {
  std::string out;
  if (frames.empty()) return out;
  const std::vector<Module> modules = LoadedModules();
  for (size_t i = 0; i < frames.size(); ++i)
    AppendFrame(out, static_cast<unsigned>(i), frames[i], modules);
  return out;
}

}  // namespace qeb
