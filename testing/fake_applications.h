// The fake application catalogue: one host object that is both the application provider
// and the application categorizer. It owns a table from image path to the application's
// categories in order, read again at each step, so a failure scripted after an
// application was handed out applies to it, as with a live host.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/applications.h"
#include "testing/fake_service_locator.h"

namespace qeb::testing {

class FakeApplicationCatalog
    : public object::Ifaces<nox::IApplicationProvider, nox::IApplicationCategorizer> {
 public:
  FakeApplicationCatalog();

  // NotFound for an image path the catalogue does not hold.
  result_t GetApplicationByPath(const char* path, nox::IApplication** application) noexcept override;
  // The first category, or success with null when the application has none.
  result_t CategorizeFirst(nox::IApplication* application, nox::ICategory** category) noexcept override;

  // Adds or replaces the application of imagePath; an empty list means no category.
  void AddApplication(const std::string& imagePath, std::vector<std::u16string> categories);

  // Categorizing answers code until restored with res::Ok.
  void FailCategorize(result_t code);

  // As IApplicationProvider and IApplicationCategorizer under key 0.
  void RegisterWith(FakeServiceLocator& locator);

  struct State;

 private:
  std::shared_ptr<State> m_state;
};

}  // namespace qeb::testing
