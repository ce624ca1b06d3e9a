// Application and category objects are small host objects over the shared table: an
// application is only its image path, and the categorizer looks the path up again when
// asked, so a table change between the two steps is seen as a live host would see it.
#include "testing/fake_applications.h"

#include <map>
#include <mutex>
#include <utility>

#include "testing/fault_injection.h"
#include "testing/host_object.h"

namespace qeb::testing {

struct FakeApplicationCatalog::State {
  mutable std::mutex mutex;
  std::map<std::string, std::vector<std::u16string>> applications;
  result_t categorizeFailure = res::Ok;
};

namespace {

class FakeApplication : public object::Ifaces<nox::IApplication> {
 public:
  explicit FakeApplication(std::string path) : m_path(std::move(path)) {}

  result_t GetPath(std::string& path) noexcept override {
    OAS_FAULT_POINT("application GetPath");
    try {
      path = m_path;
      return res::Ok;
    } catch (...) {
      return res::OutOfMemory;
    }
  }

 private:
  std::string m_path;
};

class FakeCategory : public object::Ifaces<nox::ICategory> {
 public:
  explicit FakeCategory(std::u16string name) : m_name(std::move(name)) {}

  result_t GetName(std::u16string& name) noexcept override {
    OAS_FAULT_POINT("category GetName");
    try {
      name = m_name;
      return res::Ok;
    } catch (...) {
      return res::OutOfMemory;
    }
  }

 private:
  std::u16string m_name;
};

}  // namespace

FakeApplicationCatalog::FakeApplicationCatalog() : m_state(std::make_shared<State>()) {}

result_t FakeApplicationCatalog::GetApplicationByPath(const char* path,
                                                      nox::IApplication** application) noexcept {
  if (!path || !application) return res::InvalidArgument;
  *application = nullptr;
  OAS_FAULT_POINT("application provider GetApplicationByPath");
  try {
    std::lock_guard lock(m_state->mutex);
    if (!m_state->applications.count(path)) return res::NotFound;
    *application = MakeHostObject<FakeApplication>(path).Detach();
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

result_t FakeApplicationCatalog::CategorizeFirst(nox::IApplication* application,
                                                 nox::ICategory** category) noexcept {
  if (!application || !category) return res::InvalidArgument;
  *category = nullptr;
  OAS_FAULT_POINT("application categorizer CategorizeFirst");
  try {
    std::string path;
    const result_t r = application->GetPath(path);
    if (QEB_FAILED(r)) return r;
    std::lock_guard lock(m_state->mutex);
    if (QEB_FAILED(m_state->categorizeFailure)) return m_state->categorizeFailure;
    const auto it = m_state->applications.find(path);
    if (it == m_state->applications.end()) return res::NotFound;
    if (it->second.empty()) return res::Ok;
    *category = MakeHostObject<FakeCategory>(it->second.front()).Detach();
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

void FakeApplicationCatalog::AddApplication(const std::string& imagePath,
                                            std::vector<std::u16string> categories) {
  std::lock_guard lock(m_state->mutex);
  m_state->applications[imagePath] = std::move(categories);
}

void FakeApplicationCatalog::FailCategorize(result_t code) {
  std::lock_guard lock(m_state->mutex);
  m_state->categorizeFailure = code;
}

void FakeApplicationCatalog::RegisterWith(FakeServiceLocator& locator) {
  locator.Register(nox::IApplicationProvider::IID, 0, static_cast<nox::IApplicationProvider*>(this));
  locator.Register(nox::IApplicationCategorizer::IID, 0, static_cast<nox::IApplicationCategorizer*>(this));
}

}  // namespace qeb::testing
