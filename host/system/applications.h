// The host's application catalogue: applications are known by the base name of their
// executable, each with one category, from HostOptions::applications. Owns a copy of that
// map under a mutex (a reload replaces it); application and category objects it hands out
// own copies of their path and name and outlive any reload.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "framework/qeb/host_object.h"
#include "interfaces/nox/applications.h"

namespace oasd {

class ApplicationCatalog
    : public qeb::object::Ifaces<nox::IApplicationProvider, nox::IApplicationCategorizer> {
 public:
  // executable base name -> category name, e.g. {"postgres", "PostgreSQL"}
  explicit ApplicationCatalog(std::map<std::string, std::string> applications);

  void Reload(std::map<std::string, std::string> applications);

  // An application for any executable (categorised or not); NotFound for an empty path.
  qeb::result_t GetApplicationByPath(const char* path, nox::IApplication** application) noexcept override;
  qeb::result_t CategorizeFirst(nox::IApplication* application, nox::ICategory** category) noexcept override;

 private:
  const std::string* CategoryOf(const std::string& path) const;  // m_mutex held

  mutable std::mutex m_mutex;
  std::map<std::string, std::string> m_applications;
};

}  // namespace oasd
