// The host's application catalogue: an application object for an executable image, the
// categories the host files applications under, and their names. Every object here is
// the host's; callers hold them through objptr_t only and may share them across threads.
#pragma once

#include <string>

#include "interfaces/qeb/object.h"

namespace nox {

// An application the host knows, identified by its executable image.
struct IApplication : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x2C8E4A17;
  using BaseInterface = qeb::IObject;

  // The image path the application was resolved from.
  virtual qeb::result_t GetPath(std::string& path) noexcept = 0;

 protected:
  ~IApplication() = default;
};

// A named group of applications ("PostgreSQL" and the like).
struct ICategory : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x5B07D3E9;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetName(std::u16string& name) noexcept = 0;

 protected:
  ~ICategory() = default;
};

struct IApplicationProvider : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x163BDB22;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetApplicationByPath(const char* path, IApplication** application) noexcept = 0;

 protected:
  ~IApplicationProvider() = default;
};

struct IApplicationCategorizer : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x12536E52;
  using BaseInterface = qeb::IObject;

  // The application's first category. Success with a null category means it has none.
  virtual qeb::result_t CategorizeFirst(IApplication* application, ICategory** category) noexcept = 0;

 protected:
  ~IApplicationCategorizer() = default;
};

}  // namespace nox
