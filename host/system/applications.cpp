// Applications are matched by the base name of the executable path, so a server run from
// any install prefix lands in its category. The objects handed out are immutable.
#include "host/system/applications.h"

#include <utility>

#include "framework/qeb/utf.h"

namespace oasd {
namespace {

class Application : public qeb::object::Ifaces<nox::IApplication> {
 public:
  explicit Application(std::string path) : m_path(std::move(path)) {}

  qeb::result_t GetPath(std::string& path) noexcept override {
    try {
      path = m_path;
      return qeb::res::Ok;
    } catch (...) {
      return qeb::res::OutOfMemory;
    }
  }

 private:
  const std::string m_path;
};

class Category : public qeb::object::Ifaces<nox::ICategory> {
 public:
  explicit Category(std::u16string name) : m_name(std::move(name)) {}

  qeb::result_t GetName(std::u16string& name) noexcept override {
    try {
      name = m_name;
      return qeb::res::Ok;
    } catch (...) {
      return qeb::res::OutOfMemory;
    }
  }

 private:
  const std::u16string m_name;
};

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

ApplicationCatalog::ApplicationCatalog(std::map<std::string, std::string> applications)
    : m_applications(std::move(applications)) {}

void ApplicationCatalog::Reload(std::map<std::string, std::string> applications) {
  std::lock_guard lock(m_mutex);
  m_applications.swap(applications);
}

const std::string* ApplicationCatalog::CategoryOf(const std::string& path) const {
  auto it = m_applications.find(BaseName(path));
  return it == m_applications.end() ? nullptr : &it->second;
}

qeb::result_t ApplicationCatalog::GetApplicationByPath(const char* path,
                                                       nox::IApplication** application) noexcept {
  if (!path || !application) return qeb::res::InvalidArgument;
  *application = nullptr;
  // Every executable is an application; most simply have no category. Refusing the
  // uncategorised ones would make every check of an ordinary process an error. Only a
  // process without an image (gone, or a kernel thread) has none.
  if (*path == '\0') return qeb::res::NotFound;
  try {
    *application = qeb::host::MakeHostObject<Application>(std::string(path)).Detach();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t ApplicationCatalog::CategorizeFirst(nox::IApplication* application,
                                                  nox::ICategory** category) noexcept {
  if (!application || !category) return qeb::res::InvalidArgument;
  *category = nullptr;
  try {
    std::string path;
    const qeb::result_t r = application->GetPath(path);
    if (QEB_FAILED(r)) return r;
    std::string name;
    {
      std::lock_guard lock(m_mutex);
      const std::string* found = CategoryOf(path);
      if (!found) return qeb::res::Ok;  // forgotten by a reload: no category
      name = *found;
    }
    *category = qeb::host::MakeHostObject<Category>(qeb::Utf8ToUtf16(name)).Detach();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

}  // namespace oasd
